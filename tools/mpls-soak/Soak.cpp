#include "tools/mpls-soak/Soak.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/mpls-soak/Child.h"
#include "tools/mpls-soak/Damage.h"
#include "tools/mpls-soak/Desired.h"
#include "tools/mpls-soak/Holdings.h"
#include "tools/mpls-soak/LogTail.h"

namespace MplsSoak {

namespace {

namespace fs = std::filesystem;

const std::vector<Asic::UnitId> kUnits{1, 2};
constexpr const char *kUnitsText = "1,2";

// How often waits look at the programs, and redraw a terminal's status.
constexpr auto kLookEvery = std::chrono::milliseconds(10);
constexpr auto kStatusEvery = std::chrono::milliseconds(250);
// The agent gives up when the writer confirms nothing for this long; the
// soak's own deadline (restTimeout) is what ends a round that hangs.
constexpr const char *kAgentConfirmTimeout = "3600";
// What a change is assumed to cost when a program runs without a rate
// limit, to spread kill instants over the time a change takes.
constexpr double kUnlimitedRate = 50000;
constexpr double kLongestWindow = 10;
// Share of the rounds whose agent kill comes at rest, before the change
// (the agent then starts on the changed file), and of the rounds whose
// restarted agent is killed once more while it recovers.
constexpr double kKillAtRest = 0.3;
constexpr double kKillAgain = 0.2;
constexpr double kLongestGap = 0.2; // seconds between two restarts
// About the time an agent takes to boot (mount its store, restore).
constexpr double kBootWindow = 0.1;

enum class Kill { none, agent, writer, both };

const char *killText(Kill k) {
  switch (k) {
  case Kill::none:
    return "no kill";
  case Kill::agent:
    return "kill the agent";
  case Kill::writer:
    return "kill the writer";
  case Kill::both:
    return "kill both";
  }
  return "?";
}

std::string msText(double seconds) {
  return fmt::format("{:.0f} ms", seconds * 1000);
}

std::string clockText(Clock::duration d) {
  const auto s = std::chrono::duration_cast<std::chrono::seconds>(d).count();
  return s >= 3600
             ? fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60)
             : fmt::format("{}:{:02}", s / 60, s % 60);
}

double secondsOf(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

Clock::duration durationOf(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(seconds));
}

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < text.size()) {
    auto nl = text.find('\n', at);
    if (nl == std::string::npos) {
      nl = text.size();
    }
    out.push_back(text.substr(at, nl - at));
    at = nl + 1;
  }
  return out;
}

// Thrown when the soak is interrupted; unwinds to runSoak.
struct Interrupted {};

// stderr: a status line per round; on a terminal it is redrawn in place
// while the round runs and stays when the round ends.
class Status {
public:
  Status() : tty_(::isatty(STDERR_FILENO) == 1) {}
  void show(const std::string &text) {
    if (tty_) {
      // One screen line: a wrapped one would not be redrawn in place.
      winsize ws{};
      const std::size_t width =
          ::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1
              ? ws.ws_col - 1
              : 79;
      std::fprintf(stderr, "\r\033[K%s", text.substr(0, width).c_str());
      std::fflush(stderr);
      shown_ = true;
    }
  }
  void line(const std::string &text) {
    std::fprintf(stderr, "%s%s\n", clearText(), text.c_str());
    std::fflush(stderr);
    shown_ = false;
  }
  // Makes way for output on stdout.
  void clear() {
    if (shown_) {
      std::fprintf(stderr, "\r\033[K");
      std::fflush(stderr);
      shown_ = false;
    }
  }

private:
  const char *clearText() const { return tty_ && shown_ ? "\r\033[K" : ""; }
  bool tty_;
  bool shown_ = false;
};

// What went wrong in a round.
struct Failure {
  std::string what;
  std::vector<std::string> details; // verify lines, the last lines said
};

struct Counters {
  std::uint64_t rounds = 0;
  std::uint64_t killAgent = 0;
  std::uint64_t killWriter = 0;
  std::uint64_t killBoth = 0;
  std::uint64_t killAgain = 0; // agents killed again while recovering
  std::uint64_t damagedConfig = 0;
  std::uint64_t damagedLog = 0;
  std::uint64_t reloads = 0;
  std::uint64_t divergences = 0;
  std::uint64_t transients = 0; // verify differences gone after settling
};

