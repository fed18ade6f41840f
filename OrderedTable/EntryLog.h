// The entry log of a table type, written once for every table family: what
// each software table has committed, kept in the shared-memory store so that
// a restarted agent finds its tables as they were.
//
//   auto log = mplsIsem2EntryLogFactory(tableId, stateDb, groupIntf, "Mpls");
//   log->mountSlateConfig(unit, confirmedVersion);     // per unit, once
//   LogVersion v = log->entryIs(logEntry, rsrcKeys, needed, unit, stats, true);
//   log->entryDel(key, needed, unit);
//   log->cleanupEntryLog(hardwareVersion);             // retire what the
//                                                      // hardware has taken
//
// Every change gets a new log version from the table version, is written
// into the unit's configuration table and into the change log, and is
// announced to the group interface. A deletion keeps the configuration
// record, marked deleted under the deletion's version, until the change log
// is cleaned up to that version.
//
// Crash safety. Each record is published atomically by the store. A change
// reserves its version in the change log's scratchpad first, then writes its
// records, then marks itself complete in the change log's auxiliary word.
// When it is made, the entry log continues after the largest version on
// file: the scratchpad's, the change log's, and those in the configuration
// table of every unit on file, mounted yet or not, and writes it back to the
// scratchpad, so that a clean-up of those records cannot take it away before
// the next change. So an agent killed at any point, a damaged scratchpad,
// or units mounted at different times never make a version be handed out
// that a record already holds or that one held. A change cut off
// between its records is completed then too, before any other change can
// start and whichever unit is mounted first (completeLastChange): a write or
// deletion of one entry writes the configuration record before the
// change-log record, a table deletion the change-log record before it marks
// the unit's records, so the first record always says what the change was.
// A change cut off before its first record leaves only a version that
// nobody uses. A clean-up deletes the configuration records of a change
// before its change-log record, so one cut off is redone by the next.
//
// Failures. A lookup that meets corrupt shared memory hands the error to the
// collection's corruption handling, which drops the record; the record then
// counts as absent. A write of a new key into a full configuration table, or
// any change into a full change log, throws Shm::CollectionFullError with
// nothing written and no version used; the commit turns it into a failed
// change. So does a change that needs a record the file system under the
// store has no space for (Shm::NoSpaceError, a CollectionFullError): the
// change-log record's space is reserved before anything is written, and
// rewrites and deletions of configuration records never need new space. A
// change that finds the versions used up (only a damaged scratchpad gets
// there) throws Shm::Error, with nothing written; so does a rebuild asked of
// the hardware writer, which takes a version too.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "OrderedTable/EntryLogRecords.h"
#include "OrderedTable/TableBinding.h"
#include "platform/agentlog/AgentLog.h"
#include "platform/asic/Constants.h"
#include "platform/asic/EntryLogBase.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/Assert.h"
#include "platform/framework/HashMap.h"
#include "platform/shm/Store.h"
#include "platform/statedb/GenId.h"
#include "platform/trace/Trace.h"

