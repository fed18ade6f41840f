#include "platform/asic/GroupResolver.h"

#include <algorithm>

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

GroupResolver::GroupResolver(Scheduler schedule)
    : schedule_(std::move(schedule)) {}

GroupResolver::~GroupResolver() = default;

GroupResolver::TableOrder &GroupResolver::tableOrder(std::uint64_t table) {
  if (TableOrder *o = tables_.find(table)) {
    return *o;
  }
  // Kept for as long as the resolver lives: an idle order is the same as a
  // new one, and tables are few.
  tables_.insert(table, TableOrder{});
  return *tables_.find(table);
}

void GroupResolver::offer(Fwk::Ptr<ResolverEntry> e) {
  e->offered_ = true;
  offer_.push_back(std::move(e));
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
  entry->queueSeq_ = ++enqueued_;
  ++queued_;
  const std::uint64_t table = tableOf(*entry);
  TableOrder &order = tableOrder(table);
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
    const LaneKey key{table, entry->orderKey()};
    if (Lane *lane = lanes_.find(key)) {
      lane->tail->laneNext_ = entry;
      lane->tail = entry.ptr();
    } else {
      lanes_.insert(key, Lane{entry, entry.ptr()});
      headIs(order, entry);
    }
  }
  notify(attrResolverQueue, queued_);
}

void GroupResolver::retire(const Fwk::Ptr<ResolverEntry> &e) {
  --queued_;
  e->offered_ = false;
  TableOrder &order = tableOrder(tableOf(*e));
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
    const LaneKey key{tableOf(*e), e->orderKey()};
    Lane *lane = lanes_.find(key);
    Fwk::Ptr<ResolverEntry> next = std::move(e->laneNext_);
    if (next) {
      lane->head = next;
      headIs(order, next);
    } else {
      lanes_.erase(key);
    }
    --order.outstanding;
  }
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
  for (auto it = lanes_.begin(); it != lanes_.end(); ++it) {
    for (ResolverEntry *e = it.value().head.ptr(); e; e = e->laneNext_.ptr()) {
      all.emplace_back(e);
    }
  }
  for (auto it = tables_.begin(); it != tables_.end(); ++it) {
    for (const Barrier &b : it.value().barriers) {
      all.push_back(b.removeAll);
    }
  }
  std::nth_element(
      all.begin(), all.begin() + static_cast<std::ptrdiff_t>(position),
      all.end(),
      [](const auto &a, const auto &b) { return a->queueSeq_ < b->queueSeq_; });
  return all[position];
}

void GroupResolver::resolverQueueDelAll(const void *table) {
  const std::uint64_t t = reinterpret_cast<std::uintptr_t>(table);
  auto ofTable = [t](const Fwk::Ptr<ResolverEntry> &e) { return e && tableOf(*e) == t; };
  // Only what the running pass has not reached yet is taken out of offer_.
  offer_.erase(std::remove_if(offer_.begin() + static_cast<std::ptrdiff_t>(offerHead_),
                              offer_.end(), ofTable),
               offer_.end());
  waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), ofTable),
                 waiting_.end());
  std::vector<LaneKey> gone;
  for (auto it = lanes_.begin(); it != lanes_.end(); ++it) {
    if (it.key().table == t) {
      gone.push_back(it.key());
    }
  }
  for (const LaneKey &k : gone) {
    Lane lane;
    lanes_.take(k, lane);
    // Unlinked one by one: a long lane must not unwind recursively.
    for (Fwk::Ptr<ResolverEntry> e = std::move(lane.head); e;) {
      --queued_;
      e = std::move(e->laneNext_);
    }
  }
  if (TableOrder *order = tables_.find(t)) {
    // Its remove-alls; its other changes were counted with their lanes.
    queued_ -= order->barriers.size();
    tables_.erase(t);
  }
  notify(attrResolverQueue, queued_);
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
  // The changes that were not ready last time are older than those that
  // became offerable since: they are offered first.
  if (!waiting_.empty()) {
    waiting_.insert(
        waiting_.end(),
        std::make_move_iterator(offer_.begin() +
                                static_cast<std::ptrdiff_t>(offerHead_)),
        std::make_move_iterator(offer_.end()));
    offer_.swap(waiting_);
    waiting_.clear();
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
    if (!e->isResolved()) {
      if (const auto &dep = e->dependencyHandle();
          dep && dep->entryState() == EntryState::made) {
        dep->waiterIs(this);
      }
      waiting_.push_back(std::move(e));
      continue;
    }
    retire(e);
    e->commitEntry(e);
    ++committed;
  }
  offer_.clear();
  offerHead_ = 0;
  inPass_ = false;
  maybeUpdateSuspend();
  return committed;
}

} // namespace Asic