class Soak {
public:
  Soak(const Options &opt, std::function<bool()> interrupted)
      : opt_(opt), interrupted_(std::move(interrupted)),
        genSeed_(1 + opt.seed % 100000 * 4) {}
  ~Soak();
  Soak(const Soak &) = delete;
  Soak &operator=(const Soak &) = delete;

  int run();

private:
  // Set-up and the store of an epoch (a run of rounds on one store; a
  // divergence ends one).
  void makeTempDir();
  bool startEpoch();
  void endEpoch(bool diverged, const std::string &report);
  std::string storeDir() const { return epochDir_ + "/store"; }
  std::string logsDir() const { return epochDir_ + "/logs"; }
  std::string instanceDir() const {
    return storeDir() + "/" + opt_.agent + ".0";
  }

  // The programs.
  void startAgent();
  void startWriter();
  void kill(Kill k, const std::string &when);
  void collect();
  std::string tool(const char *name) const { return opt_.tools + "/" + name; }

  // A round and its checks.
  bool round(std::uint64_t n);
  std::optional<Failure> awaitRest(const std::string &label);
  std::optional<Failure> awaitWriter(const std::string &label);
  bool settled(Clock::duration interval, const std::string &label);
  std::string showSummary();
  std::optional<Failure> verify(std::size_t &entries);
  std::optional<Failure> check(std::size_t &entries);
  std::optional<Failure> finish();
  void report(const std::string &label, const Failure &f);
  void printSummary(bool interrupted);

  void checkInterrupt() const {
    if (interrupted_()) {
      throw Interrupted{};
    }
  }
  void pause(double seconds) const {
    if (!sleepFor(durationOf(seconds), interrupted_)) {
      throw Interrupted{};
    }
  }
  double changeRate() const {
    double r = kUnlimitedRate;
    for (double limit : {opt_.agentRate, opt_.hwRate}) {
      if (limit > 0) {
        r = std::min(r, limit);
      }
    }
    return r;
  }

  Options opt_;
  std::function<bool()> interrupted_;
  const std::uint64_t genSeed_;
  Status status_;
  Counters counters_;
  Clock::time_point started_;

  std::string tmpDir_;
  std::string desiredPath_;
  std::uint32_t epoch_ = 0;
  std::string epochDir_;
  std::string keptDir_;
  MplsAgent::DesiredSet current_;

  Child agent_;
  Child writer_;
  std::unique_ptr<AgentState> agentState_;
  std::unique_ptr<LogTail> writerLog_;
  std::uint32_t agentRuns_ = 0;
  std::uint32_t writerRuns_ = 0;
  // The table types the running writer follows (it said so) since it
  // started.
  std::set<std::string> writerFollows_;

  // The round being run: what was done, and the notable lines said.
  std::vector<std::string> actions_;
  std::vector<std::string> notes_;
  std::string lastReport_;
  std::string finalText_; // how the final stop and verify went
  // What the writer said when it found the agent's versions gone back.
  std::optional<std::string> wentBack_;
};

Soak::~Soak() {
  agent_.kill();
  writer_.kill();
  if (!tmpDir_.empty() && !opt_.keep) {
    std::error_code ec;
    fs::remove_all(tmpDir_, ec);
  }
}

void Soak::makeTempDir() {
  std::string pattern = opt_.baseDir + "/mpls-soak.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory in " + opt_.baseDir);
  }
  tmpDir_ = pattern;
  desiredPath_ = tmpDir_ + "/desired.conf";
}

void Soak::startAgent() {
  agent_.kill();
  collect();
  ++agentRuns_;
  const std::string base = fmt::format("{}/agent.{}", logsDir(), agentRuns_);
  std::vector<std::string> args{
      desiredPath_,        "--units",           kUnitsText, "--stay",
      "--agent",           opt_.agent,          "--store",  storeDir(),
      "--confirm-timeout", kAgentConfirmTimeout};
  if (opt_.agentRate > 0) {
    args.insert(args.end(), {"--rate", fmt::format("{}", opt_.agentRate)});
  }
  agentState_ = std::make_unique<AgentState>(base + ".err");
  agent_.start(tool("mpls-agent"), args, base + ".out", base + ".err");
}

