// An agent killed at a random instant and started again in a new process.
//
// Process one boots both table interfaces, makes units 1 and 2 of both
// tables and writes, rewrites and removes a few thousand entries that share
// resources, while the test process plays the hardware writer: it follows
// the change logs in version order, keeps what it took as the hardware's
// tables and confirms part of the log through the group's table-version
// collection. Process one is killed with SIGKILL at a random instant.
// Process two boots on the same store, makes only unit 1, reconciles,
// replays part of the desired set while marking, and sweeps. It checks what
// a restart promises: the log cleaned to the confirmed version, pending
// hardware writes exactly when the log is ahead, nothing logged anew by the
// restore, every entry the hardware had confirmed still there (until the
// sweep removes what was not replayed), resource usage rebuilt with one
// acknowledgement per resource, unit 2 cleared through the log, and in the
// end exactly the replayed entries with exactly their resources.
//
// MICA_RESTART_ROUNDS sets the number of kills (default 6); a failure prints
// MICA_RESTART_SEED=... to replay it.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "AgentFixture.h"
#include "support/Fork.h"

namespace {

using namespace InterfaceTest;

constexpr std::uint32_t kLabels = 600;   // per table and unit
constexpr std::uint32_t kResources = 48; // shared by the labels
constexpr std::uint32_t kBatch = 50;     // changes per resolver pass

// The resource a label ends with, and whether it ends removed.
std::uint32_t finalResource(std::uint32_t label) {
  return label * 7 % kResources + 1;
}
bool endsRemoved(std::uint32_t label) {
  return label % 11 == 0;
}
bool replayed(std::uint32_t label) {
  return label % 3 != 0;
}

std::vector<std::string> failures;
#define CHECK_THAT(cond, ...)                                                  \
  do {                                                                         \
    if (!(cond)) {                                                             \
      failures.push_back(fmt::format(__VA_ARGS__));                            \
    }                                                                          \
  } while (0)

// The hardware writer's side of one table type.
template <typename F> struct Hw {
  using B = typename F::B;
  using LogSlate = Asic::EntryLogSlate<B>;
  using LogEntry = typename B::LogEntry;

  Fwk::Ptr<LogSlate> log;
  Asic::LogVersion taken = 0;
  std::map<std::pair<Asic::UnitId, std::uint64_t>, LogEntry> table;

  bool attach(const std::string &agent) {
    if (log) {
      return true;
    }
    try {
      auto em = Shm::entityManager(agent, 0, Shm::Access::read);
      const std::string path = B::Constants::tableEntryLogSlatePath();
      em->mountGroup()->doMount(path, B::kEntryLogSlateType,
                                Shm::MountInfo(Shm::MountInfo::kReaderMount));
      log = Fwk::ptrCast<LogSlate>(em->entity(path));
    } catch (const Shm::Error &) {
      return false; // not created yet
    }
    return log != nullptr;
  }

  // Takes, in version order, about half of what is logged beyond what it
  // took before; returns whether it took anything.
  bool follow() {
    std::vector<Asic::LogSlateEntry<B>> recs;
    log->entryLogConfig().forEach([&](const Asic::LogSlateEntry<B> &r) {
      if (r.logVersion > taken) {
        recs.push_back(r);
      }
    });
    std::sort(recs.begin(), recs.end(), [](const auto &a, const auto &b) {
      return a.logVersion < b.logVersion;
    });
    const std::size_t take = (recs.size() + 1) / 2;
    std::size_t n = 0;
    for (; n < take && recs[n].logVersion == taken + 1; ++n) {
      apply(recs[n]);
      taken = recs[n].logVersion;
    }
    return n != 0;
  }

  void apply(const Asic::LogSlateEntry<B> &r) {
    if (r.isTableDelete()) {
      std::erase_if(table,
                    [&](const auto &e) { return e.first.first == r.unitId; });
    } else if (r.isEntryDelete()) {
      table.erase({r.unitId, r.logEntry.key.packed()});
    } else {
      table[{r.unitId, r.logEntry.key.packed()}] = r.logEntry;
    }
  }
};

// Process one: writes until it is killed.
void agentOne(Agent &a, int readyFd) {
  a.boot();
  auto run = [&](auto family, Asic::UnitId unit) {
    using F = decltype(family);
    return a.intf<F>()->makeSwTable(unit, nullptr, false);
  };
  auto i1 = run(Isem2{}, 1), i2 = run(Isem2{}, 2);
  auto l1 = run(Lem{}, 1), l2 = run(Lem{}, 2);
  const char c = 1;
  (void)!::write(readyFd, &c, 1);
  std::uint32_t queued = 0;
  auto change = [&](auto &table, auto family, std::uint32_t label, int step) {
    using F = decltype(family);
    const typename F::Key key(label);
    if (step == 0) {
      table->entryWrite(key, F::entry(label, label % kResources + 1), nullptr);
    } else if (endsRemoved(label)) {
      table->entryRemove(key, nullptr);
    } else {
      table->entryWrite(key, F::entry(label, finalResource(label)), nullptr);
    }
    if (++queued % kBatch == 0) {
      a.pass();
      a.group->hwProgress();
    }
  };
  for (int step = 0; step < 2; ++step) {
    for (std::uint32_t label = 1; label <= kLabels; ++label) {
      change(i1, Isem2{}, label, step);
      change(l1, Lem{}, label, step);
      change(i2, Isem2{}, label, step);
      change(l2, Lem{}, label, step);
    }
  }
  a.pass();
  for (;;) { // done: follow the hardware until killed
    a.group->hwProgress();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Process two's checks of one table type.
template <typename F> void restartChecks(Agent &a, const Hw<F> &hw) {
  using Key = typename F::Key;
  auto intf = a.intf<F>();
  auto &log = *intf->entryLog();
  const char *name = F::kName;
  if (hw.taken != 0) {
    CHECK_THAT(log.cleanupVersion() == hw.taken,
               "{}: cleaned to {}, confirmed {}", name, log.cleanupVersion(),
               hw.taken);
    bool stale = false;
    log.tableEntryLog()->entryLogConfig().forEach(
        [&](const auto &r) { stale |= r.logVersion <= hw.taken; });
    CHECK_THAT(!stale, "{}: a confirmed change is still in the log", name);
    CHECK_THAT(
        intf->swTableStatus()->pendingHwWrites() ==
            (log.tableVersion() > hw.taken),
        "{}: pending writes {} with the log at {} and the hardware at {}", name,
        intf->swTableStatus()->pendingHwWrites(), log.tableVersion(), hw.taken);
  } else {
    CHECK_THAT(!intf->swTableStatus()->pendingHwWrites(),
               "{}: pending writes without a confirmed version", name);
  }

  const Asic::LogVersion logged = log.tableVersion();
  auto t = intf->makeSwTable(1, nullptr, false);
  CHECK_THAT(log.tableVersion() == logged, "{}: the restore logged {} changes",
             name, log.tableVersion() - logged);
  // What the hardware confirmed is what the store holds at those versions.
  for (const auto &[at, hwEntry] : hw.table) {
    const Key key(static_cast<std::uint32_t>(at.second >> 8));
    if (at.first == 1 && log.entryLogVersion(key, 1) <= hw.taken) {
      CHECK_THAT(t->entryHas(key) && t->entry(key).logEntry() == hwEntry,
                 "{}: confirmed entry {} lost or changed by the restart", name,
                 key);
    }
  }
  std::uint32_t restored = 0;
  for (auto it = t->entryIteratorConst(); !it.done(); ++it) {
    const Key key = it.entry().key;
    const Asic::LogVersion v = log.entryLogVersion(key, 1);
    CHECK_THAT(v > hw.taken || hw.table.contains({1, key.packed()}),
               "{}: entry {} confirmed at {} is not in the hardware", name, key,
               v);
    ++restored;
  }
  CHECK_THAT(restored == t->entrys(), "{}: {} entries iterated, {} counted",
             name, restored, t->entrys());
  const auto sms = t->linkage()->entryUsageSms();
  auto client = a.resources<F>().clientInstance(F::B::kResourceName, 1);
  CHECK_THAT(client->acks() == sms,
             "{}: {} acknowledgements for {} resources in use", name,
             client->acks(), sms);
  CHECK_THAT(t->stats()->updateCnt() == 0,
             "{}: {} entries updated by the restart", name,
             t->stats()->updateCnt());

  intf->reconcile();
  auto t2 = Fwk::ptrCast<typename F::Table>(intf->swTableSet()->swTable(2));
  CHECK_THAT(t2 && t2->entrys() == 0, "{}: unit 2 not cleared", name);
  bool cleared = false;
  log.tableEntryLog()->entryLogConfig().forEach(
      [&](const auto &r) { cleared |= r.isTableDelete() && r.unitId == 2; });
  CHECK_THAT(cleared, "{}: unit 2 cleared without a table delete in the log",
             name);

  for (std::uint32_t label = 1; label <= kLabels; ++label) {
    if (!endsRemoved(label) && replayed(label)) {
      t->entryWrite(Key(label), F::entry(label, finalResource(label)), nullptr);
    }
  }
}

template <typename F> void finalChecks(Agent &a) {
  using Key = typename F::Key;
  auto t =
      Fwk::ptrCast<typename F::Table>(a.intf<F>()->swTableSet()->swTable(1));
  std::set<std::uint32_t> resources;
  std::uint32_t want = 0;
  for (std::uint32_t label = 1; label <= kLabels; ++label) {
    const bool kept = !endsRemoved(label) && replayed(label);
    CHECK_THAT(t->entryHas(Key(label)) == kept,
               "{}: label {} {} after the sweep", F::kName, label,
               kept ? "missing" : "left");
    if (kept) {
      ++want;
      resources.insert(finalResource(label));
      CHECK_THAT(F::B::resourceKey(t->entry(Key(label))) ==
                     F::resKey(finalResource(label)),
                 "{}: label {} has the wrong resource", F::kName, label);
    }
  }
  CHECK_THAT(t->entrys() == want, "{}: {} entries, {} replayed", F::kName,
             t->entrys(), want);
  CHECK_THAT(a.resources<F>().entries() == resources.size(),
             "{}: {} resources held, {} in use", F::kName,
             a.resources<F>().entries(), resources.size());
}

// Process two: restarts, checks, replays, sweeps. Exits 0 when every check
// held.
[[noreturn]] void agentTwo(Agent &a, const Hw<Isem2> &hwIsem2,
                           const Hw<Lem> &hwLem) {
  a.boot();
  restartChecks(a, hwIsem2);
  restartChecks(a, hwLem);
  while (a.pass() != 0) {
  }
  a.otIntf->finishInitialReplay();
  while (a.pass() != 0) {
  }
  // Resources let go of are freed once the hardware has the changes.
  a.confirm(Isem2::kTypeId, a.isem2->entryLog()->tableVersion());
  a.confirm(Lem::kTypeId, a.lem->entryLog()->tableVersion());
  a.group->hwProgress();
  finalChecks<Isem2>(a);
  finalChecks<Lem>(a);
  for (const auto &f : failures) {
    std::fprintf(stderr, "%s\n", f.c_str());
  }
  std::fflush(stderr);
  ::_exit(failures.empty() ? 0 : 1);
}

int waitFor(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

TEST(RestartProcess, AKilledAgentRestartsWithWhatTheHardwareConfirmed) {
  const char *roundsEnv = std::getenv("MICA_RESTART_ROUNDS");
  const int rounds = roundsEnv ? std::atoi(roundsEnv) : 6;
  const char *seedEnv = std::getenv("MICA_RESTART_SEED");
  const std::uint64_t seed =
      seedEnv
          ? std::strtoull(seedEnv, nullptr, 0)
          : static_cast<std::uint64_t>(
                std::chrono::steady_clock::now().time_since_epoch().count());
  std::mt19937_64 rng(seed);
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(fmt::format("MICA_RESTART_SEED={:#x} round {}", seed, round));
    Fixture fx;
    Agent &a = fx.agent;
    // The hardware writer's instance is this process's; the agents only read
    // it. Its writer handle is made before the forks on purpose: the
    // children never write it.
    auto versions =
        Asic::mountTableVersionSlate(Shm::entityManager(a.hw, 0), "MicaMpls");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t one = TestSupport::forkTied();
    ASSERT_GE(one, 0);
    if (one == 0) {
      ::close(ready[0]);
      agentOne(a, ready[1]);
    }
    ::close(ready[1]);
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::close(ready[0]);

    Hw<Isem2> hwIsem2;
    Hw<Lem> hwLem;
    const auto killAt = std::chrono::steady_clock::now() +
                        std::chrono::microseconds(rng() % 30000);
    while (std::chrono::steady_clock::now() < killAt) {
      if (hwIsem2.attach(a.name) && hwIsem2.follow()) {
        versions->tableVersionIs(Asic::SwTableId(Isem2::kTypeId),
                                 hwIsem2.taken);
      }
      if (hwLem.attach(a.name) && hwLem.follow()) {
        versions->tableVersionIs(Asic::SwTableId(Lem::kTypeId), hwLem.taken);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    ::kill(one, SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(waitFor(one)));
    if (hwIsem2.log && hwLem.log) {
      std::printf("round %d: killed with %lu/%lu changes logged, the hardware "
                  "at %lu/%lu\n",
                  round,
                  static_cast<unsigned long>(
                      hwIsem2.log->entryLogConfig().control().scratchpad()),
                  static_cast<unsigned long>(
                      hwLem.log->entryLogConfig().control().scratchpad()),
                  static_cast<unsigned long>(hwIsem2.taken),
                  static_cast<unsigned long>(hwLem.taken));
    }
    hwIsem2.log = nullptr;
    hwLem.log = nullptr;
    try {
      Shm::entityManager(a.name, 0, Shm::Access::read)->close();
    } catch (const Shm::Error &) {
    }

    const pid_t two = TestSupport::forkTied();
    ASSERT_GE(two, 0);
    if (two == 0) {
      agentTwo(a, hwIsem2, hwLem);
    }
    const int status = waitFor(two);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the restarted agent's checks failed (its messages are above); "
           "confirmed "
        << hwIsem2.taken << "/" << hwLem.taken;
  }
}

} // namespace
