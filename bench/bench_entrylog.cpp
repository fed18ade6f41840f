// The entry log's hot paths at a unit of 65,536 committed entries, for ISEM2
// (832-byte configuration records) and LEM (48-byte ones), each beside a
// memory roofline measured in the same run: plain copies of the same bytes
// into arrays of the same size.
//
//   entryIs    replace one configuration record, log one change record, keep
//              the table version in the scratchpad
//   entryDel   the same for a deletion
//   cleanup    retire logged changes (per change)
//   mount      a unit's configuration table at restart (checksums verified,
//              index rebuilt, confirmed deletions dropped)
//
// Items per second is the figure to read; the roofline rows say what the
// memory traffic alone costs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"

namespace {

constexpr std::uint32_t kUnitEntries = 65536;
constexpr Asic::UnitId kUnit = 1;

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Log = MicaMpls::MplsIsem2EntryLog;
  static constexpr std::uint32_t kTypeId = 0x0A080401;
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em) {
    return MicaMpls::mplsIsem2EntryLogFactory(Asic::SwTableId(kTypeId), em, nullptr,
                                              em->name());
  }
  static B::LogEntry logEntry(std::uint32_t key, std::uint32_t v) {
    return {B::Key(key), v, v + 1};
  }
  static B::ResourceKeys rsrcKeys(std::uint32_t v) {
    B::ResourceKeys r;
    r.inLifKey.label = v;
    std::memset(r.inLifClientData.opaque, static_cast<int>(v), 64);
    return r;
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Log = MicaMpls::MplsLemEntryLog;
  static constexpr std::uint32_t kTypeId = 0x0A080402;
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em) {
    return MicaMpls::mplsLemEntryLogFactory(Asic::SwTableId(kTypeId), em, nullptr,
                                            em->name());
  }
  static B::LogEntry logEntry(std::uint32_t key, std::uint32_t v) {
    B::LogEntry e;
    e.key = B::Key(key);
    e.fecId = v;
    return e;
  }
  static B::ResourceKeys rsrcKeys(std::uint32_t v) { return {v}; }
};

std::string uniqueAgent(const char *what) {
  static int n = 0;
  return std::string("bench-") + what + "-" + std::to_string(::getpid()) + "-" +
         std::to_string(n++);
}

// An entry log whose unit holds 65,536 committed entries and whose change
// log is empty.
template <typename F> struct Unit {
  Unit()
      : stateDb(StateDb::entityManagerIs(uniqueAgent(F::B::kWipedItem), 0)),
        stats(Fwk::make<Asic::SwTableStats>()) {
    start();
    for (std::uint32_t k = 0; k < kUnitEntries; ++k) {
      log->entryIs(F::logEntry(k, 1), F::rsrcKeys(1), nullptr, kUnit, stats, false);
    }
    log->cleanupEntryLog(log->tableVersion());
  }
  ~Unit() {
    log = nullptr;
    Shm::entityManager(stateDb->name(), 0)->entityDel(
        F::B::Constants::configSlatePath(kUnit));
    Shm::entityManager(stateDb->name(), 0)->entityDel(
        F::B::Constants::tableEntryLogSlatePath());
    Shm::entityManager(stateDb->name(), 0)->close();
  }
  void start() {
    log = F::make(stateDb);
    log->mountSlateConfig(kUnit, 0);
  }
  void restart() {
    log = nullptr;
    Shm::entityManager(stateDb->name(), 0)->close();
    start();
  }
  // Keeps the change log as short as a hardware writer that confirms
  // continuously would (a window of 4,096 unconfirmed changes); the
  // clean-up itself is measured on its own.
  void retireIfLong(benchmark::State &state) {
    if (log->entryLogRecords() >= 4096) {
      state.PauseTiming();
      log->cleanupEntryLog(log->tableVersion());
      state.ResumeTiming();
    }
  }

  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::SwTableStats> stats;
  Fwk::Ptr<typename F::Log> log;
};

std::vector<std::uint32_t> randomKeys(std::size_t n) {
  std::mt19937 rng(42);
  std::vector<std::uint32_t> keys(n);
  for (auto &k : keys) {
    k = rng() % kUnitEntries;
  }
  return keys;
}

template <typename F> void entryIs(benchmark::State &state) {
  Unit<F> u;
  const auto keys = randomKeys(1 << 20);
  std::size_t i = 0;
  std::uint32_t v = 2;
  for (auto _ : state) {
    const std::uint32_t k = keys[i++ & (keys.size() - 1)];
    benchmark::DoNotOptimize(u.log->entryIs(F::logEntry(k, v), F::rsrcKeys(v),
                                            nullptr, kUnit, u.stats, false));
    v = v * 3 + 1;
    u.retireIfLong(state);
  }
  state.SetItemsProcessed(state.iterations());
}