void Soak::startWriter() {
  writer_.kill();
  collect();
  ++writerRuns_;
  const std::string base = fmt::format("{}/hw.{}", logsDir(), writerRuns_);
  std::vector<std::string> args{"--agent", opt_.agent, "--store", storeDir()};
  if (opt_.hwRate > 0) {
    args.insert(args.end(), {"--rate", fmt::format("{}", opt_.hwRate)});
  }
  writerLog_ = std::make_unique<LogTail>(base + ".err");
  writerFollows_.clear();
  writer_.start(tool("mpls-hw"), args, base + ".out", base + ".err");
}

// The notable lines the programs wrote since the last look.
void Soak::collect() {
  if (agentState_) {
    for (auto &l : agentState_->update()) {
      notes_.push_back(fmt::format("agent.{}: {}", agentRuns_, l));
    }
  }
  if (writerLog_) {
    for (auto &l : writerLog_->readNew()) {
      // "mpls-hw: MplsLem: following the change log in ..."
      constexpr std::string_view kPrefix = "mpls-hw: ";
      const auto at = l.find(": following the change log");
      if (l.starts_with(kPrefix) && at != std::string::npos &&
          at > kPrefix.size()) {
        writerFollows_.insert(l.substr(kPrefix.size(), at - kPrefix.size()));
      }
      if (notable(l)) {
        notes_.push_back(fmt::format("hw.{}: {}", writerRuns_, l));
      }
      // A log version is handed out once, also across restarts: a log whose
      // versions went back numbers two changes alike.
      if (l.find("its versions went back") != std::string::npos && !wentBack_) {
        wentBack_ = fmt::format("hw.{}: {}", writerRuns_, l);
      }
    }
  }
}

void Soak::kill(Kill k, const std::string &when) {
  if (k == Kill::agent || k == Kill::both) {
    agent_.kill();
  }
  if (k == Kill::writer || k == Kill::both) {
    writer_.kill();
  }
  collect();
  switch (k) {
  case Kill::agent:
    ++counters_.killAgent;
    break;
  case Kill::writer:
    ++counters_.killWriter;
    break;
  case Kill::both:
    ++counters_.killBoth;
    break;
  case Kill::none:
    break;
  }
  actions_.push_back(fmt::format("{} {}", killText(k), when));
}

// Both programs running and the agent at rest, or what kept the round from
// it.
std::optional<Failure> Soak::awaitRest(const std::string &label) {
  const auto start = Clock::now();
  const auto deadline = start + durationOf(opt_.restTimeout);
  auto lastStatus = start;
  for (;;) {
    collect();
    const auto lastLines = [&] {
      std::vector<std::string> d;
      for (const auto &l : agentState_->log().last()) {
        d.push_back(fmt::format("agent.{} said: {}", agentRuns_, l));
      }
      for (const auto &l : writerLog_->last()) {
        d.push_back(fmt::format("hw.{} said: {}", writerRuns_, l));
      }
      return d;
    };
    if (auto code = agent_.poll()) {
      collect();
      return Failure{
          fmt::format("the agent ended by itself (exit status {})", *code),
          lastLines()};
    }
    if (auto code = writer_.poll()) {
      collect();
      return Failure{fmt::format("the hardware writer ended by itself (exit "
                                 "status {})",
                                 *code),
                     lastLines()};
    }
    if (agentState_->refused()) {
      return Failure{"the agent refused the desired file (a soak bug)",
                     lastLines()};
    }
    if (agentState_->atRest()) {
      return std::nullopt;
    }
    const auto now = Clock::now();
    if (now >= deadline) {
      Failure f{fmt::format("not at rest after {:.0f} s: the agent did not "
                            "say that every change finished",
                            opt_.restTimeout),
                lastLines()};
      return f;
    }
    if (now - lastStatus >= kStatusEvery) {
      status_.show(fmt::format("{}: waiting for rest ({:.1f} s)", label,
                               secondsOf(now - start)));
      lastStatus = now;
    }
    checkInterrupt();
    std::this_thread::sleep_for(kLookEvery);
  }
}

