// The group resolver: holds changes until they can be committed.
//
// Tables queue one ResolverEntry per change and call updateGenId() when
// something may have become ready. The resolver never commits inside the
// caller's call: updateGenId() schedules one pass on the event loop, so a
// burst of writes is committed in one pass.
//
//   auto resolver = Fwk::make<Asic::GroupResolver>(
//       [loop](std::function<void()> task) { loop->defer(std::move(task)); });
//   resolver->resolverQueueEnq(entry);
//   resolver->updateGenId();        // a pass runs soon, on the loop
//
// Ordering policy: only what must wait waits.
//   1. The changes of one table and key commit in the order they were
//      queued. Each (table, key) has a lane; only a lane's oldest change is
//      offered, and when it commits the next one of the lane is offered in
//      the same pass.
//   2. A remove-all commits after every change of its table queued before
//      it and before every change of its table queued after it. A table's
//      remove-alls cut its changes into segments; only the changes of the
//      current segment are offered, a remove-all is offered once every
//      change before it has committed, and its commit opens the next
//      segment.
//   3. Nothing else orders changes: a change that is not ready (its resource
//      is pending, its dependency unfinished, the entry log full) holds back
//      the later changes of its own key and, through a remove-all queued
//      after it, of its own table; never those of other keys, tables or
//      units.
// Lanes: each change names the change of its table and key queued last
// before it (laneAfterIs), when its queuer keeps track of that, as a
// software table does; it then joins that change's lane, or starts a lane of
// its own, without a lookup. A change that names nothing is found a lane by
// its order key in a map of lanes. Every queued change of a table is also on
// its table's list, oldest first, which is what removing a table's changes,
// inspection and destruction walk.
//
// A pass offers every change that was offerable when it began, once, oldest
// first: it asks isResolved() and, when that answers true, takes the change
// out of its lane, makes the lane's next change offerable and commits it
// (commitEntry()). A change queued before the pass that becomes offerable
// during it (the next of a lane whose head committed, the changes behind a
// remove-all that committed) is offered in the same pass; a change queued
// during the pass (by a response handler, say) waits for the next one, so
// that a pass always ends, whatever the handlers do.
//
// Waiting: a change that is not ready names what it waits for (its
// dependency's handle, its resource's handle, room in its entry log: a
// WaitPoint) and is parked there; the wait point hands it back when it
// changes, and the next pass offers it again. A change that names nothing is
// offered again at every pass. So a pass costs O(1) per change that can
// progress, plus the commits: changes parked on a wait point, or behind
// another change of their key or table, are not looked at until they can
// progress. Keys are told apart by the entry's orderKey() (64 bits); two
// keys of a table that had the same order key would only be kept in order
// between them, never reordered.
//
// Wake-ups: nothing polls. A pass runs after updateGenId(), which whatever
// can make a change ready calls: a change or commit of the tables, the
// hardware's progress (tableStatusVersion), a resource table's resolution
// (its resolved hook), and a wait point that hands back parked changes.
//
// Re-entrancy: commitEntry() and the response handlers it runs may queue
// changes (offered by the next pass) and call updateGenId() (which schedules
// another pass) or runPass() (which returns 0: the running pass goes on). A
// change leaves its lane before it commits, so everything is consistent
// whenever a commit calls out. The resolver keeps itself alive during a pass.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/HashMap.h"

namespace Asic {

class MICA_PLATFORM_API GroupResolver : public Fwk::Notifier {
public:
  using Task = std::function<void()>;
  using Scheduler = std::function<void(Task)>;

  static constexpr Fwk::AttrId attrGenId{1, "genId"};
  static constexpr Fwk::AttrId attrSuspended{2, "suspended"};
  static constexpr Fwk::AttrId attrResolverQueue{3, "resolverQueue"};

  // Clients are asked to hold back new changes (suspended()) while more than
  // kSuspendHigh changes are queued, until fewer than kSuspendLow are.
  static constexpr std::size_t kSuspendHigh = 1u << 20;
  static constexpr std::size_t kSuspendLow = 1u << 19;

