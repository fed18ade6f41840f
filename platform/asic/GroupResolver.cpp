#include "platform/asic/GroupResolver.h"

#include <algorithm>
#include <chrono>

namespace Asic {

namespace {
// How many changes ahead of the one being offered a pass starts fetching
// where a change's record is looked up, and the record itself.
constexpr std::size_t kPrefetchFar = 8;
constexpr std::size_t kPrefetchNear = 4;

std::uint64_t tableOf(const ResolverEntry &e) noexcept {
  return reinterpret_cast<std::uintptr_t>(e.orderTable());
}
} // namespace

bool GroupResolver::olderFirst(const Fwk::Ptr<ResolverEntry> &a,
                               const Fwk::Ptr<ResolverEntry> &b) noexcept {
  return a->queueSeq_ < b->queueSeq_;
}

// ---- Wait points ----

const char *waitKindName(WaitKind k) noexcept {
  switch (k) {
  case WaitKind::dependency:
    return "dependency";
  case WaitKind::resource:
    return "resource";
  case WaitKind::logRoom:
    return "logRoom";
  case WaitKind::other:
    break;
  }
  return "other";
}

WaitPoint::~WaitPoint() {
  // Whatever still waits here is offered again: it finds out itself what
  // it waits for now.
  wake();
}

void WaitPoint::park(ResolverEntry &e) const noexcept {
  e.parkedOn_ = this;
  e.parkPrev_ = tail_;
  e.parkNext_ = nullptr;
  (tail_ ? tail_->parkNext_ : head_) = &e;
  tail_ = &e;
  ++parked_;
  if (e.resolver_) {
    ++e.resolver_->parkedByKind_[static_cast<std::size_t>(kind_)];
  }
}

void WaitPoint::unpark(ResolverEntry &e) const noexcept {
  (e.parkPrev_ ? e.parkPrev_->parkNext_ : head_) = e.parkNext_;
  (e.parkNext_ ? e.parkNext_->parkPrev_ : tail_) = e.parkPrev_;
  e.parkPrev_ = e.parkNext_ = nullptr;
  e.parkedOn_ = nullptr;
  --parked_;
  if (e.resolver_) {
    --e.resolver_->parkedByKind_[static_cast<std::size_t>(kind_)];
  }
}

void WaitPoint::wake(std::size_t n) {
  if (head_ == nullptr || n == 0) {
    return;
  }
  // Unparked first, handed back after: a resolver that hands a change on
  // may call out, and nothing it does can reach the changes taken here.
  std::vector<Fwk::Ptr<ResolverEntry>> woken;
  woken.reserve(std::min(n, parked_));
  while (head_ && woken.size() < n) {
    woken.emplace_back(head_);
    unpark(*head_);
  }
  for (const auto &e : woken) {
    // A change dropped meanwhile (its table went away) has no resolver.
    if (GroupResolver *r = e->resolver_) {
      r->handBack(e);
    }
  }
}

// ---- The resolver ----

GroupResolver::GroupResolver(Scheduler schedule)
    : schedule_(std::move(schedule)) {}

GroupResolver::~GroupResolver() {
  // Parked changes leave their wait points, which may outlive the queue.
  for (auto it = tables_.begin(); it != tables_.end(); ++it) {
    TableOrder &order = *it.value();
    while (ResolverEntry *e = order.first) {
      if (e->parkedOn_) {
        e->parkedOn_->unpark(*e);
      }
      e->resolver_ = nullptr;
      e->laneNext_ = nullptr;
      e->laneFollows_ = false;
      listRemove(order, *e);
    }
  }
}

void GroupResolver::listAppend(TableOrder &order, ResolverEntry &e) noexcept {
  e.newRef();
  e.queuePrev_ = order.last;
  e.queueNext_ = nullptr;
  (order.last ? order.last->queueNext_ : order.first) = &e;
  order.last = &e;
}

// Drops the list's reference: the caller holds one of its own when it
// still uses the change.
void GroupResolver::listRemove(TableOrder &order, ResolverEntry &e) noexcept {
  (e.queuePrev_ ? e.queuePrev_->queueNext_ : order.first) = e.queueNext_;
  (e.queueNext_ ? e.queueNext_->queuePrev_ : order.last) = e.queuePrev_;
  e.queuePrev_ = e.queueNext_ = nullptr;
  e.order_ = nullptr;
  e.deleteRef();
}

void GroupResolver::handBack(const Fwk::Ptr<ResolverEntry> &e) {
  const bool first = woken_.empty();
  woken_.push_back(e);
  if (first) {
    updateGenId();
  }
}

GroupResolver::TableOrder &GroupResolver::tableOrder(std::uint64_t table) {
  if (lastOrder_ && lastOrder_->table == table) {
    return *lastOrder_; // a burst of changes of one table
  }
  if (auto *o = tables_.find(table)) {
    lastOrder_ = o->get();
    return *lastOrder_;
  }
  // Kept until the table's changes are taken out (resolverQueueDelAll): an
  // idle order is the same as a new one, and tables are few.
  auto order = std::make_unique<TableOrder>();
  order->table = table;
  lastOrder_ = order.get();
  tables_.insert(table, std::move(order));
  return *lastOrder_;
}

ResolverEntry *GroupResolver::laneTail(TableOrder &order, ResolverEntry &e) {
  if (!e.laneHinted_) {
    const LaneKey key{order.table, e.orderKey()};
    if (Lane *lane = lanes_.find(key)) {
      ResolverEntry *tail = lane->tail;
      lane->tail = &e;
      return tail;
    }
    lanes_.insert(key, Lane{&e, &e});
    return nullptr;
  }
  // The change its queuer names, if it is still queued here in the same
  // segment (one before a remove-all is ordered by the remove-all); the
  // newest of its lane is the one to go behind.
  auto *prev =
      const_cast<ResolverEntry *>(std::exchange(e.laneAfter_, nullptr));
  if (!prev || prev->resolver_ != this || prev->order_ != &order ||
      prev->segment_ != e.segment_ || prev->isTableDeleted()) {
    return nullptr;
  }
  while (prev->laneNext_) {
    prev = prev->laneNext_;
  }
  return prev;
}

void GroupResolver::offer(Fwk::Ptr<ResolverEntry> e) {
  e->offered_ = true;
  // A change queued during the running pass waits for the next one.
  if (inPass_ && e->queueSeq_ > passLimit_) {
    deferred_.push_back(std::move(e));
  } else {
    offer_.push_back(std::move(e));
  }
}

void GroupResolver::headIs(TableOrder &order,
                           const Fwk::Ptr<ResolverEntry> &e) {
  if (e->segment_ == order.active) {
    offer(e);
  } else {
    order.barriers[e->segment_ - order.active - 1].blockedHeads.push_back(e);
  }
}

void GroupResolver::maybeOfferRemoveAll(TableOrder &order) {
  if (order.outstanding == 0 && !order.barriers.empty() &&
      !order.barriers.front().removeAll->offered_) {
    offer(order.barriers.front().removeAll);
  }
}

void GroupResolver::resolverQueueEnq(const Fwk::Ptr<ResolverEntry> &entry) {
  if (!entry) {
    return;
  }
  if (!passScheduled_ && !inPass_) {
    // The first change since the last pass: one clock read per burst.
    batchTimeNs_ = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count();
  }
  entry->queueSeq_ = ++enqueued_;
  entry->queuedAtNs_ = batchTimeNs_;
  entry->resolver_ = this;
  ++queued_;
  TableOrder &order = tableOrder(tableOf(*entry));
  entry->order_ = &order;
  listAppend(order, *entry);
  if (entry->isTableDeleted()) {
    entry->segment_ = order.active + order.barriers.size() + 1;
    order.barriers.push_back(Barrier{entry, 0, {}});
    maybeOfferRemoveAll(order);
  } else {
    entry->segment_ = order.active + order.barriers.size();
    if (order.barriers.empty()) {
      ++order.outstanding;
    } else {
      ++order.barriers.back().outstanding;
    }
    if (ResolverEntry *tail = laneTail(order, *entry)) {
      tail->laneNext_ = entry.ptr();
      entry->laneFollows_ = true;
    } else {
      ++laneCount_;
      headIs(order, entry);
    }
  }
  entry->laneAfter_ = nullptr;
  notify(attrResolverQueue, queued_);
}

void GroupResolver::retire(const Fwk::Ptr<ResolverEntry> &e) {
  --queued_;
  e->offered_ = false;
  e->resolver_ = nullptr;
  TableOrder &order = *static_cast<TableOrder *>(e->order_);
  if (e->isTableDeleted()) {
    // The front barrier: every change before it has committed. Its segment
    // opens, and the lane heads that waited for it are offered.
    Barrier opened = std::move(order.barriers.front());
    order.barriers.erase(order.barriers.begin());
    ++order.active;
    order.outstanding = opened.outstanding;
    for (auto &h : opened.blockedHeads) {
      offer(std::move(h));
    }
  } else {
    ResolverEntry *next = std::exchange(e->laneNext_, nullptr);
    if (!e->laneHinted_) {
      const LaneKey key{order.table, e->orderKey()};
      if (next) {
        lanes_.find(key)->head = next;
      } else {
        lanes_.erase(key);
      }
    }
    if (next) {
      next->laneFollows_ = false;
      headIs(order, Fwk::Ptr<ResolverEntry>(next));
    } else {
      --laneCount_;
    }
    --order.outstanding;
  }
  listRemove(order, *e);
  maybeOfferRemoveAll(order);
  notify(attrResolverQueue, queued_);
}

Fwk::Ptr<ResolverEntry>
GroupResolver::resolverQueue(std::size_t position) const {
  if (position >= queued_) {
    return nullptr;
  }
  std::vector<Fwk::Ptr<ResolverEntry>> all;
  all.reserve(queued_);
  for (auto it = tables_.begin(); it != tables_.end(); ++it) {
    for (ResolverEntry *e = it.value()->first; e; e = e->queueNext_) {
      all.emplace_back(e);
    }
  }
  std::nth_element(
      all.begin(), all.begin() + static_cast<std::ptrdiff_t>(position),
      all.end(),
      [](const auto &a, const auto &b) { return a->queueSeq_ < b->queueSeq_; });
  return all[position];
}

bool GroupResolver::resolverQueueWalk(
    const QueueCursor *after, std::size_t maxLanes,
    const std::function<void(const ResolverEntry &, bool)> &f,
    QueueCursor &next) const {
  // The lane heads are gathered from the tables' lists (a change that went
  // behind another one is not a head) and walked in (table, key) order; a
  // key with lanes in two segments of its table (either side of a
  // remove-all) is walked in one step, its older lane first.
  struct Head {
    LaneKey at;
    const ResolverEntry *e;
  };
  std::vector<Head> heads;
  for (auto t = tables_.begin(); t != tables_.end(); ++t) {
    const TableOrder &order = *t.value();
    for (const ResolverEntry *e = order.first; e; e = e->queueNext_) {
      if (e->isTableDeleted()) {
        if (!after) {
          f(*e, false);
        }
      } else if (!e->laneFollows_) {
        const LaneKey at{order.table, e->orderKey()};
        if (!after || after->table < at.table ||
            (after->table == at.table && after->key < at.key)) {
          heads.push_back(Head{at, e});
        }
      }
    }
  }
  std::sort(heads.begin(), heads.end(), [](const Head &a, const Head &b) {
    if (a.at.table != b.at.table) {
      return a.at.table < b.at.table;
    }
    if (a.at.key != b.at.key) {
      return a.at.key < b.at.key;
    }
    return a.e->queueSeq_ < b.e->queueSeq_;
  });
  std::size_t i = 0;
  for (std::size_t n = 0; i < heads.size() && n < maxLanes; ++n) {
    const LaneKey at = heads[i].at;
    for (; i < heads.size() && heads[i].at == at; ++i) {
      bool head = true;
      for (const ResolverEntry *e = heads[i].e; e; e = e->laneNext_) {
        f(*e, head);
        head = false;
      }
    }
    next = QueueCursor{at.table, at.key};
  }
  return i < heads.size();
}

const ResolverEntry *GroupResolver::resolverQueueLane(const void *table,
                                                      std::uint64_t key) const {
  // The table's list is in queue order: the first change of the key on it
  // is the oldest, the head of its lane.
  const auto *order = tables_.find(reinterpret_cast<std::uintptr_t>(table));
  if (!order) {
    return nullptr;
  }
  for (const ResolverEntry *e = (*order)->first; e; e = e->queueNext_) {
    if (!e->isTableDeleted() && e->orderKey() == key) {
      return e;
    }
  }
  return nullptr;
}

const ResolverEntry *
GroupResolver::resolverQueueLaneNext(const ResolverEntry &e) noexcept {
  return e.laneNext_;
}

std::size_t GroupResolver::removeAllsQueued() const noexcept {
  std::size_t n = 0;
  for (auto t = tables_.begin(); t != tables_.end(); ++t) {
    n += t.value()->barriers.size();
  }
  return n;
}

std::vector<Fwk::Ptr<ResolverEntry>>
GroupResolver::resolverQueueDelAll(const void *table) {
  const std::uint64_t t = reinterpret_cast<std::uintptr_t>(table);
  std::vector<Fwk::Ptr<ResolverEntry>> dropped;
  if (auto *found = tables_.find(t)) {
    TableOrder &order = **found;
    // The list is in queue order: oldest first.
    while (ResolverEntry *e = order.first) {
      if (e->parkedOn_) {
        e->parkedOn_->unpark(*e);
      }
      if (!e->isTableDeleted() && !e->laneFollows_) {
        --laneCount_;
        if (!e->laneHinted_) {
          lanes_.erase(LaneKey{t, e->orderKey()});
        }
      }
      e->offered_ = false;
      e->resolver_ = nullptr;
      e->laneNext_ = nullptr;
      e->laneFollows_ = false;
      dropped.emplace_back(e);
      listRemove(order, *e);
    }
    if (lastOrder_ == &order) {
      lastOrder_ = nullptr;
    }
    tables_.erase(t);
  }
  queued_ -= dropped.size();
  const auto ofTable = [t](const Fwk::Ptr<ResolverEntry> &e) {
    return e && tableOf(*e) == t;
  };
  const auto eraseFrom = [&](std::vector<Fwk::Ptr<ResolverEntry>> &v,
                             std::size_t from) {
    v.erase(std::remove_if(v.begin() + static_cast<std::ptrdiff_t>(from),
                           v.end(), ofTable),
            v.end());
  };
  // Only what the running pass has not reached yet is taken out of offer_.
  eraseFrom(offer_, offerHead_);
  eraseFrom(deferred_, 0);
  eraseFrom(woken_, 0);
  eraseFrom(waiting_, 0);
  notify(attrResolverQueue, queued_);
  return dropped;
}

void GroupResolver::updateGenId() {
  ++genId_;
  notify(attrGenId);
  if (passScheduled_ || !schedule_) {
    return;
  }
  passScheduled_ = true;
  Fwk::Ptr<GroupResolver> self(this);
  schedule_([self] {
    self->passScheduled_ = false;
    self->runPass();
  });
}

void GroupResolver::maybeUpdateSuspend() {
  bool s = suspended_;
  if (!s && queued_ > kSuspendHigh) {
    s = true;
  } else if (s && queued_ < kSuspendLow) {
    s = false;
  }
  if (s != suspended_) {
    suspended_ = s;
    notify(attrSuspended);
  }
}

std::size_t GroupResolver::runPass() {
  if (inPass_) {
    // A commit asked for a pass from inside this one: the running pass
    // already offers everything that became offerable.
    return 0;
  }
  Fwk::Ptr<GroupResolver> self(this);
  inPass_ = true;
  ++passes_;
  passLimit_ = enqueued_;
  // The changes handed back since the last pass, oldest first, and those
  // that named nothing to wait for are older than those that became
  // offerable since: they are offered first.
  if (!woken_.empty() || !waiting_.empty()) {
    std::sort(woken_.begin(), woken_.end(), olderFirst);
    std::vector<Fwk::Ptr<ResolverEntry>> all;
    all.reserve(woken_.size() + waiting_.size() + offer_.size() - offerHead_);
    for (auto *from : {&woken_, &waiting_}) {
      all.insert(all.end(), std::make_move_iterator(from->begin()),
                 std::make_move_iterator(from->end()));
      from->clear();
    }
    all.insert(all.end(),
               std::make_move_iterator(offer_.begin() +
                                       static_cast<std::ptrdiff_t>(offerHead_)),
               std::make_move_iterator(offer_.end()));
    offer_.swap(all);
    offerHead_ = 0;
  }
  std::size_t committed = 0;
  while (offerHead_ < offer_.size()) {
    if (offerHead_ + kPrefetchFar < offer_.size()) {
      offer_[offerHead_ + kPrefetchFar]->prefetchCommit(2);
    }
    if (offerHead_ + kPrefetchNear < offer_.size()) {
      offer_[offerHead_ + kPrefetchNear]->prefetchCommit(1);
    }
    Fwk::Ptr<ResolverEntry> e = std::move(offer_[offerHead_++]);
    e->waitingOn_ = nullptr;
    if (!e->isResolved()) {
      // Parked on what it waits for, which hands it back when it changes;
      // its lane (or its table's barriers) keeps it queued meanwhile.
      if (const WaitPoint *w = std::exchange(e->waitingOn_, nullptr)) {
        w->park(*e);
      } else {
        waiting_.push_back(std::move(e));
      }
      continue;
    }
    retire(e);
    e->commitEntry(e);
    ++committed;
    ++commits_;
  }
  offer_.clear();
  offer_.swap(deferred_);
  offerHead_ = 0;
  inPass_ = false;
  // What was queued during the pass, and what was handed back meanwhile,
  // is for the next pass.
  if (!offer_.empty() || !woken_.empty()) {
    updateGenId();
  }
  maybeUpdateSuspend();
  return committed;
}

} // namespace Asic
