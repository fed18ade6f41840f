#include "platform/framework/Notifier.h"

#include <algorithm>

namespace Fwk {

Observer::~Observer() = default;

Notifier::~Notifier() = default;

void Notifier::observerIs(Observer *observer) {
  if (!observer ||
      std::find(observers_.begin(), observers_.end(), observer) !=
          observers_.end()) {
    return;
  }
  observers_.push_back(observer);
  ++live_;
}

void Notifier::observerDel(Observer *observer) noexcept {
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
  ++depth_;
  const std::size_t n = observers_.size();
  for (std::size_t i = 0; i < n; ++i) {
    if (Observer *o = observers_[i]) {
      o->onChange(*this, change);
    }
  }
  if (--depth_ == 0 && observers_.size() != live_) {
    observers_.erase(std::remove(observers_.begin(), observers_.end(), nullptr),
                     observers_.end());
  }
}

} // namespace Fwk
