// Process-level behaviour with real processes: the writer lock, a reader
// process beside a running writer, and a writer killed at random instants.
#include <signal.h>
#include <sys/mman.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "ShmTestTypes.h"
#include "platform/shm/SlotWriter.h"

using namespace ShmTest;
using Clock = std::chrono::steady_clock;

namespace {

// --- the deterministic stream of changes ---------------------------------

constexpr std::uint32_t kBigCap = 48;
constexpr std::uint32_t kLogCap = 128;
constexpr std::uint32_t kSmallCap = 6;

Shm::MountInfo crashInfo() {
  return slateInfo(kBigCap, kLogCap, kSmallCap);
}

struct Op {
  int coll; // 0 big, 1 log, 2 small
  bool erase;
  std::uint64_t key;
};

Op opAt(std::uint64_t seed, std::uint64_t i) {
  const std::uint64_t r = mix(seed ^ (i * 0x9e3779b97f4a7c15ull));
  Op op{static_cast<int>(r % 3), (r >> 8) % 10 < 4, 0};
  switch (op.coll) {
  case 0:
    op.key = (r >> 16) % 64; // more keys than the capacity: it fills up
    break;
  case 1:
    // Versions only grow; erases retire older ones.
    op.key = op.erase ? (i > 200 ? i - (r >> 16) % 200 : 1) : i + 1;
    break;
  default:
    op.key = (r >> 16) % 9;
    break;
  }
  return op;
}

using Model = std::map<std::uint64_t, std::uint64_t>; // key -> value
struct State {
  Model coll[3];
  bool operator==(const State &) const = default;
};
constexpr std::uint32_t kCaps[3] = {kBigCap, kLogCap, kSmallCap};

void applyToModel(State &s, const Op &op, std::uint64_t i) {
  Model &m = s.coll[op.coll];
  if (op.erase) {
    m.erase(op.key);
  } else if (m.count(op.key) || m.size() < kCaps[op.coll]) {
    m[op.key] = i;
  }
}

void applyToStore(Slate &s, const Op &op, std::uint64_t i) {
  try {
    switch (op.coll) {
    case 0: {
      const auto label = static_cast<std::uint32_t>(op.key);
      op.erase ? void(s.big().erase(BigKey{label, label % 4}))
               : s.big().insert(bigRecord(label, i));
      break;
    }
    case 1:
      op.erase ? void(s.log().erase(op.key))
               : s.log().insert(logRecord(op.key, i));
      break;
    default:
      op.erase
          ? void(s.small().erase(static_cast<std::uint32_t>(op.key)))
          : s.small().insert(SmallRecord{static_cast<std::uint32_t>(op.key),
                                         static_cast<std::uint32_t>(i)});
      break;
    }
  } catch (const Shm::CollectionFullError &) {
  }
  // The scratchpad follows the change it describes.
  s.small().control().scratchpadIs(i + 1);
}

// Reads the whole store, checking every record against the stream: it must
// be exactly what change number `value` wrote.
State readStore(Slate &s, std::uint64_t seed) {
  State st;
  s.big().forEach([&](const BigRecord &r) {
    EXPECT_TRUE(bigConsistent(r)) << "torn big record " << r.key.label;
    EXPECT_EQ(r.key.unit, r.key.label % 4);
    st.coll[0][r.key.label] = r.value;
  });
  s.log().forEach([&](const LogRecord &r) {
    EXPECT_TRUE(logConsistent(r)) << "torn log record " << r.version;
    EXPECT_EQ(r.version, r.value + 1);
    st.coll[1][r.version] = r.value;
  });
  s.small().forEach([&](const SmallRecord &r) { st.coll[2][r.key] = r.value; });
  for (int c = 0; c < 3; ++c) {
    for (const auto &[key, value] : st.coll[c]) {
      const Op op = opAt(seed, value);
      EXPECT_TRUE(op.coll == c && !op.erase && op.key == key)
          << "collection " << c << " key " << key << " holds value " << value
          << " that no change wrote there";
    }
  }
  return st;
}

// The writer process: applies changes from `start` on, until it is killed.
// After each one it stores the number of changes done into `done`, a word
// shared with the parent (a pipe would do, but then most kills would land in
// the write system call instead of inside a change).
[[noreturn]] void crashWriter(const std::string &agent, std::uint64_t seed,
                              std::uint64_t start,
                              std::atomic<std::uint64_t> *done) {
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "slate", crashInfo());
  done[1].store(1, std::memory_order_release); // mounted
  for (std::uint64_t i = start;; ++i) {
    applyToStore(*s, opAt(seed, i), i);
    done->store(i + 1, std::memory_order_release);
  }
}

