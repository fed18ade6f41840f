// An agent process logging a stream of changes is killed at random instants;
// a restart must find every change it reported done, each record as it was
// before or after the change that was cut off, and version allocation that
// never hands out a version some record already carries.
//
// The parent keeps its own model of the entry log (a second, plain
// implementation of what the operations do) and replays the child's
// deterministic stream on it. MICA_CRASH_ROUNDS sets the number of kills
// (default 200); MICA_CRASH_SEED replays a failed run.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <random>
#include <thread>

#include "EntryLogFixture.h"
#include "support/Fork.h"

namespace {

using namespace EntryLogTest;
using F = Isem2;
using Rec = F::B::EntryLog::ConfigEntry;
using LogRec = F::B::EntryLog::LogRecord;

constexpr Asic::UnitId kUnit = 1;
constexpr std::uint32_t kKeys = 24;
constexpr std::uint32_t kOpsPerRound = 3000;

enum class Kind { write, suppressedWrite, remove, tableDelete, cleanup };
struct Op {
  Kind kind;
  std::uint32_t key;
  std::uint32_t value;
  std::uint32_t lag;
};

// The stream of a round, the same in both processes.
Op opAt(std::uint64_t seed, std::uint32_t round, std::uint32_t i) {
  std::mt19937_64 rng(seed ^ (std::uint64_t(round) << 32) ^ i);
  const auto r = rng() % 100;
  Op op{};
  op.key = static_cast<std::uint32_t>(rng() % kKeys);
  op.value = static_cast<std::uint32_t>(rng() % 7); // small: identical writes happen
  op.lag = static_cast<std::uint32_t>(rng() % 20);
  op.kind = r < 45   ? Kind::write
            : r < 65 ? Kind::suppressedWrite
            : r < 90 ? Kind::remove
            : r < 92 ? Kind::tableDelete
                     : Kind::cleanup;
  return op;
}

F::LogEntry logEntryOf(const Op &op) { return F::logEntry(1000 + op.key, op.value); }
F::RsrcKeys rsrcKeysOf(const Op &op) { return F::rsrcKeys(op.value * 31 + op.key); }
F::Key keyOf(std::uint32_t k) { return F::Key(1000 + k); }

// What the store holds, as the model sees it.
struct State {
  std::map<std::uint32_t, Rec> config; // by label
  std::map<Asic::LogVersion, LogRec> log;
  Asic::LogVersion tableVersion = 0;

