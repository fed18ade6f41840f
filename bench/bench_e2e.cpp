// The whole change path, end to end, as an agent drives it: a write (or a
// remove) with a response handler, a resolver pass per batch (which
// resolves the resource, commits and logs), the hardware's progress
// (tableStatusVersion with the newest logged version) per batch, and the
// handler that counts what finished. For both tables, in three phases:
//
//   load      every key new, each with a resource of its own
//   rewrite   every key moved onto one of 4,096 shared resources
//   iterate   every committed entry read through the table's iterator
//   restore   a restart: the agent's objects are dropped and made anew on
//             the same store, and makeSwTable of every unit mounts its
//             configuration table and restores its entries (the rewrite's
//             65,536 keys per unit on 4,096 resources); the roofline of this
//             row is a plain copy of the configuration records alone
//   remove    every key removed
//   wait      every key written again onto one resource whose allocation is
//             held back: each batch's pass finds every change waiting, and
//             the one allocation at the end wakes them all at once (the
//             back-pressure case; its cost per change should stay near the
//             others', whatever the number of keys)
//
// at 1,024, 16,384 and 65,536 keys per unit, on 1 and 4 units, with 1, 100
// and 1,000 changes per resolver pass. Each row prints changes per second,
// nanoseconds per change, the roofline of the same run (a plain copy of the
// bytes the change writes to the store, its configuration record and its
// change-log record, into arrays), the heap allocations per change
// (counted by this program's operator new) and the page faults per change
// (the process's minor faults: a first touch of fresh memory, which costs
// several microseconds on a virtual machine).
//
//   bench_e2e [--quick] [--batched] [--table lem|isem2] [--keys N] [--units N]
//     --quick: 65,536 keys, batches of 1,000 only
//     --batched: the load and the rewrite give each batch to the batch
//       entry point (entriesWriteWithResponseHandler), one call per unit,
//       in rows named load-b and rewrite-b
//   bench_e2e --goals [--rounds N] [--copies C]
//     the goals of the change path beside what this run measures: 65,536
//     keys, one unit, batches of 1,000, each table run N times (default
//     3) and the best of the runs taken for every row; C, when given, is the
//     number of copies of the value per ISEM2 change measured outside this
//     program (which cannot see the library's own copies), printed in its
//     row
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "MicaMpls/MplsIsem2Interface.h"
#include "MicaMpls/MplsLemInterface.h"
#include "platform/asic/OrderedTableInterface.h"

namespace {
std::atomic<std::uint64_t> gAllocations{0};
// --batched: the load and the rewrite use the batch entry point.
bool gBatched = false;
} // namespace

// Not inlined: the compiler would otherwise pair these calls with the
// standard library's and warn about malloc/free behind new/delete.
__attribute__((noinline)) void *operator new(std::size_t n) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void *p = std::malloc(n ? n : 1)) {
    return p;
  }
  throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new[](std::size_t n) {
  return ::operator new(n);
}
__attribute__((noinline)) void operator delete(void *p) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete[](void *p) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete(void *p, std::size_t) noexcept {
  std::free(p);
}
__attribute__((noinline)) void operator delete[](void *p,
                                                 std::size_t) noexcept {
  std::free(p);
}

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kShared = 4096;

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Intf = MicaMpls::MplsIsem2Interface;
  static constexpr const char *kName = "ISEM2";
  static B::Entry entry(std::uint32_t label, std::uint32_t resource) {
    B::Entry e;
    e.key = B::Key(label);
    e.inLifKey.lifType = 1;
    e.inLifKey.ownerCookie = resource;
    e.inLifClientData.counterId = resource;
    return e;
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Intf = MicaMpls::MplsLemInterface;
  static constexpr const char *kName = "LEM";
  static B::Entry entry(std::uint32_t label, std::uint32_t resource) {
    B::Entry e;
    e.key = B::Key(label);
    e.l2AdjId = resource;
    return e;
  }
};

struct Row {
  const char *table;
  const char *phase;
  std::uint32_t keys;
  std::uint32_t units;
  std::uint32_t batch;
  double seconds;
  std::uint64_t changes;
  double rooflineNs;
  std::uint64_t allocations;
  std::uint64_t faults;
};

