#include "platform/eventloop/Clock.h"

#include "platform/framework/Assert.h"

namespace Evt {

Clock::~Clock() = default;

namespace {
class MonotonicClock final : public Clock {
public:
  TimePoint now() const noexcept override {
    return std::chrono::steady_clock::now();
  }
};
} // namespace

Clock::Ptr monotonicClock() {
  return Fwk::make<MonotonicClock>();
}

ManualClock::~ManualClock() = default;

void ManualClock::advance(Duration d) noexcept {
  FWK_ASSERT(d >= Duration::zero());
  now_ += d;
}

} // namespace Evt