// What mpls-show summary says of the store: versions logged, confirmed and
// applied, log records pending, entries per unit in the configuration and
// in the hardware. Empty when it could not be run.
std::string Soak::showSummary() {
  if (::access(tool("mpls-show").c_str(), X_OK) != 0) {
    return "";
  }
  Child show;
  const std::string out = logsDir() + "/show.out";
  show.start(tool("mpls-show"),
             {"summary", "--agent", opt_.agent, "--store", storeDir()}, out,
             logsDir() + "/show.err");
  const auto code = show.waitFor(durationOf(opt_.restTimeout), interrupted_);
  checkInterrupt();
  return code && *code == 0 ? slurp(out) : std::string();
}

// Whether the store stays the same over `interval` (two summaries alike),
// within the rest deadline.
bool Soak::settled(Clock::duration interval, const std::string &label) {
  const auto deadline = Clock::now() + durationOf(opt_.restTimeout);
  std::string before = showSummary();
  while (Clock::now() < deadline) {
    status_.show(label + ": waiting for the store to settle");
    pause(secondsOf(interval));
    std::string after = showSummary();
    if (!after.empty() && after == before) {
      return true;
    }
    before = std::move(after);
  }
  return false;
}

// A writer started in this round may find work the agent does not wait
// for (a rebuild of its tables, say): the round is at rest once it follows
// both change logs and the store stays still.
std::optional<Failure> Soak::awaitWriter(const std::string &label) {
  const auto deadline = Clock::now() + durationOf(opt_.restTimeout);
  for (;;) {
    collect();
    if (auto code = writer_.poll()) {
      return Failure{fmt::format("the hardware writer ended by itself (exit "
                                 "status {})",
                                 *code),
                     {}};
    }
    if (writerFollows_.contains("MplsIsem2") &&
        writerFollows_.contains("MplsLem")) {
      break;
    }
    if (Clock::now() >= deadline) {
      Failure f{fmt::format("the hardware writer did not follow both change "
                            "logs within {:.0f} s",
                            opt_.restTimeout),
                {}};
      for (const auto &l : writerLog_->last()) {
        f.details.push_back(fmt::format("hw.{} said: {}", writerRuns_, l));
      }
      return f;
    }
    pause(secondsOf(kLookEvery));
  }
  if (!settled(std::chrono::milliseconds(300), label)) {
    return Failure{fmt::format("the store did not settle within {:.0f} s",
                               opt_.restTimeout),
                   {}};
  }
  return std::nullopt;
}

// The round's check: a verify, and when it differs, a second one once the
// store has stayed still for a second, so that a difference is reported
// only when it lasts (one that goes away is counted apart and shown).
std::optional<Failure> Soak::check(std::size_t &entries) {
  auto first = verify(entries);
  if (!first) {
    return std::nullopt;
  }
  const std::string label = "verify again";
  if (!settled(std::chrono::seconds(1), label)) {
    first->details.push_back("(the store did not settle for a second verify)");
    return first;
  }
  auto second = verify(entries);
  if (second) {
    return second;
  }
  ++counters_.transients;
  status_.line(fmt::format("  note: a verify differed and the next, a "
                           "second later, was equal ({}):",
                           first->what));
  for (const auto &d : first->details) {
    status_.line("    " + d);
  }
  return std::nullopt;
}

// mpls-agent --verify of the current file against the hardware tables.
std::optional<Failure> Soak::verify(std::size_t &entries) {
  Child v;
  const std::string out = logsDir() + "/verify.out";
  const std::string err = logsDir() + "/verify.err";
  v.start(tool("mpls-agent"),
          {"--verify", desiredPath_, "--units", kUnitsText, "--agent",
           opt_.agent, "--store", storeDir()},
          out, err);
  const auto code = v.waitFor(durationOf(opt_.restTimeout), interrupted_);
  checkInterrupt();
  if (!code) {
    v.kill();
    return Failure{fmt::format("mpls-agent --verify did not end within "
                               "{:.0f} s",
                               opt_.restTimeout),
                   {}};
  }
  const std::string text = slurp(out) + slurp(err);
  if (*code == 0) {
    const auto at = text.find("desired set, ");
    entries = at == std::string::npos
                  ? 0
                  : std::strtoull(text.c_str() + at + 13, nullptr, 10);
    return std::nullopt;
  }
  Failure f{fmt::format("mpls-agent --verify exit {}: {}", *code,
                        *code == 1   ? "the hardware tables differ from the "
                                       "desired set"
                        : *code == 4 ? "no hardware tables"
                                     : "the check failed"),
            {}};
  for (const auto &l : linesOf(text)) {
    f.details.push_back("verify: " + l);
  }
  return f;
}

