// mpls-hw: the hardware writer, playing the switch chip's driver. It follows
// the agent's change logs (read-only) and applies them to simulated hardware
// tables in its own store instance, publishes how far it got and tells the
// agent through the agent's FIFO.
//
//   mpls-hw                          # follow mpls-agent until SIGINT/SIGTERM
//   mpls-hw --agent a1 --rate 1000   # at most 1000 changes a second
//   mpls-hw --once                   # apply what is there, publish, exit
//
// Exit codes: 0 a clean stop, 1 a failure (--once: also tables left out of
// step with the change log, such as a unit whose configuration could not be
// read), 2 a bad option, 3 another mpls-hw writes this agent's hardware
// instance.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"
#include "platform/trace/Trace.h"
#include "tools/hw/AgentNotify.h"
#include "tools/hw/ChangeLogFollower.h"

namespace {

using Clock = std::chrono::steady_clock;
using MicaMplsHw::ChangeLogFollower;
using MicaMplsHw::FollowEvent;
using MicaMplsHw::FollowStep;

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) {
  gStop = 1;
}

void installSignals() {
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0; // no SA_RESTART: a signal cuts the sleep short
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  // The agent may close its FIFO between our open and write.
  ::signal(SIGPIPE, SIG_IGN);
}

void sleepFor(Clock::duration d) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d);
  struct timespec ts {};
  ts.tv_sec = static_cast<time_t>(ns.count() / 1000000000);
  ts.tv_nsec = static_cast<long>(ns.count() % 1000000000);
  ::nanosleep(&ts, nullptr); // EINTR: a signal, the loop looks at gStop
}

// stderr: on a terminal one status line redrawn in place, with event lines
// printed above it; otherwise event lines only.
class Output {
public:
  Output() : tty_(::isatty(STDERR_FILENO) == 1) {}
  bool tty() const noexcept { return tty_; }

  void line(const std::string &text) {
    std::fprintf(stderr, "%smpls-hw: %s\n", tty_ ? "\r\033[K" : "",
                 text.c_str());
    status_.clear();
  }
  void status(const std::string &text) {
    if (tty_ && text != status_) {
      std::fprintf(stderr, "\r\033[K%s", text.c_str());
      std::fflush(stderr);
      status_ = text;
    }
  }

private:
  bool tty_;
  std::string status_;
};

// Store reports (corrupt records in the agent's instance, wiped tables)
// as event lines; a report the same as the one before is not repeated (a
// damaged file is met again at every look).
class Reporter : public Shm::Reporter {
public:
  explicit Reporter(Output &out) : out_(out) {}
  void corruption(const std::string &m) override {
    say("corrupt shared memory: " + m);
  }
  void notice(const std::string &m) override { say(m); }

private:
  void say(const std::string &text) {
    if (text != last_) {
      out_.line(text);
      last_ = text;
    }
  }
  Output &out_;
  std::string last_;
};

struct Options {
  std::string agent = "mpls-agent";
  std::string store;
  double rate = 0;
  std::uint32_t capacity = 65536;
  std::string trace;
  bool once = false;
};

template <typename F> std::string describe(const F &f) {
  return fmt::format("{} {} changes applied (version {})", f.tableName(),
                     f.counters().changesApplied, f.version());
}

