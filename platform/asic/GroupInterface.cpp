#include "platform/asic/GroupInterface.h"

#include <fmt/format.h>

#include <algorithm>

namespace Asic {

namespace {
std::string namedKey(const CanonicalTableName &name) {
  return fmt::format("{}:{}", static_cast<int>(name.kind()), name.str());
}
} // namespace

GroupInterface::GroupInterface(std::uint16_t agentGroupId,
                               std::string groupName,
                               GroupResolver::Scheduler schedule)
    : agentGroupId_(agentGroupId), groupName_(std::move(groupName)),
      groupResolver_(Fwk::make<GroupResolver>(std::move(schedule))) {}

GroupInterface::~GroupInterface() = default;

void GroupInterface::swTableSetIs(const Fwk::Ptr<OrderedSwTableSet> &set) {
  if (!set) {
    return;
  }
  sets_.insert(set->tableId(), set);
  notify(attrSwTableSet, set->tableId());
}

void GroupInterface::swTableSetDel(SwTableId tableId) {
  if (sets_.erase(tableId)) {
    notify(attrSwTableSet, tableId);
  }
}

Fwk::Ptr<OrderedSwTableSet>
GroupInterface::swTableSet(SwTableId tableId) const {
  const auto *s = sets_.find(tableId);
  return s ? *s : nullptr;
}

std::vector<Fwk::Ptr<OrderedSwTableSet>>
GroupInterface::swTableSetList() const {
  std::vector<Fwk::Ptr<OrderedSwTableSet>> out;
  for (auto it = sets_.begin(); it != sets_.end(); ++it) {
    out.push_back(it.value());
  }
  return out;
}

void GroupInterface::sweepableSwTableSetIs(
    const Fwk::Ptr<OrderedSwTableWithMarkSweep> &table) {
  if (!table) {
    return;
  }
  const SweepKey key{table->swTableId().packed(), table->unitId()};
  sweepable_.insert(key, table);
  notify(attrSweepableSwTableSet, key.tableId);
}

void GroupInterface::sweepableSwTableSetDel(SwTableId tableId, UnitId unit) {
  if (sweepable_.erase(SweepKey{tableId.packed(), unit})) {
    notify(attrSweepableSwTableSet, tableId.packed());
  }
}

std::uint32_t GroupInterface::sweepAll() {
  // A sweep queues removes, which may call back into anything: the tables
  // are taken out of the collection first.
  std::vector<Fwk::Ptr<OrderedSwTableWithMarkSweep>> tables;
  for (auto it = sweepable_.begin(); it != sweepable_.end(); ++it) {
    tables.push_back(it.value());
  }
  std::uint32_t swept = 0;
  for (const auto &t : tables) {
    swept += t->sweep();
  }
  return swept;
}

void GroupInterface::namedTableIs(
    const Fwk::Ptr<const CanonicalTableName> &name,
    const Fwk::Ptr<Fwk::Object> &table) {
  if (!name || !table) {
    return;
  }
  if (auto resource = Fwk::ptrCast<ResourceTableBase>(table)) {
    resource->resolverWakeIs(groupResolver_.ptr());
  }
  const std::string key = namedKey(*name);
  named_.insert(key, table);
  notify(attrNamedTable, key);
}

void GroupInterface::namedTableDel(const CanonicalTableName &name) {
  const std::string key = namedKey(name);
  if (named_.erase(key)) {
    notify(attrNamedTable, key);
  }
}

Fwk::Ptr<Fwk::Object>
GroupInterface::namedTable(const CanonicalTableName &name) const {
  const auto *t = named_.find(namedKey(name));
  return t ? *t : nullptr;
}

std::vector<Fwk::Ptr<ResourceTableBase>>
GroupInterface::resourceTables() const {
  std::vector<Fwk::Ptr<ResourceTableBase>> out;
  for (auto it = named_.begin(); it != named_.end(); ++it) {
    if (auto r = Fwk::ptrCast<ResourceTableBase>(it.value())) {
      out.push_back(std::move(r));
    }
  }
  return out;
}

std::size_t GroupInterface::releaseUnclaimedResources() {
  // What is logged now may still use an unclaimed allocation in the
  // hardware: the release waits until the hardware has confirmed it.
  std::vector<TableVersion> fence;
  for (const auto &set : swTableSetList()) {
    LogVersion logged = 0;
    for (const auto &t : set->swTableList()) {
      logged = std::max(logged, t->loggedVersion());
    }
    fence.push_back(TableVersion{set->tableId(), logged});
  }
  std::size_t n = 0;
  for (const auto &r : resourceTables()) {
    n += r->releaseUnclaimedAfter(fence);
  }
  return n;
}

void GroupInterface::addLogEntry(
    SwTableId tableId, LogVersion version,
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

void GroupInterface::tableVersionSlateIs(
    const Fwk::Ptr<TableVersionSlate> &slate) {
  if (slate == tableVersionSlate_) {
    return;
  }
  tableVersionSlate_ = slate;
  notify(attrTableVersionSlate);
}

void GroupInterface::tableVersionSourceIs(std::string hwAgentName,
                                          std::uint32_t instanceId) {
  hwAgentName_ = std::move(hwAgentName);
  hwInstanceId_ = instanceId;
  tableVersionSlate_ = nullptr;
  maybeMountTableVersions();
}

void GroupInterface::maybeMountTableVersions() const {
  if (hwAgentName_.empty() ||
      (tableVersionSlate_ && !tableVersionSlate_->stale())) {
    return;
  }
  try {
    auto em =
        Shm::entityManager(hwAgentName_, hwInstanceId_, Shm::Access::read);
    if (tableVersionSlate_) {
      // The writer recreated the file: the stale mount is let go first.
      em->close();
      em = Shm::entityManager(hwAgentName_, hwInstanceId_, Shm::Access::read);
    }
    tableVersionSlate_ = mountTableVersionSlate(em, groupName_);
    refusals_.clear();
    refusalSeq_ = 0;
    try {
      hwRefusalSlate_ = mountHwRefusalSlate(em, groupName_);
    } catch (const Shm::Error &) {
      hwRefusalSlate_ = nullptr; // a writer that records no refusals
    }
  } catch (const Shm::Error &) {
    // Not there yet (the hardware writer has not started): not found.
    tableVersionSlate_ = nullptr;
    hwRefusalSlate_ = nullptr;
  }
}

namespace {
// Scans of the writer's refusals that meet a damaged record, at most.
constexpr unsigned kMaxRefusalScans = 64;
} // namespace

void GroupInterface::refreshHwRefusals() const {
  // Mounted with the table versions (hwTableVersion): a writer that has
  // not started has none, and this costs no system call per look.
  if (!hwRefusalSlate_) {
    refusals_.clear();
    return;
  }
  auto &coll = hwRefusalSlate_->hwRefused();
  const std::uint64_t seq = coll.control().commitSequence();
  if (seq == refusalSeq_) {
    return;
  }
  // A snapshot that a change of the writer overlapped is taken again at
  // the next look. A damaged record is dropped (it reads as absent from
  // then on) and the scan starts over.
  for (unsigned tries = 0;; ++tries) {
    refusals_.clear();
    try {
      coll.forEach(
          [this](const HwRefusalRecord &r) { refusals_.insert(r.at, r); });
      break;
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
      if (tries == kMaxRefusalScans) {
        refusalSeq_ = 0;
        return;
      }
    }
  }
  refusalSeq_ = coll.lastScanConsistent() ? seq : 0;
}

bool GroupInterface::hasHwRefusals() const {
  refreshHwRefusals();
  return !refusals_.empty();
}

const HwRefusalRecord *
GroupInterface::hwRefusal(SwTableId tableId, UnitId unit,
                          std::uint64_t packedKey) const {
  if (!hasHwRefusals()) {
    return nullptr;
  }
  HwRefusalKey k;
  k.tableId = tableId.packed();
  k.unit = unit;
  k.key = packedKey;
  return refusals_.find(k);
}

std::optional<LogVersion>
GroupInterface::hwTableVersion(SwTableId tableId) const {
  maybeMountTableVersions();
  if (!tableVersionSlate_) {
    return std::nullopt;
  }
  TableVersionRecord r;
  if (tableVersionSlate_->tableVersion().findOrDrop(tableId.packed(), r)) {
    return r.version;
  }
  return std::nullopt;
}

std::size_t GroupInterface::hwProgress() {
  Fwk::Ptr<GroupInterface> self(this);
  std::size_t moved = 0;
  for (const auto &set : swTableSetList()) {
    const auto v = hwTableVersion(set->tableId());
    // Any other version than the last is handed on, a lower one too (a
    // hardware writer that rebuilt its tables from another log): the tables
    // know which versions they can take.
    const LogVersion *last = forwarded_.find(set->tableId());
    if (!v || (last && *v == *last)) {
      continue;
    }
    forwarded_.insert(set->tableId(), *v);
    ++moved;
    for (const auto &table : set->swTableList()) {
      table->tableStatusVersion(*v);
    }
  }
  return moved;
}

} // namespace Asic