namespace Asic {

// The operator messages an entry log's source unit registers (each unit its
// own handles, all with the same records). Only `error` is raised here; the
// other two are registered for the agent.
struct EntryLogMessages {
  AgentLog::Handle exception;     // HW_ABSTRACTION_EXCEPTION
  AgentLog::Handle relaunchError; // HW_ABSTRACTION_RELAUNCH_ERROR
  AgentLog::Handle error;         // HW_ABSTRACTION_ERROR
};
__attribute__((visibility("default"))) EntryLogMessages
registerEntryLogMessages();

// Records the function and line of the trace's own call.
#define EL_TRACE(level, ...) traceAt(level, __func__, __LINE__, __VA_ARGS__)

template <typename B> class OrderedEntryLog : public EntryLogBase {
public:
  using Binding = B;
  using Key = typename B::Key;
  using LogEntry = typename B::LogEntry;
  using ResourceKeys = typename B::ResourceKeys;
  using ConfigSlateT = ConfigSlate<B>;
  using EntryLogSlateT = EntryLogSlate<B>;
  using ConfigEntry = ConfigSlateEntry<B>;
  using LogRecord = LogSlateEntry<B>;
  using Entry = typename B::Entry;
  // Where a key's configuration record is, found once for a change.
  using ConfigPlace = typename ConfigSlateT::Collection::Place;

  // An entry is its resource keys followed by its log entry, and so is the
  // front of a configuration record: the record is built from the entry
  // with one copy, and compared with it in place.
  static_assert(offsetof(ConfigEntry, rsrcKeys) == 0 &&
                    offsetof(ConfigEntry, logEntry) == sizeof(ResourceKeys) &&
                    sizeof(Entry) == sizeof(ResourceKeys) + sizeof(LogEntry),
                "a configuration record begins with the entry's bytes");

  static constexpr Fwk::AttrId attrTableEntryLog{6, "tableEntryLog"};
  static constexpr Fwk::AttrId attrTableConfigSlate{7, "tableConfigSlate"};
  static constexpr Fwk::AttrId attrCleanupVersion{8, "cleanupVersion"};

  // Mounts the change log and restores the table version (handleInitialized).
  // A mount failure passes on as an exception, with nothing kept.
  OrderedEntryLog(SwTableId tableId,
                  Fwk::Ptr<StateDb::EntityManager> entityManager,
                  Fwk::Ptr<GroupInterface> groupInterface,
                  std::string agentName, const EntryLogMessages &messages)
      : EntryLogBase(tableId, std::move(entityManager),
                     std::move(groupInterface), std::move(agentName)),
        messages_(messages) {
    handleInitialized();
  }

  void handleInitialized() {
    EL_TRACE(8, "");
    mountSlateChangeLog();
  }

  // ---- Mounting ----

  // Mounts `path` as a T in the agent's shared-memory instance and checks it.
  // A collection whose contents were lost is reported (wipedFn), the agent's
  // relaunch generation is raised, and the emptied collection is used.
  template <typename T>
  static Fwk::Ptr<T> checkAndwriteMountSlate(
      const Fwk::Ptr<StateDb::EntityManager> &entityManager,
      const std::string &typeName, const std::string &path,
      const std::string &agentName,
      const std::function<void(Shm::MountInfo &)> &mountInfoFn,
      const std::function<Shm::CollectionControl &(Fwk::Ptr<T> &)>
          &collectionControlFn,
      const std::function<void()> &wipedFn) {
    auto shm = agentShmEntityManager(*entityManager);
    auto group = shm->mountGroup();
    Shm::MountInfo info(0);
    mountInfoFn(info);
    group->doMount(path, typeName, info);
    group->doClose();
    Fwk::Ptr<T> entity = Fwk::ptrCast<T>(shm->entity(path));
    if (!entity) {
      return entity;
    }
    Shm::CollectionControl &control = collectionControlFn(entity);
    if (!control.wiped()) {
      return entity;
    }
    wipedFn();
    requestRelaunch(*entityManager, agentName);
    control.clearWiped();
    return entity;
  }

  // Asks for the agents to be restarted: the relaunch record's generation
  // goes up. A missing record (or one of another type) is no error.
  static void requestRelaunch(StateDb::EntityManager &entityManager,
                              const std::string &agentName) {
    if (auto gen =
            entityManager.template entity<GenId>(GenId::path(agentName))) {
      gen->majorIdInc(1);
    }
  }

  void mountSlateChangeLog() {
    EL_TRACE(8, "");
    const std::string path = B::Constants::tableEntryLogSlatePath();
    bool wiped = false;
    auto slate = checkAndwriteMountSlate<EntryLogSlateT>(
        entityManager(), EntryLogSlateT::kTypeName, path, agentName(),
        [](Shm::MountInfo &info) {
          info.collectionInfoIs(EntryLogSlateT::kCollection,
                                EntryLogSlateT::kCapacity);
        },
        [](Fwk::Ptr<EntryLogSlateT> &s) -> Shm::CollectionControl & {
          return s->entryLogConfig().control();
        },
        [this, &wiped] {
          wiped = true;
          raiseWiped("entryLog");
        });
    FWK_ASSERT_NAMED(slate, "tableEntryLog");
    tableEntryLog_ = slate;
    notify(attrTableEntryLog);
    restoreTableVersion(wiped);
    EL_TRACE(2, " Mounted entryLog: {}, tableVersion: {}", path,
             tableVersion());
    resyncIfDamaged();
  }

  // Mounts one unit's configuration table and drops the deletions that the
  // hardware has already confirmed (versions up to `logVersion`).
  void mountSlateConfig(UnitId unitId, LogVersion logVersion) {
    EL_TRACE(8, " unitId:{}, logVersion: {}", unitId, logVersion);
    const std::string path = B::Constants::configSlatePath(unitId);
    bool cfgWiped = false;
    auto cfgSlate = checkAndwriteMountSlate<ConfigSlateT>(
        entityManager(), ConfigSlateT::kTypeName, path, agentName(),
        [](Shm::MountInfo &info) {
          info.collectionInfoIs(ConfigSlateT::kCollection,
                                ConfigSlateT::kCapacity);
        },
        [](Fwk::Ptr<ConfigSlateT> &s) -> Shm::CollectionControl & {
          return s->swTableEntries().control();
        },
        [this, &cfgWiped] {
          cfgWiped = true;
          raiseWiped("entryCfg");
        });
    FWK_ASSERT_NAMED(cfgSlate, "cfgSlate");
    tableConfigSlateIs(unitId, cfgSlate);
    EL_TRACE(2, " Mounted config for unitId: {} at {}", unitId, path);
    if (cfgWiped) {
      // The hardware may hold entries of the unit that nothing here
      // remembers: only a rebuild from the configuration removes them.
      requestHardwareResync("the configuration of a unit was lost");
    }
    resyncIfDamaged();

    // The versions this unit holds, and the change it may have been cut in,
    // were taken into account when the entry log was made.
    if (logVersion == 0) {
      return;
    }
    std::vector<Key> confirmed;
    forEachRecord(
        cfgSlate->swTableEntries(), [&] { confirmed.clear(); },
        [&](const ConfigEntry &r) {
          if (r.isDeleted && r.logVersion <= logVersion) {
            confirmed.push_back(r.logEntry.key);
          }
        });
    for (const Key &key : confirmed) {
      cfgSlate->swTableEntriesDel(key);
    }
  }

  // ---- The map of configuration tables ----

  Fwk::Ptr<ConfigSlateT> tableConfigSlate(UnitId unitId) const {
    const auto *s = tableConfigSlate_.find(unitId);
    return s ? *s : nullptr;
  }
  // The same without a counted reference, for hot paths; null if none.
  ConfigSlateT *tableConfigSlatePtr(UnitId unitId) const noexcept {
    const auto *s = tableConfigSlate_.find(unitId);
    return s ? s->ptr() : nullptr;
  }
  bool tableConfigSlateHas(UnitId unitId) const {
    return tableConfigSlate_.contains(unitId);
  }
  std::size_t tableConfigSlates() const noexcept {
    return tableConfigSlate_.size();
  }
  const auto &tableConfigSlateColl() const noexcept {
    return tableConfigSlate_;
  }
  void tableConfigSlateIs(UnitId unitId, const Fwk::Ptr<ConfigSlateT> &slate) {
    tableConfigSlate_.insert(unitId, slate);
    notify(attrTableConfigSlate, unitId);
  }
  void tableConfigSlateDel(UnitId unitId) {
    if (tableConfigSlate_.erase(unitId)) {
      notify(attrTableConfigSlate, unitId);
    }
  }
  void tableConfigSlateDelAll() {
    while (!tableConfigSlate_.empty()) {
      tableConfigSlateDel(UnitId(tableConfigSlate_.begin().key()));
    }
  }

  const Fwk::Ptr<EntryLogSlateT> &tableEntryLog() const noexcept {
    return tableEntryLog_;
  }
  // The number of changes logged and not yet retired.
  std::uint32_t entryLogRecords() const noexcept {
    return tableEntryLog_ ? tableEntryLog_->entryLogConfig().count() : 0;
  }
  // The version up to which the change log was last cleaned.
  LogVersion cleanupVersion() const noexcept { return cleanupVersion_; }

  // ---- Keeping versions in step with the hardware writer ----
  //
  // The hardware writer follows the change log and publishes the version it
  // has taken. Versions never go back: a writer that has confirmed a
  // version this log has not reached (the log was made anew, or restored
  // from an older copy, or its version word was damaged, while the writer's
  // record survived) would otherwise count new changes as taken that it
  // never applies. Such a log raises its table version above the confirmed
  // one and asks the writer to rebuild its tables from the configuration
  // tables: it reserves a version for the rebuild (the epoch, kept in the
  // change log's control words), and the writer, seeing an epoch it has not
  // rebuilt at, rebuilds and publishes a version at or above it. Until the
  // writer has confirmed the epoch, nothing committed before it is known to
  // be in the hardware: changes that log nothing wait for the epoch
  // (hwResyncPending).

  // The version of the last rebuild asked of the hardware writer; 0 if none.
  LogVersion hwResyncVersion() const noexcept {
    return tableEntryLog_ ? tableEntryLog_->entryLogConfig().control().epoch()
                          : 0;
  }
  // The rebuild version a change that logs nothing must wait for: the epoch
  // while the hardware has not confirmed it, else 0.
  LogVersion hwResyncPending() const noexcept {
    const LogVersion epoch = hwResyncVersion();
    return epoch > cleanupVersion_ ? epoch : 0;
  }

  // The hardware writer has confirmed `confirmed`: when the log has not
  // reached it, the table version is raised above it and the writer is
  // asked to rebuild. Returns whether it was raised.
  bool tableVersionAtLeast(LogVersion confirmed) {
    if (confirmed <= tableVersion()) {
      return false;
    }
    EL_TRACE(2,
             " Raising tableVersion from {} to {}, confirmed by the hardware",
             tableVersion(), confirmed);
    tableVersionIs(confirmed);
    requestHardwareResync("the hardware confirmed a version beyond the log");
    return true;
  }

  // Reserves the next version as the epoch at which the hardware writer
  // rebuilds its tables of this table type from the configuration tables.
  // The epoch is stored first: a restart finds it whatever instant the agent
  // was stopped at, and takes the table version at least to it.
  LogVersion requestHardwareResync(const char *why) {
    requireVersionLeft();
    const LogVersion v = tableVersion() + 1;
    auto &control = tableEntryLog_->entryLogConfig().control();
    control.epochIs(v);
    control.scratchpadIs(v);
    tableVersionIs(v);
    changeComplete(v);
    EL_TRACE(2, " Asking the hardware writer to rebuild at version {}: {}", v,
             why);
    return v;
  }

  // Records dropped as damaged, from the change log (a change the writer
  // may never take: it cannot tell the version from one never used) or from
  // a configuration table (an entry the hardware holds that nothing here
  // remembers), ask for a rebuild of the hardware from the configuration.
  // Checked after every mount and clean-up: it compares counts.
  void resyncIfDamaged() {
    if (!tableEntryLog_) {
      return;
    }
    std::uint64_t n = tableEntryLog_->entryLogConfig().corruptionCount();
    for (auto it = tableConfigSlate_.begin(); it != tableConfigSlate_.end();
         ++it) {
      n += it.value()->swTableEntries().corruptionCount();
    }
    if (n != corruptionsSeen_) {
      corruptionsSeen_ = n;
      requestHardwareResync("damaged records were dropped");
    }
  }

  // Whether a version the hardware writer says it has taken can be one of
  // this log's. One beyond the table version cannot: the writer follows
  // another log. That is reported once (HW_ABSTRACTION_ERROR, with a
  // request to relaunch the agents) and the caller ignores the version.
  bool hwVersionMatches(LogVersion confirmed) {
    if (confirmed <= tableVersion()) {
      return true;
    }
    EL_TRACE(1,
             " Hardware version {} is beyond tableVersion {}: the hardware "
             "writer follows another change log",
             confirmed, tableVersion());
    if (!hwAheadReported_) {
      hwAheadReported_ = true;
      AgentLog::raise(messages_.error,
                      fmt::format("{}::{}", "hwVersion", B::kWipedItem));
      requestRelaunch(*entityManager(), agentName());
    }
    return false;
  }

  // ---- Logging changes ----

  // Whether a write of the key can be logged now: the change log has room,
  // and the unit's configuration table holds the key or has room for it,
  // room including file space (which this reserves when needed).
  // Whether the change log can take one more change (a deletion, or a
  // table deletion: neither needs new space in a configuration table).
  bool canLogChange() const {
    return tableEntryLog_->entryLogConfig().roomForNewKey();
  }

  bool canLog(const Key &key, UnitId unitId) const {
    ConfigSlateT &slate = configSlateOf(unitId);
    return canLogAt(slate, slate.swTableEntries().at(key));
  }
  // The same for a key whose place in the unit's table was found.
  bool canLogAt(ConfigSlateT &slate, const ConfigPlace &at) const {
    if (!tableEntryLog_->entryLogConfig().roomForNewKey()) {
      return false;
    }
    return at.found() || slate.swTableEntries().roomForNewKey();
  }

  // The unit's configuration table, or null (a hot path's lookup: no
  // counted reference).
  ConfigSlateT *configSlateAt(UnitId unitId) const noexcept {
    return tableConfigSlatePtr(unitId);
  }

  // The committed record of a key at its place, verified; null when the
  // key has none or its record was corrupt (reported and dropped).
  static const ConfigEntry *committedAt(ConfigSlateT &slate, ConfigPlace &at) {
    auto &coll = slate.swTableEntries();
    try {
      return coll.recordAt(at);
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
      return nullptr;
    }
  }

  // Logs a write of one entry and returns its version. With
  // suppressIdenticalWrites, a write identical to the stored live record
  // returns the stored version and logs nothing.
  LogVersion entryIs(const LogEntry &logEntry, const ResourceKeys &rsrcKeys,
                     const Fwk::Ptr<const NeededEntry> &neededEntry,
                     UnitId unitId, const Fwk::Ptr<SwTableStats> &stats,
                     bool suppressIdenticalWrites) {
    ConfigSlateT &slate = configSlateOf(unitId);
    ConfigPlace at = slate.swTableEntries().at(logEntry.key);
    return entryIs(Entry::fromParts(rsrcKeys, logEntry), slate, at, neededEntry,
                   unitId, stats, suppressIdenticalWrites);
  }

  // The same for an entry whose key's place in the unit's table was found
  // (a commit): the configuration record is built in its slot from the
  // entry, and the stored one is compared where it lies.
  LogVersion entryIs(const Entry &entry, ConfigSlateT &slate, ConfigPlace &at,
                     const Fwk::Ptr<const NeededEntry> &neededEntry,
                     UnitId unitId, const Fwk::Ptr<SwTableStats> &stats,
                     bool suppressIdenticalWrites) {
    EL_TRACE(8,
             " logEntry: {} neededEntry: {} version: {} unitId: {} "
             "suppressIdenticalWrites: {}",
             entry.logEntry(), neededEntry, tableVersion(), unitId,
             suppressIdenticalWrites);
    const Key &key = entry.key;
    tableEntryLog_->entryLogConfig().prefetch(tableVersion() + 1);
    if (suppressIdenticalWrites) {
      const ConfigEntry *stored = at.found() ? committedAt(slate, at) : nullptr;
      if (stored && !stored->isDeleted) {
        const bool identical = std::memcmp(stored, &entry, sizeof(Entry)) == 0;
        if (identical && hwRefusedKey(key, unitId)) {
          EL_TRACE(3,
                   "key: {}: the hardware refused the stored entry; logging "
                   "it again",
                   key);
        } else if (identical) {
          if (stats) {
            stats->suppressedWriteCntInc(1);
          }
          EL_TRACE(3, "Suppressing identical write for key: {}", key);
          if (stored->logVersion != 0) {
            return stored->logVersion;
          }
        } else {
          EL_TRACE(3,
                   "Not Suppressing write because entry or resource key is "
                   "different  for key: {}",
                   key);
          if (stats) {
            stats->suppressCheckDiffCntInc(1);
          }
        }
      }
    }
    refuseIfLogFull();
    const LogVersion v = reserveNextVersion();
    try {
      slate.swTableEntries().insertAt(at, false, [&](ConfigEntry &r) {
        std::memcpy(static_cast<void *>(&r), &entry, sizeof(Entry));
        std::memset(reinterpret_cast<unsigned char *>(&r) + sizeof(Entry), 0,
                    sizeof(ConfigEntry) - sizeof(Entry));
        r.logVersion = v;
      });
    } catch (const Shm::CollectionFullError &) {
      // A new key into a full table: the store wrote nothing, and no record
      // carries the version, so the reservation is taken back.
      releaseVersion(v);
      throw;
    }
    logChange(v, entry.logEntry(), unitId, 0, neededEntry);
    changeComplete(v);
    return v;
  }

  // Whether the hardware writer refused the key's stored entry: an
  // identical write is then logged again, for the writer to try again.
  bool hwRefusedKey(const Key &key, UnitId unitId) const {
    const auto &group = groupInterface();
    return group && group->hasHwRefusals() &&
           group->hwRefusal(tableId(), unitId, key.packed()) != nullptr;
  }

  // Logs the deletion of one entry; 0 when the key has no record. A record
  // already marked deleted is deleted again under a new version.
  LogVersion entryDel(const Key &key,
                      const Fwk::Ptr<const NeededEntry> &neededEntry,
                      UnitId unitId) {
    ConfigSlateT &slate = configSlateOf(unitId);
    ConfigPlace at = slate.swTableEntries().at(key);
    return entryDel(key, slate, at, neededEntry, unitId);
  }
  // The same for a key whose place in the unit's table was found: the
  // deleted record is copied once, from the stored one's slot to its new.
  LogVersion entryDel(const Key &key, ConfigSlateT &slate, ConfigPlace &at,
                      const Fwk::Ptr<const NeededEntry> &neededEntry,
                      UnitId unitId) {
    EL_TRACE(8, " key:{} neededEntry: {} unitId: {}", key, neededEntry, unitId);
    tableEntryLog_->entryLogConfig().prefetch(tableVersion() + 1);
    const ConfigEntry *stored = at.found() ? committedAt(slate, at) : nullptr;
    if (!stored) {
      EL_TRACE(3, " key: {} entry does not exist. So ignoring delete", key);
      return 0;
    }
    const LogEntry logEntry = stored->logEntry;
    refuseIfLogFull();
    const LogVersion v = reserveNextVersion();
    // The stored copy stays where it is until the new one is published.
    slate.swTableEntries().insertAt(at, true, [&](ConfigEntry &r) {
      std::memcpy(static_cast<void *>(&r), stored, sizeof(ConfigEntry));
      r.logVersion = v;
      r.isDeleted = 1;
    });
    logChange(v, logEntry, unitId, LogRecord::kEntryDelete, neededEntry);
    changeComplete(v);
    return v;
  }

  // Logs the deletion of every entry of the unit, also when it has none.
  LogVersion tableDel(const Fwk::Ptr<const NeededEntry> &neededEntry,
                      UnitId unitId) {
    EL_TRACE(8, " neededEntry:{}, unitId: {}", neededEntry, unitId);
    ConfigSlateT &slate = configSlateOf(unitId);
    refuseIfLogFull();
    const LogVersion v = reserveNextVersion();
    // The change-log record comes first: it names every record the deletion
    // marks, so a restart can finish the marking (completeLastChange).
    logChange(v, LogEntry{}, unitId, LogRecord::kTableDelete, neededEntry);
    markTableDeleted(slate, v);
    changeComplete(v);
    return v;
  }

  // ---- Reads ----

  LogEntry entry(const Key &key, UnitId unitId) const {
    EL_TRACE(8, " key: {} unitId:{}", key, unitId);
    return stored(key, unitId).logEntry;
  }
  bool entryHas(const Key &key, UnitId unitId) const {
    EL_TRACE(8, " key: {} unitId:{}", key, unitId);
    auto slate = tableConfigSlate(unitId);
    ConfigEntry r;
    return slate && lookup(*slate, key, r) && !r.isDeleted;
  }
  ResourceKeys entryRsrcKeys(const Key &key, UnitId unitId) const {
    EL_TRACE(8, " key: {} unitId:{}", key, unitId);
    return stored(key, unitId).rsrcKeys;
  }
  LogVersion entryLogVersion(const Key &key, UnitId unitId) const {
    EL_TRACE(8, " key: {} unitId:{}", key, unitId);
    return stored(key, unitId).logVersion;
  }
  // The unit's records marked deleted, in O(1).
  std::uint32_t entrysInDeletion(UnitId unitId) const {
    EL_TRACE(8, " unitId:{}", unitId);
    auto slate = tableConfigSlate(unitId);
    return slate ? slate->swTableEntries().flaggedCount() : 0;
  }
  // The unit's live records, in O(1).
  std::uint32_t entrys(UnitId unitId) const {
    EL_TRACE(8, " unitId:{}", unitId);
    const auto &coll = configSlateOf(unitId).swTableEntries();
    return static_cast<std::uint32_t>(coll.count() - coll.flaggedCount());
  }

  // ---- Clean-up ----

  // Retires every logged change up to and including `logVersion`.
  void cleanupEntryLog(LogVersion logVersion) {
    EL_TRACE(8, " version {}", logVersion);
    // A version below the mark retires nothing (the mark moves back), and
    // neither does version 0, which is never handed out.
    if (tableEntryLog_ && logVersion != 0 && logVersion >= cleanupVersion_) {
      auto &log = tableEntryLog_->entryLogConfig();
      if (cleanupVersion_ == 0 || logVersion - cleanupVersion_ >= log.count()) {
        // A walk of the log in its order: always after a start, and whenever
        // it is cheaper than visiting every version of the range. Versions
        // above those handed out never exist, so the two retire the same.
        for (auto k = log.firstKey(); k; k = log.nextKey(*k)) {
          if (*k <= logVersion) {
            retireAt(*k);
          }
        }
      } else {
        for (LogVersion n = cleanupVersion_;; ++n) {
          retireAt(n);
          if (n == logVersion) {
            break;
          }
        }
      }
    }
    if (logVersion != cleanupVersion_) {
      cleanupVersion_ = logVersion;
      notify(attrCleanupVersion);
    }
    resyncIfDamaged();
    // Changes that waited for room: as many as there is room for now.
    if (parked() != 0 && tableEntryLog_) {
      const std::uint32_t count = entryLogRecords();
      if (count < EntryLogSlateT::kCapacity) {
        wake(EntryLogSlateT::kCapacity - count);
      }
    }
  }

protected:
  // The node is being destroyed: the mounts are released, the shared-memory
  // contents stay for the next agent.
  ~OrderedEntryLog() override {
    tableConfigSlate_.clear();
    tableEntryLog_ = nullptr;
  }

private:
  template <typename... Args>
  static void traceAt(Trace::Level level, const char *function, int line,
                      fmt::format_string<Args...> f, Args &&...args) {
    Trace::Handle &h = Trace::handleOf<typename B::EntryLog>();
    // The level is tested before anything is formatted.
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, B::kEntryLogSourceUnit, function, line,
                   B::kEntryLogClass, f, std::forward<Args>(args)...);
    }
  }

  void raiseWiped(const char *what) {
    AgentLog::raise(messages_.error,
                    fmt::format("{}::{}", what, B::kWipedItem));
  }

  ConfigSlateT &configSlateOf(UnitId unitId) const {
    const auto *s = tableConfigSlate_.find(unitId);
    FWK_ASSERT_TEXT(s != nullptr, "tableConfigSlateHas( unitId )",
                    "Config slate for unitId:{} is not created yet!", unitId);
    return **s;
  }

  // Reserves the next version in the scratchpad before anything uses it.
  // No agent counts up to the end of 64 bits; damage can put the scratchpad
  // there, and then the change fails rather than wrap to version 0, which
  // stands for none.
  LogVersion reserveNextVersion() {
    requireVersionLeft();
    const LogVersion v = tableVersion() + 1;
    tableEntryLog_->entryLogConfig().control().scratchpadIs(v);
    tableVersionInc(1);
    return v;
  }
  void requireVersionLeft() const {
    if (tableVersion() == std::numeric_limits<LogVersion>::max()) [[unlikely]] {
      throw Shm::Error(
          fmt::format("{}: the log versions are used up", B::kEntryLogClass));
    }
  }
  // Takes back the reservation of `v`, which no record carries.
  void releaseVersion(LogVersion v) {
    tableEntryLog_->entryLogConfig().control().scratchpadIs(v - 1);
    tableVersionIs(v - 1);
  }

  void logChange(LogVersion v, const LogEntry &logEntry, UnitId unitId,
                 std::uint8_t deleteBits,
                 const Fwk::Ptr<const NeededEntry> &needed) {
    LogRecord r{};
    r.logVersion = v;
    r.logEntry = logEntry;
    r.unitId = unitId;
    r.deleteBits = deleteBits;
    tableEntryLog_->entryLogConfigIs(r);
    if (groupInterface()) {
      groupInterface()->addLogEntry(tableId(), v, needed);
    }
  }

  // Nothing may be written when the change log cannot take the change's
  // record, full or without file space for it: checked (and the space
  // reserved) before a version is reserved. (A configuration table without
  // room for a new key is refused by the store itself, before it writes
  // anything.)
  void refuseIfLogFull() const {
    auto &log = tableEntryLog_->entryLogConfig();
    if (log.count() >= log.capacity()) {
      throw Shm::CollectionFullError(
          fmt::format("{}: the change log is full ({} records)",
                      B::kEntryLogClass, log.capacity()));
    }
    log.reserveNewKey();
  }

  // A lookup that treats corrupt shared memory as absence.
  static bool lookup(ConfigSlateT &slate, const Key &key, ConfigEntry &out) {
    return slate.swTableEntries().findOrDrop(key, out);
  }

  ConfigEntry stored(const Key &key, UnitId unitId) const {
    ConfigEntry r{};
    if (auto slate = tableConfigSlate(unitId)) {
      lookup(*slate, key, r);
    }
    return r;
  }

  // Visits every key of a unit in the table's order. The callback may
  // rewrite or delete records.
  template <typename F> static void forEachKey(ConfigSlateT &slate, F &&f) {
    auto &coll = slate.swTableEntries();
    for (auto k = coll.firstKey(); k; k = coll.nextKey(*k)) {
      f(*k);
    }
  }

  // Visits every record of a collection (read only) in one sequential pass
  // over its slots, in no particular order. A corrupt record is dropped (by
  // its slot, so once) and the pass starts over, so `restart` runs before
  // every pass.
  template <typename Coll, typename R, typename F>
  static void forEachRecord(Coll &coll, R &&restart, F &&f) {
    for (;;) {
      restart();
      try {
        coll.forEachInPlace(f);
        return;
      } catch (const Shm::CorruptionError &e) {
        coll.doCorruptionDetected(e.what());
      }
    }
  }

  // Retires the change of version n, if it is logged, and deletes its
  // change-log record. The record goes last: while it is there, a clean-up
  // cut off by a crash is redone by the next one.
  void retireAt(LogVersion n) {
    auto &log = tableEntryLog_->entryLogConfig();
    auto at = log.at(n);
    if (!at.found()) {
      return;
    }
    LogRecord r;
    try {
      r = *log.recordAt(at);
    } catch (const Shm::CorruptionError &e) {
      log.doCorruptionDetected(e.what());
      return;
    }
    retire(r);
    log.eraseAt(at);
  }

  // Marks every live record of the unit deleted under version v. Records
  // already marked keep their own version: their own deletion retires them.
  void markTableDeleted(ConfigSlateT &slate, LogVersion v) {
    forEachKey(slate, [&](const Key &key) {
      ConfigEntry r;
      if (lookup(slate, key, r) && !r.isDeleted) {
        r.logVersion = v;
        r.isDeleted = true;
        slate.swTableEntriesIs(r);
      }
    });
  }

  // Sets the table version after every version on file: the scratchpad,
  // the change log, and the configuration table of every unit on file,
  // mounted yet or not (a unit mounted later must not hold a version handed
  // out before its mount). Then completes the change that holds the largest
  // version if a crash cut it, unless the change log was lost.
  void restoreTableVersion(bool logWiped) {
    auto &log = tableEntryLog_->entryLogConfig();
    // A rebuild asked of the hardware writer reserved its epoch: no change
    // may take that version.
    const LogVersion stored =
        std::max(log.control().scratchpad(), log.control().epoch());
    LogVersion version = stored;
    forEachRecord(
        log, [&] { version = stored; },
        [&](const LogRecord &r) { version = std::max(version, r.logVersion); });
    std::vector<UnitId> units;
    std::optional<std::pair<UnitId, ConfigEntry>> newest;
    forEachUnitOnFile([&](UnitId unit, ConfigCollection &coll) {
      units.push_back(unit);
      std::optional<ConfigEntry> best;
      forEachRecord(
          coll, [&] { best.reset(); },
          [&](const ConfigEntry &r) {
            if (!best || r.logVersion > best->logVersion) {
              best = r;
            }
          });
      if (best && (!newest || best->logVersion > newest->second.logVersion)) {
        newest.emplace(unit, *best);
      }
    });
    if (newest) {
      version = std::max(version, newest->second.logVersion);
    }
    // The records that raised it above the scratchpad can all be cleaned
    // up before the next change writes the scratchpad: it takes the version
    // now, or a later restart would find neither and hand it out again.
    if (version > log.control().scratchpad()) {
      log.control().scratchpadIs(version);
    }
    tableVersionIs(version);
    if (!logWiped && version > log.control().auxiliary()) {
      completeLastChange(version, newest, units);
    }
  }

  using ConfigCollection = typename ConfigSlateT::Collection;

  // The path and unit of every configuration table on file.
  std::vector<std::pair<std::string, UnitId>> unitsOnFile() const {
    const std::string any = B::Constants::configSlatePath(0);
    std::vector<std::pair<std::string, UnitId>> out;
    for (std::string &path : agentShmEntityManager(*entityManager())
                                 ->entityPaths(any.substr(0, any.rfind('/')))) {
      const auto unit = Constants::getUnitIdFromConfigPath(path);
      if (unit && B::Constants::configSlatePath(*unit) == path) {
        out.emplace_back(std::move(path), *unit);
      }
    }
    return out;
  }

  // Calls f(unit, records) for every unit's configuration table on file:
  // through its mount when it is mounted, else through a read-only mount
  // that ends with f. A file that cannot be read as one (damaged or of
  // another layout) is skipped: its unit's mount recreates it empty.
  template <typename F> void forEachUnitOnFile(F &&f) const {
    auto shm = agentShmEntityManager(*entityManager());
    for (const auto &[path, unit] : unitsOnFile()) {
      if (auto mounted = Fwk::ptrCast<ConfigSlateT>(shm->entity(path))) {
        f(unit, mounted->swTableEntries());
        continue;
      }
      auto group = shm->mountGroup();
      try {
        group->doMount(path, ConfigSlateT::kTypeName,
                       Shm::MountInfo(Shm::MountInfo::kReaderMount));
      } catch (const Shm::CorruptionError &) {
        continue;
      } catch (const Shm::LayoutError &) {
        continue;
      } catch (const Shm::NotFoundError &) {
        continue; // removed since it was listed
      }
      const UnmountAtEnd end{group};
      f(unit, Fwk::ptrCast<ConfigSlateT>(shm->entity(path))->swTableEntries());
    }
  }
  struct UnmountAtEnd {
    Fwk::Ptr<Shm::MountGroup> group;
    ~UnmountAtEnd() { group->doUnmount(); }
  };

  // A change is written in two collections, so a crash can cut it in half;
  // the change log's auxiliary word holds the version of the last change
  // that was written whole. The change of `v`, the largest version on file,
  // was not, and it is completed when the entry log is made: later, another
  // unit's change could come first, and a restart before this unit's mount
  // would find that one complete and this one forgotten. A write or a
  // deletion of one entry writes its configuration record first (`newest`,
  // when it carries v): the change-log record is written. A table deletion
  // writes its change-log record first: the unit's records are marked.
  void completeLastChange(
      LogVersion v, const std::optional<std::pair<UnitId, ConfigEntry>> &newest,
      const std::vector<UnitId> &units) {
    LogRecord logged;
    if (tableEntryLog_->entryLogConfig().findOrDrop(v, logged)) {
      if (logged.isTableDelete() &&
          std::find(units.begin(), units.end(), logged.unitId) != units.end()) {
        EL_TRACE(
            2, " completing table delete {} of unitId {} cut off by a restart",
            v, logged.unitId);
        markTableDeletedOnFile(logged.unitId, v);
      }
    } else if (newest && newest->second.logVersion == v) {
      const ConfigEntry &last = newest->second;
      EL_TRACE(2, " completing change {} of key {} cut off by a restart", v,
               last.logEntry.key);
      logChange(v, last.logEntry, newest->first,
                last.isDeleted ? LogRecord::kEntryDelete : 0, nullptr);
    }
    changeComplete(v);
  }

  // markTableDeleted on a unit that need not be mounted yet: through a
  // writer mount of its own, which ends here (the unit's own mount comes
  // later, as usual).
  void markTableDeletedOnFile(UnitId unitId, LogVersion v) {
    auto shm = agentShmEntityManager(*entityManager());
    const std::string path = B::Constants::configSlatePath(unitId);
    auto mounted = Fwk::ptrCast<ConfigSlateT>(shm->entity(path));
    if (mounted && mounted->access() == Shm::Access::write) {
      markTableDeleted(*mounted, v);
      return;
    }
    auto group = shm->mountGroup();
    Shm::MountInfo info;
    info.collectionInfoIs(ConfigSlateT::kCollection, ConfigSlateT::kCapacity);
    group->doMount(path, ConfigSlateT::kTypeName, info);
    const UnmountAtEnd end{group};
    markTableDeleted(*Fwk::ptrCast<ConfigSlateT>(shm->entity(path)), v);
  }

  // Marks change v written whole.
  void changeComplete(LogVersion v) {
    tableEntryLog_->entryLogConfig().control().auxiliaryIs(v);
  }

  void retire(const LogRecord &r) {
    ConfigSlateT *slate = tableConfigSlatePtr(r.unitId);
    if (!slate) {
      EL_TRACE(3, " configSlate not found for unitId: {}", r.unitId);
      return;
    }
    if (r.isEntryDelete()) {
      ConfigPlace at = slate->swTableEntries().at(r.logEntry.key);
      const ConfigEntry *c = at.found() ? committedAt(*slate, at) : nullptr;
      if (c && c->logVersion == r.logVersion) {
        slate->swTableEntries().eraseAt(at);
      }
      // A different version: the key was written again after its deletion,
      // and the newer record stays.
    } else if (r.isTableDelete()) {
      EL_TRACE(3, " deleteing all entries for unitId: {}", r.unitId);
      forEachKey(*slate, [&](const Key &key) {
        ConfigEntry c;
        if (lookup(*slate, key, c) && c.logVersion == r.logVersion) {
          slate->swTableEntriesDel(key);
        }
      });
    }
  }

  EntryLogMessages messages_;
  bool hwAheadReported_ = false;
  std::uint64_t corruptionsSeen_ = 0;
  Fwk::Ptr<EntryLogSlateT> tableEntryLog_;
  Fwk::HashMap<UnitId, Fwk::Ptr<ConfigSlateT>> tableConfigSlate_{0x27b70a85u};
  LogVersion cleanupVersion_ = 0;
};

#undef EL_TRACE

} // namespace Asic
