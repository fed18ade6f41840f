// The shared-memory record store's hot paths, each beside a memory roofline
// measured in the same run: plain copies of the same bytes into (or out of)
// arrays of the same size, at the same positions.
//
//   build/release/bench/bench_shm [--benchmark_filter=...]
//
// Files go to $MICA_SHM_ROOT (default /dev/shm/mica-mpls), instance
// bench-shm-<pid>.0, removed at exit.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "platform/shm/Store.h"

namespace {

struct Key {
  std::uint32_t label = 0;
  std::uint32_t unit = 0;
};
struct Big { // 832 bytes, like a config slate entry
  Key key;
  std::uint64_t version = 0;
  std::uint64_t body[102] = {};
};
static_assert(sizeof(Big) == 832);
struct Log { // 32 bytes, like an entry log record
  std::uint64_t version = 0;
  std::uint64_t a = 0, b = 0, c = 0;
};

struct BigTraits {
  using Key = ::Key;
  using Record = Big;
  static Key keyOf(const Record &r) { return r.key; }
  static constexpr const char *kRecordName = "Bench::Big";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct LogTraits {
  using Key = std::uint64_t;
  using Record = Log;
  static Key keyOf(const Record &r) { return r.version; }
  static constexpr const char *kRecordName = "Bench::Log";
  static constexpr std::uint32_t kRecordVersion = 1;
};

class Slate : public Shm::Entity {
public:
  static constexpr const char *kTypeName = "Bench::Slate";
  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName)
        .collection<BigTraits>("entries")
        .collection<LogTraits>("log");
  }
  explicit Slate(Shm::EntityInit &init)
      : Shm::Entity(init), entries(init, "entries"), log(init, "log") {}
  Shm::Collection<BigTraits> entries;
  Shm::Collection<LogTraits> log;
};
const Shm::EntityTypeRegistrar<Slate> kReg;

constexpr std::uint32_t kBigCap = 65536;
constexpr std::uint32_t kLogCap = 1000000;
constexpr std::size_t kBigSlot = 16 + sizeof(Big);
constexpr std::size_t kLogSlot = 16 + sizeof(Log);
constexpr std::uint64_t kLogWindow = 1024; // log records in flight

std::string agent() {
  return "bench-shm-" + std::to_string(::getpid());
}

Shm::MountInfo info() {
  Shm::MountInfo i;
  i.collectionInfoIs("entries", kBigCap);
  i.collectionInfoIs("log", kLogCap);
  return i;
}

Big bigRecord(std::uint32_t label, std::uint64_t version) {
  Big r;
  r.key = Key{label, 0};
  r.version = version;
  for (std::size_t i = 0; i < std::size(r.body); ++i) {
    r.body[i] = label * 31 + version + i;
  }
  return r;
}

// The store, full: 65,536 big records and an empty log.
struct Store {
  Fwk::Ptr<Shm::EntityManager> em;
  Fwk::Ptr<Slate> slate;
  std::vector<Big> ring; // records with random keys, replaced in turn
  std::vector<Key> keys;

  Store() {
    std::filesystem::remove_all(Shm::rootDirectory() + "/" + agent() + ".0");
    mount();
    for (std::uint32_t l = 0; l < kBigCap; ++l) {
      slate->entries.insert(bigRecord(l, 0));
    }
    std::mt19937 rng(1);
    for (int i = 0; i < 4096; ++i) {
      ring.push_back(bigRecord(rng() % kBigCap, i));
      keys.push_back(Key{static_cast<std::uint32_t>(rng() % kBigCap), 0});
    }
  }
  ~Store() {
    em->close();
    std::filesystem::remove_all(Shm::rootDirectory() + "/" + agent() + ".0");
  }
  void mount() {
    em = Shm::entityManager(agent(), 0);
    em->mountGroup()->doMount("slate", Slate::kTypeName, info());
    slate = Fwk::ptrCast<Slate>(em->entity("slate"));
  }
};

Store &store() {
  static Store s;
  return s;
}

// Roofline arrays, sized like the collections' slot arrays.
std::vector<unsigned char> &bigArray() {
  static std::vector<unsigned char> a((kBigCap + 1) * kBigSlot, 1);
  return a;
}
std::vector<unsigned char> &logArray() {
  static std::vector<unsigned char> a((kLogCap + 1) * kLogSlot, 1);
  return a;
}

// --- replace of 832-byte records, steady state at capacity ---------------

void BM_Replace832(benchmark::State &state) {
  Store &s = store();
  std::size_t i = 0;
  for (auto _ : state) {
    s.slate->entries.insert(s.ring[i++ & 4095]);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * sizeof(Big));
}
BENCHMARK(BM_Replace832);

void BM_Replace832_Roofline(benchmark::State &state) {
  Store &s = store();
  auto &a = bigArray();
  std::size_t i = 0;
  for (auto _ : state) {
    const Big &r = s.ring[i++ & 4095];
    std::memcpy(&a[r.key.label * kBigSlot + 16], &r, sizeof r);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * sizeof(Big));
}
BENCHMARK(BM_Replace832_Roofline);

// --- insert + erase of 32-byte records keyed by a growing version --------

