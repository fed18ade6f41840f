// The interface of one ordered-table group (the tables of one agent-and-group
// id): it receives every change its tables log, with the other tables'
// versions the change depends on, and it reads the versions the hardware
// writer has taken of each table type.
//
//   auto group = Fwk::make<Asic::GroupInterface>(id.agentGroupId(), "MicaMpls");
//   group->addLogEntry(tableId, version, neededEntry);   // from an entry log
//   group->loggedVersion(tableId);                       // newest version logged
//   group->tableVersionSlateIs(versions);  // the hardware writer's versions
//   group->hwTableVersion(tableId);        // how far the hardware has got
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/asic/TableVersionSlate.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"

namespace Asic {

class MICA_PLATFORM_API GroupInterface : public Fwk::Notifier {
public:
  static constexpr Fwk::AttrId attrLoggedVersion{1, "loggedVersion"};
  static constexpr Fwk::AttrId attrTableVersionSlate{2, "tableVersionSlate"};

  GroupInterface(std::uint16_t agentGroupId, std::string groupName);

  std::uint16_t agentGroupId() const noexcept { return agentGroupId_; }
  const std::string &groupName() const noexcept { return groupName_; }

  // A change of a table of this group was logged under `version`; it may be
  // taken by the hardware only after the versions in `neededEntry`.
  void addLogEntry(SwTableId tableId, LogVersion version,
                   const Fwk::Ptr<const NeededEntry> &neededEntry);
  // The newest version logged for a table type, 0 if none.
  LogVersion loggedVersion(SwTableId tableId) const;
  // How many changes were logged, and how many of them named dependencies.
  std::uint64_t logEntries() const noexcept { return logEntries_; }
  std::uint64_t logEntriesWithDependencies() const noexcept {
    return withDependencies_;
  }

  // The shared-memory collection of table versions: table type -> the
  // version the hardware writer has taken.
  const Fwk::Ptr<TableVersionSlate> &tableVersionSlate() const noexcept {
    return tableVersionSlate_;
  }
  void tableVersionSlateIs(const Fwk::Ptr<TableVersionSlate> &slate);
  // The version the hardware writer has taken of a table type; nothing when
  // there is no record (first start). A corrupt record is handed to the
  // collection's corruption handling and counts as not found.
  std::optional<LogVersion> hwTableVersion(SwTableId tableId) const;

private:
  ~GroupInterface() override;

  std::uint16_t agentGroupId_;
  std::string groupName_;
  Fwk::HashMap<SwTableId, LogVersion> logged_{0x1f83d9abu};
  std::uint64_t logEntries_ = 0;
  std::uint64_t withDependencies_ = 0;
  Fwk::Ptr<TableVersionSlate> tableVersionSlate_;
};

} // namespace Asic
