// The agent's event loop: one thread runs everything the tables do, so
// nothing in them takes a lock.
//
// A loop runs deferred tasks, timers and file-descriptor watches, and can be
// woken from another thread or another process:
//
//   Evt::Loop::Ptr loop = Evt::Loop::create();
//   loop->defer([] { resolvePass(); });                 // soon, in FIFO order
//   Evt::Timer retry = loop->timerIs(std::chrono::seconds(1), [] { retry(); });
//   Evt::Timer stats = loop->periodicIs(std::chrono::seconds(10), [] { dump();
//   }); Evt::Watch in = loop->watchIs(fd, [] { readWhatIsThere(); });
//   loop->wakeHandlerIs([] { pollSharedMemory(); });    // after wake()
//   anywhere std::thread([&] { loop->post([] { hello(); }); }).join();   //
//   thread-safe loop->run();                                        // until
//   stop()
//
// Tests drive the loop without blocking: runUntilIdle() runs whatever is ready
// (including what that work schedules) and returns the number of callbacks it
// ran. With a ManualClock (Clock.h) timers become due only as the test
// advances time.
//
// A pass. Every run call is made of passes. A pass waits (or only polls) for
// the wake fd and the watched fds, then runs, in this order:
//   1. the tasks that are queued when the pass starts, oldest first: posted
//      tasks join the queue when the loop sees its wake fd, after the tasks
//      deferred before that;
//   2. the wake handler, once however many wakes arrived since the last call;
//   3. the timers that are due when the pass starts, by deadline and, for
//      equal deadlines, in the order the timers were made;
//   4. the callbacks of the watched fds that the wait found ready.
// Work made during a pass (a task deferred, a timer of delay 0) waits for the
// next pass, so one pass always ends.
//
// Threads and processes. post(), wake() and stop() may be called from any
// thread, wake() and stop() also from a signal handler. Everything else is for
// the loop's thread only. Another thread holds the loop by a plain pointer or
// reference (copying a Ptr changes its count, which is only safe in the
// framework's multi-threaded mode) and the loop must outlive its calls.
// wakeFd() is an eventfd: a forked child may call wake() on its copy of the
// loop, or signalWakeFd(wakeFd()); a program started with exec gets the fd
// passed explicitly (it is close-on-exec; dup2 it to the number the program
// is told). A forked child must do nothing else with its copy of the loop: it
// shares the epoll instance with the parent.
//
// Re-entrancy. From inside any callback it is safe to defer and post tasks,
// make timers and watches, cancel any of them (including the one that is
// running, a periodic timer included), destroy objects that own handles, set
// the wake handler, stop the loop and drop the last reference to the loop
// (it lives until the run call returns). A callback must not call run(),
// runOnce() or runUntilIdle() of its own loop (this is asserted); running
// another loop is allowed.
//
// Failures. A callback that throws ends the run call: the exception
// propagates out of run(), runOnce() or runUntilIdle(). The throwing task or
// one-shot timer is spent; everything not yet run stays queued in its order,
// a periodic timer stays armed, and the next run call carries on. System
// call failures (creating the epoll instance, watching a bad fd) throw
// std::system_error.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/Export.h"
#include "platform/eventloop/Clock.h"
#include "platform/framework/Object.h"

namespace Evt {

using Task = std::function<void()>;

// Wait without limit (runOnce).
inline constexpr Duration kForever = Duration::max();

class Loop;

namespace detail {
struct TimerRec;
struct WatchRec;
} // namespace detail

// A timer made by Loop::timerIs or Loop::periodicIs. The handle owns the
// timer: destroying the handle, or assigning another timer to it, cancels
// the timer, so an object that keeps its timers as members can never be
// called back after it is gone. A default-made handle holds no timer.
// Loop thread only. The handle may outlive its loop (it is then inert).
class MICA_PLATFORM_API Timer {
public:
  Timer() noexcept;
  Timer(Timer &&o) noexcept;
  Timer &operator=(Timer &&o) noexcept;
  ~Timer();

  // Disarms the timer; its callback, and what the callback captured, is
  // released at once unless it is running, then as soon as it returns. Safe
  // to call more than once and from inside the timer's own callback.
  void cancel() noexcept;
  // Whether the timer will still fire: false once a one-shot timer has
  // started running, after cancel(), and once the loop is gone.
  bool pending() const noexcept;

private:
  friend class Loop;
  explicit Timer(Fwk::Ptr<detail::TimerRec> rec) noexcept;
  Fwk::Ptr<detail::TimerRec> rec_;
};

// A watch of a file descriptor made by Loop::watchIs; owns the watch the way
// Timer owns its timer.
class MICA_PLATFORM_API Watch {
public:
  Watch() noexcept;
  Watch(Watch &&o) noexcept;
  Watch &operator=(Watch &&o) noexcept;
  ~Watch();

  // Stops watching. REQUIRES: the fd is still open (cancel before closing:
  // the kernel keeps watching a file that has other descriptors).
  void cancel() noexcept;
  bool active() const noexcept;
  // Also calls the callback on passes that find the fd writable (a socket
  // with output waiting for room), until turned off again. Level-triggered
  // as well: turn it off once there is nothing left to write.
  void writableIs(bool on);

private:
  friend class Loop;
  explicit Watch(Fwk::Ptr<detail::WatchRec> rec) noexcept;
  Fwk::Ptr<detail::WatchRec> rec_;
};

class MICA_PLATFORM_API Loop : public Fwk::Object {
public:
  using Ptr = Fwk::Ptr<Loop>;

