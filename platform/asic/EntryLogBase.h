// The base of a table type's entry log: the table type it serves, the state
// database handle (which also names the shared-memory instance), the group
// interface that receives every logged change, the owning agent's name, and
// the table version, the last log version handed out.
#pragma once

#include <string>

#include "platform/Export.h"
#include "platform/asic/GroupInterface.h"
#include "platform/asic/Types.h"
#include "platform/asic/WaitPoint.h"
#include "platform/framework/Notifier.h"
#include "platform/shm/Store.h"
#include "platform/statedb/EntityManager.h"

namespace Asic {

// The shared-memory store handle (writer) of the agent that a state
// database handle names: its name and instance id, or instance 0 when the
// environment variable NOT_LOCAL_EM is set (every instance of the agent then
// shares one store instance).
MICA_PLATFORM_API Fwk::Ptr<Shm::EntityManager>
agentShmEntityManager(const StateDb::EntityManager &entityManager);

// Changes that find no room in the change log wait on the entry log (a
// WaitPoint), which hands them back as its clean-up makes room.
class MICA_PLATFORM_API EntryLogBase : public Fwk::Notifier, public WaitPoint {
public:
  static constexpr Fwk::AttrId attrTableVersion{5, "tableVersion"};

  SwTableId tableId() const noexcept { return tableId_; }
  const Fwk::Ptr<StateDb::EntityManager> &entityManager() const noexcept {
    return entityManager_;
  }
  const Fwk::Ptr<GroupInterface> &groupInterface() const noexcept {
    return groupInterface_;
  }
  const std::string &agentName() const noexcept { return agentName_; }

  LogVersion tableVersion() const noexcept { return tableVersion_; }
  // Advances the table version by n and returns the new value.
  LogVersion tableVersionInc(LogVersion n) {
    tableVersion_ += n;
    notify(attrTableVersion);
    return tableVersion_;
  }

protected:
  EntryLogBase(SwTableId tableId, Fwk::Ptr<StateDb::EntityManager> entityManager,
               Fwk::Ptr<GroupInterface> groupInterface, std::string agentName);
  ~EntryLogBase() override;

  void tableVersionIs(LogVersion v) {
    if (v != tableVersion_) {
      tableVersion_ = v;
      notify(attrTableVersion);
    }
  }

private:
  SwTableId tableId_;
  Fwk::Ptr<StateDb::EntityManager> entityManager_;
  Fwk::Ptr<GroupInterface> groupInterface_;
  std::string agentName_;
  LogVersion tableVersion_ = 0;
};

} // namespace Asic
