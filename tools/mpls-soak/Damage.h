// Damage to the agent's store, as a stray write or a bad memory cell would
// do it: one live record of a unit's configuration table or of a table
// type's change log gets bytes that no longer match its checksum.
//
//   MplsSoak::Random rng(seed);
//   auto d = MplsSoak::damageRecord(store + "/mpls-agent.0", {1, 2},
//                                   MplsSoak::DamageTarget::changeLog, rng);
//   if (d) std::printf("damaged %s\n", d->what.c_str());
//
// A live slot is found the way the store's mount finds one (platform/shm/
// Format.h): a seal with the tag and a checksum over the record's bytes,
// seeded with the seal, that matches. One byte of the record (never the
// slot header) is flipped, and the slot is read back to be sure its
// checksum fails now.
//
// REQUIRES: no process has the instance open for writing (the agent is
// stopped). Only the agent's instance is touched, never the hardware
// writer's: its tables stand for the chip.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/asic/Types.h"
#include "tools/mpls-soak/Random.h"

namespace MplsSoak {

enum class DamageTarget { configuration, changeLog };

struct Damaged {
  DamageTarget target = DamageTarget::configuration;
  std::string file; // the entity file
  std::string what; // the record: table, unit, key or version
};

// Damages one live record, of the kind `prefer` when the store holds one
// (a change log can be empty: the agent retires what the hardware took),
// else of the other kind. Nothing when no live record is found at all.
// Throws std::system_error when a file that was found cannot be written.
std::optional<Damaged> damageRecord(const std::string &instanceDir,
                                    const std::vector<Asic::UnitId> &units,
                                    DamageTarget prefer, Random &rng);

} // namespace MplsSoak