std::uint64_t minorFaults() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return static_cast<std::uint64_t>(u.ru_minflt);
}

// The bytes a change writes to the store, copied into arrays of the same
// size: the configuration record and the change-log record.
template <typename F> double rooflineNs(std::uint64_t changes) {
  using Config = Asic::ConfigSlateEntry<typename F::B>;
  using Log = Asic::LogSlateEntry<typename F::B>;
  std::vector<Config> configs(changes);
  std::vector<Log> logs(changes);
  Config c{};
  Log l{};
  double best = 1e30;
  for (int round = 0; round < 3; ++round) {
    const auto t0 = Clock::now();
    for (std::uint64_t i = 0; i < changes; ++i) {
      c.logVersion = i;
      l.logVersion = i;
      std::memcpy(&configs[i], &c, sizeof c);
      std::memcpy(&logs[i], &l, sizeof l);
    }
    asm volatile("" : : "r"(configs.data()), "r"(logs.data()) : "memory");
    best = std::min(best,
                    std::chrono::duration<double>(Clock::now() - t0).count());
  }
  return best * 1e9 / static_cast<double>(changes);
}

// The configuration records alone, copied into an array: the floor of a
// restore, which reads each of them once.
template <typename F> double restoreRooflineNs(std::uint64_t changes) {
  using Config = Asic::ConfigSlateEntry<typename F::B>;
  std::vector<Config> from(changes);
  std::vector<Config> to(changes);
  double best = 1e30;
  for (int round = 0; round < 3; ++round) {
    const auto t0 = Clock::now();
    std::memcpy(to.data(), from.data(), changes * sizeof(Config));
    asm volatile("" : : "r"(to.data()) : "memory");
    best = std::min(best,
                    std::chrono::duration<double>(Clock::now() - t0).count());
  }
  return best * 1e9 / static_cast<double>(changes);
}

template <typename F> struct Agent {
  Agent(const std::string &name, std::uint32_t units, std::uint32_t keys)
      : name(name), units(units), keys(keys) {
    boot();
    for (Asic::UnitId u = 1; u <= units; ++u) {
      tables.push_back(intf->makeSwTable(u, nullptr, false));
    }
    otIntf->finishInitialReplay();
  }
  ~Agent() {
    shutdown();
    std::error_code ec;
    std::filesystem::remove_all(directory, ec);
  }

  // A restart on the same store: every object is dropped and made anew,
  // and the tables are made (mounted and restored) by makeSwTable. Returns
  // the seconds makeSwTable of every unit took. The restored tables are
  // taken out of their marking state at once (this run replays nothing).
  double restart() {
    shutdown();
    boot();
    const auto t0 = Clock::now();
    for (Asic::UnitId u = 1; u <= units; ++u) {
      tables.push_back(intf->makeSwTable(u, nullptr, false));
    }
    const double seconds =
        std::chrono::duration<double>(Clock::now() - t0).count();
    for (const auto &t : tables) {
      t->inMarkingStateIs(false);
    }
    otIntf->finishInitialReplay();
    return seconds;
  }

  // A resolver pass, then the hardware confirms everything logged.
  void passAndConfirm() {
    group->groupResolver()->runPass();
    const Asic::LogVersion v = intf->entryLog()->tableVersion();
    for (const auto &t : tables) {
      t->tableStatusVersion(v);
    }
  }

  std::string name;
  std::uint32_t units;
  std::uint32_t keys;
  std::string directory;
  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::OrderedTableInterface> otIntf;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<typename F::B::ResourceTable> resources;
  Fwk::Ptr<typename F::Intf> intf;
  std::vector<Fwk::Ptr<typename F::B::SwTable>> tables;

private:
  void boot() {
    stateDb = StateDb::entityManagerIs(name, 0);
    otIntf = Fwk::make<Asic::OrderedTableInterface>(stateDb);
    group = otIntf->makeGroupIntf(0x0a08, "MicaMpls");
    resources = Fwk::make<typename F::B::ResourceTable>(
        Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::resourceTable, F::B::kResourceNamespace,
            F::B::kResourceName),
        units * keys + kShared + 1);
    resources->storeIs(Shm::entityManager(name, 0));
    group->namedTableIs(resources);
    intf = F::Intf::getIntf(otIntf);
    directory = Shm::entityManager(name, 0)->directory();
  }
  void shutdown() {
    intf->onDelete();
    intf = nullptr;
    tables.clear();
    resources = nullptr;
    group = nullptr;
    otIntf = nullptr;
    Shm::entityManager(name, 0)->close();
    stateDb = nullptr;
  }
};

