// The algorithms of a table type's interface (SwTableInterface.h), written
// once over the table family. Included only by the families' own source
// units, which instantiate it.
#pragma once

#include "OrderedTable/EntryLog.h"
#include "OrderedTable/SwTableInterface.h"
#include "OrderedTable/SwTableState.h"

namespace Asic {

#define TI_TRACE(level, ...) trace(level, __func__, __LINE__, __VA_ARGS__)

template <typename B>
Fwk::Ptr<typename B::Interface> SwTableInterface<B>::getIntf(
    const Fwk::Ptr<OrderedTableInterface> &orderedTableIntf) {
  auto singleton = SwTableInterfacesSingleton::swTableInterfacesSingletonIs();
  if (auto registered = singleton->swTableIntf(B::kInterfaceKey)) {
    return Fwk::ptrCast<Interface>(registered);
  }
  return Fwk::make<Interface>(orderedTableIntf);
}

template <typename B>
SwTableInterface<B>::SwTableInterface(
    Fwk::Ptr<OrderedTableInterface> orderedTableIntf)
    : TableInterfaceBase(std::move(orderedTableIntf)) {
  namesIs(B::Constants::tableName, B::Constants::groupName,
          B::Constants::groupName, B::Constants::groupName);
  handleInitialized();
}

template <typename B> SwTableInterface<B>::~SwTableInterface() {
  entryLogDel();
  swTableStatusDel();
  swTableSetDel();
}

template <typename B> void SwTableInterface<B>::handleInitialized() {
  auto singleton = SwTableInterfacesSingleton::swTableInterfacesSingletonIs();
  FWK_ASSERT_TEXT(!singleton->swTableIntfHas(B::kInterfaceKey),
                  B::kInterfaceAssertion, "Interface already created");
  const SwTableId tableId = swTableId();
  const std::string groupName = canonicalGroup();
  const auto &otIntf = orderedTableIntf();
  auto groupIntf =
      otIntf ? otIntf->makeGroupIntf(tableId.agentGroupId(), groupName)
             : nullptr;
  FWK_ASSERT_NAMED(groupIntf, "groupIntf");
  TI_TRACE(3, " Creating entry log for {}", groupName);
  entryLogIs(tableId, otIntf->entityManager(), groupIntf, otIntf->agentName());
  swTableStatusIs(tableId);
  // How far the hardware writer has taken the type's changes: what it has
  // confirmed is retired, and what it has not is still to be written.
  if (const auto confirmed = groupIntf->hwTableVersion(tableId)) {
    // Versions never go back: a log behind what the hardware confirmed
    // continues above it, and the hardware is rebuilt from the
    // configuration (EntryLog.h).
    entryLog_->tableVersionAtLeast(*confirmed);
    entryLog_->cleanupEntryLog(*confirmed);
    TI_TRACE(3, " Cleaned entry log until table version: {}", *confirmed);
    if (entryLog_->tableVersion() > *confirmed) {
      TI_TRACE(2, " Turning ON pendingHwWrites");
      status_->pendingHwWritesIs(true);
    }
  }
  TI_TRACE(2, " Entry log created for table id: {} at version: {}", tableId,
           entryLog_->tableVersion());
  swTableSetIs(tableId, status_);
  groupIntf->swTableSetIs(swTableSet_);
  const Fwk::Ptr<TableInterfaceBase> self(this);
  otIntf->swTableIntfIs(B::kInterfaceKey, self);
  singleton->swTableIntfIs(B::kInterfaceKey, self);
}

template <typename B>
Fwk::Ptr<typename B::EntryLog> SwTableInterface<B>::entryLogIs(
    SwTableId tableId, const Fwk::Ptr<StateDb::EntityManager> &entityManager,
    const Fwk::Ptr<GroupInterface> &groupInterface,
    const std::string &agentName) {
  entryLog_ =
      Fwk::make<EntryLog>(tableId, entityManager, groupInterface, agentName);
  return entryLog_;
}

template <typename B>
Fwk::Ptr<OrderedSwTableStatus>
SwTableInterface<B>::swTableStatusIs(SwTableId tableId) {
  status_ = Fwk::make<OrderedSwTableStatus>(tableId);
  return status_;
}

template <typename B>
void SwTableInterface<B>::swTableSetIs(
    SwTableId tableId, const Fwk::Ptr<OrderedSwTableStatus> &status) {
  swTableSet_ = Fwk::make<OrderedSwTableSet>(tableId, status);
}

template <typename B>
Fwk::Ptr<typename B::SwTable> SwTableInterface<B>::makeSwTable(
    UnitId unitId, const Fwk::Ptr<Helper> &swTableHelper, bool clearEntries) {
  return makeTable(unitId, swTableHelper, clearEntries, true);
}

template <typename B>
Fwk::Ptr<typename B::SwTable>
SwTableInterface<B>::makeTable(UnitId unitId,
                               const Fwk::Ptr<Helper> &swTableHelper,
                               bool clearEntries, bool driven) {
  TI_TRACE(8, "unitId: {}", unitId);
  const SwTableId tableId = swTableId();
  auto groupIntf = group();
  FWK_ASSERT_NAMED(groupIntf, "groupIntf");
  // The group's set is the one of record: this interface's own is the same
  // until it is deleted, and then the group has none, or a later
  // interface's.
  auto swTableSet = groupIntf->swTableSet(tableId);
  FWK_ASSERT_NAMED(swTableSet, "swTableSet");
  if (auto existing = swTableSet->swTable(unitId)) {
    TI_TRACE(3, "swTable with unitId: {} exists", unitId);
    auto existingTbl = Fwk::ptrCast<SwTable>(existing);
    FWK_ASSERT_NAMED(existingTbl, "existingTbl");
    // A unit reconciled before and driven now takes its client slot now.
    if (const auto &linkage = existingTbl->linkage();
        driven && linkage && !linkage->resTblClient()->slotIs()) {
      refuseUnit(unitId);
    }
    if (swTableHelper) {
      TI_TRACE(2, "Update software table helper");
      existingTbl->swTableHelperIs(swTableHelper);
    }
    if (clearEntries) {
      TI_TRACE(2, " Clearing entries for table id: {}", tableId);
      existingTbl->clearTable(false);
    }
    return existingTbl;
  }

  // The resource table first: a unit it cannot serve is refused before
  // anything is mounted or made.
  auto resName = CanonicalTableName::canonicalTableNameIs(
      CanonicalTableName::resourceTable, B::kResourceNamespace,
      B::kResourceName);
  auto resTbl = groupIntf->namedTable(*resName);
  FWK_ASSERT_NAMED(resTbl, "resTbl");
  auto typedResourceTable = Fwk::ptrCast<ResourceTable>(resTbl);
  FWK_ASSERT_NAMED(typedResourceTable, "typedResourceTable");
  if (driven &&
      !typedResourceTable->clientSlotAvailable(B::kResourceName, unitId)) {
    refuseUnit(unitId);
  }

  // The version the hardware has confirmed: deletions up to it are dropped
  // when the unit's configuration table is mounted.
  const LogVersion confirmed = groupIntf->hwTableVersion(tableId).value_or(0);
  entryLog_->mountSlateConfig(unitId, confirmed);
  auto name = CanonicalTableName::canonicalTableNameIs(
      CanonicalTableName::softwareTable, tableNamespace(), tableName());
  auto table = Fwk::make<SwTable>(name, tableId, unitId, swTableSet.ptr(),
                                  entryLog_, groupIntf->groupResolver());
  if (swTableHelper) {
    table->swTableHelperIs(swTableHelper);
  }
  table->statusIs(status_);

  TI_TRACE(2, B::kResourceStartedTrace, typedResourceTable->entries());
  MICA_TRACE_RING(B::kInterfaceSourceUnit, B::kInterfaceClass,
                  B::kResourceStartedTrace, typedResourceTable->entries());
  // Each unit's table is its own client of the resource table, so that one
  // unit's release never frees what another still uses. A unit only
  // reconciled takes its client slot when it first holds a resource, if it
  // ever does.
  auto client = typedResourceTable->clientInstanceIs(B::kResourceName, unitId);
  if (driven) {
    const bool slotted = client->slotIs();
    FWK_ASSERT_NAMED(slotted, "slotted"); // checked above
  }
  table->linkageIs(Fwk::make<Linkage>(table.ptr(), std::move(client)));

  if (clearEntries) {
    TI_TRACE(2, B::kClearingTrace, unitId);
    table->clearTable(false);
  } else {
    table->restoreEntries();
    TI_TRACE(2, B::kRestoredTrace, table->entrys(), unitId);
  }
  swTableSet->swTableIs(table);
  table->tableStatusVersion(confirmed);
  groupIntf->sweepableSwTableSetIs(table);
  if (!clearEntries && !orderedTableIntf()->initialReplayDone()) {
    table->mark();
  }
  return table;
}

template <typename B>
void SwTableInterface<B>::refuseUnit(UnitId unitId) const {
  TI_TRACE(1, " No client slot left in {}::{} for unitId: {}",
           B::kResourceNamespace, B::kResourceName, unitId);
  throw Fwk::Exception(fmt::format(
      "{} unit {}: every one of the {} client slots of the resource table "
      "{}::{} is taken",
      tableName(), unitId, ResourceTable::kMaxClients, B::kResourceNamespace,
      B::kResourceName));
}

template <typename B> void SwTableInterface<B>::reconcile() {
  TI_TRACE(8, "");
  Fwk::Ptr<Interface> keep(static_cast<Interface *>(this));
  auto groupIntf = group();
  FWK_ASSERT_NAMED(groupIntf, "groupIntf");
  auto swTableSet = groupIntf->swTableSet(swTableId());
  FWK_ASSERT_NAMED(swTableSet, "swTableSet");
  auto shm = agentShmEntityManager(*orderedTableIntf()->entityManager());
  const std::string base = Constants::canonicalGroupTableConfigSlatePathBase(
      canonicalGroup(), tableName());
  // The store's configuration entities: a unit whose file was lost while
  // the agent was down is one too. Its mount finds it wiped and asks the
  // hardware writer to rebuild, which clears what the hardware still holds
  // of it.
  const std::vector<std::string> paths = shm->knownEntityPaths(base);
  TI_TRACE(3, " No. of config entities found: {}, in slate path: {}",
           paths.size(), base);
  for (const std::string &path : paths) {
    const auto unitId = Constants::getUnitIdFromConfigPath(path);
    if (!unitId) {
      TI_TRACE(3, " Skipping config entity without a unit id: {}", path);
      continue;
    }
    if (!swTableSet->swTable(*unitId)) {
      TI_TRACE(3, " Found inactive unit id: {}", *unitId);
      makeTable(*unitId, nullptr, true, false);
    }
  }
}

template <typename B> void SwTableInterface<B>::onDelete() {
  TI_TRACE(2, " onDelete ");
  Fwk::Ptr<Interface> keep(static_cast<Interface *>(this));
  // The tables no longer hear of the hardware's progress: what they still
  // hold queued can never finish, and fails now.
  if (swTableSet_) {
    for (const auto &t : swTableSet_->swTableList()) {
      if (auto table = Fwk::ptrCast<SwTable>(t)) {
        table->resolverQueueDelAll();
      }
    }
  }
  if (auto groupIntf = group();
      groupIntf && swTableSet_ &&
      groupIntf->swTableSet(swTableId()) == swTableSet_) {
    for (const auto &table : swTableSet_->swTableList()) {
      groupIntf->sweepableSwTableSetDel(swTableId(), table->unitId());
    }
    groupIntf->swTableSetDel(swTableId());
  }
  if (orderedTableIntf()) {
    orderedTableIntf()->swTableIntfDel(B::kInterfaceKey);
  }
  // A new interface of the type may be made after this one is deleted.
  auto singleton = SwTableInterfacesSingleton::swTableInterfacesSingleton();
  if (singleton && singleton->swTableIntf(B::kInterfaceKey).ptr() == this) {
    singleton->swTableIntfDel(B::kInterfaceKey);
  }
}

#undef TI_TRACE

} // namespace Asic
