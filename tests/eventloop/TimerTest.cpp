#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/eventloop/Loop.h"

namespace {

using namespace std::chrono_literals;

class Timers : public ::testing::Test {
protected:
  Evt::ManualClock::Ptr clock = Fwk::make<Evt::ManualClock>();
  Evt::Loop::Ptr loop = Evt::Loop::create(clock);
  std::vector<std::string> order;

  Evt::Task note(std::string what) {
    return [this, what] { order.push_back(what); };
  }
};

TEST_F(Timers, FireByDeadlineThenCreationOnlyOnceDue) {
  Evt::Timer late = loop->timerIs(30ms, note("late"));
  Evt::Timer tieA = loop->timerIs(20ms, note("tieA"));
  Evt::Timer tieB = loop->timerIs(20ms, note("tieB"));
  Evt::Timer early = loop->timerIs(10ms, note("early"));
  EXPECT_EQ(loop->runUntilIdle(), 0u);
  clock->advance(20ms);
  EXPECT_EQ(loop->runUntilIdle(), 3u);
  EXPECT_EQ(order, (std::vector<std::string>{"early", "tieA", "tieB"}));
  EXPECT_FALSE(early.pending());
  EXPECT_TRUE(late.pending());
  clock->advance(10ms);
  EXPECT_EQ(loop->runUntilIdle(), 1u);
  EXPECT_EQ(order.back(), "late");
}

// An object that owns its timer, as the tables' retry logic does.
struct Owner {
  Owner(Evt::Loop &loop, bool &fired)
      : timer(loop.timerIs(10ms, [&fired] { fired = true; })) {}
  Evt::Timer timer;
};

// A timer cancelled (twice is harmless), by a callback of the same pass, or
// by destroying its owner in that pass, never runs and lets go of its
// callback.
TEST_F(Timers, CancelledTimerNeverRunsAndReleasesItsCallback) {
  auto token = std::make_shared<int>(0);
  Evt::Timer t = loop->timerIs(5ms, [token, this] { order.push_back("t"); });
  t.cancel();
  EXPECT_FALSE(t.pending());
  EXPECT_EQ(token.use_count(), 1);
  t.cancel();

  Evt::Timer second;
  Evt::Timer first = loop->timerIs(1ms, [&] {
    order.push_back("first");
    second.cancel();
  });
  second = loop->timerIs(2ms, note("second"));
  bool fired = false;
  auto owner = std::make_unique<Owner>(*loop, fired);
  loop->defer([&] { owner.reset(); });
  clock->advance(10ms); // all due in the pass that destroys the owner
  EXPECT_EQ(loop->runUntilIdle(), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"first"}));
  EXPECT_FALSE(fired);
  EXPECT_EQ(loop->timers(), 0u);
}

// A periodic timer keeps its grid, runs once for ticks it missed, and may
// cancel itself from its callback, letting go of it once that run returns.
TEST_F(Timers, PeriodicTimerSkipsMissedTicksKeepsItsGridAndCancelsItself) {
  auto token = std::make_shared<int>(0);
  int ticks = 0;
  Evt::Timer t;
  t = loop->periodicIs(10ms, [&, token] {
    if (++ticks == 3) {
      t.cancel();
      EXPECT_FALSE(t.pending());
    }
  });
  clock->advance(35ms); // ticks due at 10, 20 and 30 ms
  EXPECT_EQ(loop->runUntilIdle(), 1u);
  clock->advance(4ms); // 39 ms: the next tick is at 40, not at 45
  EXPECT_EQ(loop->runUntilIdle(), 0u);
  clock->advance(1ms);
  EXPECT_EQ(loop->runUntilIdle(), 1u);
  EXPECT_EQ(ticks, 2);
  for (int i = 0; i < 5; ++i) {
    clock->advance(10ms);
    loop->runUntilIdle();
  }
  EXPECT_EQ(ticks, 3);
  EXPECT_EQ(loop->timers(), 0u);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_THROW((void)loop->periodicIs(0ms, [] {}), std::invalid_argument);
}

TEST(RealClock, RunWaitsForTheTimerThatStopsIt) {
  auto loop = Evt::Loop::create();
  bool fired = false;
  // Taken before the timer is armed: its 20 ms count from the arming.
  const auto start = std::chrono::steady_clock::now();
  Evt::Timer t = loop->timerIs(20ms, [&] {
    fired = true;
    loop->stop();
  });
  loop->run();
  EXPECT_TRUE(fired);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

} // namespace
