// The desired sets of a soak: how a round changes the set the agent drives,
// and how the file the agent reads is replaced.
//
//   MplsSoak::Random rng(roundSeed);
//   MplsSoak::NextSet next = MplsSoak::nextSet(current, {1, 2}, 2000, rng);
//   MplsSoak::writeSet(file, next.set, next.description);  // atomically
//   // next.changes: the writes and removes the agent has to make
//
// A round either takes a new generated set (what mpls-agent --generate N
// --seed S --churn P makes, with N, S and P drawn; a new S replaces nearly
// every key) or edits the current one: some entries dropped, some pointed
// at another adjacency or in-LIF, some labels added, and now and then an
// in-LIF in use given other data. Every set is checked with the agent's own
// reader before it is used, so a set the agent would refuse is a soak bug,
// found before the agent sees it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/mpls-agent/DesiredSet.h"
#include "tools/mpls-soak/Random.h"

namespace MplsSoak {

struct NextSet {
  MplsAgent::DesiredSet set;
  std::string description; // e.g. "generated 1742 seed 9 churn 12"
  std::size_t changes = 0; // writes and removes from the current set
};

// The first set of a run: `labels` per table and unit, churn 0.
NextSet firstSet(const std::vector<Asic::UnitId> &units, std::uint32_t labels,
                 std::uint64_t genSeed);

// The set a round changes to. `labels` is the run's size per table and
// unit; `genSeed` the first of the few seeds generated sets are drawn from.
NextSet nextSet(const MplsAgent::DesiredSet &current,
                const std::vector<Asic::UnitId> &units, std::uint32_t labels,
                std::uint64_t genSeed, Random &rng);

// Writes the set to `path` in the file format, with `header` as its first
// comment, atomically: a reader sees the old file or the new one, whole.
// The file is read back with the agent's reader first. Throws
// std::runtime_error when it cannot be written or does not read back as
// the same set.
void writeSet(const std::string &path, const MplsAgent::DesiredSet &set,
              const std::vector<Asic::UnitId> &units,
              const std::string &header);

} // namespace MplsSoak
