// The hardware writer's store instance, and the library the tools share to
// follow an agent's change logs into simulated hardware tables.
//
// The folder (tools/hw):
//   HwStore.h            this file: what the hardware writer keeps in its
//                        own instance, and its writer handle
//   InstanceView.h       a read-only view of another process's instance that
//                        outlives that process
//   ChangeLogFollower.h  follows one table type's change log in version
//                        order and applies it to per-unit hardware tables
//   AgentNotify.h        tells the agent that versions were published
//
// The hardware writer of agent A writes only the instance "A-hw", id 0:
//
//   ordered/MicaMpls/tableVersion   Asic::TableVersionSlate: per table type,
//                                   the version the writer has taken (what
//                                   the agent reads to retire its log)
//   ordered/MicaMpls/hwRefused      Asic::HwRefusalSlate: the changes the
//                                   hardware refused (a new key into a full
//                                   table), until a later change of the key
//                                   is taken; the agent fails their handles
//   hw/MicaMpls/follow              MicaMplsHw::FollowSlate: per table type,
//                                   the change-log file followed and the
//                                   writer's counters (FollowRecord)
//   hw/MicaMpls/<table>/<unit>      MicaMplsHw::<table>HwTable: one simulated
//                                   exact-match table per table type and
//                                   unit, collection "hwEntries" keyed by the
//                                   label key, record = the table's log entry
//                                   (MicaMplsHw::<table>HwEntry)
//
// Records (explicit padding, always zero):
//   FollowRecord  tableId u32 | pad u32 | sourceId | changesApplied |
//                 tableFullReports | gapsSkipped | resyncs | updatedTimeNs |
//                 epoch = 4 + 4 + 7 * 8 = 64 bytes, keyed by tableId
//   <table>HwEntry  the table's log entry, keyed by its label key:
//                 ISEM2 key 8 | inLif0Index 4 | inLif23Index 4 = 16 bytes,
//                 LEM key 8 | fecId 4 | errorCode 4 | reserved 2 * 4 = 24
//
//   MicaMplsHw::HwStore store("mpls-agent", 65536);   // takes the writer lock
//   auto unit1 = store.hwTable<MicaMpls::MplsIsem2Binding>(1);
//   unit1->hwEntries().insert(logEntry);
//   store.publish(tableId, version, followRecord);
//
// Crash safety: the writer changes the hardware tables (and records the
// changes they refused) first and publishes the version after, so a version
// it published is always in the tables or among the refusals. Each
// hardware table keeps the version of the last change it took, so a restart
// takes what came after the published version without applying a change
// twice (see ChangeLogFollower.h). A rebuild of the tables from the
// agent's configuration publishes only once every unit is rebuilt (see
// ChangeLogFollower.h), and a table whose contents were lost keeps its
// wiped flag until it is rebuilt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrderedTable/EntryLogRecords.h"
#include "platform/asic/Constants.h"
#include "platform/asic/HwRefusalSlate.h"
#include "platform/asic/TableVersionSlate.h"
#include "platform/shm/Store.h"