std::uint64_t envOr(const char *name, std::uint64_t dflt) {
  const char *v = std::getenv(name);
  return v && *v ? std::strtoull(v, nullptr, 0) : dflt;
}

TEST(ShmProcess, WriterKilledAtRandomInstantsLosesNothingAndTearsNothing) {
  const std::string agent = freshAgent();
  const std::uint64_t seed = envOr(
      "MICA_CRASH_SEED",
      std::random_device{}() | (std::uint64_t{std::random_device{}()} << 32));
  const std::uint64_t rounds = envOr("MICA_CRASH_ROUNDS", 500);
  SCOPED_TRACE(testing::Message() << "replay with MICA_CRASH_SEED=" << seed);
  std::mt19937_64 rng(seed);
  State model;
  std::uint64_t next = 0;       // the first change not known to be done
  std::uint64_t scratchpad = 0; // never goes backwards
  std::uint64_t recovered = 0, inFlightApplied = 0;
  void *shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  // done[0]: the changes done; done[1]: the writer has mounted.
  auto *done = new (shared) std::atomic<std::uint64_t>[2]{0, 0};
  for (std::uint64_t round = 0; round < rounds; ++round) {
    SCOPED_TRACE(testing::Message()
                 << "round " << round << ", change " << next);
    done->store(next);
    done[1].store(0);
    const pid_t pid = TestSupport::forkTied();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      crashWriter(agent, seed, next, done);
    }
    // Kill at a random instant: a quarter of the time very early (during
    // start-up and the mount scan), otherwise within 15 ms of the mount (a
    // loaded machine can take longer than that to start the writer).
    if (rng() % 4 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 400));
    } else {
      const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (done[1].load(std::memory_order_acquire) == 0 &&
             std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 15000));
    }
    ::kill(pid, SIGKILL);
    EXPECT_EQ(waitExit(pid), 128 + SIGKILL);

    for (std::uint64_t i = next, end = done->load(); i < end; ++i) {
      applyToModel(model, opAt(seed, i), i);
      ++next;
    }
    // `next` may have been under way when the writer died.
    State after = model;
    applyToModel(after, opAt(seed, next), next);

    CaptureReporter rep;
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "slate", crashInfo());
    const State got = readStore(*s, seed);
    EXPECT_TRUE(rep.corruptions.empty()) << rep.corruptions.front();
    EXPECT_FALSE(s->big().control().wiped());
    const bool isBefore = got == model, isAfter = got == after;
    ASSERT_TRUE(isBefore || isAfter)
        << "the store is neither before nor after change " << next;
    for (int c = 0; c < 3; ++c) {
      auto &coll = c == 0 ? static_cast<Shm::detail::CollectionCore &>(s->big())
                   : c == 1
                       ? static_cast<Shm::detail::CollectionCore &>(s->log())
                       : s->small();
      recovered += coll.recoveredAtMount();
      EXPECT_EQ(coll.corruptionCount(), 0u);
    }
    EXPECT_EQ(s->big().count(), got.coll[0].size());
    EXPECT_EQ(s->big().countByScan(), got.coll[0].size()); // no duplicates
    EXPECT_EQ(s->log().countByScan(), got.coll[1].size());
    EXPECT_EQ(s->small().countByScan(), got.coll[2].size());
    const std::uint64_t sp = s->small().control().scratchpad();
    EXPECT_GE(sp, scratchpad) << "scratchpad went backwards";
    EXPECT_LE(sp, next + 1);
    if (sp == next + 1) {
      EXPECT_TRUE(isAfter) << "scratchpad names a change that is not there";
    }
    scratchpad = sp;
    if (isAfter && !isBefore) {
      ++inFlightApplied;
    }
    if (isAfter || sp == next + 1) {
      model = after;
      ++next;
    }
    em->close();
    if (HasFatalFailure()) {
      return;
    }
  }
  ::munmap(shared, 4096);
  std::printf("%llu kills, %llu changes, %llu in-flight changes found applied, "
              "%llu interrupted replaces resolved\n",
              static_cast<unsigned long long>(rounds),
              static_cast<unsigned long long>(next),
              static_cast<unsigned long long>(inFlightApplied),
              static_cast<unsigned long long>(recovered));
  EXPECT_GT(next, rounds); // the writer got real work done between kills
}