// Every committed entry of every unit read through the table's iterator
// (the best of three walks); its roofline is the copy of the same records.
template <typename F>
Row iterate(Agent<F> &a, std::uint32_t keys, std::uint32_t units,
            std::uint32_t batch, double roof) {
  const std::uint64_t allocs0 = gAllocations.load();
  const std::uint64_t faults0 = minorFaults();
  double best = 1e30;
  std::uint64_t seen = 0;
  for (int round = 0; round < 3; ++round) {
    seen = 0;
    std::uint64_t sum = 0;
    const auto t0 = Clock::now();
    for (const auto &t : a.tables) {
      for (auto it = t->entryIteratorConst(); !it.done(); ++it) {
        sum += it.entry().key.packed();
        ++seen;
      }
    }
    asm volatile("" : : "r"(sum) : "memory");
    best = std::min(best,
                    std::chrono::duration<double>(Clock::now() - t0).count());
  }
  if (seen != std::uint64_t{keys} * units) {
    std::fprintf(stderr, "bench_e2e: %s iterate: %lu of %lu entries\n",
                 F::kName, static_cast<unsigned long>(seen),
                 static_cast<unsigned long>(std::uint64_t{keys} * units));
    std::exit(1);
  }
  return Row{F::kName,
             "iterate",
             keys,
             units,
             batch,
             best,
             seen,
             roof,
             (gAllocations.load() - allocs0) / 3,
             (minorFaults() - faults0) / 3};
}

// A restart on the store the earlier phases left; every entry of every
// unit restored.
template <typename F>
Row restorePhase(Agent<F> &a, std::uint32_t keys, std::uint32_t units,
                 std::uint32_t batch) {
  const std::uint64_t entries = std::uint64_t{keys} * units;
  const double roof = restoreRooflineNs<F>(entries);
  const std::uint64_t allocs0 = gAllocations.load();
  const std::uint64_t faults0 = minorFaults();
  const double seconds = a.restart();
  const std::uint64_t allocs = gAllocations.load() - allocs0;
  const std::uint64_t faults = minorFaults() - faults0;
  std::uint64_t restored = 0;
  for (const auto &t : a.tables) {
    restored += t->entrys();
  }
  if (restored != entries) {
    std::fprintf(stderr, "bench_e2e: %s restore: %lu of %lu entries\n",
                 F::kName, static_cast<unsigned long>(restored),
                 static_cast<unsigned long>(entries));
    std::exit(1);
  }
  return Row{F::kName, "restore", keys, units,  batch,
             seconds,  entries,   roof, allocs, faults};
}

// Every key (of an empty table) written onto one resource whose allocation
// waits until every change has been offered to the resolver; then the
// allocation runs and the passes commit them all.
template <typename F>
Row waitPhase(Agent<F> &a, std::uint32_t keys, std::uint32_t units,
              std::uint32_t batch, double roof,
              const Asic::OrderedSwTable::ResponseHandler &counter,
              std::uint64_t &finished) {
  finished = 0;
  bool allocationAsked = false;
  a.resources->schedulerIs(
      [&allocationAsked](std::function<void()>) { allocationAsked = true; });
  const std::uint64_t changes = std::uint64_t{keys} * units;
  const std::uint64_t allocs0 = gAllocations.load();
  const std::uint64_t faults0 = minorFaults();
  const auto t0 = Clock::now();
  std::uint32_t queued = 0;
  for (std::uint32_t k = 0; k < keys; ++k) {
    for (std::uint32_t u = 0; u < units; ++u) {
      a.tables[u]->entryWriteWithResponseHandler(
          typename F::B::Key(k), F::entry(k, 1), nullptr, counter);
      if (++queued == batch) {
        a.passAndConfirm();
        queued = 0;
      }
    }
  }
  a.passAndConfirm();
  a.resources->schedulerIs(nullptr);
  a.resources->resolvePending();
  while (finished < changes &&
         a.group->groupResolver()->resolverQueueSize() != 0) {
    a.passAndConfirm();
  }
  const double seconds =
      std::chrono::duration<double>(Clock::now() - t0).count();
  if (finished != changes || !allocationAsked) {
    std::fprintf(stderr, "bench_e2e: %s wait: %lu of %lu changes finished\n",
                 F::kName, static_cast<unsigned long>(finished),
                 static_cast<unsigned long>(changes));
    std::exit(1);
  }
  return Row{F::kName,
             "wait",
             keys,
             units,
             batch,
             seconds,
             changes,
             roof,
             gAllocations.load() - allocs0,
             minorFaults() - faults0};
}