  // A new loop on the given clock, or on the monotonic clock when null. It
  // becomes the calling thread's current loop if that thread has none.
  static Ptr create(Clock::Ptr clock = nullptr);

  // The calling thread's current loop, or null: the loop that is running on
  // this thread, else the one made current with currentIs() or by create().
  // The group resolver schedules its passes here.
  static Ptr current() noexcept;
  // Makes a loop the calling thread's current loop (null: none). A loop that
  // is destroyed stops being current on the thread that destroys it;
  // REQUIRES: a loop that is current on another thread is made not current
  // there before it is destroyed.
  static void currentIs(Loop *loop) noexcept;

  TimePoint now() const noexcept { return clock_->now(); }
  const Clock::Ptr &clock() const noexcept { return clock_; }

  // Queues a task to run on a coming pass, after every task queued before
  // it. REQUIRES: a task (throws Fwk::NullPointerException for an empty one).
  void defer(Task task);
  // The same from any thread: the task is queued under a lock and the loop is
  // woken. Posted tasks keep their order among themselves.
  void post(Task task);

  // A timer that runs fn once, `delay` from now (a delay <= 0: on the next
  // pass).
  [[nodiscard]] Timer timerIs(Duration delay, Task fn);
  // A timer that runs fn every `period`, the first time one period from now.
  // Deadlines stay on the grid of the first one; a timer that falls behind
  // skips the ticks it missed instead of running to catch up.
  // REQUIRES: period > 0 (std::invalid_argument otherwise).
  [[nodiscard]] Timer periodicIs(Duration period, Task fn);

  // Calls fn on every pass that finds fd readable, at end of file or in error
  // (level-triggered: the callback reads what is there, or it is called
  // again on the next pass, and runUntilIdle() does not end). REQUIRES: fd
  // open, pollable and not watched already (std::system_error otherwise).
  [[nodiscard]] Watch watchIs(int fd, Task fn);

  // Runs fn on the loop's thread after the loop sees its wake fd, once per
  // batch of wakes. Null removes the handler.
  void wakeHandlerIs(Task fn);

  // Makes a waiting loop return from its wait. Thread-safe and
  // async-signal-safe; also works from a forked child (see above).
  void wake() noexcept;
  // The loop's eventfd. Valid while the loop lives.
  int wakeFd() const noexcept { return wakeFd_; }

  // Runs passes until stop(). A stop() made before run() makes it return at
  // once.
  void run();
  // Makes run() return after the current pass. Thread-safe and
  // async-signal-safe. It wakes the loop, so a wake handler runs once more.
  void stop() noexcept;
  // Waits up to `timeout` (kForever: no limit) for something to run, then runs
  // one pass. Returns the number of callbacks run, which may be 0 (the
  // timeout passed, a signal, a wake with nothing to do).
  std::size_t runOnce(Duration timeout = kForever);
  // Runs passes without waiting until one finds nothing to run: no queued
  // task, no wake, no due timer, no ready fd. Timers in the future do not
  // count. Returns the number of callbacks run. Never returns if the work
  // keeps making work that is ready at once.
  std::size_t runUntilIdle();

  // The number of queued tasks (posted tasks count once the loop saw them),
  // armed timers and active watches.
  std::size_t tasks() const noexcept { return ready_.size(); }
  std::size_t timers() const noexcept { return timers_.size(); }
  std::size_t watches() const noexcept { return watches_.size(); }

private:
  friend class Timer;
  friend class Watch;
  struct TimerKey {
    TimePoint deadline;
    std::uint64_t seq; // creation order, breaks ties of equal deadlines
    auto operator<=>(const TimerKey &) const = default;
  };

  explicit Loop(Clock::Ptr clock);
  ~Loop() override;

  Timer timerNew(Duration delay, Duration period, Task fn);
  void timerDel(detail::TimerRec &rec) noexcept;
  void watchDel(detail::WatchRec &rec) noexcept;
  void watchEventsIs(detail::WatchRec &rec, bool writable);
  std::size_t pass(Duration wait);
  void fire(detail::TimerRec &rec);
  void drainWakeFd() noexcept;

  Clock::Ptr clock_;
  int epollFd_ = -1;
  int wakeFd_ = -1;
  bool running_ = false;
  bool woken_ = false; // the wake fd was drained, the handler not yet run
  std::atomic<bool> stopRequested_{false};

  std::deque<Task> ready_;
  std::mutex postMutex_;
  std::vector<Task> posted_; // guarded by postMutex_

  std::uint64_t nextTimerSeq_ = 0;
  std::map<TimerKey, Fwk::Ptr<detail::TimerRec>> timers_;
  std::uint64_t nextWatchId_ = 1; // 0 marks the wake fd in epoll events
  std::unordered_map<std::uint64_t, Fwk::Ptr<detail::WatchRec>> watches_;
  Task wakeHandler_;
};

// Signals an eventfd the way Loop::wake() does, for a process that knows only
// the number of a loop's wake fd. Async-signal-safe.
MICA_PLATFORM_API void signalWakeFd(int fd) noexcept;

} // namespace Evt