bool Soak::startEpoch() {
  ++epoch_;
  epochDir_ = fmt::format("{}/run{}", tmpDir_, epoch_);
  fs::create_directories(storeDir());
  fs::create_directories(logsDir());
  actions_.clear();
  notes_.clear();
  actions_.push_back(fmt::format("fresh store {}", storeDir()));
  startWriter();
  startAgent();
  actions_.push_back("start the writer and the agent");
  const std::string label = fmt::format("start of store {}", epoch_);
  auto failure = awaitRest(label);
  if (!failure) {
    failure = awaitWriter(label);
  }
  std::size_t entries = 0;
  if (!failure) {
    failure = check(entries);
  }
  if (failure) {
    ++counters_.divergences;
    report(fmt::format("the start of store {}", epoch_), *failure);
    return false;
  }
  status_.line(fmt::format("{} store {}: started, {} entries verified",
                           clockText(Clock::now() - started_), epoch_,
                           entries));
  return true;
}

// Stops the programs of the epoch and removes its store, or keeps it (the
// first divergent one, with --keep-divergent).
void Soak::endEpoch(bool diverged, const std::string &report) {
  agent_.kill();
  writer_.kill();
  collect();
  agentState_.reset();
  writerLog_.reset();
  std::error_code ec;
  if (diverged && opt_.keepDivergent && keptDir_.empty()) {
    fs::copy_file(desiredPath_, epochDir_ + "/desired.conf",
                  fs::copy_options::overwrite_existing, ec);
    std::ofstream(epochDir_ + "/divergence.txt") << report;
    std::string kept = opt_.baseDir + "/mpls-soak-divergent.XXXXXX";
    if (::mkdtemp(kept.data()) != nullptr &&
        std::rename(epochDir_.c_str(), kept.c_str()) == 0) {
      keptDir_ = kept;
      std::fputs(fmt::format(
                     "  kept this store in {0} (the programs' output in "
                     "{0}/logs):\n"
                     "    {1}/mpls-show summary --agent {2} --store {0}/store\n"
                     "    {1}/mpls-agent --verify {0}/desired.conf --units {3} "
                     "--agent {2} --store {0}/store\n",
                     kept, opt_.tools, opt_.agent, kUnitsText)
                     .c_str(),
                 stdout);
      std::fflush(stdout);
      return;
    }
    std::fputs(
        fmt::format("  could not keep the store {}\n", epochDir_).c_str(),
        stdout);
  }
  if (!opt_.keep) {
    fs::remove_all(epochDir_, ec);
  }
}

void Soak::report(const std::string &label, const Failure &f) {
  std::string text = fmt::format("DIVERGENCE in {} (run seed {}): {}\n", label,
                                 opt_.seed, f.what);
  text += "  actions:\n";
  for (const auto &a : actions_) {
    text += "    " + a + "\n";
  }
  if (!notes_.empty()) {
    text += "  the programs said:\n";
    for (const auto &n : notes_) {
      text += "    " + n + "\n";
    }
  }
  for (const auto &d : f.details) {
    text += "  " + d + "\n";
  }
  if (const std::string summary = showSummary(); !summary.empty()) {
    text += "  mpls-show summary:\n";
    for (const auto &l : linesOf(summary)) {
      text += "    " + l + "\n";
    }
  }
  status_.clear();
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
  lastReport_ = text;
}

