// A restart at scale: 4 units of 65,536 committed entries for each table
// type (sharing 4,096 resources per type), restored by a new agent, and the
// sweep after a full replay, each beside a memory roofline measured in the
// same run (a plain copy of the same configuration-record bytes).
//
//   restart     makeSwTable of the 4 units: each unit's configuration table
//               mounted (checksums verified, index rebuilt), then restored
//   restore     restoreEntries of the 4 units alone: every committed entry
//               rebuilt with its resource, resource usage recounted, every
//               resource in use re-derived and acknowledged
//   sweep       the walk of the 4 tables after every entry was replayed
//               (nothing to remove)
//
// Items per second is the figure to read (entries). The store is set up
// once per table type, which takes a while.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "MicaMpls/MplsIsem2Interface.h"
#include "MicaMpls/MplsLemInterface.h"
#include "platform/asic/OrderedTableInterface.h"

namespace {

constexpr std::uint32_t kUnits = 4;
constexpr std::uint32_t kUnitEntries = 65536;
constexpr std::uint32_t kResources = 4096;

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Intf = MicaMpls::MplsIsem2Interface;
  static B::Entry entry(std::uint32_t label) {
    B::Entry e;
    e.key = B::Key(label);
    e.inLifKey.lifType = 1;
    e.inLifKey.label = label % kResources + 1;
    e.inLifClientData.counterId = label % kResources;
    return e;
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Intf = MicaMpls::MplsLemInterface;
  static B::Entry entry(std::uint32_t label) {
    B::Entry e;
    e.key = B::Key(label);
    e.l2AdjId = label % kResources + 1;
    return e;
  }
};

// One agent process's worth of objects over a store instance.
template <typename F> struct Agent {
  explicit Agent(const std::string &name) {
    stateDb = StateDb::entityManagerIs(name, 0);
    otIntf = Fwk::make<Asic::OrderedTableInterface>(stateDb);
    group = otIntf->makeGroupIntf(0x0a08, "MicaMpls");
    resources = Fwk::make<typename F::B::ResourceTable>(
        Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::resourceTable, F::B::kResourceNamespace,
            F::B::kResourceName));
    resources->storeIs(Shm::entityManager(name, 0));
    group->namedTableIs(resources);
    intf = F::Intf::getIntf(otIntf);
  }
  ~Agent() {
    intf->onDelete();
    intf = nullptr;
    tables.clear();
    resources = nullptr;
    group = nullptr;
    otIntf = nullptr;
    Shm::entityManager(stateDb->name(), 0)->close();
  }
  void makeUnits() {
    for (Asic::UnitId u = 1; u <= kUnits; ++u) {
      tables.push_back(intf->makeSwTable(u, nullptr, false));
    }
  }
  void drain() {
    while (group->groupResolver()->runPass() != 0) {
    }
  }

  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::OrderedTableInterface> otIntf;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<typename F::B::ResourceTable> resources;
  Fwk::Ptr<typename F::Intf> intf;
  std::vector<Fwk::Ptr<typename F::B::SwTable>> tables;
};

// The store of an agent that committed 4 x 65,536 entries, all retired from
// the change log. Made once per table type, removed at exit.
template <typename F> const std::string &populatedStore() {
  static const std::string name = [] {
    const std::string n = "bench-restore-" + std::string(F::B::kWipedItem) +
                          "-" + std::to_string(::getpid());
    Agent<F> a(n);
    a.makeUnits();
    for (auto &t : a.tables) {
      for (std::uint32_t label = 0; label < kUnitEntries; ++label) {
        t->entryWrite(typename F::B::Key(label), F::entry(label), nullptr);
        if (label % 4096 == 4095) {
          a.drain();
        }
      }
      a.drain();
      t->tableStatusVersion(a.intf->entryLog()->tableVersion());
    }
    return n;
  }();
  return name;
}

void removeStore(const std::string &name) {
  std::error_code ec;
  std::filesystem::remove_all(Shm::rootDirectory() + "/" + name + ".0", ec);
}

