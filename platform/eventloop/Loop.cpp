#include "platform/eventloop/Loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/framework/Assert.h"
#include "platform/framework/Errors.h"

namespace Evt {

namespace detail {

// A timer is armed while `loop` is set; the loop's map then holds it under
// (deadline, seq).
struct TimerRec : Fwk::Object {
  Loop *loop = nullptr;
  TimePoint deadline;
  std::uint64_t seq = 0;
  Duration period{}; // zero for a one-shot timer
  Task fn;           // empty while the callback runs
};

struct WatchRec : Fwk::Object {
  Loop *loop = nullptr; // set while the watch is active
  int fd = -1;
  std::uint64_t id = 0;
  bool writable = false; // also watched for room to write
  Task fn;               // empty while the callback runs
};

} // namespace detail

namespace {

thread_local Loop *tCurrent = nullptr;

constexpr int kMaxEvents = 64;

[[noreturn]] void throwErrno(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

TimePoint addSaturated(TimePoint t, Duration d) noexcept {
  return d > TimePoint::max() - t ? TimePoint::max() : t + d;
}

// epoll_wait's timeout: rounded up, so that a wait for a timer never ends
// before the timer is due (which would cost a pass that finds nothing).
int toEpollTimeout(Duration wait) noexcept {
  if (wait == kForever) {
    return -1;
  }
  if (wait <= Duration::zero()) {
    return 0;
  }
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Hands a callback back to its timer or watch once it has run (or thrown),
// unless the timer or watch was cancelled meanwhile; then the callback dies
// here, after it returned.
template <typename Rec> struct CallbackReturn {
  Rec &rec;
  Task &fn;
  ~CallbackReturn() {
    if (rec.loop && !rec.fn) {
      rec.fn = std::move(fn);
    }
  }
};

} // namespace

void signalWakeFd(int fd) noexcept {
  const std::uint64_t one = 1;
  // EAGAIN means the counter is saturated, i.e. the loop is signalled
  // already; nothing else can fail on a valid eventfd.
  if (::write(fd, &one, sizeof one) < 0) {
    return;
  }
}

// ---- Timer and Watch handles ----

Timer::Timer() noexcept = default;
Timer::Timer(Fwk::Ptr<detail::TimerRec> rec) noexcept : rec_(std::move(rec)) {}
Timer::Timer(Timer &&o) noexcept = default;

Timer &Timer::operator=(Timer &&o) noexcept {
  if (this != &o) {
    // Swap first: cancelling releases the old callback, whose captures may
    // reach this handle.
    Timer old(std::move(*this));
    rec_ = std::move(o.rec_);
  }
  return *this;
}

Timer::~Timer() {
  cancel();
}

void Timer::cancel() noexcept {
  if (rec_ && rec_->loop) {
    rec_->loop->timerDel(*rec_);
  }
}

bool Timer::pending() const noexcept {
  return rec_ && rec_->loop;
}

Watch::Watch() noexcept = default;
Watch::Watch(Fwk::Ptr<detail::WatchRec> rec) noexcept : rec_(std::move(rec)) {}
Watch::Watch(Watch &&o) noexcept = default;

Watch &Watch::operator=(Watch &&o) noexcept {
  if (this != &o) {
    Watch old(std::move(*this));
    rec_ = std::move(o.rec_);
  }
  return *this;
}

Watch::~Watch() {
  cancel();
}

void Watch::cancel() noexcept {
  if (rec_ && rec_->loop) {
    rec_->loop->watchDel(*rec_);
  }
}

bool Watch::active() const noexcept {
  return rec_ && rec_->loop;
}

// ---- Loop ----

Loop::Ptr Loop::create(Clock::Ptr clock) {
  Ptr loop(new Loop(std::move(clock)));
  if (!tCurrent) {
    tCurrent = loop.ptr();
  }
  return loop;
}

Loop::Ptr Loop::current() noexcept {
  return Ptr(tCurrent);
}

void Loop::currentIs(Loop *loop) noexcept {
  tCurrent = loop;
}

Loop::Loop(Clock::Ptr clock)
    : clock_(clock ? std::move(clock) : monotonicClock()) {
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) {
    throwErrno("epoll_create1");
  }
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = 0;
  if (wakeFd_ < 0 || ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &ev) < 0) {
    const int err = errno;
    if (wakeFd_ >= 0) {
      ::close(wakeFd_);
    }
    ::close(epollFd_);
    throw std::system_error(err, std::generic_category(), "eventfd");
  }
}

Loop::~Loop() {
  if (tCurrent == this) {
    tCurrent = nullptr;
  }
  // Callbacks are released one by one with the loop already consistent, as
  // their captures may run code (cancel a handle, even queue a task) when
  // they die.
  while (!timers_.empty()) {
    auto node = timers_.extract(timers_.begin());
    node.mapped()->loop = nullptr;
    Task fn = std::move(node.mapped()->fn);
  }
  while (!watches_.empty()) {
    auto node = watches_.extract(watches_.begin());
    node.mapped()->loop = nullptr;
    Task fn = std::move(node.mapped()->fn);
  }
  { Task handler = std::move(wakeHandler_); }
  for (;;) {
    std::vector<Task> posted;
    {
      std::lock_guard lock(postMutex_);
      posted.swap(posted_);
    }
    if (posted.empty() && ready_.empty()) {
      break;
    }
    std::deque<Task> ready = std::move(ready_);
    ready_.clear();
  }
  ::close(wakeFd_);
  ::close(epollFd_);
}

void Loop::defer(Task task) {
  if (!task) {
    throw Fwk::NullPointerException("task");
  }
  ready_.push_back(std::move(task));
}

void Loop::post(Task task) {
  if (!task) {
    throw Fwk::NullPointerException("task");
  }
  {
    std::lock_guard lock(postMutex_);
    posted_.push_back(std::move(task));
  }
  wake();
}

Timer Loop::timerIs(Duration delay, Task fn) {
  return timerNew(delay, Duration::zero(), std::move(fn));
}

Timer Loop::periodicIs(Duration period, Task fn) {
  if (period <= Duration::zero()) {
    throw std::invalid_argument("a periodic timer needs a period above zero");
  }
  return timerNew(period, period, std::move(fn));
}

Timer Loop::timerNew(Duration delay, Duration period, Task fn) {
  if (!fn) {
    throw Fwk::NullPointerException("fn");
  }
  auto rec = Fwk::make<detail::TimerRec>();
  rec->deadline = addSaturated(now(), std::max(delay, Duration::zero()));
  rec->seq = nextTimerSeq_++;
  rec->period = period;
  rec->fn = std::move(fn);
  timers_.emplace(TimerKey{rec->deadline, rec->seq}, rec);
  rec->loop = this;
  return Timer(std::move(rec));
}

void Loop::timerDel(detail::TimerRec &rec) noexcept {
  Fwk::Ptr<detail::TimerRec> keep(&rec);
  timers_.erase(TimerKey{rec.deadline, rec.seq});
  rec.loop = nullptr;
  Task fn = std::move(rec.fn);
}

Watch Loop::watchIs(int fd, Task fn) {
  if (!fn) {
    throw Fwk::NullPointerException("fn");
  }
  auto rec = Fwk::make<detail::WatchRec>();
  rec->id = nextWatchId_++;
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP;
  ev.data.u64 = rec->id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) < 0) {
    throwErrno("watching fd " + std::to_string(fd));
  }
  rec->fd = fd;
  rec->fn = std::move(fn);
  rec->loop = this;
  watches_.emplace(rec->id, rec);
  return Watch(std::move(rec));
}

