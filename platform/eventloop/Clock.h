// The event loop's time source (the loop itself is in Loop.h).
//
// Timers read time through a Clock so that a test can move time by hand
// instead of sleeping:
//
//   auto clock = Fwk::make<Evt::ManualClock>();
//   auto loop = Evt::Loop::create(clock);
//   Evt::Timer t = loop->timerIs(std::chrono::seconds(30), [&] { fired = true;
//   }); clock->advance(std::chrono::seconds(30)); loop->runUntilIdle(); // runs
//   the timer, no waiting
//
// A clock is monotonic: now() never goes back. Clocks are used from the loop's
// thread only.
#pragma once

#include <chrono>

#include "platform/Export.h"
#include "platform/framework/Object.h"

namespace Evt {

using Duration = std::chrono::steady_clock::duration;
using TimePoint = std::chrono::steady_clock::time_point;

class MICA_PLATFORM_API Clock : public Fwk::Object {
public:
  using Ptr = Fwk::Ptr<Clock>;
  virtual TimePoint now() const noexcept = 0;

protected:
  ~Clock() override;
};

// A new clock that reads the system's monotonic clock (CLOCK_MONOTONIC).
MICA_PLATFORM_API Clock::Ptr monotonicClock();

// A clock that moves only when told to, for tests and simulations. It starts
// at TimePoint{}.
//
// A loop on a ManualClock still blocks in real time in run() and runOnce():
// a timer 5 s ahead of the manual time makes them wait 5 real seconds (and
// find it still not due). Drive such a loop with runUntilIdle().
class MICA_PLATFORM_API ManualClock : public Clock {
public:
  using Ptr = Fwk::Ptr<ManualClock>;
  ManualClock() noexcept = default;
  ~ManualClock() override;

  TimePoint now() const noexcept override { return now_; }
  // REQUIRES: d >= 0 (time never goes back).
  void advance(Duration d) noexcept;

private:
  TimePoint now_{};
};

} // namespace Evt