template <typename F>
void run(std::vector<Row> &rows, std::uint32_t keys, std::uint32_t units,
         std::uint32_t batch) {
  static int n = 0;
  Agent<F> a("bench-e2e-" + std::to_string(::getpid()) + "-" +
                 std::to_string(n++),
             units, keys);
  std::uint64_t finished = 0;
  const Asic::OrderedSwTable::ResponseHandler counter =
      [&finished](const Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle> &h) {
        finished += h->entryState() == Asic::EntryState::finished;
      };
  const std::uint64_t changes = std::uint64_t{keys} * units;
  const double roof = rooflineNs<F>(changes);
  for (int phase = 0; phase < 3; ++phase) {
    if (phase == 2) {
      rows.push_back(iterate<F>(a, keys, units, batch, roof));
      rows.push_back(restorePhase<F>(a, keys, units, batch));
    }
    finished = 0;
    std::uint32_t queued = 0;
    const std::uint64_t allocs0 = gAllocations.load();
    const std::uint64_t faults0 = minorFaults();
    const auto t0 = Clock::now();
    // With --batched, the writes of a batch go through the batch entry
    // point, one call per unit before each pass.
    std::vector<std::vector<typename F::B::Key>> batchKeys(units);
    std::vector<std::vector<typename F::B::Entry>> batchEntries(units);
    const bool batched = gBatched && phase < 2;
    const auto flush = [&] {
      for (std::uint32_t u = 0; batched && u < units; ++u) {
        a.tables[u]->entriesWriteWithResponseHandler(
            batchKeys[u], batchEntries[u], nullptr, counter);
        batchKeys[u].clear();
        batchEntries[u].clear();
      }
    };
    for (std::uint32_t k = 0; k < keys; ++k) {
      for (std::uint32_t u = 0; u < units; ++u) {
        auto &t = *a.tables[u];
        const typename F::B::Key key(k);
        if (batched) {
          batchKeys[u].push_back(key);
          batchEntries[u].push_back(
              phase == 0 ? F::entry(k, 1 + kShared + u * keys + k)
                         : F::entry(k, 1 + (k * 7 + u) % kShared));
        } else if (phase == 0) {
          t.entryWriteWithResponseHandler(
              key, F::entry(k, 1 + kShared + u * keys + k), nullptr, counter);
        } else if (phase == 1) {
          t.entryWriteWithResponseHandler(
              key, F::entry(k, 1 + (k * 7 + u) % kShared), nullptr, counter);
        } else {
          t.entryRemoveWithResponseHandler(key, nullptr, counter);
        }
        if (++queued == batch) {
          flush();
          a.passAndConfirm();
          queued = 0;
        }
      }
    }
    flush();
    a.passAndConfirm();
    const double seconds =
        std::chrono::duration<double>(Clock::now() - t0).count();
    const std::uint64_t allocs = gAllocations.load() - allocs0;
    const std::uint64_t faults = minorFaults() - faults0;
    if (finished != changes) {
      std::fprintf(stderr, "bench_e2e: %s %s: %lu of %lu changes finished\n",
                   F::kName,
                   phase == 0   ? "load"
                   : phase == 1 ? "rewrite"
                                : "remove",
                   static_cast<unsigned long>(finished),
                   static_cast<unsigned long>(changes));
      std::exit(1);
    }
    rows.push_back(Row{F::kName,
                       phase == 0   ? (batched ? "load-b" : "load")
                       : phase == 1 ? (batched ? "rewrite-b" : "rewrite")
                                    : "remove",
                       keys, units, batch, seconds, changes, roof, allocs,
                       faults});
  }
  rows.push_back(waitPhase<F>(a, keys, units, batch, roof, counter, finished));
}