void BM_InsertErase32(benchmark::State &state) {
  Store &s = store();
  auto &log = s.slate->log;
  static std::uint64_t version = 0;
  for (; version < kLogWindow; ++version) {
    log.insert(Log{version, version, 0, 0});
  }
  for (auto _ : state) {
    log.insert(Log{version, version, 1, 2});
    log.erase(version - kLogWindow);
    ++version;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InsertErase32);

void BM_InsertErase32_Roofline(benchmark::State &state) {
  auto &a = logArray();
  std::uint64_t version = 0;
  for (auto _ : state) {
    const Log r{version, version, 1, 2};
    std::memcpy(&a[(version % kLogWindow) * kLogSlot + 16], &r, sizeof r);
    std::memset(&a[((version + 1) % kLogWindow) * kLogSlot], 0, 8);
    benchmark::ClobberMemory();
    ++version;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InsertErase32_Roofline);

// --- one committed write of the library: replace the config record, log
// the change, retire an old log record, store the log version -------------

void BM_EntryIsPattern(benchmark::State &state) {
  Store &s = store();
  auto &log = s.slate->log;
  static std::uint64_t version = 1u << 30;
  for (std::uint64_t v = version - kLogWindow; v < version; ++v) {
    log.insert(Log{v, v, 0, 0});
  }
  std::size_t i = 0;
  for (auto _ : state) {
    s.slate->entries.insert(s.ring[i++ & 4095]);
    log.insert(Log{version, version, 1, 2});
    log.erase(version - kLogWindow);
    log.control().scratchpadIs(version);
    ++version;
  }
  for (std::uint64_t v = version - kLogWindow; v < version; ++v) {
    log.erase(v);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EntryIsPattern);

// --- find of 832-byte records ---------------------------------------------

void BM_Find832(benchmark::State &state) {
  Store &s = store();
  Big out;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.slate->entries.find(s.keys[i++ & 4095], out));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Find832);

void BM_Find832_Roofline(benchmark::State &state) {
  Store &s = store();
  auto &a = bigArray();
  Big out;
  std::size_t i = 0;
  for (auto _ : state) {
    std::memcpy(&out, &a[s.keys[i++ & 4095].label * kBigSlot + 16], sizeof out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Find832_Roofline);

// --- writer mount and reader scan of 65,536 x 832 bytes ------------------

void BM_WriterMount65536(benchmark::State &state) {
  Store &s = store();
  for (auto _ : state) {
    // Unmapping the old mapping is not part of the mount.
    state.PauseTiming();
    s.slate = nullptr;
    s.em->close();
    state.ResumeTiming();
    s.mount();
    if (s.slate->entries.count() != kBigCap) {
      state.SkipWithError("records lost");
    }
  }
  state.SetItemsProcessed(state.iterations() * kBigCap);
}
BENCHMARK(BM_WriterMount65536)->Unit(benchmark::kMillisecond)->Iterations(20);

// The big slate as a reader in another process sees it (a read handle).
struct ReaderView {
  ReaderView()
      : writer(store()), ro(Shm::entityManager(agent(), 0, Shm::Access::read)) {
    ro->mountGroup()->doMount("slate", Slate::kTypeName,
                              Shm::MountInfo(Shm::MountInfo::kReaderMount));
    slate = Fwk::ptrCast<Slate>(ro->entity("slate"));
  }
  ~ReaderView() { ro->close(); }
  Store &writer; // the writer keeps the records in place
  Fwk::Ptr<Shm::EntityManager> ro;
  Fwk::Ptr<Slate> slate;
};

void BM_ReaderScan65536(benchmark::State &state) {
  ReaderView v;
  const auto &slate = v.slate;
  for (auto _ : state) {
    std::size_t n = 0;
    slate->entries.forEach([&](const Big &) { ++n; });
    if (n != kBigCap) {
      state.SkipWithError("records lost");
    }
  }
  state.SetItemsProcessed(state.iterations() * kBigCap);
}
BENCHMARK(BM_ReaderScan65536)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_ReaderScanUnordered65536(benchmark::State &state) {
  ReaderView v;
  const auto &slate = v.slate;
  for (auto _ : state) {
    std::uint64_t sum = 0;
    slate->entries.forEachUnordered([&](const Big &r) { sum += r.version; });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kBigCap);
}
BENCHMARK(BM_ReaderScanUnordered65536)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

void BM_ReaderCountByScan65536(benchmark::State &state) {
  ReaderView v;
  const auto &slate = v.slate;
  for (auto _ : state) {
    benchmark::DoNotOptimize(slate->entries.countByScan());
  }
  state.SetItemsProcessed(state.iterations() * kBigCap);
}
BENCHMARK(BM_ReaderCountByScan65536)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

// Reading every byte of the slots once and copying them: the floor of both.
void BM_Mount65536_Roofline(benchmark::State &state) {
  auto &a = bigArray();
  std::vector<unsigned char> b(a.size());
  for (auto _ : state) {
    std::memcpy(b.data(), a.data(), a.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kBigCap);
}
BENCHMARK(BM_Mount65536_Roofline)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20);

} // namespace

BENCHMARK_MAIN();