// Every deletion hits a live record: the keys are visited in a random
// order, each once per pass, and between passes (untimed) the deletions are
// retired and the keys written again.
template <typename F> void entryDel(benchmark::State &state) {
  Unit<F> u;
  std::vector<std::uint32_t> keys(kUnitEntries);
  for (std::uint32_t k = 0; k < kUnitEntries; ++k) {
    keys[k] = k;
  }
  std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
  std::size_t i = 0;
  for (auto _ : state) {
    if (i == keys.size()) {
      state.PauseTiming();
      u.log->cleanupEntryLog(u.log->tableVersion());
      for (std::uint32_t k = 0; k < kUnitEntries; ++k) {
        u.log->entryIs(F::logEntry(k, 1), F::rsrcKeys(1), nullptr, kUnit,
                       u.stats, false);
      }
      u.log->cleanupEntryLog(u.log->tableVersion());
      i = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(
        u.log->entryDel(typename F::B::Key(keys[i++]), nullptr, kUnit));
    u.retireIfLong(state);
  }
  state.SetItemsProcessed(state.iterations());
}

// Retiring changes: a batch of 65,536 logged writes, then one clean-up.
template <typename F> void cleanup(benchmark::State &state) {
  Unit<F> u;
  std::uint32_t v = 2;
  for (auto _ : state) {
    state.PauseTiming();
    for (std::uint32_t k = 0; k < kUnitEntries; ++k) {
      u.log->entryIs(F::logEntry(k, v), F::rsrcKeys(v), nullptr, kUnit, u.stats,
                     false);
    }
    ++v;
    state.ResumeTiming();
    u.log->cleanupEntryLog(u.log->tableVersion());
  }
  state.SetItemsProcessed(state.iterations() * kUnitEntries);
}

// A unit's mount at restart, with 65,536 records.
template <typename F> void mount(benchmark::State &state) {
  Unit<F> u;
  for (auto _ : state) {
    state.PauseTiming();
    u.log = nullptr;
    Shm::entityManager(u.stateDb->name(), 0)->close();
    u.log = F::make(u.stateDb);
    state.ResumeTiming();
    u.log->mountSlateConfig(kUnit, 1);
    benchmark::DoNotOptimize(u.log->entrys(kUnit));
  }
  state.SetItemsProcessed(state.iterations() * kUnitEntries);
}

// ---- Rooflines: the same bytes, copied into plain arrays ----

template <typename F> struct Arrays {
  using Rec = typename F::B::EntryLog::ConfigEntry;
  using LogRec = typename F::B::EntryLog::LogRecord;
  std::vector<Rec> config = std::vector<Rec>(kUnitEntries + 1);
  std::vector<LogRec> log = std::vector<LogRec>(1000000);
  std::uint64_t scratchpad = 0;
};

// Per change: one configuration record into a random slot, one change
// record appended, one word stored.
template <typename F> void changeRoofline(benchmark::State &state) {
  Arrays<F> a;
  const auto keys = randomKeys(1 << 20);
  typename Arrays<F>::Rec rec{};
  typename Arrays<F>::LogRec lr{};
  std::size_t i = 0, l = 0;
  for (auto _ : state) {
    rec.logVersion = i;
    lr.logVersion = i;
    std::memcpy(&a.config[keys[i & (keys.size() - 1)]], &rec, sizeof rec);
    std::memcpy(&a.log[l], &lr, sizeof lr);
    l = l + 1 == a.log.size() ? 0 : l + 1;
    a.scratchpad = i++;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

// Per retired change: its change record read and cleared.
template <typename F> void cleanupRoofline(benchmark::State &state) {
  Arrays<F> a;
  typename Arrays<F>::LogRec out{};
  const typename Arrays<F>::LogRec zero{};
  for (auto _ : state) {
    for (std::uint32_t k = 0; k < kUnitEntries; ++k) {
      std::memcpy(&out, &a.log[k], sizeof out);
      std::memcpy(&a.log[k], &zero, sizeof zero);
      benchmark::DoNotOptimize(out);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kUnitEntries);
}

// A whole unit's records copied once.
template <typename F> void mountRoofline(benchmark::State &state) {
  Arrays<F> a, b;
  for (auto _ : state) {
    std::memcpy(b.config.data(), a.config.data(),
                kUnitEntries * sizeof(typename Arrays<F>::Rec));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kUnitEntries);
}

#define MICA_BENCH_FAMILY(F)                                                   \
  BENCHMARK(entryIs<F>)->Name(#F "/entryIs");                                  \
  BENCHMARK(changeRoofline<F>)->Name(#F "/entryIs_roofline");                  \
  BENCHMARK(entryDel<F>)->Name(#F "/entryDel");                                \
  BENCHMARK(changeRoofline<F>)->Name(#F "/entryDel_roofline");                 \
  BENCHMARK(cleanup<F>)->Name(#F "/cleanup")->Unit(benchmark::kMillisecond);   \
  BENCHMARK(cleanupRoofline<F>)                                                \
      ->Name(#F "/cleanup_roofline")                                           \
      ->Unit(benchmark::kMillisecond);                                         \
  BENCHMARK(mount<F>)->Name(#F "/mount")->Unit(benchmark::kMillisecond);       \
  BENCHMARK(mountRoofline<F>)                                                  \
      ->Name(#F "/mount_roofline")                                             \
      ->Unit(benchmark::kMillisecond);

MICA_BENCH_FAMILY(Isem2)
MICA_BENCH_FAMILY(Lem)

} // namespace

BENCHMARK_MAIN();
