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
// A pass offers every offerable change once, oldest offerable first: it asks
// isResolved() and, when that answers true, takes the change out of its lane,
// makes the lane's next change offerable and commits it (commitEntry()); a
// change that answers false waits for the next pass. A pass costs O(1) per
// change it offers, plus the commits: changes parked behind another are not
// looked at until they become offerable. Keys are told apart by the entry's
// orderKey() (64 bits); two keys of a table that had the same order key
// would only be kept in order between them, never reordered.
//
// Wake-ups: nothing polls. A pass runs after updateGenId(), which whatever
// can make a change ready calls: a change or commit of the tables, the
// hardware's progress (tableStatusVersion), a resource table's resolution
// (its resolved hook), and a dependency handle that changes state (a change
// found waiting on an unfinished dependency makes the resolver a waiter of
// that handle, DependencyEntryHandle::waiterIs).
//
// Re-entrancy: commitEntry() and the response handlers it runs may queue
// changes (those that are offerable are offered later in the same pass) and
// call updateGenId() (which schedules another pass) or runPass() (which
// returns 0: the running pass goes on). A change leaves its lane before it
// commits, so everything is consistent whenever a commit calls out. The
// resolver keeps itself alive during a pass.
#pragma once

#include <cstdint>
#include <functional>
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
  // going away); they are never offered. Safe during a pass. O(queued).
  void resolverQueueDelAll(const void *table);
  // The number of queued (not yet committed) changes, in O(1).
  std::size_t resolverQueueSize() const noexcept { return queued_; }
  // The queued change at a position in queue order (0 is the oldest), or
  // null. For introspection: it gathers and sorts every queued change.
  Fwk::Ptr<ResolverEntry> resolverQueue(std::size_t position) const;
  // How many queued changes the next pass offers (the others wait behind an
  // older change of their key or table).
  std::size_t offerable() const noexcept {
    return offer_.size() - offerHead_ + waiting_.size();
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
  ~GroupResolver() override;

  // A (table, key) lane: its queued changes, oldest first, linked through
  // the entries themselves (ResolverEntry::laneNext_).
  struct LaneKey {
    std::uint64_t table = 0;
    std::uint64_t key = 0;
    bool operator==(const LaneKey &) const = default;
  };
  struct Lane {
    Fwk::Ptr<ResolverEntry> head;
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
  // barriers[i] the remove-all that opens segment active + 1 + i.
  struct TableOrder {
    std::uint64_t active = 0;
    std::uint64_t outstanding = 0; // queued changes of the active segment
    std::vector<Barrier> barriers;
  };

  TableOrder &tableOrder(std::uint64_t table);
  void offer(Fwk::Ptr<ResolverEntry> e);
  // A lane's new head: offered when its segment is open, else parked.
  void headIs(TableOrder &order, const Fwk::Ptr<ResolverEntry> &e);
  // Takes a change that is about to commit out of the queue and makes what
  // waited behind it offerable.
  void retire(const Fwk::Ptr<ResolverEntry> &e);
  void maybeOfferRemoveAll(TableOrder &order);

  Scheduler schedule_;
  Fwk::HashMap<LaneKey, Lane> lanes_{0x7f4a7c15u};
  Fwk::HashMap<std::uint64_t, TableOrder> tables_{0x94d049bbu};
  // Offerable changes: those of earlier passes that were not ready
  // (waiting_), then [offerHead_, end) of offer_.
  std::vector<Fwk::Ptr<ResolverEntry>> offer_;
  std::size_t offerHead_ = 0;
  std::vector<Fwk::Ptr<ResolverEntry>> waiting_;
  std::size_t queued_ = 0;
  std::uint64_t enqueued_ = 0; // queue order of the changes
  std::uint64_t genId_ = 0;
  bool passScheduled_ = false;
  bool inPass_ = false;
  bool suspended_ = false;
};

} // namespace Asic
