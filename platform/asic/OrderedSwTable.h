// The base classes of ordered software tables and the objects a change
// travels with.
//
// A software table (per unit) derives from OrderedSwTableWithMarkSweep. Each
// accepted change yields an OrderedSwTable::EntryHandle that its caller
// follows (entry state, log version) and whose response handler runs once
// the change is finished or has failed:
//
//   auto h = table->entryWriteWithResponseHandler(key, entry, nullptr,
//       [](const Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle> &h) {
//         if (h->entryState() == Asic::EntryState::finished) ...;
//       });
//
// Every attribute change of a table, its statistics, its set and its status
// is announced to observers (Fwk::Notifier). Entry handles, resolver entries
// and needed-entry sets are plain counted objects: they are followed, not
// observed.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/Types.h"
#include "platform/asic/WaitPoint.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"
#include "platform/framework/Object.h"

namespace Asic {

// Progress of a change, as its handle reports it. Resource handles of the
// resource tables use the same numbers.
enum class EntryState : std::uint8_t {
  made = 0,          // made, not processed yet
  logged = 1,        // committed to the entry log, waiting for the hardware
  inProgress = 2,    // (resource handles only) being worked on
  rejected = 3,      // refused before it was tried
  finished = 4,      // done: the hardware has it, or nothing had to wait
  failed = 5,        // failed
  resolveFailed = 6, // a resource it needed failed
};

// A dependency in one of these states has failed.
constexpr bool entryStateFailed(EntryState s) noexcept {
  return s == EntryState::rejected || s == EntryState::failed ||
         s == EntryState::resolveFailed;
}

class GroupResolver;
class OrderedSwTableSet;
class OrderedSwTableStatus;

// The canonical name of a table: a kind (0 a software table, 2 a resource
// table), a namespace and a name; its text is "<namespace>::<name>".
class MICA_PLATFORM_API CanonicalTableName : public Fwk::Object {
public:
  enum Kind : std::uint8_t {
    softwareTable = 0,
    hardwareTable = 1,
    resourceTable = 2
  };

  CanonicalTableName(Kind kind, std::string ns, std::string name);
  static Fwk::Ptr<const CanonicalTableName>
  canonicalTableNameIs(Kind kind, std::string ns, std::string name);

  Kind kind() const noexcept { return kind_; }
  const std::string &ns() const noexcept { return ns_; }
  const std::string &name() const noexcept { return name_; }
  const std::string &str() const noexcept { return str_; }
  bool operator==(const CanonicalTableName &o) const noexcept {
    return kind_ == o.kind_ && str_ == o.str_;
  }

private:
  ~CanonicalTableName() override;
  Kind kind_;
  std::string ns_;
  std::string name_;
  std::string str_;
};

// A change another table's change must wait for: its table, its entry state
// and the log version it was committed under.
//
// A group resolver that finds a change waiting on an unfinished dependency
// parks the change on the dependency's handle (a WaitPoint); the handle's
// next change of state hands every change parked on it back to its
// resolver, so nothing has to poll the handle.
class MICA_PLATFORM_API DependencyEntryHandle : public Fwk::Object,
                                                public WaitPoint {
public:
  EntryState entryState() const noexcept { return entryState_; }
  void entryStateIs(EntryState s) {
    if (s == entryState_) {
      return;
    }
    entryState_ = s;
    if (parked() != 0) [[unlikely]] {
      wake();
    }
  }
  LogVersion logVersion() const noexcept { return logVersion_; }
  void logVersionIs(LogVersion v) noexcept { logVersion_ = v; }
  virtual SwTableId tableId() const = 0;

protected:
  DependencyEntryHandle() noexcept : WaitPoint(WaitKind::dependency) {}
  ~DependencyEntryHandle() override;

private:
  LogVersion logVersion_ = 0;
  EntryState entryState_ = EntryState::made;
};

// The set of other tables' versions that a committed entry depends on. The
// resource linkage fills it, the commit adds the change's dependency, and the
// entry log hands it to the group interface.
class MICA_PLATFORM_API NeededEntry : public Fwk::Object {
public:
  NeededEntry() = default;
  static Fwk::Ptr<NeededEntry> neededEntryIs() {
    return Fwk::make<NeededEntry>();
  }