bool Soak::round(std::uint64_t n) {
  actions_.clear();
  notes_.clear();
  wentBack_.reset();
  const auto roundStart = Clock::now();
  const std::string label = fmt::format("round {}", n);
  // Separate streams, so that how much one part draws never shifts another.
  Random pick(Random::derive(opt_.seed, n * 4));
  Random setRng(Random::derive(opt_.seed, n * 4 + 1));
  Random damageRng(Random::derive(opt_.seed, n * 4 + 2));
  const bool damage = opt_.damageEvery != 0 && n % opt_.damageEvery == 0;
  Kill k = static_cast<Kill>(pick.below(4));
  if (damage) {
    k = Kill::both; // damage is done while neither runs
  }
  const bool killsAgent = k == Kill::agent || k == Kill::both;
  const bool killsWriter = k == Kill::writer || k == Kill::both;
  const bool atRestDrawn = killsAgent && pick.chance(kKillAtRest);
  const double killAtDrawn = pick.unit();
  const bool agentFirst = pick.chance(0.5);
  const double gap = pick.uniform(0, kLongestGap);
  const bool again = killsAgent && pick.chance(kKillAgain);
  // Half of these land in the agent's boot (mount, restore, the first
  // writes), the rest anywhere in its recovery.
  const bool againEarly = pick.chance(0.5);
  const double againAt = pick.unit();
  const DamageTarget prefer =
      pick.chance(0.5) ? DamageTarget::changeLog : DamageTarget::configuration;
  // A change log holds a record only until the writer has taken it: damage
  // meant for one comes with a kill early in the change, not at rest, and
  // the writer is killed a little before the agent.
  const bool logDamage = damage && prefer == DamageTarget::changeLog;
  const bool atRest = atRestDrawn && !logDamage;
  const double killAt = logDamage ? killAtDrawn / 2 : killAtDrawn;
  const double writerAhead = pick.uniform(0.005, 0.05);

  NextSet next = nextSet(current_, kUnits, opt_.labels, genSeed_, setRng);
  // Kill instants spread over about the time the change takes.
  const double window =
      std::min(kLongestWindow,
               0.02 + 1.5 * static_cast<double>(next.changes) / changeRate());
  const std::string change =
      fmt::format("{} ({} changes)", next.description, next.changes);
  status_.show(label + ": " + change);

  if (atRest) {
    kill(k, "at rest, before the change");
  }
  writeSet(desiredPath_, next.set, kUnits,
           fmt::format("mpls-soak round {} (run seed {}): {}", n, opt_.seed,
                       next.description));
  const std::size_t setSize = next.set.size();
  current_ = std::move(next.set);
  if (atRest) {
    actions_.push_back(change + ": the restarted agent starts on it");
  } else {
    agent_.signal(SIGHUP);
    agentState_->hupSent();
    ++counters_.reloads;
    actions_.push_back(change + ": SIGHUP");
    const double d = killAt * window;
    if (logDamage) {
      // The writer first: what the agent logs after it stays in the log.
      pause(d);
      writer_.kill();
      pause(writerAhead);
      kill(k, fmt::format("at +{} (window {}), the writer {} before the "
                          "agent",
                          msText(d + writerAhead), msText(window),
                          msText(writerAhead)));
    } else if (k != Kill::none) {
      pause(d);
      kill(k, fmt::format("at +{} (window {})", msText(d), msText(window)));
    }
  }
  // Both stopped: the store is a still picture of an instant in the middle
  // of the work, which must already hold what the hardware uses.
  std::optional<Failure> inFlight;
  if (k == Kill::both) {
    const auto unallocated = unallocatedInHardware(storeDir(), opt_.agent);
    if (!unallocated.empty()) {
      inFlight = Failure{"with both stopped, the hardware holds resources "
                         "the agent's store has freed",
                         {}};
      for (const auto &u : unallocated) {
        inFlight->details.push_back("  " + u);
      }
      actions_.push_back("check while both are stopped: the hardware holds "
                         "freed resources");
    }
  }
  if (damage) {
    const auto d = damageRecord(instanceDir(), kUnits, prefer, damageRng);
    if (!d) {
      actions_.push_back("damage: no live record found");
    } else {
      ++(d->target == DamageTarget::changeLog ? counters_.damagedLog
                                              : counters_.damagedConfig);
      actions_.push_back("damage " + d->what);
    }
  }
  std::vector<bool> restarts; // true: the agent
  if (killsAgent && killsWriter) {
    restarts = {agentFirst, !agentFirst};
  } else if (killsAgent || killsWriter) {
    restarts = {killsAgent};
  }
  for (std::size_t i = 0; i < restarts.size(); ++i) {
    if (i > 0) {
      pause(gap);
    }
    if (restarts[i]) {
      startAgent();
    } else {
      startWriter();
    }
    actions_.push_back(
        fmt::format("restart the {}{}", restarts[i] ? "agent" : "writer",
                    i > 0 ? fmt::format(" {} later", msText(gap)) : ""));
  }
  if (again) {
    const double rate = opt_.agentRate > 0 ? opt_.agentRate : kUnlimitedRate;
    const double recovery =
        againEarly
            ? kBootWindow
            : std::min(kLongestWindow,
                       kBootWindow + 1.2 * static_cast<double>(setSize) / rate);
    pause(againAt * recovery);
    const double into = secondsOf(agent_.age());
    agent_.kill();
    collect();
    ++counters_.killAgain;
    startAgent();
    actions_.push_back(fmt::format("kill the agent again {} into its "
                                   "restart; restart it",
                                   msText(into)));
  }

  auto failure = awaitRest(label);
  if (!failure && killsWriter) {
    failure = awaitWriter(label);
  }
  const double rest = secondsOf(Clock::now() - roundStart);
  if (!failure && agentState_->failed() != 0) {
    failure = Failure{fmt::format("the agent reports {} failed change(s)",
                                  agentState_->failed()),
                      {}};
  }
  if (!failure && !killsAgent) {
    // The agent that took the SIGHUP is still the one running: what it
    // re-read must be the change the soak made.
    const auto reread = agentState_->lastReread();
    if (!reread || reread->first + reread->second != next.changes) {
      failure = Failure{
          reread ? fmt::format("the agent applied {} writes and {} removes; "
                               "the file changed by {}",
                               reread->first, reread->second, next.changes)
                 : std::string("the agent did not say what it re-read"),
          {}};
    }
  }
  std::size_t entries = 0;
  if (!failure) {
    failure = check(entries);
  }
  if (!failure && inFlight) {
    failure = std::move(inFlight);
  }
  if (!failure && wentBack_) {
    failure = Failure{"the agent's change-log versions went back (the "
                      "writer rebuilt its tables)",
                      {*wentBack_}};
  }
  ++counters_.rounds;
  std::string line =
      fmt::format("{} {}", label, clockText(Clock::now() - started_));
  for (const auto &a : actions_) {
    line += " | " + a;
  }
  if (failure) {
    ++counters_.divergences;
    status_.line(line + " | DIVERGED");
    report(fmt::format("{} (round seed {:#x})", label,
                       Random::derive(opt_.seed, n * 4)),
           *failure);
    return false;
  }
  status_.line(fmt::format("{} | rest {:.2f} s | equal, {} entries", line, rest,
                           entries));
  if (opt_.verbose) {
    for (const auto &note : notes_) {
      status_.line("    " + note);
    }
  }
  return true;
}