void print(const Row &r) {
  const double ns = r.seconds * 1e9 / static_cast<double>(r.changes);
  std::printf("%-6s %-8s %7u %5u %6u %12.0f %9.0f %10.1f %9.2f %9.3f\n",
              r.table, r.phase, r.keys, r.units, r.batch,
              static_cast<double>(r.changes) / r.seconds, ns, r.rooflineNs,
              static_cast<double>(r.allocations) /
                  static_cast<double>(r.changes),
              static_cast<double>(r.faults) / static_cast<double>(r.changes));
  std::fflush(stdout);
}

// The best of several rows of one table and phase: the fewest seconds per
// change (the machine is shared; the best run is the least disturbed).
const Row *best(const std::vector<Row> &rows, const char *table,
                const char *phase) {
  const Row *b = nullptr;
  for (const Row &r : rows) {
    if (std::strcmp(r.table, table) == 0 && std::strcmp(r.phase, phase) == 0 &&
        (!b || r.seconds / static_cast<double>(r.changes) <
                   b->seconds / static_cast<double>(b->changes))) {
      b = &r;
    }
  }
  return b;
}

double perSecond(const Row &r) {
  return static_cast<double>(r.changes) / r.seconds;
}
double nsPer(const Row &r) {
  return r.seconds * 1e9 / static_cast<double>(r.changes);
}

// The goals of the change path beside this run's measures.
void goals(int rounds, double copies) {
  std::vector<Row> rows;
  for (int i = 0; i < rounds; ++i) {
    for (int family = 0; family < 2; ++family) {
      const std::size_t before = rows.size();
      if (family == 0) {
        run<Lem>(rows, 65536, 1, 1000);
      } else {
        run<Isem2>(rows, 65536, 1, 1000);
      }
      for (std::size_t j = before; j < rows.size(); ++j) {
        print(rows[j]);
      }
    }
  }
  std::printf("\n%-44s %14s %14s %10s  %s\n", "measure (65,536 keys, 1 unit)",
              "goal", "measured", "roofline", "met");
  const auto line = [](const char *what, const char *goal, double measured,
                       const char *unit, double roof, bool met) {
    char m[32];
    std::snprintf(m, sizeof m, "%.0f%s", measured, unit);
    std::printf("%-44s %14s %14s %10.1f  %s\n", what, goal, m, roof,
                met ? "yes" : "no");
  };
  struct Rate {
    const char *table, *phase, *what, *goalText;
    double goal;
  };
  const Rate rates[] = {
      {"LEM", "load", "LEM first load (changes/s)", ">= 1500000", 1.5e6},
      {"LEM", "rewrite", "LEM rewrite (changes/s)", ">= 2000000", 2.0e6},
      {"ISEM2", "load", "ISEM2 first load (changes/s)", ">= 700000", 0.7e6},
      {"ISEM2", "rewrite", "ISEM2 rewrite (changes/s)", ">= 1000000", 1.0e6},
      {"LEM", "restore", "LEM restore (entries/s)", ">= 2000000", 2.0e6},
      {"ISEM2", "restore", "ISEM2 restore (entries/s)", ">= 2000000", 2.0e6},
  };
  for (const Rate &g : rates) {
    const Row *r = best(rows, g.table, g.phase);
    line(g.what, g.goalText, perSecond(*r), "", r->rooflineNs,
         perSecond(*r) >= g.goal);
  }
  // Back-pressure: a change that waited, woken with all the others at
  // once, against a change of the first load, which waits for nothing.
  for (const char *table : {"LEM", "ISEM2"}) {
    const Row *w = best(rows, table, "wait");
    const Row *l = best(rows, table, "load");
    const double ratio = nsPer(*w) / nsPer(*l);
    char what[64];
    std::snprintf(what, sizeof what, "%s back-pressure (ns/change vs load)",
                  table);
    char m[32];
    std::snprintf(m, sizeof m, "%.0f (%.2fx)", nsPer(*w), ratio);
    std::printf("%-44s %14s %14s %10.1f  %s\n", what, "<= 1.5x", m,
                w->rooflineNs, ratio <= 1.5 ? "yes" : "no");
  }
  if (copies >= 0) {
    char m[32];
    std::snprintf(m, sizeof m, "%.2f", copies);
    std::printf("%-44s %14s %14s %10s  %s\n",
                "ISEM2 copies of the 840-byte value/change", "about 1", m, "-",
                copies <= 1.25 ? "yes" : "no");
  } else {
    std::printf("%-44s %14s %14s %10s  %s\n",
                "ISEM2 copies of the 840-byte value/change", "about 1",
                "not measured", "-", "-");
  }
  // Steady state: the rewrite and the removal of keys already there.
  double allocs = 0;
  for (const char *table : {"LEM", "ISEM2"}) {
    for (const char *phase : {"rewrite", "remove"}) {
      const Row *r = best(rows, table, phase);
      allocs = std::max(allocs, static_cast<double>(r->allocations) /
                                    static_cast<double>(r->changes));
    }
  }
  char m[32];
  std::snprintf(m, sizeof m, "%.2f", allocs);
  std::printf("%-44s %14s %14s %10s  %s\n",
              "heap allocations/change (steady state)", "<= 1", m, "-",
              allocs <= 1 ? "yes" : "no");
  std::printf("\nbest of %d runs per row; roofline: ns per change (or entry) "
              "of a plain copy of the same record bytes in this run\n",
              rounds);
}

} // namespace

