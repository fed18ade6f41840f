// A program the soak runs (mpls-agent, mpls-hw, a verify): its stdout and
// stderr go to files, it runs in a process group of its own (a Ctrl-C at
// the terminal reaches only the soak, which stops its children itself), and
// it is tied to the soak's life: it gets SIGKILL when the soak dies, however
// the soak dies.
//
//   MplsSoak::Child hw;
//   hw.start("/opt/mica/bin/mpls-hw", {"--store", dir}, dir + "/hw.out",
//            dir + "/hw.err");
//   ...
//   if (auto code = hw.poll()) { /* it ended by itself: *code */ }
//   hw.kill();                          // SIGKILL, and reaped
//
// Exit statuses are the exit code, or 128 + the signal that ended it.
// Not thread-safe.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace MplsSoak {

using Clock = std::chrono::steady_clock;

class Child {
public:
  Child() = default;
  // A child still running is killed (SIGKILL) and reaped.
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  // Starts `path` with `args`, stdout to `outFile` and stderr to `errFile`
  // (created or truncated). Throws std::system_error when it cannot fork;
  // a program that cannot be executed exits 127.
  // REQUIRES: not running.
  void start(const std::string &path, const std::vector<std::string> &args,
             const std::string &outFile, const std::string &errFile);

  bool running() const noexcept { return pid_ > 0; }
  pid_t pid() const noexcept { return pid_; }
  // How long ago it was started.
  Clock::duration age() const { return Clock::now() - started_; }

  // Sends a signal (nothing when not running).
  void signal(int sig);
  // The exit status when it has ended (it is reaped then); nothing while it
  // runs or when it was not started.
  std::optional<int> poll();
  // SIGKILL, then waits for the end. Returns the exit status (-1 when it was
  // not running).
  int kill();
  // Waits until it ends, `limit` at most or until `stop()` says so (looked
  // at every few milliseconds). Nothing when it still runs.
  std::optional<int> waitFor(Clock::duration limit,
                             const std::function<bool()> &stop);

private:
  pid_t pid_ = -1;
  Clock::time_point started_{};
};

// Sleeps `d`, in short steps, returning early (false) when `stop()` says so.
bool sleepFor(Clock::duration d, const std::function<bool()> &stop);

// The whole content of a file ("" when it cannot be read).
std::string slurp(const std::string &path);

} // namespace MplsSoak
