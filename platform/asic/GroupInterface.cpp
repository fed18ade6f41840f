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

void GroupInterface::tableVersionSlateIs(const Fwk::Ptr<TableVersionSlate> &slate) {
  if (slate == tableVersionSlate_) {
    return;
  }
  tableVersionSlate_ = slate;
  notify(attrTableVersionSlate);
}

std::optional<LogVersion> GroupInterface::hwTableVersion(SwTableId tableId) const {
  if (!tableVersionSlate_) {
    return std::nullopt;
  }
  TableVersionRecord r;
  if (tableVersionSlate_->tableVersion().findOrDrop(tableId.packed(), r)) {
    return r.version;
  }
  return std::nullopt;
}

} // namespace Asic