namespace MicaMplsHw {

// The group whose tables the tools follow.
inline constexpr const char *kGroup = "MicaMpls";

// The instance the hardware writer of `agentName` writes.
inline std::string hwInstanceName(const std::string &agentName) {
  return agentName + "-hw";
}

namespace detail {

// A NUL-terminated name joined from three parts at compile time, so that a
// table's entity and record names derive from its binding's table name.
template <std::size_t N> struct JoinedName {
  char text[N + 1] = {};
};
template <std::size_t N>
constexpr JoinedName<N> joinName(std::string_view a, std::string_view b,
                                 std::string_view c) {
  JoinedName<N> out;
  std::size_t at = 0;
  for (std::string_view part : {a, b, c}) {
    for (char ch : part) {
      out.text[at++] = ch;
    }
  }
  return out;
}

} // namespace detail

// Names of a table type's hardware tables: "MicaMplsHw::<table>HwTable"
// holding "MicaMplsHw::<table>HwEntry" records.
template <typename B> struct HwTableNames {
  static constexpr std::string_view kTable = B::Constants::tableName;
  static constexpr std::string_view kPrefix = "MicaMplsHw::";
  static constexpr auto kTypeText =
      detail::joinName<kPrefix.size() + kTable.size() + 7>(kPrefix, kTable,
                                                           "HwTable");
  static constexpr auto kRecordText =
      detail::joinName<kPrefix.size() + kTable.size() + 7>(kPrefix, kTable,
                                                           "HwEntry");
  static constexpr const char *kTypeName = kTypeText.text;
  static constexpr const char *kRecordName = kRecordText.text;
  static constexpr const char *kCollection = "hwEntries";
  static constexpr std::uint32_t kCapacity = 65536; // the default
};

// A hardware entry is the table's log entry: the key and the resolved
// fields the chip holds.
template <typename B> struct HwEntryTraits {
  using Key = typename B::Key;
  using Record = typename B::LogEntry;
  static Key keyOf(const Record &r) noexcept { return r.key; }
  static constexpr const char *kRecordName = HwTableNames<B>::kRecordName;
  static constexpr std::uint32_t kRecordVersion = 1;
};

// One unit's simulated hardware table of a table type.
template <typename B>
class HwTable
    : public Shm::OneCollectionEntity<HwEntryTraits<B>, HwTableNames<B>> {
public:
  using Base = Shm::OneCollectionEntity<HwEntryTraits<B>, HwTableNames<B>>;
  using Base::Base;
  using Collection = typename Base::Collection;

  Collection &hwEntries() noexcept { return this->collection_; }
  const Collection &hwEntries() const noexcept { return this->collection_; }
};

// Where the hardware tables of a table type live: hwTableBase<B>() holds one
// entity per unit, hwTablePath<B>(unit).
template <typename B> std::string hwTableBase() {
  return std::string("hw/") + B::Constants::groupName + "/" +
         B::Constants::tableName;
}
template <typename B> std::string hwTablePath(Asic::UnitId unit) {
  return hwTableBase<B>() + "/" + std::to_string(unit);
}

// What the hardware writer keeps per table type besides the version: which
// change-log file it follows and what it has done, over all its runs.
struct FollowRecord {
  std::uint32_t tableId = 0; // the packed SwTableId
  std::uint32_t pad = 0;
  // The identity of the change-log file the tables follow (see sourceIdOf);
  // 0 while the tables are being rebuilt and are in step with no log.
  std::uint64_t sourceId = 0;
  std::uint64_t changesApplied = 0;
  std::uint64_t tableFullReports = 0; // writes of new keys into full tables
  std::uint64_t gapsSkipped = 0;      // versions reserved and never used
  std::uint64_t resyncs = 0; // tables rebuilt from the agent's configuration
  std::int64_t updatedTimeNs = 0; // UTC, ns since the epoch
  // The agent's rebuild version (the change log's epoch word) the tables
  // were last rebuilt at; a log asking for another one is rebuilt from.
  std::uint64_t epoch = 0;
};

static_assert(sizeof(FollowRecord) == 64, "the layout at the top of the file");

struct FollowRecordTraits {
  using Key = std::uint32_t;
  using Record = FollowRecord;
  static Key keyOf(const Record &r) noexcept { return r.tableId; }
  static constexpr const char *kRecordName = "MicaMplsHw::FollowRecord";
  static constexpr std::uint32_t kRecordVersion = 2;
};

struct FollowSlateNames {
  static constexpr const char *kTypeName = "MicaMplsHw::FollowSlate";
  static constexpr const char *kCollection = "follow";
  static constexpr std::uint32_t kCapacity = 256;
};

class FollowSlate
    : public Shm::OneCollectionEntity<FollowRecordTraits, FollowSlateNames> {
public:
  using OneCollectionEntity::OneCollectionEntity;
  Collection &follow() noexcept { return collection_; }
  const Collection &follow() const noexcept { return collection_; }
  static std::string path() { return std::string("hw/") + kGroup + "/follow"; }
};

// Registers an entity type with the store on first use in the process (the
// tools mount by type name; a static library's registrar might never run).
template <typename E> void ensureEntityType() {
  static const Shm::EntityTypeRegistrar<E> kRegistrar;
}

// The identity of the file an entity maps: the random seed its header got
// when the file was created, so a file deleted and created again (a new
// agent store) has another one. 0 when it cannot be read.
std::uint64_t sourceIdOf(const Shm::Entity &entity);

// The units of the per-unit entities under `base` ("<base>/<unit>") that are
// on disk in an instance, in increasing order.
std::vector<Asic::UnitId> unitsIn(const Shm::EntityManager &em,
                                  const std::string &base);

// The current time as FollowRecord stores it.
std::int64_t nowNs();

// The hardware writer's handle of its own instance.
class HwStore {
public:
  // Opens "<agentName>-hw" id 0 for writing and mounts its table versions
  // and follow records. Throws Shm::LockedError when another process
  // writes it. `capacity` is the capacity of every hardware table.
  HwStore(const std::string &agentName, std::uint32_t capacity);
  ~HwStore();
  HwStore(const HwStore &) = delete;
  HwStore &operator=(const HwStore &) = delete;

  const Fwk::Ptr<Shm::EntityManager> &instance() const noexcept { return em_; }
  std::uint32_t capacity() const noexcept { return capacity_; }

  // The unit's hardware table, mounted (and created) on first use.
  // `wiped` is set while the table's contents are lost: it had been created
  // before and its file was lost or damaged. The flag stays in the file
  // until the caller has rebuilt the table and clears it
  // (hwEntries().control().clearWiped()), so that a writer that stops
  // before then finds the table wiped again.
  template <typename B>
  Fwk::Ptr<HwTable<B>> hwTable(Asic::UnitId unit, bool *wiped = nullptr) {
    ensureEntityType<HwTable<B>>();
    const std::string path = hwTablePath<B>(unit);
    auto table = Fwk::ptrCast<HwTable<B>>(em_->entity(path));
    if (!table) {
      table = Shm::mountOne<HwTable<B>>(em_, path, capacity_);
    }
    if (wiped) {
      *wiped = table->hwEntries().control().wiped();
    }
    return table;
  }
  // The changes the hardware refused.
  Asic::HwRefusalSlate &refusals() noexcept { return *refusals_; }

  // The units that have a hardware table of the table type on disk.
  template <typename B> std::vector<Asic::UnitId> hwUnits() const {
    return unitsIn(*em_, hwTableBase<B>());
  }

  // The version last published for the table type, if any.
  std::optional<Asic::LogVersion> published(Asic::SwTableId tableId);
  // The follow record of the table type (a default one with the id set when
  // there is none).
  FollowRecord followRecord(Asic::SwTableId tableId);
  // Stores the follow record, then publishes the version. REQUIRES: every
  // change up to `version` is in the hardware tables.
  void publish(Asic::SwTableId tableId, Asic::LogVersion version,
               FollowRecord record);

private:
  Fwk::Ptr<Shm::EntityManager> em_;
  std::uint32_t capacity_;
  Fwk::Ptr<Asic::TableVersionSlate> versions_;
  Fwk::Ptr<FollowSlate> follow_;
  Fwk::Ptr<Asic::HwRefusalSlate> refusals_;
};

} // namespace MicaMplsHw
