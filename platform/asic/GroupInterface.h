// The interface of one ordered-table group (the tables of one agent-and-group
// id). It holds what the group's tables share: the group resolver, the
// software-table set of each table type, the tables to sweep after a
// restart, and the group's named tables (the resource tables its software
// tables take resources from). It receives every change its tables log, and
// it reads the versions the hardware writer has taken of each table type.
//
//   auto group = orderedTableIntf->makeGroupIntf(id.agentGroupId(),
//   "MicaMpls"); group->namedTableIs(inLifTable);                     // kind
//   2, by name group->swTableSetIs(set);                            // per
//   table type group->groupResolver()->updateGenId();               // one per
//   group group->addLogEntry(tableId, version, neededEntry);   // from an entry
//   log group->tableVersionSourceIs("mpls-agent-hw", 0);     // where the
//   hardware group->hwTableVersion(tableId);                      // writer's
//   versions are group->hwProgress();       // hands new hardware versions to
//   every table
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/GroupResolver.h"
#include "platform/asic/HwRefusalSlate.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/asic/ResourceTableBase.h"
#include "platform/asic/TableVersionSlate.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"

namespace Asic {

class MICA_PLATFORM_API GroupInterface : public Fwk::Notifier {
public:
  static constexpr Fwk::AttrId attrLoggedVersion{1, "loggedVersion"};
  static constexpr Fwk::AttrId attrTableVersionSlate{2, "tableVersionSlate"};
  static constexpr Fwk::AttrId attrSwTableSet{3, "swTableSet"};
  static constexpr Fwk::AttrId attrSweepableSwTableSet{4,
                                                       "sweepableSwTableSet"};
  static constexpr Fwk::AttrId attrNamedTable{5, "namedTable"};

  // The group's resolver runs its passes through `schedule` (the agent's
  // event loop); without one, passes run only when asked (runPass).
  GroupInterface(std::uint16_t agentGroupId, std::string groupName,
                 GroupResolver::Scheduler schedule = nullptr);

  std::uint16_t agentGroupId() const noexcept { return agentGroupId_; }
  const std::string &groupName() const noexcept { return groupName_; }
  const Fwk::Ptr<GroupResolver> &groupResolver() const noexcept {
    return groupResolver_;
  }

  // ---- Software-table sets, one per table type ----

  // Adds (or replaces) the set of its table type.
  void swTableSetIs(const Fwk::Ptr<OrderedSwTableSet> &set);
  void swTableSetDel(SwTableId tableId);
  Fwk::Ptr<OrderedSwTableSet> swTableSet(SwTableId tableId) const;
  std::vector<Fwk::Ptr<OrderedSwTableSet>> swTableSetList() const;

  // ---- Tables to sweep once the agent has replayed after a restart ----

  void
  sweepableSwTableSetIs(const Fwk::Ptr<OrderedSwTableWithMarkSweep> &table);
  void sweepableSwTableSetDel(SwTableId tableId, UnitId unit);
  std::size_t sweepableSwTables() const noexcept { return sweepable_.size(); }
  // Sweeps every sweepable table (the entries not written again since they
  // started marking are removed); returns how many entries were removed.
  std::uint32_t sweepAll();

  // ---- Named tables ----

  // Registers a table of the group under its canonical name (replacing one
  // of the same name). A resource table also wakes the group's resolver
  // whenever it resolves something.
  void namedTableIs(const Fwk::Ptr<const CanonicalTableName> &name,
                    const Fwk::Ptr<Fwk::Object> &table);
  void namedTableIs(const Fwk::Ptr<ResourceTableBase> &resourceTable) {
    namedTableIs(resourceTable->name(), resourceTable);
  }
  void namedTableDel(const CanonicalTableName &name);
  // The table of that name, or null.
  Fwk::Ptr<Fwk::Object> namedTable(const CanonicalTableName &name) const;
  std::vector<Fwk::Ptr<ResourceTableBase>> resourceTables() const;
  // After the first replay: frees resource allocations restored from the
  // store that no table claimed again, once the hardware has confirmed every
  // change logged until now. Returns how many.
  std::size_t releaseUnclaimedResources();

  // ---- Logged changes ----

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

  // ---- The hardware writer's versions ----

  // The shared-memory collection of table versions: table type -> the
  // version the hardware writer has taken.
  const Fwk::Ptr<TableVersionSlate> &tableVersionSlate() const noexcept {
    return tableVersionSlate_;
  }
  void tableVersionSlateIs(const Fwk::Ptr<TableVersionSlate> &slate);
  // Reads the collection from the hardware writer's instance (read-only),
  // mounting it when first needed and again when the writer has recreated
  // it; until the writer has created it, every table reads as not found.
  void tableVersionSourceIs(std::string hwAgentName, std::uint32_t instanceId);
  // The version the hardware writer has taken of a table type; nothing when
  // there is no record (first start). A corrupt record is handed to the
  // collection's corruption handling and counts as not found.
  std::optional<LogVersion> hwTableVersion(SwTableId tableId) const;
  // The hardware may have taken more: every table of every set whose type's
  // version changed since the last call is told (tableStatusVersion).
  // Returns the number of table types whose version changed.
  std::size_t hwProgress();

  // ---- What the hardware refused ----

  // Whether the hardware writer holds any refusal of a change (see
  // HwRefusalSlate.h). Cheap: a look at the writer's commit word, and a new
  // snapshot of its refusals only when they changed.
  bool hasHwRefusals() const;
  // The writer's refusal of a key (its packed()) of a table type's unit, or
  // nothing. Valid until the next call of these two.
  const HwRefusalRecord *hwRefusal(SwTableId tableId, UnitId unit,
                                   std::uint64_t packedKey) const;

private:
  ~GroupInterface() override;
  void maybeMountTableVersions() const;
  void refreshHwRefusals() const;

  struct SweepKey {
    std::uint32_t tableId = 0;
    std::uint32_t unit = 0;
    bool operator==(const SweepKey &) const = default;
  };

  std::uint16_t agentGroupId_;
  std::string groupName_;
  Fwk::Ptr<GroupResolver> groupResolver_;
  Fwk::HashMap<SwTableId, Fwk::Ptr<OrderedSwTableSet>> sets_{0x6b43a9b5u};
  Fwk::HashMap<SweepKey, Fwk::Ptr<OrderedSwTableWithMarkSweep>> sweepable_{
      0x1b873593u};
  Fwk::HashMap<std::string, Fwk::Ptr<Fwk::Object>> named_{0x85ebca6bu};
  Fwk::HashMap<SwTableId, LogVersion> logged_{0x1f83d9abu};
  Fwk::HashMap<SwTableId, LogVersion> forwarded_{0xc2b2ae35u};
  std::uint64_t logEntries_ = 0;
  std::uint64_t withDependencies_ = 0;
  mutable Fwk::Ptr<TableVersionSlate> tableVersionSlate_;
  // The writer's refusals (mounted with its table versions; null where it
  // keeps none) and a snapshot of them as of commit word refusalSeq_:
  // a reader's lookup in the mapping is a scan.
  mutable Fwk::Ptr<HwRefusalSlate> hwRefusalSlate_;
  mutable std::uint64_t refusalSeq_ = 0;
  mutable Fwk::HashMap<HwRefusalKey, HwRefusalRecord> refusals_{0x27d4eb2fu};
  std::string hwAgentName_;
  std::uint32_t hwInstanceId_ = 0;
};

} // namespace Asic