// The end: SIGTERM to the agent (which prints its summary and exits 0 when
// every change is confirmed) and to the writer, then a verify of what they
// left.
std::optional<Failure> Soak::finish() {
  actions_.clear();
  notes_.clear();
  actions_.push_back("SIGTERM to the agent, then to the writer");
  std::optional<Failure> failure;
  const std::string agentOut =
      fmt::format("{}/agent.{}.out", logsDir(), agentRuns_);
  agent_.signal(SIGTERM);
  const auto agentCode =
      agent_.waitFor(durationOf(opt_.restTimeout), interrupted_);
  checkInterrupt();
  collect();
  if (!agentCode) {
    agent_.kill();
    failure = Failure{"the agent did not stop on SIGTERM", {}};
  } else if (*agentCode != 0) {
    failure = Failure{
        fmt::format("the agent stopped with exit status {}", *agentCode), {}};
    for (const auto &l : linesOf(slurp(agentOut))) {
      failure->details.push_back("agent summary: " + l);
    }
    for (const auto &l : agentState_->log().last()) {
      failure->details.push_back("agent said: " + l);
    }
  }
  writer_.signal(SIGTERM);
  const auto writerCode =
      writer_.waitFor(durationOf(opt_.restTimeout), interrupted_);
  checkInterrupt();
  collect();
  if (!writerCode) {
    writer_.kill();
    failure =
        failure ? failure : Failure{"the writer did not stop on SIGTERM", {}};
  } else if (*writerCode != 0 && !failure) {
    failure = Failure{
        fmt::format("the writer stopped with exit status {}", *writerCode), {}};
  }
  if (!failure) {
    std::size_t entries = 0;
    failure = verify(entries);
    if (!failure) {
      finalText_ = fmt::format("agent and writer stopped (exit 0); verify: "
                               "equal, {} entries",
                               entries);
    }
  }
  if (failure) {
    finalText_ = failure->what;
  }
  return failure;
}