  bool operator==(const State &) const = default;
};

// The entry log's operations on the model.
void apply(State &s, const Op &op) {
  const auto label = 1000 + op.key;
  auto logChange = [&](Asic::LogVersion v, const F::LogEntry &le, std::uint8_t bits) {
    LogRec r{};
    r.logVersion = v;
    r.logEntry = le;
    r.unitId = kUnit;
    r.deleteBits = bits;
    s.log[v] = r;
  };
  switch (op.kind) {
  case Kind::write:
  case Kind::suppressedWrite: {
    auto it = s.config.find(label);
    if (op.kind == Kind::suppressedWrite && it != s.config.end() &&
        !it->second.isDeleted && it->second.logEntry == logEntryOf(op) &&
        it->second.rsrcKeys == rsrcKeysOf(op) && it->second.logVersion != 0) {
      return;
    }
    const auto v = ++s.tableVersion;
    Rec r{};
    r.rsrcKeys = rsrcKeysOf(op);
    r.logEntry = logEntryOf(op);
    r.logVersion = v;
    s.config[label] = r;
    logChange(v, r.logEntry, 0);
    return;
  }
  case Kind::remove: {
    auto it = s.config.find(label);
    if (it == s.config.end()) {
      return;
    }
    const auto v = ++s.tableVersion;
    it->second.logVersion = v;
    it->second.isDeleted = true;
    logChange(v, it->second.logEntry, 1);
    return;
  }
  case Kind::tableDelete: {
    const auto v = ++s.tableVersion;
    for (auto &[l, r] : s.config) {
      if (!r.isDeleted) {
        r.logVersion = v;
        r.isDeleted = true;
      }
    }
    logChange(v, F::LogEntry{}, 2);
    return;
  }
  case Kind::cleanup: {
    const auto upTo = s.tableVersion > op.lag ? s.tableVersion - op.lag : 0;
    for (auto it = s.log.begin(); it != s.log.end() && it->first <= upTo;) {
      const LogRec r = it->second;
      it = s.log.erase(it);
      if (r.isEntryDelete()) {
        auto c = s.config.find(r.logEntry.key.label);
        if (c != s.config.end() && c->second.logVersion == r.logVersion) {
          s.config.erase(c);
        }
      } else if (r.isTableDelete()) {
        for (auto c = s.config.begin(); c != s.config.end();) {
          c = c->second.logVersion == r.logVersion ? s.config.erase(c) : std::next(c);
        }
      }
    }
    return;
  }
  }
}

// The same operations on the real entry log.
void perform(F::Log &log, const Fwk::Ptr<Asic::SwTableStats> &stats, const Op &op) {
  switch (op.kind) {
  case Kind::write:
  case Kind::suppressedWrite:
    log.entryIs(logEntryOf(op), rsrcKeysOf(op), nullptr, kUnit, stats,
                op.kind == Kind::suppressedWrite);
    return;
  case Kind::remove:
    log.entryDel(keyOf(op.key), nullptr, kUnit);
    return;
  case Kind::tableDelete:
    log.tableDel(nullptr, kUnit);
    return;
  case Kind::cleanup:
    log.cleanupEntryLog(log.tableVersion() > op.lag ? log.tableVersion() - op.lag : 0);
    return;
  }
}

// Reads what a restarted agent finds, checking counts against full scans.
State mountAndRead(LogEnv<F> &env) {
  env.start();
  env.log->mountSlateConfig(kUnit, 0);
  State s;
  s.tableVersion = env.log->tableVersion();
  auto &cfg = env.slate(kUnit).swTableEntries();
  std::size_t scanned = 0, deleted = 0;
  cfg.forEach([&](const Rec &r) {
    ++scanned;
    deleted += r.isDeleted;
    s.config[r.logEntry.key.label] = r;
  });
  EXPECT_EQ(scanned, cfg.count());
  EXPECT_EQ(env.log->entrysInDeletion(kUnit), deleted);
  EXPECT_EQ(env.log->entrys(kUnit), scanned - deleted);
  auto &log = env.log->tableEntryLog()->entryLogConfig();
  std::size_t logScanned = 0;
  log.forEach([&](const LogRec &r) {
    ++logScanned;
    EXPECT_TRUE(s.log.emplace(r.logVersion, r).second) << "two records of one version";
  });
  EXPECT_EQ(logScanned, log.count());
  EXPECT_EQ(cfg.corruptionCount() + log.corruptionCount(), 0u) << "a torn record";
  return s;
}

// Every record is as the model had it before the cut change, or after it.
template <typename M>
void expectEachAsBeforeOrAfter(const M &actual, const M &before, const M &after,
                               const char *what) {
  std::set<typename M::key_type> keys;
  for (const auto *m : {&actual, &before, &after}) {
    for (const auto &kv : *m) {
      keys.insert(kv.first);
    }
  }
  for (const auto &k : keys) {
    auto find = [&](const M &m) {
      auto it = m.find(k);
      return it == m.end() ? std::optional<typename M::mapped_type>()
                           : std::optional<typename M::mapped_type>(it->second);
    };
    const auto a = find(actual);
    EXPECT_TRUE(a == find(before) || a == find(after)) << what << " record " << k;
  }
}

TEST(EntryLogCrash, AKilledAgentLosesNoReportedChangeAndReusesNoVersion) {
  const char *roundsEnv = std::getenv("MICA_CRASH_ROUNDS");
  const std::uint32_t rounds = roundsEnv ? std::stoul(roundsEnv) : 200;
  const char *seedEnv = std::getenv("MICA_CRASH_SEED");
  const std::uint64_t seed = seedEnv ? std::stoull(seedEnv) : std::random_device{}();
  SCOPED_TRACE("MICA_CRASH_SEED=" + std::to_string(seed));

  // The child reports each finished operation here.
  auto *done = static_cast<std::atomic<std::uint32_t> *>(
      ::mmap(nullptr, sizeof(std::atomic<std::uint32_t>), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(done, MAP_FAILED);

  LogEnv<F> env("crash");
  env.log->mountSlateConfig(kUnit, 0);
  env.stop();
  State model; // empty store
  std::mt19937_64 delays(seed);
  std::uint32_t cut = 0;

  for (std::uint32_t round = 0; round < rounds && !HasFailure(); ++round) {
    done->store(0);
    const pid_t child = TestSupport::forkTied();
    ASSERT_GE(child, 0);
    if (child == 0) {
      env.start();
      env.log->mountSlateConfig(kUnit, 0);
      for (std::uint32_t i = 0; i < kOpsPerRound; ++i) {
        perform(*env.log, env.stats, opAt(seed, round, i));
        done->store(i + 1, std::memory_order_release);
      }
      ::_exit(0);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(delays() % 4000));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    const std::uint32_t k = done->load(std::memory_order_acquire);
    cut += k < kOpsPerRound;

    State before = model;
    for (std::uint32_t i = 0; i < k; ++i) {
      apply(before, opAt(seed, round, i));
    }
    State after = before;
    if (k < kOpsPerRound) {
      apply(after, opAt(seed, round, k));
    }
    const State actual = mountAndRead(env);
    const bool cutCleanup =
        k < kOpsPerRound && opAt(seed, round, k).kind == Kind::cleanup;
    if (cutCleanup) {
      // A clean-up retires many changes, one after the other: each record
      // is as before or after it.
      expectEachAsBeforeOrAfter(actual.config, before.config, after.config, "config");
      expectEachAsBeforeOrAfter(actual.log, before.log, after.log, "change-log");
    } else {
      // Any other change is whole: its configuration records and its
      // change-log record all before it, or all after.
      const bool isBefore = actual.config == before.config && actual.log == before.log;
      const bool isAfter = actual.config == after.config && actual.log == after.log;
      EXPECT_TRUE(isBefore || isAfter) << "change " << k << " is half done";
    }
    // A deletion can only be retired through its change-log record.
    for (const auto &[label, r] : actual.config) {
      if (r.isDeleted) {
        EXPECT_TRUE(actual.log.count(r.logVersion))
            << "deleted record " << label << " lost its change-log record";
      }
    }
    // A version reserved by the cut change may be lost, never reused.
    EXPECT_GE(actual.tableVersion, before.tableVersion);
    EXPECT_LE(actual.tableVersion, after.tableVersion);
    for (const auto &[label, r] : actual.config) {
      EXPECT_LE(r.logVersion, actual.tableVersion);
    }
    for (const auto &[v, r] : actual.log) {
      EXPECT_LE(v, actual.tableVersion);
    }
    env.stop();
    model = actual; // the next round starts from what was recovered
  }
  std::printf("%u of %u kills landed inside the stream\n", cut, rounds);
  EXPECT_GT(cut, rounds / 4) << "too few kills landed inside the stream";
  ::munmap(done, sizeof(std::atomic<std::uint32_t>));
}

} // namespace
