#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/eventloop/Loop.h"
#include "support/Fork.h"

namespace {

using namespace std::chrono_literals;

// Stops a loop that a test expects to be stopped by something else, so that
// a broken wake fails the test instead of hanging it.
Evt::Timer guardTimer(Evt::Loop &loop, bool &expired) {
  return loop.timerIs(10s, [&loop, &expired] {
    expired = true;
    loop.stop();
  });
}

struct Pipe {
  Pipe() {
    if (::pipe(fd) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
  }
  ~Pipe() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  void put(char c) const { ASSERT_EQ(::write(fd[1], &c, 1), 1); }
  int fd[2];
};

TEST(Watches, CallbackRunsWhileTheFdIsReadableAndStopsOnCancel) {
  auto loop = Evt::Loop::create();
  Pipe p;
  std::vector<char> got;
  Evt::Watch w = loop->watchIs(p.fd[0], [&] {
    char c;
    ASSERT_EQ(::read(p.fd[0], &c, 1), 1);
    got.push_back(c);
  });
  EXPECT_EQ(loop->runUntilIdle(), 0u);
  p.put('a');
  p.put('b'); // read one byte per call: level-triggered, so called twice
  EXPECT_EQ(loop->runUntilIdle(), 2u);
  EXPECT_EQ(got, (std::vector<char>{'a', 'b'}));
  w.cancel();
  p.put('c');
  EXPECT_EQ(loop->runUntilIdle(), 0u);
  EXPECT_EQ(loop->watches(), 0u);
}

// A watch told to wait for room to write is called while the fd can take
// more, and no longer once told not to.
TEST(Watches, WritableWatchRunsWhileThereIsRoomUntilTurnedOff) {
  auto loop = Evt::Loop::create();
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
  std::string chunk(4096, 'x');
  while (::send(sv[0], chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
  }
  int calls = 0;
  Evt::Watch w = loop->watchIs(sv[0], [&] { ++calls; });
  w.writableIs(true);
  EXPECT_EQ(loop->runUntilIdle(), 0u); // full: not writable, nothing to read
  char buf[65536];
  while (::recv(sv[1], buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
  EXPECT_EQ(loop->runOnce(1s), 1u);
  EXPECT_EQ(calls, 1);
  w.writableIs(false);
  EXPECT_EQ(loop->runUntilIdle(), 0u);
  EXPECT_EQ(calls, 1);
  w.cancel();
  ::close(sv[0]);
  ::close(sv[1]);
}

TEST(Watches, CallbackCancellingAnotherReadyWatchKeepsItFromRunning) {
  auto loop = Evt::Loop::create();
  Pipe p, q;
  int calls = 0;
  Evt::Watch wp, wq;
  auto cancelOther = [&] {
    ++calls;
    wp.cancel();
    wq.cancel();
  };
  wp = loop->watchIs(p.fd[0], cancelOther);
  wq = loop->watchIs(q.fd[0], cancelOther);
  p.put('x');
  q.put('y');
  EXPECT_EQ(loop->runUntilIdle(), 1u);
  EXPECT_EQ(calls, 1);
}

TEST(Wake, PostFromOtherThreadsRunsEveryTaskInEachThreadsOrder) {
  auto loop = Evt::Loop::create();
  constexpr int kThreads = 4, kEach = 500;
  std::vector<std::vector<int>> seen(kThreads);
  int done = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t, l = loop.ptr()] {
      for (int i = 0; i < kEach; ++i) {
        l->post([&, t, i, l] {
          seen[t].push_back(i);
          if (++done == kThreads * kEach) {
            l->stop();
          }
        });
      }
    });
  }
  bool expired = false;
  Evt::Timer guard = guardTimer(*loop, expired);
  loop->run();
  for (auto &th : threads) {
    th.join();
  }
  ASSERT_FALSE(expired);
  for (const auto &s : seen) {
    ASSERT_EQ(s.size(), std::size_t{kEach});
    for (int i = 0; i < kEach; ++i) {
      ASSERT_EQ(s[i], i);
    }
  }
}

// The child learns the wake fd the way a hardware writer does: it inherits
// it, and signals it while the parent is blocked in run().
void expectWakeFromChild(bool useLoopCopy) {
  auto loop = Evt::Loop::create();
  int wakes = 0;
  loop->wakeHandlerIs([&] {
    ++wakes;
    loop->stop();
  });
  bool expired = false;
  Evt::Timer guard = guardTimer(*loop, expired);
  const pid_t child = TestSupport::forkTied();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::usleep(50 * 1000);
    if (useLoopCopy) {
      loop->wake();
    } else {
      Evt::signalWakeFd(loop->wakeFd());
    }
    ::_exit(0);
  }
  loop->run();
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(expired);
  EXPECT_GE(wakes, 1);
}

TEST(Wake, ForkedChildWakesTheParent) {
  expectWakeFromChild(true);  // through its copy of the loop
  expectWakeFromChild(false); // through the bare fd number
}

} // namespace
