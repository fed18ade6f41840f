// Costs of the trace facility and of key hashing:
//   - a disabled trace whose argument would be expensive to format (one load
//     and one bit test: the argument is never touched);
//   - an enabled trace into a sink that drops the record (formatting the
//     message of a typical record), and the same trace written to /dev/null
//     (the message, the whole line and its write(2));
//   - one message into the always-on ring;
//   - hashing an 8-byte label key, and HashMap lookups and inserts of such
//     keys at 64K elements.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "platform/framework/Hash.h"
#include "platform/framework/HashMap.h"
#include "platform/trace/Trace.h"

namespace {

// A label key as the tables have it: label, sub-index, explicit padding.
struct LabelKey {
  std::uint32_t label;
  std::uint8_t sub;
  std::uint8_t pad[3];
  std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Fwk::hashBytes(this, sizeof *this, seed);
  }
  bool operator==(const LabelKey &) const = default;
};
static_assert(sizeof(LabelKey) == 8, "an 8-byte key, padding included");

} // namespace

// Deliberately slow to format: a disabled trace must never get here.
template <> struct fmt::formatter<LabelKey> {
  constexpr auto parse(fmt::format_parse_context &ctx)
      -> decltype(ctx.begin()) {
    return ctx.begin();
  }
  auto format(const LabelKey &k, fmt::format_context &ctx) const
      -> decltype(ctx.out()) {
    return fmt::format_to(ctx.out(), "label:{:#x}, sub:{}, hash:{:08x}",
                          k.label, k.sub, Fwk::hashBytes(&k, sizeof k, 0));
  }
};

namespace {

Trace::Handle &th() {
  static Trace::Handle h("BenchSwTable");
  return h;
}

class NullSink : public Trace::Sink {
public:
  void write(const Trace::Record &r) override {
    benchmark::DoNotOptimize(r.message.data());
  }
};

void BM_TraceDisabled(benchmark::State &state) {
  Trace::Handle &h = th();
  h.maskIs(0);
  LabelKey key{16, 1, {}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(&key);
    MICA_TRACE(h, 8, "MicaMpls/BenchSwTable", "BenchSwTable",
               " key: {}, version: {}", key, 42);
  }
}
BENCHMARK(BM_TraceDisabled);

void BM_TraceEnabledNullSink(benchmark::State &state) {
  Trace::Handle &h = th();
  h.maskIs(0xffff);
  NullSink sink;
  Trace::sinkIs(&sink);
  LabelKey key{16, 1, {}};
  std::uint32_t version = 0;
  for (auto _ : state) {
    MICA_TRACE(h, 8, "MicaMpls/BenchSwTable", "BenchSwTable",
               " key: {}, version: {}, valid: {}", key, ++version, true);
  }
  Trace::sinkIs(nullptr);
  h.maskIs(0);
}
BENCHMARK(BM_TraceEnabledNullSink);

// The same record written as a whole line to /dev/null: message, timestamp,
// line layout and one write(2).
void BM_TraceEnabledDevNull(benchmark::State &state) {
  ::setenv("MICA_TRACE_FILE", "/dev/null", 1);
  Trace::configureFromEnvironment();
  Trace::Handle &h = th();
  h.maskIs(0xffff);
  LabelKey key{16, 1, {}};
  std::uint32_t version = 0;
  for (auto _ : state) {
    MICA_TRACE(h, 8, "MicaMpls/BenchSwTable", "BenchSwTable",
               " key: {}, version: {}, valid: {}", key, ++version, true);
  }
  h.maskIs(0);
  ::unsetenv("MICA_TRACE_FILE");
  Trace::configureFromEnvironment();
}
BENCHMARK(BM_TraceEnabledDevNull);

// One message into the always-on ring (a mapped file under /tmp).
void BM_RingWrite(benchmark::State &state) {
  char dir[] = "/tmp/mica-bench-ring-XXXXXX";
  if (::mkdtemp(dir) == nullptr) {
    state.SkipWithError("mkdtemp failed");
    return;
  }
  const std::string trace = std::string(dir) + "/bench.trace";
  ::setenv("MICA_TRACE_FILE", trace.c_str(), 1);
  Trace::configureFromEnvironment();
  std::int64_t swept = 0;
  for (auto _ : state) {
    MICA_TRACE_RING("MicaMpls/BenchSwTable", "BenchSwTable", "Swept {} entries",
                    ++swept);
  }
  ::unsetenv("MICA_TRACE_FILE");
  Trace::configureFromEnvironment();
  ::unlink((trace + ".ring").c_str());
  ::rmdir(dir);
}
BENCHMARK(BM_RingWrite);

// n distinct keys; different salts give disjoint sets (a multiply by an odd
// constant is a bijection on 20-bit labels).
std::vector<LabelKey> keys(std::size_t n, std::uint32_t salt) {
  std::mt19937 rng(salt);
  std::vector<LabelKey> v(n);
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = static_cast<std::uint32_t>(i + salt * n);
    v[i] = LabelKey{
        (x * 2654435761u) & 0xfffffu, static_cast<std::uint8_t>(rng() & 3), {}};
  }
  return v;
}

void BM_KeyHash(benchmark::State &state) {
  const auto ks = keys(1024, 1);
  const std::uint32_t seed = Fwk::processHashSeed();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Fwk::keyHash(ks[i++ & 1023], seed));
  }
}
BENCHMARK(BM_KeyHash);

constexpr std::size_t k64K = 64 * 1024;

void BM_HashMapFind64K(benchmark::State &state) {
  const auto ks = keys(k64K, 2);
  Fwk::HashMap<LabelKey, std::uint32_t> map;
  for (std::size_t i = 0; i < ks.size(); ++i) {
    map.insert(ks[i], static_cast<std::uint32_t>(i));
  }
  // Lookups in a scrambled order, half of them for absent keys.
  const auto absent = keys(k64K, 3);
  std::size_t i = 0;
  for (auto _ : state) {
    const LabelKey &k =
        (i & 1) ? absent[(i * 7919) % k64K] : ks[(i * 7919) % k64K];
    benchmark::DoNotOptimize(map.find(k));
    ++i;
  }
  state.counters["size"] = static_cast<double>(map.size());
}
BENCHMARK(BM_HashMapFind64K);

void BM_HashMapInsert64K(benchmark::State &state) {
  const auto ks = keys(k64K, 4);
  for (auto _ : state) {
    Fwk::HashMap<LabelKey, std::uint32_t> map;
    for (std::size_t i = 0; i < ks.size(); ++i) {
      map.insert(ks[i], static_cast<std::uint32_t>(i));
    }
    benchmark::DoNotOptimize(map.size());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(k64K));
}
BENCHMARK(BM_HashMapInsert64K)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