int run(const Options &opt, Output &out) {
  // Full-table reports beyond this many are only counted.
  constexpr std::uint64_t kFullLinesShown = 20;
  constexpr std::size_t kBatch = 4096; // changes between two publications
  constexpr auto kPoll = std::chrono::milliseconds(2);
  constexpr auto kPollNoAgent = std::chrono::milliseconds(50);
  constexpr auto kSourceCheck = std::chrono::milliseconds(100);
  constexpr auto kStatusEvery = std::chrono::milliseconds(250);

  MicaMplsHw::HwStore store(opt.agent, opt.capacity);
  MicaMplsHw::InstanceView agent(opt.agent);
  std::uint64_t fullLines = 0;
  const auto onEvent = [&](const FollowEvent &e) {
    if (e.kind == FollowEvent::Kind::tableFull) {
      if (fullLines == kFullLinesShown) {
        out.line("further full-table reports are only counted");
      }
      if (fullLines++ >= kFullLinesShown) {
        return;
      }
    }
    out.line(e.text);
  };
  ChangeLogFollower<MicaMpls::MplsIsem2Binding> isem2(agent, store, onEvent);
  ChangeLogFollower<MicaMpls::MplsLemBinding> lem(agent, store, onEvent);

  double tokens = 1;
  auto lastRefill = Clock::now();
  auto lastSourceCheck = lastRefill;
  auto lastStatus = lastRefill - kStatusEvery;
  std::uint64_t lastCount = 0;
  bool lemFirst = false;
  while (!gStop) {
    std::size_t budget = kBatch;
    if (opt.rate > 0) {
      const auto now = Clock::now();
      const double dt = std::chrono::duration<double>(now - lastRefill).count();
      lastRefill = now;
      // At most a tenth of a second's worth (or one change) in reserve.
      tokens = std::min(tokens + opt.rate * dt, std::max(1.0, opt.rate / 10));
      budget = std::min(kBatch, static_cast<std::size_t>(tokens));
    }
    FollowStep a, b;
    if (budget > 0) {
      // Both tables get their turn first, in alternation.
      if (lemFirst) {
        b = lem.step(budget);
        a = isem2.step(budget - b.applied);
      } else {
        a = isem2.step(budget);
        b = lem.step(budget - a.applied);
      }
      lemFirst = !lemFirst;
    }
    const std::size_t applied = a.applied + b.applied;
    tokens -= static_cast<double>(applied);
    if (a.published || b.published) {
      MicaMplsHw::notifyAgent(opt.agent);
    }
    const auto now = Clock::now();
    if (out.tty() && now - lastStatus >= kStatusEvery) {
      const std::uint64_t count =
          isem2.counters().changesApplied + lem.counters().changesApplied;
      const double secs =
          std::chrono::duration<double>(now - lastStatus).count();
      out.status(fmt::format(
          "mpls-hw: {} {} | MplsIsem2 v{} | MplsLem v{} | {:.0f} changes/s | "
          "full-table reports {}",
          opt.agent,
          isem2.following() || lem.following() ? "followed" : "waiting",
          isem2.version(), lem.version(),
          static_cast<double>(count - lastCount) / secs,
          isem2.counters().tableFullReports + lem.counters().tableFullReports));
      lastCount = count;
      lastStatus = now;
    }
    if (applied > 0) {
      continue;
    }
    if (budget == 0) {
      sleepFor(std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>((1 - tokens) / opt.rate)));
      continue;
    }
    if (opt.once) {
      break;
    }
    if (now - lastSourceCheck >= kSourceCheck) {
      isem2.checkSource();
      lem.checkSource();
      lastSourceCheck = now;
    }
    sleepFor(isem2.following() || lem.following() ? kPoll : kPollNoAgent);
  }
  out.line(fmt::format(
      "{}: {}, {}; {} full-table reports", gStop ? "stopped" : "done",
      describe(isem2), describe(lem),
      isem2.counters().tableFullReports + lem.counters().tableFullReports));
  if (opt.once && (isem2.stalled() || lem.stalled())) {
    out.line("the hardware tables are not in step with the agent's change "
             "logs (see above); a later run tries again");
    return 1;
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  Options opt;
  CLI::App app{"mpls-hw: the hardware writer. Follows the agent's change "
               "logs in shared memory, applies them to simulated hardware "
               "tables in its own instance (<agent>-hw.0), publishes the "
               "versions taken and tells the agent."};
  app.add_option("--agent", opt.agent, "the agent whose change logs to follow")
      ->capture_default_str();
  app.add_option("--store", opt.store,
                 "root directory of the store (default: $MICA_SHM_ROOT or "
                 "/dev/shm/mica-mpls)");
  app.add_option("--rate", opt.rate,
                 "changes applied per second (default: as fast as it can)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--capacity", opt.capacity,
                 "entries per hardware table (table type and unit)")
      ->check(CLI::Range(1u, 1u << 28))
      ->capture_default_str();
  app.add_option("--trace", opt.trace,
                 "trace levels, as MICA_TRACE: e.g. 'ChangeLogFollower/all'");
  app.add_flag("--once", opt.once,
               "apply every change available, publish and exit");
  try {
    app.parse(argc, argv);
    Shm::validateComponent(opt.agent);
    Shm::validateComponent(MicaMplsHw::hwInstanceName(opt.agent));
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  } catch (const Shm::PathError &e) {
    std::fprintf(stderr, "mpls-hw: bad agent name '%s': %s\n",
                 opt.agent.c_str(), e.what());
    return 2;
  }
  if (!opt.store.empty()) {
    ::setenv("MICA_SHM_ROOT", opt.store.c_str(), 1);
  }
  if (!opt.trace.empty()) {
    ::setenv("MICA_TRACE", opt.trace.c_str(), 1);
    Trace::configureFromEnvironment();
  }
  installSignals();
  Output out;
  Reporter reporter(out);
  Shm::reporterIs(&reporter);
  int rc = 1;
  try {
    rc = run(opt, out);
  } catch (const Shm::LockedError &e) {
    out.line(fmt::format("another mpls-hw is running for agent {}: {}",
                         opt.agent, e.what()));
    rc = 3;
  } catch (const std::exception &e) {
    out.line(fmt::format("failed: {}", e.what()));
    rc = 1;
  }
  Shm::reporterIs(nullptr);
  return rc;
}
