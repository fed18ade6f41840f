#include "platform/asic/GroupInterface.h"

namespace Asic {

GroupInterface::GroupInterface(std::uint16_t agentGroupId, std::string groupName)
    : agentGroupId_(agentGroupId), groupName_(std::move(groupName)) {}

GroupInterface::~GroupInterface() = default;

void GroupInterface::addLogEntry(SwTableId tableId, LogVersion version,
                                 const Fwk::Ptr<const NeededEntry> &neededEntry) {
  ++logEntries_;
  if (neededEntry && !neededEntry->empty()) {
    ++withDependencies_;
  }
  logged_.insert(tableId, version);
  notify(attrLoggedVersion, tableId);
}

LogVersion GroupInterface::loggedVersion(SwTableId tableId) const {
  const auto *v = logged_.find(tableId);
  return v ? *v : 0;
}

} // namespace Asic
