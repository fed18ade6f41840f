// The relaunch record of an agent: its generation numbers, kept in the state
// database at "hardware/gleam/agent/relaunch/config/<agent name>" so that the
// agent and whatever supervises it read the same record.
//
//   Asic::GenId::Ptr gen = Asic::genIdIs(*em);   // found, or made and stored
//   gen->observerIs(&supervisor);               // told of majorId changes
//   gen->majorIdInc(1);                         // ask for a relaunch
//
// Raising majorId is how code asks for the agents to be restarted: the record
// announces the change (attrMajorId) and the supervisor that watches it
// restarts them. minorId tells generations apart within one majorId; the
// record carries it as it was made. Loop thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Export.h"
#include "platform/framework/Notifier.h"
#include "platform/statedb/EntityManager.h"

namespace Asic {

class MICA_PLATFORM_API GenId : public Fwk::Notifier {
public:
  using Ptr = Fwk::Ptr<GenId>;

  static constexpr Fwk::AttrId attrMajorId{1, "majorId"};
  static constexpr std::string_view kPathPrefix =
      "hardware/gleam/agent/relaunch/config/";

  // The state database path of an agent's record.
  static std::string path(std::string_view agentName);

  explicit GenId(std::uint32_t majorId = 0, std::uint32_t minorId = 0) noexcept
      : majorId_(majorId), minorId_(minorId) {}
  ~GenId() override;

  std::uint32_t majorId() const noexcept { return majorId_; }
  std::uint32_t minorId() const noexcept { return minorId_; }

  // Adds n to majorId (modulo 2^32) and announces attrMajorId; n == 0
  // changes and announces nothing. Observers may call back into the record.
  void majorIdInc(std::uint32_t n);

private:
  std::uint32_t majorId_;
  std::uint32_t minorId_;
};

// The agent's relaunch record in the state database, or null.
MICA_PLATFORM_API GenId::Ptr genId(const StateDb::EntityManager &em);
// The agent's relaunch record; made with the given ids and stored when there
// is none (the ids are ignored for a record that exists). Throws
// Fwk::ReinstantiationException, changing nothing, when the path holds an
// object of another type.
MICA_PLATFORM_API GenId::Ptr genIdIs(StateDb::EntityManager &em,
                                     std::uint32_t majorId = 0,
                                     std::uint32_t minorId = 0);

} // namespace Asic