void Soak::printSummary(bool interrupted) {
  status_.clear();
  const auto &c = counters_;
  const std::uint64_t damaged = c.damagedConfig + c.damagedLog;
  std::string text = fmt::format(
      "mpls-soak: {} round{} in {}{} (run seed {}; {} labels per table and "
      "unit, units {})\n",
      c.rounds, c.rounds == 1 ? "" : "s", clockText(Clock::now() - started_),
      interrupted ? ", interrupted" : "", opt_.seed, opt_.labels, kUnitsText);
  text += fmt::format("  kills        agent {}, writer {}, both {}; the agent "
                      "again while recovering {}\n",
                      c.killAgent, c.killWriter, c.killBoth, c.killAgain);
  text += fmt::format("  damaged      {} record{}: {} in configuration "
                      "tables, {} in change logs\n",
                      damaged, damaged == 1 ? "" : "s", c.damagedConfig,
                      c.damagedLog);
  text += fmt::format("  reloads      {} SIGHUP\n", c.reloads);
  text += fmt::format("  divergences  {}\n", c.divergences);
  if (c.transients != 0) {
    text += fmt::format("  transients   {} verify difference(s) gone a "
                        "second later (shown above)\n",
                        c.transients);
  }
  if (!finalText_.empty()) {
    text += fmt::format("  final        {}\n", finalText_);
  }
  if (!keptDir_.empty()) {
    text += fmt::format("  kept         the store of the first divergence: "
                        "{}\n",
                        keptDir_);
  }
  if (opt_.keep && !tmpDir_.empty()) {
    text += fmt::format("  kept         the run's directory: {}\n", tmpDir_);
  }
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

int Soak::run() {
  started_ = Clock::now();
  try {
    makeTempDir();
    status_.line(fmt::format("mpls-soak: run seed {}, {} labels per table "
                             "and unit, units {}, in {}",
                             opt_.seed, opt_.labels, kUnitsText, tmpDir_));
    NextSet first = firstSet(kUnits, opt_.labels, genSeed_);
    writeSet(desiredPath_, first.set, kUnits,
             fmt::format("mpls-soak start (run seed {}): {}", opt_.seed,
                         first.description));
    current_ = std::move(first.set);
    if (!startEpoch()) {
      endEpoch(true, lastReport_);
      printSummary(false);
      return kExitDiverged;
    }
    const auto budget = durationOf(opt_.minutes * 60);
    for (std::uint64_t n = 1;; ++n) {
      if (opt_.rounds != 0 && counters_.rounds >= opt_.rounds) {
        break;
      }
      if (opt_.minutes > 0 && Clock::now() - started_ >= budget) {
        break;
      }
      if (!round(n)) {
        endEpoch(true, lastReport_);
        if (!startEpoch()) {
          endEpoch(true, lastReport_);
          printSummary(false);
          return kExitDiverged;
        }
      }
    }
    if (const auto failure = finish()) {
      ++counters_.divergences;
      report("the final stop", *failure);
      endEpoch(true, lastReport_);
    } else {
      endEpoch(false, "");
    }
    printSummary(false);
    return counters_.divergences != 0 ? kExitDiverged : kExitClean;
  } catch (const Interrupted &) {
    agent_.kill();
    writer_.kill();
    printSummary(true);
    return kExitInterrupted;
  }
}

} // namespace

int runSoak(const Options &opt, const std::function<bool()> &interrupted) {
  Soak soak(opt, interrupted);
  return soak.run();
}

} // namespace MplsSoak