int main(int argc, char **argv) {
  bool quick = false;
  bool goalsOnly = false;
  int rounds = 3;
  double copies = -1;
  std::string only;            // "lem" or "isem2": one table only
  std::uint32_t onlyKeys = 0;  // one size only
  std::uint32_t onlyUnits = 0; // one number of units only
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") {
      quick = true;
    } else if (a == "--goals") {
      goalsOnly = true;
    } else if (a == "--batched") {
      gBatched = true;
    } else if (a == "--rounds" && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--copies" && i + 1 < argc) {
      copies = std::strtod(argv[++i], nullptr);
    } else if (a == "--table" && i + 1 < argc) {
      only = argv[++i];
    } else if (a == "--keys" && i + 1 < argc) {
      onlyKeys =
          static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 0));
    } else if (a == "--units" && i + 1 < argc) {
      onlyUnits =
          static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 0));
    } else {
      std::fprintf(
          stderr,
          "usage: bench_e2e [--quick] [--batched] [--table lem|isem2] "
          "[--keys N] [--units N]\n       bench_e2e --goals [--rounds N] "
          "[--copies C]\n");
      return 2;
    }
  }
  std::printf("%-6s %-8s %7s %5s %6s %12s %9s %10s %9s %9s\n", "table", "phase",
              "keys", "units", "batch", "changes/s", "ns/change", "roofline",
              "allocs", "faults");
  if (goalsOnly) {
    goals(rounds, copies);
    return 0;
  }
  std::vector<Row> rows;
  std::vector<std::uint32_t> sizes =
      quick ? std::vector<std::uint32_t>{65536}
            : std::vector<std::uint32_t>{1024, 16384, 65536};
  if (onlyKeys) {
    sizes = {onlyKeys};
  }
  const std::vector<std::uint32_t> batches =
      quick ? std::vector<std::uint32_t>{1000}
            : std::vector<std::uint32_t>{1, 100, 1000};
  for (int family = 0; family < 2; ++family) {
    if (!only.empty() && only != (family == 0 ? "lem" : "isem2")) {
      continue;
    }
    for (std::uint32_t units : {1u, 4u}) {
      if (onlyUnits != 0 && units != onlyUnits) {
        continue;
      }
      for (std::uint32_t keys : sizes) {
        for (std::uint32_t batch : batches) {
          const std::size_t before = rows.size();
          if (family == 0) {
            run<Lem>(rows, keys, units, batch);
          } else {
            run<Isem2>(rows, keys, units, batch);
          }
          for (std::size_t i = before; i < rows.size(); ++i) {
            print(rows[i]);
          }
        }
      }
    }
  }
  return 0;
}