void Watch::writableIs(bool on) {
  if (rec_ && rec_->loop) {
    rec_->loop->watchEventsIs(*rec_, on);
  }
}

void Loop::watchEventsIs(detail::WatchRec &rec, bool writable) {
  if (rec.writable == writable) {
    return;
  }
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP | (writable ? EPOLLOUT : 0u);
  ev.data.u64 = rec.id;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, rec.fd, &ev) < 0) {
    throwErrno("watching fd " + std::to_string(rec.fd));
  }
  rec.writable = writable;
}

void Loop::watchDel(detail::WatchRec &rec) noexcept {
  Fwk::Ptr<detail::WatchRec> keep(&rec);
  // Fails only when the fd was closed already, which took it out of the set.
  ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, rec.fd, nullptr);
  watches_.erase(rec.id);
  rec.loop = nullptr;
  Task fn = std::move(rec.fn);
}

void Loop::wakeHandlerIs(Task fn) {
  Task old = std::exchange(wakeHandler_, std::move(fn));
}

void Loop::wake() noexcept {
  signalWakeFd(wakeFd_);
}

void Loop::stop() noexcept {
  stopRequested_.store(true);
  wake();
}

void Loop::run() {
  Ptr keep(this); // a callback may drop the last reference to the loop
  while (!stopRequested_.load()) {
    pass(kForever);
  }
  stopRequested_.store(false);
}

