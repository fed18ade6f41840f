#include "platform/framework/Notifier.h"

#include <algorithm>

namespace Fwk {

Observer::~Observer() = default;

Notifier::~Notifier() = default;

void Notifier::observerIs(Observer *observer) const {
  if (!observer ||
      std::find(observers_.begin(), observers_.end(), observer) !=
          observers_.end()) {
    return;
  }
  observers_.push_back(observer);
  ++live_;
}

void Notifier::observerDel(Observer *observer) const noexcept {
  auto it = std::find(observers_.begin(), observers_.end(), observer);
  if (!observer || it == observers_.end()) {
    return;
  }
  --live_;
  if (depth_) {
    *it = nullptr; // the walk in dispatch() skips it; compacted afterwards
  } else {
    observers_.erase(it);
  }
}

void Notifier::dispatch(const Change &change) const {
  // Keep the notifier alive while observers run: one of them may drop the
  // last reference to it. A notifier that is being built or destroyed has no
  // reference to keep.
  Ptr<const Notifier> self(references() ? this : nullptr);
  // The walk may end by an observer's exception: the guard still closes it,
  // so entries removed meanwhile are compacted.
  struct Walk {
    const Notifier &n;
    explicit Walk(const Notifier &notifier) : n(notifier) { ++n.depth_; }
    ~Walk() {
      if (--n.depth_ == 0 && n.observers_.size() != n.live_) {
        n.observers_.erase(
            std::remove(n.observers_.begin(), n.observers_.end(), nullptr),
            n.observers_.end());
      }
    }
  } walk(*this);
  const std::size_t n = observers_.size();
  for (std::size_t i = 0; i < n; ++i) {
    if (Observer *o = observers_[i]) {
      o->onChange(*this, change);
    }
  }
}

} // namespace Fwk