  // `schedule` runs a task later on the event thread. Without one, passes
  // run only through runPass().
  explicit GroupResolver(Scheduler schedule = nullptr);

  void resolverQueueEnq(const Fwk::Ptr<ResolverEntry> &entry);
  // Takes every queued change of a table out of the queue (the table is
  // going away) and hands them to the caller, oldest first, which ends each
  // of them; they are never offered again. Safe during a pass. O(queued).
  std::vector<Fwk::Ptr<ResolverEntry>> resolverQueueDelAll(const void *table);
  // The number of queued (not yet committed) changes, in O(1).
  std::size_t resolverQueueSize() const noexcept { return queued_; }
  // The queued change at a position in queue order (0 is the oldest), or
  // null. For introspection: it gathers and sorts every queued change.
  Fwk::Ptr<ResolverEntry> resolverQueue(std::size_t position) const;
  // For inspection, in bounded steps: calls f(change, laneHead) for the
  // queued changes of at most `maxLanes` (table, key) lanes, each lane
  // oldest first, in (table, key) order from the lane after `after` (or
  // from the first, then preceded by every queued remove-all, when `after`
  // is null). Returns whether lanes remain; `next` is then where to resume.
  // A lane that went away since is resumed after, never walked twice. Each
  // step gathers the lane heads of every queued change: O(queued).
  // REQUIRES: f does not change the resolver.
  struct QueueCursor {
    std::uint64_t table = 0;
    std::uint64_t key = 0;
  };
  bool resolverQueueWalk(
      const QueueCursor *after, std::size_t maxLanes,
      const std::function<void(const ResolverEntry &, bool laneHead)> &f,
      QueueCursor &next) const;
  // The oldest queued change of a table's key (by the entry's orderKey()),
  // or null; the others of its lane follow through resolverQueueLaneNext().
  // O(queued changes of the table).
  const ResolverEntry *resolverQueueLane(const void *table,
                                         std::uint64_t orderKey) const;
  static const ResolverEntry *
  resolverQueueLaneNext(const ResolverEntry &e) noexcept;
  // How many queued changes are parked on wait points of each kind
  // (WaitKind), and how many named nothing to wait for and are asked again
  // at every pass.
  std::size_t parkedOn(WaitKind kind) const noexcept {
    return parkedByKind_[static_cast<std::size_t>(kind)];
  }
  std::size_t waitingUnnamed() const noexcept { return waiting_.size(); }
  // The number of (table, key) lanes, and of queued remove-alls.
  std::size_t lanes() const noexcept { return laneCount_; }
  std::size_t removeAllsQueued() const noexcept;
  // Passes run and changes committed since the resolver was made.
  std::uint64_t passes() const noexcept { return passes_; }
  std::uint64_t commits() const noexcept { return commits_; }

  // How many queued changes the next pass offers (the others wait behind an
  // older change of their key or table, or are parked on what they wait
  // for).
  std::size_t offerable() const noexcept {
    return offer_.size() - offerHead_ + deferred_.size() + woken_.size() +
           waiting_.size();
  }

  // Something may have become ready: advance the generation and schedule a
  // pass unless one is already scheduled.
  void updateGenId();
  std::uint64_t genId() const noexcept { return genId_; }
  bool passScheduled() const noexcept { return passScheduled_; }

  // Re-evaluates whether clients should hold back.
  void maybeUpdateSuspend();
  bool suspended() const noexcept { return suspended_; }

  // Runs one pass now. Returns the number of changes committed.
  std::size_t runPass();

private:
  friend class WaitPoint;
  ~GroupResolver() override;

