#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/eventloop/Loop.h"

namespace {

// Tasks run in the order deferred; one deferred by a task runs after those
// already queued.
TEST(Tasks, RunInDeferOrderThoseDeferredByATaskAfterTheQueuedOnes) {
  auto loop = Evt::Loop::create();
  std::vector<std::string> order;
  loop->defer([&] {
    order.push_back("a");
    loop->defer([&] {
      order.push_back("a1");
      loop->defer([&] { order.push_back("a2"); });
    });
  });
  for (const char *name : {"b", "c"}) {
    loop->defer([&order, name] { order.push_back(name); });
  }
  EXPECT_EQ(loop->tasks(), 3u);
  EXPECT_EQ(loop->runUntilIdle(), 5u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "a1", "a2"}));
  EXPECT_EQ(loop->runUntilIdle(), 0u);
}

// A task or timer that throws: the exception leaves runUntilIdle, the other
// tasks stay queued, a periodic timer stays armed, and the loop goes on.
TEST(Failures, ThrowingCallbacksLeaveTheRestQueuedAndTheLoopUsable) {
  auto clock = Fwk::make<Evt::ManualClock>();
  auto loop = Evt::Loop::create(clock);
  std::vector<int> order;
  loop->defer([&] { order.push_back(1); });
  loop->defer([] { throw std::runtime_error("boom"); });
  loop->defer([&] { order.push_back(3); });
  EXPECT_THROW(loop->runUntilIdle(), std::runtime_error);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(loop->tasks(), 1u);
  loop->defer([&] { order.push_back(4); });
  EXPECT_EQ(loop->runUntilIdle(), 2u);
  EXPECT_EQ(order, (std::vector<int>{1, 3, 4}));

  int calls = 0;
  Evt::Timer t = loop->periodicIs(std::chrono::seconds(1), [&] {
    if (++calls == 1) {
      throw std::runtime_error("first tick fails");
    }
  });
  clock->advance(std::chrono::seconds(1));
  EXPECT_THROW(loop->runUntilIdle(), std::runtime_error);
  EXPECT_TRUE(t.pending());
  clock->advance(std::chrono::seconds(1));
  EXPECT_EQ(loop->runUntilIdle(), 1u);
  EXPECT_EQ(calls, 2);
}

TEST(CurrentLoop, IsTheRunningLoopThenTheThreadsOwn) {
  Evt::Loop::currentIs(nullptr);
  auto first = Evt::Loop::create();
  auto second = Evt::Loop::create();
  EXPECT_EQ(Evt::Loop::current(), first); // the thread had none before
  Evt::Loop::Ptr seen;
  second->defer([&] { seen = Evt::Loop::current(); });
  second->runUntilIdle();
  EXPECT_EQ(seen, second);
  EXPECT_EQ(Evt::Loop::current(), first);
  first = nullptr;
  EXPECT_EQ(Evt::Loop::current(), nullptr);
}

TEST(CurrentLoop, CallbackMayDropTheLastReferenceToItsLoop) {
  auto loop = Evt::Loop::create();
  Evt::Loop *raw = loop.ptr();
  bool after = false;
  raw->defer([&] { loop = nullptr; });
  raw->defer([&] { after = true; });
  EXPECT_EQ(raw->runUntilIdle(), 2u); // the loop dies when this returns
  EXPECT_TRUE(after);
}

} // namespace