// A reader process scanning while the writer runs sees whole records, and
// only ones the writer wrote.
TEST(ShmProcess, ReaderBesideARunningWriterSeesOnlyWholeWrittenRecords) {
  const std::string agent = freshAgent();
  const std::uint64_t seed = 12345;
  {
    auto em = Shm::entityManager(agent, 0);
    mount<Slate>(em, "slate", crashInfo());
    em->close();
  }
  const pid_t writer = forkChild([&] {
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "slate", crashInfo());
    const auto end = Clock::now() + std::chrono::milliseconds(1500);
    // The clock is read once per 64 changes; every change number is used,
    // so each record's value is at most the scratchpad that follows it.
    for (std::uint64_t i = 0; Clock::now() < end;) {
      for (int k = 0; k < 64; ++k, ++i) {
        applyToStore(*s, opAt(seed, i), i);
      }
    }
  });
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  auto s = mount<Slate>(ro, "slate", readerInfo());
  std::uint64_t scans = 0, consistent = 0, records = 0;
  int status = 0;
  while (::waitpid(writer, &status, WNOHANG) == 0) {
    const State st = readStore(*s, seed);
    consistent += s->big().lastScanConsistent();
    const std::uint64_t sp = s->small().control().scratchpad();
    for (int c = 0; c < 3; ++c) {
      for (const auto &[key, value] : st.coll[c]) {
        ASSERT_LE(value, sp) << "a record from the future";
        ++records;
      }
    }
    s->log().forEachUnordered([&](const LogRecord &r) {
      ASSERT_TRUE(logConsistent(r));
      ASSERT_LE(r.value, s->small().control().scratchpad());
    });
    BigRecord r;
    if (s->big().find(BigKey{7, 3}, r)) {
      EXPECT_TRUE(bigConsistent(r));
    }
    ++scans;
    if (HasFailure()) {
      ::kill(writer, SIGKILL);
      ::waitpid(writer, &status, 0);
      break;
    }
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(s->big().corruptionCount() + s->log().corruptionCount() +
                s->small().corruptionCount(),
            0u);
  EXPECT_GT(scans, 10u);
  EXPECT_GT(records, 0u);
  std::printf("%llu scans (%llu without overlapping a change), %llu records\n",
              static_cast<unsigned long long>(scans),
              static_cast<unsigned long long>(consistent),
              static_cast<unsigned long long>(records));
  ro->close();
}

// --- a writer killed before each store of a change -------------------------

// Armed in a forked writer: kills it before the n-th store from then on.
std::uint32_t gStoresLeft = 0;
void killBeforeStore(Shm::detail::WriteStep) {
  if (--gStoresLeft == 0) {
    ::kill(::getpid(), SIGKILL);
  }
}

using Contents = std::map<std::uint32_t, std::uint32_t>;
using Entries = Shm::Collection<SmallTraits>;

Contents contentsOf(Entries &c) {
  Contents m;
  c.forEach([&](const SmallRecord &r) { m[r.key] = r.value; });
  return m;
}

// Each kind of change, with the writer killed before its first store, its
// second, and so on until it finishes: a remount finds the change undone or
// done, never half done, and no corruption. A store made out of order (say,
// a replace that frees the old copy before it publishes the new one) fails
// this on every run.
TEST(ShmProcess, AWriterKilledBeforeAnyStoreOfAChangeLeavesItUndoneOrDone) {
  const std::string agent = freshAgent();
  constexpr std::uint32_t kCap = 4;
  auto keys = [](std::vector<std::uint32_t> ks) {
    return [ks](Entries &c) {
      for (const std::uint32_t k : ks) {
        c.insert(SmallRecord{k, k});
      }
    };
  };
  auto put = [](std::uint32_t k, std::uint32_t v) {
    return [k, v](Entries &c) { c.insert(SmallRecord{k, v}); };
  };
  struct Case {
    const char *what;
    std::function<void(Entries &)> setUp, change;
    std::uint32_t stores; // before which the writer is killed in turn
  };
  const std::vector<Case> cases = {
      {"an insert into a fresh slot", keys({1, 2}), put(3, 30), 6},
      {"an insert into a freed slot",
       [&](Entries &c) {
         keys({1, 2, 3})(c);
         c.erase(2);
       },
       put(4, 40), 5},
      {"a replace", keys({1, 2}), put(1, 11), 7},
      {"a replace in a full collection (the spare slot)", keys({1, 2, 3, 4}),
       put(2, 22), 7},
      {"an erase", keys({1, 2}), [](Entries &c) { c.erase(1); }, 3},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    auto fresh = [&](const char *path) {
      auto em = Shm::entityManager(agent, 0);
      em->entityDel(path);
      auto t = mount<Table>(em, path, tableInfo(kCap));
      c.setUp(t->entries());
      return em;
    };
    Contents before, after;
    {
      auto em = fresh("model");
      auto &model = Fwk::ptrCast<Table>(em->entity("model"))->entries();
      before = contentsOf(model);
      c.change(model);
      after = contentsOf(model);
      em->close();
    }
    ASSERT_NE(before, after);
    for (std::uint32_t n = 1; n <= c.stores + 1; ++n) {
      SCOPED_TRACE(testing::Message() << "killed before store " << n);
      fresh("t")->close();
      const pid_t child = forkChild([&] {
        auto em = Shm::entityManager(agent, 0);
        auto t = mount<Table>(em, "t", tableInfo(kCap));
        gStoresLeft = n;
        Shm::detail::writeStepHook = killBeforeStore;
        c.change(t->entries());
        Shm::detail::writeStepHook = nullptr;
      });
      const int status = waitExit(child);
      EXPECT_EQ(status, n <= c.stores ? 128 + SIGKILL : 0);
      CaptureReporter rep;
      auto em = Shm::entityManager(agent, 0);
      auto &t = mount<Table>(em, "t", tableInfo(kCap))->entries();
      const Contents got = contentsOf(t);
      EXPECT_TRUE(got == before || got == after);
      EXPECT_EQ(t.countByScan(), got.size());
      EXPECT_TRUE(rep.corruptions.empty()) << rep.corruptions.front();
      if (n > c.stores) {
        EXPECT_EQ(got, after);
      }
      em->close();
      if (HasFailure()) {
        return;
      }
    }
  }
}