// makeSwTable of the 4 units after a restart: mount, restore, marking.
template <typename F> void restart(benchmark::State &state) {
  const std::string &name = populatedStore<F>();
  for (auto _ : state) {
    state.PauseTiming();
    {
      Agent<F> a(name);
      state.ResumeTiming();
      a.makeUnits();
      state.PauseTiming();
      std::uint64_t n = 0;
      for (const auto &t : a.tables) {
        n += t->entrys();
      }
      if (n != std::uint64_t{kUnits} * kUnitEntries ||
          a.intf->entryLog()->tableVersion() !=
              std::uint64_t{kUnits} * kUnitEntries) {
        state.SkipWithError("the restore lost entries or logged anew");
      }
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kUnits * kUnitEntries);
}

// restoreEntries of the 4 units alone: the tables are made and linked as
// makeSwTable makes them, over units mounted beforehand.
template <typename F> void restore(benchmark::State &state) {
  const std::string &name = populatedStore<F>();
  for (auto _ : state) {
    Agent<F> a(name);
    const Asic::SwTableId id(F::B::Constants::swTableTypeId);
    std::vector<Fwk::Ptr<typename F::B::SwTable>> tables;
    for (Asic::UnitId u = 1; u <= kUnits; ++u) {
      a.intf->entryLog()->mountSlateConfig(u, 0);
      auto t = Fwk::make<typename F::B::SwTable>(
          Asic::CanonicalTableName::canonicalTableNameIs(
              Asic::CanonicalTableName::softwareTable, "MicaMpls",
              F::B::Constants::tableName),
          id, u, a.intf->swTableSet().ptr(), a.intf->entryLog(),
          a.group->groupResolver());
      t->linkageIs(Fwk::make<typename F::B::Linkage>(
          t.ptr(), a.resources->clientInstanceIs(F::B::kResourceName, u)));
      tables.push_back(t);
    }
    const auto start = std::chrono::steady_clock::now();
    for (const auto &t : tables) {
      t->restoreEntries();
    }
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
            .count());
    if (a.intf->entryLog()->tableVersion() !=
        std::uint64_t{kUnits} * kUnitEntries) {
      state.SkipWithError("the restore logged anew");
    }
  }
  state.SetItemsProcessed(state.iterations() * kUnits * kUnitEntries);
}

template <typename F> void sweepAfterReplay(benchmark::State &state) {
  const std::string &name = populatedStore<F>();
  for (auto _ : state) {
    state.PauseTiming();
    {
      Agent<F> a(name);
      a.makeUnits();
      for (auto &t : a.tables) {
        for (std::uint32_t label = 0; label < kUnitEntries; ++label) {
          t->entryWrite(typename F::B::Key(label), F::entry(label), nullptr);
        }
      }
      a.drain(); // identical writes: suppressed, nothing pending
      state.ResumeTiming();
      const std::uint32_t swept = a.otIntf->finishInitialReplay();
      state.PauseTiming();
      if (swept != 0) {
        state.SkipWithError("a full replay left entries to sweep");
      }
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kUnits * kUnitEntries);
}

// The same bytes as the units' configuration records, copied into arrays.
template <typename F> void roofline(benchmark::State &state) {
  using Record = Asic::ConfigSlateEntry<typename F::B>;
  std::vector<Record> from(std::size_t{kUnits} * kUnitEntries);
  std::vector<Record> to(from.size());
  for (std::size_t i = 0; i < from.size(); ++i) {
    from[i].logEntry.key = typename F::B::Key(static_cast<std::uint32_t>(i));
  }
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size() * sizeof(Record));
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * from.size());
}

BENCHMARK(restart<Isem2>)
    ->Name("restart/ISEM2")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(restore<Isem2>)
    ->Name("restore/ISEM2")
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(5);
BENCHMARK(sweepAfterReplay<Isem2>)
    ->Name("sweepAfterReplay/ISEM2")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(roofline<Isem2>)
    ->Name("roofline/ISEM2")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(restart<Lem>)
    ->Name("restart/LEM")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(restore<Lem>)
    ->Name("restore/LEM")
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(5);
BENCHMARK(sweepAfterReplay<Lem>)
    ->Name("sweepAfterReplay/LEM")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(roofline<Lem>)->Name("roofline/LEM")->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  removeStore("bench-restore-MplsIsem2-" + std::to_string(::getpid()));
  removeStore("bench-restore-MplsLem-" + std::to_string(::getpid()));
  return 0;
}
