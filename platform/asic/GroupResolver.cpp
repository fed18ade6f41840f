#include "platform/asic/GroupResolver.h"

namespace Asic {

GroupResolver::GroupResolver(Scheduler schedule)
    : schedule_(std::move(schedule)) {}

GroupResolver::~GroupResolver() = default;

void GroupResolver::resolverQueueEnq(const Fwk::Ptr<ResolverEntry> &entry) {
  if (!entry) {
    return;
  }
  queue_.push_back(entry);
  notify(attrResolverQueue, queue_.size() - 1);
}

Fwk::Ptr<ResolverEntry> GroupResolver::resolverQueue(std::size_t position) const {
  return position < queue_.size() ? queue_[position] : nullptr;
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
  if (!s && queue_.size() > kSuspendHigh) {
    s = true;
  } else if (s && queue_.size() < kSuspendLow) {
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
    // already goes on to the end of the queue.
    return 0;
  }
  Fwk::Ptr<GroupResolver> self(this);
  inPass_ = true;
  std::size_t committed = 0;
  while (!queue_.empty()) {
    Fwk::Ptr<ResolverEntry> front = queue_.front();
    if (!front->isResolved()) {
      break;
    }
    queue_.pop_front();
    notify(attrResolverQueue, std::size_t{0});
    front->commitEntry(front);
    ++committed;
  }
  inPass_ = false;
  maybeUpdateSuspend();
  return committed;
}

} // namespace Asic