// --- the writer lock ------------------------------------------------------

// One writer per instance: a second one is refused, in another process or
// in this one under another name of the directory (the same name is the same
// handle); readers are not, and the lock dies with its holder.
TEST(ShmProcess,
     SecondWriterIsRefusedReadersAreNotAndTheLockDiesWithItsHolder) {
  const std::string agent = freshAgent();
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const pid_t holder = forkChild([&] {
    auto em = Shm::entityManager(agent, 0);
    auto t = mount<Table>(em, "t", tableInfo(4));
    t->entries().insert(SmallRecord{1, 2});
    char c = 'x';
    (void)!::write(fds[1], &c, 1);
    ::pause();
  });
  char c = 0;
  ASSERT_EQ(::read(fds[0], &c, 1), 1);
  try {
    Shm::entityManager(agent, 0);
    FAIL() << "a second writer was let in";
  } catch (const Shm::LockedError &e) {
    const std::string m = e.what();
    EXPECT_NE(m.find(agent + ".0"), std::string::npos) << m;
    EXPECT_NE(m.find(instanceDir(agent)), std::string::npos) << m;
    EXPECT_NE(m.find(std::to_string(holder)), std::string::npos) << m;
    EXPECT_EQ(e.holderPid(), holder);
  }
  {
    auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
    auto t = mount<Table>(ro, "t", readerInfo());
    SmallRecord r;
    ASSERT_TRUE(t->entries().find(1, r));
    EXPECT_EQ(r.value, 2u);
    ro->close();
  }
  ::kill(holder, SIGKILL);
  EXPECT_EQ(waitExit(holder), 128 + SIGKILL);
  ::close(fds[0]);
  ::close(fds[1]);
  auto em = Shm::entityManager(agent, 0);
  EXPECT_EQ(mount<Table>(em, "t", tableInfo(4))->entries().count(), 1u);
  EXPECT_EQ(Shm::entityManager(agent, 0).ptr(), em.ptr());
  const std::string root = Shm::rootDirectory();
  const std::string alias = root + "-alias-" + std::to_string(::getpid());
  std::filesystem::remove(alias);
  std::filesystem::create_directory_symlink(root, alias);
  ::setenv("MICA_SHM_ROOT", alias.c_str(), 1);
  try {
    Shm::entityManager(agent, 0);
    ADD_FAILURE() << "a second writer handle was let in";
  } catch (const Shm::LockedError &e) {
    EXPECT_NE(std::string(e.what()).find("this process"), std::string::npos)
        << e.what();
    EXPECT_EQ(e.holderPid(), ::getpid());
  }
  ::setenv("MICA_SHM_ROOT", root.c_str(), 1);
  std::filesystem::remove(alias);
  em->close();
  auto again = Shm::entityManager(agent, 0);
  EXPECT_NE(again.ptr(), em.ptr());
  EXPECT_FALSE(again->closed());
  again->close();
}

} // namespace