  void add(const TableVersion &v);
  // Adds the dependency's table and log version.
  void add(const Fwk::Ptr<const DependencyEntryHandle> &dependency);
  const std::vector<TableVersion> &versions() const noexcept {
    return versions_;
  }
  bool empty() const noexcept { return versions_.empty(); }

private:
  ~NeededEntry() override;
  std::vector<TableVersion> versions_;
};

// Statistics of one software table.
class MICA_PLATFORM_API SwTableStats : public Fwk::Notifier {
public:
  using Clock = std::chrono::system_clock;

#define MICA_SW_TABLE_STATS_COUNTERS(X)                                        \
  X(entryWriteCnt, 1)                                                          \
  X(entryRemoveCnt, 2)                                                         \
  X(resolveFailCnt, 3)                                                         \
  X(tableClearCnt, 4)                                                          \
  X(commitCnt, 5)                                                              \
  X(suppressedWriteCnt, 6)                                                     \
  X(suppressCheckDiffCnt, 7)                                                   \
  X(updateCnt, 8)                                                              \
  X(updateWithFailedResourceCnt, 9)                                            \
  X(logRefusedCnt, 11)                                                         \
  X(hwRefusedCnt, 12)

#define MICA_STATS_COUNTER(name, id)                                           \
  static constexpr Fwk::AttrId attr_##name{id, #name};                         \
  std::uint64_t name() const noexcept {                                        \
    return name##_;                                                            \
  }                                                                            \
  void name##Inc(std::uint64_t n) {                                            \
    name##_ += n;                                                              \
    notify(attr_##name);                                                       \
  }
  MICA_SW_TABLE_STATS_COUNTERS(MICA_STATS_COUNTER)
#undef MICA_STATS_COUNTER

  static constexpr Fwk::AttrId attrLastCommitTime{10, "lastCommitTime"};
  // UTC time of the last commit (success or failure).
  Clock::time_point lastCommitTime() const noexcept {
    return lastCommitTime_;
  }
  void lastCommitTimeIs(Clock::time_point t) {
    lastCommitTime_ = t;
    notify(attrLastCommitTime);
  }

  SwTableStats() = default;

private:
  ~SwTableStats() override;
#define MICA_STATS_FIELD(name, id) std::uint64_t name##_ = 0;
  MICA_SW_TABLE_STATS_COUNTERS(MICA_STATS_FIELD)
#undef MICA_STATS_FIELD
  Clock::time_point lastCommitTime_{};
};

// The root of software tables: identity, owning set, statistics, status.
class MICA_PLATFORM_API SwTableBase : public Fwk::Notifier {
public:
  using EntryState = Asic::EntryState;

  static constexpr Fwk::AttrId attrStats{1, "stats"};
  static constexpr Fwk::AttrId attrStatus{2, "status"};

  const Fwk::Ptr<const CanonicalTableName> &name() const noexcept {
    return name_;
  }
  SwTableId swTableId() const noexcept { return swTableId_; }
  UnitId unitId() const noexcept { return unitId_; }
  OrderedSwTableSet *swTableSet() const noexcept { return swTableSet_; }
  const Fwk::Ptr<SwTableStats> &stats() const noexcept { return stats_; }
  const Fwk::Ptr<OrderedSwTableStatus> &status() const noexcept {
    return status_;
  }

  // Creates the table's statistics object.
  void statsIs();
  void statusIs(const Fwk::Ptr<OrderedSwTableStatus> &status);

protected:
  SwTableBase(Fwk::Ptr<const CanonicalTableName> name, SwTableId swTableId,
              UnitId unitId, OrderedSwTableSet *swTableSet);
  ~SwTableBase() override;

private:
  Fwk::Ptr<const CanonicalTableName> name_;
  SwTableId swTableId_;
  UnitId unitId_;
  OrderedSwTableSet *swTableSet_;
  Fwk::Ptr<SwTableStats> stats_;
  Fwk::Ptr<OrderedSwTableStatus> status_;
};

class MICA_PLATFORM_API OrderedSwTable : public SwTableBase {
public:
  class EntryHandle;
  using ResponseHandler =
      std::function<void(const Fwk::Ptr<const EntryHandle> &)>;