  // A (table, key) lane of changes that named no lane (laneAfterIs): its
  // oldest and newest change, linked through the changes themselves
  // (ResolverEntry::laneNext_).
  struct LaneKey {
    std::uint64_t table = 0;
    std::uint64_t key = 0;
    bool operator==(const LaneKey &) const = default;
  };
  struct Lane {
    ResolverEntry *head = nullptr;
    ResolverEntry *tail = nullptr;
  };
  // A queued remove-all, and the segment of its table it opens: how many
  // changes of that segment are queued, and which of them are lane heads.
  struct Barrier {
    Fwk::Ptr<ResolverEntry> removeAll;
    std::uint64_t outstanding = 0;
    std::vector<Fwk::Ptr<ResolverEntry>> blockedHeads;
  };
  // The segments of a table: `active` is the one whose changes may commit,
  // barriers[i] the remove-all that opens segment active + 1 + i. The
  // table's queued changes, oldest first, are a list through the changes
  // (ResolverEntry::queuePrev_, queueNext_) that holds a reference on each.
  struct TableOrder {
    std::uint64_t table = 0;
    std::uint64_t active = 0;
    std::uint64_t outstanding = 0; // queued changes of the active segment
    std::vector<Barrier> barriers;
    ResolverEntry *first = nullptr;
    ResolverEntry *last = nullptr;
  };

  TableOrder &tableOrder(std::uint64_t table);
  void offer(Fwk::Ptr<ResolverEntry> e);
  // A lane's new head: offered when its segment is open, else parked.
  void headIs(TableOrder &order, const Fwk::Ptr<ResolverEntry> &e);
  // Takes a change that is about to commit out of the queue and makes what
  // waited behind it offerable.
  void retire(const Fwk::Ptr<ResolverEntry> &e);
  void maybeOfferRemoveAll(TableOrder &order);
  // The table's list of queued changes.
  static void listAppend(TableOrder &order, ResolverEntry &e) noexcept;
  static void listRemove(TableOrder &order, ResolverEntry &e) noexcept;
  // The change a new one of the same lane goes behind, or null: it starts
  // a lane.
  ResolverEntry *laneTail(TableOrder &order, ResolverEntry &e);
  static bool olderFirst(const Fwk::Ptr<ResolverEntry> &a,
                         const Fwk::Ptr<ResolverEntry> &b) noexcept;
  // A wait point hands back a change parked on it.
  void handBack(const Fwk::Ptr<ResolverEntry> &e);

  Scheduler schedule_;
  Fwk::HashMap<LaneKey, Lane> lanes_{0x7f4a7c15u};
  // Per table, at a fixed address (a change names its table's order).
  Fwk::HashMap<std::uint64_t, std::unique_ptr<TableOrder>> tables_{0x94d049bbu};
  TableOrder *lastOrder_ = nullptr; // what tableOrder() found last
  // Offerable changes: [offerHead_, end) of offer_; during a pass, those
  // queued after it began go to deferred_, for the next pass. woken_: handed
  // back by their wait points; waiting_: not ready, and named nothing to
  // wait for. Each pass offers woken_, then waiting_, then offer_.
  std::vector<Fwk::Ptr<ResolverEntry>> offer_;
  std::size_t offerHead_ = 0;
  std::vector<Fwk::Ptr<ResolverEntry>> deferred_;
  std::vector<Fwk::Ptr<ResolverEntry>> woken_;
  std::vector<Fwk::Ptr<ResolverEntry>> waiting_;
  std::size_t queued_ = 0;
  std::size_t laneCount_ = 0;  // lanes with a change queued
  std::uint64_t enqueued_ = 0; // queue order of the changes
  std::uint64_t genId_ = 0;
  bool passScheduled_ = false;
  bool inPass_ = false;
  std::uint64_t passLimit_ = 0; // the last change queued before the pass
  bool suspended_ = false;
  // Kept by the wait points as they park and unpark this resolver's changes.
  std::size_t parkedByKind_[kWaitKinds] = {};
  // The steady-clock time stamped on changes queued until the next pass.
  std::int64_t batchTimeNs_ = 0;
  std::uint64_t passes_ = 0;
  std::uint64_t commits_ = 0;
};

} // namespace Asic