std::size_t Loop::runOnce(Duration timeout) {
  return pass(timeout);
}

std::size_t Loop::runUntilIdle() {
  Ptr keep(this); // a callback may drop the last reference to the loop
  std::size_t total = 0;
  while (const std::size_t ran = pass(Duration::zero())) {
    total += ran;
  }
  return total;
}

void Loop::drainWakeFd() noexcept {
  std::uint64_t count;
  if (::read(wakeFd_, &count, sizeof count) < 0) {
    // EAGAIN: another pass drained it; the posted queue is still worth a look.
  }
  std::vector<Task> posted;
  {
    std::lock_guard lock(postMutex_);
    posted.swap(posted_);
  }
  for (Task &task : posted) {
    ready_.push_back(std::move(task));
  }
  woken_ = true;
}

void Loop::fire(detail::TimerRec &rec) {
  timers_.erase(TimerKey{rec.deadline, rec.seq});
  Task fn = std::move(rec.fn);
  if (rec.period > Duration::zero()) {
    // Re-armed before the callback runs, so that the callback sees its timer
    // pending and can cancel it.
    TimePoint next = addSaturated(rec.deadline, rec.period);
    const TimePoint t = now();
    if (next <= t) {
      next = addSaturated(next, ((t - next) / rec.period + 1) * rec.period);
    }
    rec.deadline = next;
    timers_.emplace(TimerKey{rec.deadline, rec.seq},
                    Fwk::Ptr<detail::TimerRec>(&rec));
  } else {
    rec.loop = nullptr;
  }
  CallbackReturn<detail::TimerRec> giveBack{rec, fn};
  fn();
}

std::size_t Loop::pass(Duration wait) {
  FWK_ASSERT_MSG(!running_, "a loop was run from inside one of its callbacks");
  Ptr keep(this); // a callback may drop the last reference to the loop
  struct Running {
    Loop &loop;
    Loop *previous;
    explicit Running(Loop &l) : loop(l), previous(tCurrent) {
      loop.running_ = true;
      tCurrent = &loop;
    }
    ~Running() {
      loop.running_ = false;
      tCurrent = previous;
    }
  } running(*this);

  if (!ready_.empty() || woken_) {
    wait = Duration::zero();
  } else if (!timers_.empty()) {
    wait = std::min(wait, timers_.begin()->first.deadline - now());
  }
  std::array<epoll_event, kMaxEvents> events;
  int n =
      ::epoll_wait(epollFd_, events.data(), kMaxEvents, toEpollTimeout(wait));
  if (n < 0) {
    if (errno != EINTR) {
      throwErrno("epoll_wait");
    }
    n = 0;
  }
  std::array<std::uint64_t, kMaxEvents> readyWatches;
  std::size_t readyCount = 0;
  for (int i = 0; i < n; ++i) {
    if (events[i].data.u64 == 0) {
      drainWakeFd();
    } else {
      readyWatches[readyCount++] = events[i].data.u64;
    }
  }
  // Timers made by this pass's callbacks wait for the next pass, even those
  // already due.
  const TimePoint t = now();
  const std::uint64_t timersBefore = nextTimerSeq_;
  std::size_t ran = 0;

  for (std::size_t left = ready_.size(); left > 0; --left) {
    Task task = std::move(ready_.front());
    ready_.pop_front();
    ++ran;
    task();
  }

  if (woken_) {
    woken_ = false;
    if (wakeHandler_) {
      // A copy: the handler may replace or remove itself.
      Task handler = wakeHandler_;
      ++ran;
      handler();
    }
  }

  if (!timers_.empty() && timers_.begin()->first.deadline <= t) {
    std::vector<Fwk::Ptr<detail::TimerRec>> due;
    for (auto it = timers_.begin();
         it != timers_.end() && it->first.deadline <= t; ++it) {
      if (it->first.seq < timersBefore) {
        due.push_back(it->second);
      }
    }
    for (const auto &rec : due) {
      // Skips timers cancelled by an earlier callback of this pass.
      if (rec->loop == this) {
        ++ran;
        fire(*rec);
      }
    }
  }

  for (std::size_t i = 0; i < readyCount; ++i) {
    auto it = watches_.find(readyWatches[i]);
    if (it == watches_.end()) {
      continue; // cancelled by an earlier callback of this pass
    }
    Fwk::Ptr<detail::WatchRec> rec = it->second;
    Task fn = std::move(rec->fn);
    CallbackReturn<detail::WatchRec> giveBack{*rec, fn};
    ++ran;
    fn();
  }
  return ran;
}

} // namespace Evt