  // The hardware has taken every change up to this log version. A table
  // that keeps no log of its own has nothing to release.
  virtual void tableStatusVersion(LogVersion /*version*/) {}
  // Whether changes of this table still wait for the hardware; a table that
  // keeps no log never waits.
  virtual bool hasPendingHwWrites() const { return false; }
  // The newest version the table's log has handed out (0: it keeps none).
  virtual LogVersion loggedVersion() const { return 0; }
  virtual void doCreateHwTable() {}

protected:
  using SwTableBase::SwTableBase;
  ~OrderedSwTable() override;
};

// The handle of one accepted change.
class MICA_PLATFORM_API OrderedSwTable::EntryHandle
    : public DependencyEntryHandle {
public:
  EntryVersion version() const noexcept { return version_; }
  void versionIs(EntryVersion v) noexcept { version_ = v; }

  const ResponseHandler &responseHandler() const noexcept {
    return responseHandler_;
  }
  void responseHandlerIs(ResponseHandler h) { responseHandler_ = std::move(h); }

  // The owning table's canonical name as text, and its id.
  virtual std::string tableName() const = 0;

protected:
  explicit EntryHandle(EntryVersion version) noexcept : version_(version) {}
  ~EntryHandle() override;

private:
  EntryVersion version_;
  ResponseHandler responseHandler_;
};

class MICA_PLATFORM_API OrderedSwTableWithMarkSweep : public OrderedSwTable {
public:
  // Starts recording which keys clients write again.
  virtual void mark() {}
  // Removes every entry not written since mark(); returns how many. A table
  // that never marks has nothing to sweep.
  virtual std::uint32_t sweep() { return 0; }

protected:
  using OrderedSwTable::OrderedSwTable;
  ~OrderedSwTableWithMarkSweep() override;
};

// A table type's status: whether any of its tables waits for the hardware.
class MICA_PLATFORM_API OrderedSwTableStatus : public Fwk::Notifier {
public:
  static constexpr Fwk::AttrId attrPendingHwWrites{1, "pendingHwWrites"};

  explicit OrderedSwTableStatus(SwTableId tableId) : tableId_(tableId) {}
  SwTableId tableId() const noexcept { return tableId_; }
  bool pendingHwWrites() const noexcept { return pendingHwWrites_; }
  void pendingHwWritesIs(bool on);

private:
  ~OrderedSwTableStatus() override;
  SwTableId tableId_;
  bool pendingHwWrites_ = false;
};

// The software tables of one table type, one per unit.
class MICA_PLATFORM_API OrderedSwTableSet : public Fwk::Notifier {
public:
  static constexpr Fwk::AttrId attrSwTable{1, "swTable"};
  static constexpr Fwk::AttrId attrPendingHwWrites{2, "pendingHwWrites"};

  OrderedSwTableSet(SwTableId tableId, Fwk::Ptr<OrderedSwTableStatus> status);

  SwTableId tableId() const noexcept { return tableId_; }
  const Fwk::Ptr<OrderedSwTableStatus> &status() const noexcept {
    return status_;
  }

  // The table of a unit, or null.
  Fwk::Ptr<OrderedSwTable> swTable(UnitId unit) const;
  // Adds (or replaces) the table of its unit.
  void swTableIs(const Fwk::Ptr<OrderedSwTable> &table);
  void swTableDel(UnitId unit);
  std::size_t swTables() const noexcept { return tables_.size(); }
  // The tables in the order of their units.
  std::vector<Fwk::Ptr<OrderedSwTable>> swTableList() const { return tables_; }

  // Whether any table waits for the hardware, as last computed.
  bool pendingHwWrites() const noexcept { return pendingHwWrites_; }
  // Recomputes the pending flag from every table and hands it to the status.
  void maybeUpdatePendingHwWrites();
  // How often the flag was recomputed (for tests and introspection).
  std::uint64_t pendingHwWritesUpdates() const noexcept { return updates_; }

private:
  ~OrderedSwTableSet() override;
  SwTableId tableId_;
  Fwk::Ptr<OrderedSwTableStatus> status_;
  // Ordered by unit. A set holds a table per unit of one chip family (a
  // handful), and every change of every table walks it
  // (maybeUpdatePendingHwWrites): a short dense array, not a hash map.
  std::vector<Fwk::Ptr<OrderedSwTable>> tables_;
  bool pendingHwWrites_ = false;
  std::uint64_t updates_ = 0;
};

// A change queued with the group resolver. The resolver asks isResolved()
// until it answers true and then calls commitEntry() once. A change that is
// not ready says what it waits for (waitOn) before it answers false; the
// resolver parks it there and asks again only once that has changed. One
// that names nothing is asked again at every pass.
class MICA_PLATFORM_API ResolverEntry : public Fwk::Object {
public:
  const Fwk::Ptr<const DependencyEntryHandle> &
  dependencyHandle() const noexcept {
    return dependency_;
  }
  EntryFlags flags() const noexcept { return flags_; }
  bool isEntryDeleted() const noexcept { return flags_ & entryFlagRemove; }
  bool isTableDeleted() const noexcept { return flags_ & entryFlagRemoveAll; }
  bool isMarked() const noexcept { return flags_ & entryFlagMarked; }

  virtual bool isResolved() = 0;
  virtual void commitEntry(const Fwk::Ptr<ResolverEntry> &self) = 0;

  // Called from isResolved() when the change is not ready: it waits for
  // `w`, which must outlive the change's parking (a wait point the change
  // itself references, or one that outlives its table).
  void waitOn(const WaitPoint &w) noexcept { waitingOn_ = &w; }
  // The wait point the change is parked on, or null.
  const WaitPoint *parkedOn() const noexcept { return parkedOn_; }
  // Whether a pass will offer it: it is not parked and no older change of
  // its key or table holds it back.
  bool offered() const noexcept { return offered_ && !parkedOn_; }
  // For inspection: the change's place in its resolver's queue order (0:
  // not queued), and when it was queued (steady clock, ns; the time of the
  // first change of its burst, read once per resolver pass).
  std::uint64_t queueSeq() const noexcept { return queueSeq_; }
  std::int64_t queuedAtNs() const noexcept { return queuedAtNs_; }

  // What the resolver keeps this change in order with (GroupResolver.h):
  // the changes of the same table and order key, and the remove-alls of the
  // same table.
  virtual const void *orderTable() const noexcept = 0;
  virtual std::uint64_t orderKey() const noexcept = 0;

  // The change of the same table and key queued last before this one, when
  // its queuer keeps track of that (a software table does: the newest
  // pending change of every key): null when there is none queued. Given
  // before the change is queued, it spares the resolver a lookup of the
  // key; a change queued without it is found by its order key.
  void laneAfterIs(const ResolverEntry *previous) noexcept {
    laneAfter_ = previous;
    laneHinted_ = true;
  }
  // Whether the change is queued with a resolver now.
  bool queued() const noexcept { return resolver_ != nullptr; }

  // Starts fetching what commitEntry() reads, for a change the resolver
  // offers a few changes later (`ahead` 2: where the record is looked up;
  // 1: the record, once that has arrived), so that a pass over a batch does
  // not wait for memory at every change. A hint; changes nothing.
  virtual void prefetchCommit(int ahead) const noexcept { (void)ahead; }

protected:
  ResolverEntry(Fwk::Ptr<const DependencyEntryHandle> dependency,
                EntryFlags flags)
      : dependency_(std::move(dependency)), flags_(flags) {}
  // A change that is still parked leaves its wait point.
  ~ResolverEntry() override;

private:
  friend class GroupResolver;
  friend class WaitPoint;

  Fwk::Ptr<const DependencyEntryHandle> dependency_;
  EntryFlags flags_;
  // Kept by the resolver while the change is queued.
  bool offered_ = false;       // offered, or parked: not offered anew
  bool laneHinted_ = false;    // laneAfter_ was given (laneAfterIs)
  bool laneFollows_ = false;   // queued behind an older change of its lane
  std::uint64_t queueSeq_ = 0; // queue order
  std::int64_t queuedAtNs_ = 0; // when it was queued (see queuedAtNs())
  std::uint64_t segment_ = 0;  // the segment of its table it belongs to
  const ResolverEntry *laneAfter_ = nullptr; // see laneAfterIs
  ResolverEntry *laneNext_ = nullptr;        // the next change of its lane
  GroupResolver *resolver_ = nullptr;        // the resolver it is queued with
  void *order_ = nullptr; // its table's order in that resolver
  // Its neighbours in its table's list of queued changes (the list holds a
  // reference on each).
  ResolverEntry *queuePrev_ = nullptr;
  ResolverEntry *queueNext_ = nullptr;
  // What the last isResolved() said it waits for (taken by the resolver).
  const WaitPoint *waitingOn_ = nullptr;
  // Where it is parked, and its neighbours there (WaitPoint.h).
  const WaitPoint *parkedOn_ = nullptr;
  ResolverEntry *parkPrev_ = nullptr;
  ResolverEntry *parkNext_ = nullptr;
};

} // namespace Asic

template <> struct fmt::formatter<Asic::EntryState> : fmt::formatter<int> {
  template <typename Ctx> auto format(Asic::EntryState s, Ctx &ctx) const {
    return fmt::formatter<int>::format(static_cast<int>(s), ctx);
  }
};
