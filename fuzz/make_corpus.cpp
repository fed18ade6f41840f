// fuzz_make_corpus DIR: writes the seed corpus of the fuzz targets,
// DIR/store/* and DIR/entrylog/*, from files that the store and the entry
// log really write (in a private store root), each cut to the pages in use
// and put behind the prelude its target reads. The checked-in corpus in
// fuzz/corpus/ was made by it:
//
//   build/fuzz/fuzz/fuzz_make_corpus fuzz/corpus
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "EntryLogFamilies.h"
#include "FuzzSupport.h"
#include "FuzzTypes.h"

namespace {

using namespace FuzzSupport;
using Bytes = std::vector<std::uint8_t>;

// The file's bytes up to the last slot ever used, trailing zeros cut: the
// targets extend an image to its header's size (kSizeFromHeader).
Bytes imageOf(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  Bytes all((std::istreambuf_iterator<char>(in)),
            std::istreambuf_iterator<char>());
  const format::FileHeader h = headerOf(all);
  std::uint64_t end =
      std::min<std::uint64_t>(all.size(), 2 * format::kPageSize);
  for (std::uint32_t c = 0; c < h.collectionCount; ++c) {
    const format::CollectionDesc &d = h.collections[c];
    format::ControlBlock cb{};
    std::memcpy(&cb, all.data() + d.controlOffset, sizeof cb);
    end = std::max(end, d.slotsOffset + cb.highWater * d.slotSize);
  }
  all.resize(std::min<std::uint64_t>(end, all.size()));
  while (!all.empty() && all.back() == 0) {
    all.pop_back();
  }
  return all;
}

void put(Bytes &out, std::size_t at, std::uint64_t v, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    out[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
  }
}

// Stores one 64-bit word of a file, as a damaged or very old file has it.
void pokeWord(const std::string &file, std::uint64_t offset, std::uint64_t v) {
  std::fstream f(file, std::ios::binary | std::ios::in | std::ios::out);
  f.seekp(static_cast<std::streamoff>(offset));
  f.write(reinterpret_cast<const char *>(&v), sizeof v);
}

void writeSeed(const std::filesystem::path &dir, const std::string &name,
               const Bytes &bytes) {
  std::filesystem::create_directories(dir);
  std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  std::printf("%s: %zu bytes\n", (dir / name).c_str(), bytes.size());
}

constexpr std::uint8_t kOps[7] = {0x01, 0x22, 0x43, 0x64, 0x85, 0xa6, 0xc7};

// ---- The store's seeds ----

Bytes storePrelude(std::uint8_t flags, const Damage &d = {}) {
  Bytes p(40, 0);
  p[0] = flags;
  std::copy(std::begin(kOps), std::end(kOps), p.begin() + 1);
  put(p, 8, d.offset, 8);
  p[16] = d.length;
  std::copy(std::begin(d.bytes), std::end(d.bytes), p.begin() + 17);
  return p;
}

void storeSeeds(const std::filesystem::path &dir) {
  using FuzzShm::Slate;
  auto em = Shm::entityManager("seeds", 0);
  auto make = [&](const std::string &name, std::uint8_t flags, auto &&fill,
                  const Damage &d = {},
                  const std::function<void(const std::string &)> &after = {}) {
    em->entityDel(Slate::kPath);
    auto group = em->mountGroup();
    group->doMount(Slate::kPath, Slate::kTypeName, Slate::writerInfo());
    auto s = Fwk::ptrCast<Slate>(em->entity(Slate::kPath));
    fill(*s);
    const std::string file = s->fileName();
    s = nullptr;
    group->doUnmount();
    if (after) {
      after(file);
    }
    Bytes seed = storePrelude(flags, d);
    const Bytes image = imageOf(file);
    seed.insert(seed.end(), image.begin(), image.end());
    writeSeed(dir, name, seed);
  };
  auto filled = [](Slate &s) {
    for (std::uint32_t k = 0; k < 3; ++k) {
      s.small().insert(FuzzShm::smallRecord(k, k + 10));
    }
    for (std::uint32_t k = 1; k <= 8; ++k) {
      s.log().insert(FuzzShm::logRecord(k, k * 3));
    }
    for (std::uint32_t k = 0; k < 4; ++k) {
      s.wide().insert(FuzzShm::wideRecord(k, k));
    }
  };
  make("empty", kSizeFromHeader, [](Slate &) {});
  make("filled", kSizeFromHeader, filled);
  make("churned", kSizeFromHeader | kFixRecords, [&](Slate &s) {
    filled(s);
    s.log().erase(2);
    s.log().erase(5);
    s.small().insert(FuzzShm::smallRecord(1, 99));
    s.wide().insert(FuzzShm::wideRecord(2, 7));
    s.wide().erase(FuzzShm::wideRecord(0, 0).key);
    s.log().insert(FuzzShm::logRecord(9, 1));
  });
  make("full", kSizeFromHeader | kFixHeader | kFixRecords, [](Slate &s) {
    for (std::uint32_t k = 0; k < Slate::kSmallCapacity; ++k) {
      s.small().insert(FuzzShm::smallRecord(k, k));
    }
    for (std::uint32_t k = 0; k < Slate::kWideCapacity; ++k) {
      s.wide().insert(FuzzShm::wideRecord(k, k + 1));
    }
  });
  // Damage to a value under the live mounts: the second record of "small",
  // the first collection, whose slots follow the header and control pages.
  Damage d;
  d.offset = 2 * format::kPageSize +
             format::slotSizeFor(sizeof(FuzzShm::SmallRecord)) +
             format::kSlotHeaderSize + offsetof(FuzzShm::SmallRecord, value);
  d.length = 2;
  d.bytes[0] = 0x5a;
  d.bytes[1] = 0xa5;
  make("damaged-live", kSizeFromHeader | kDamageLive, filled, d);
  // Sequence numbers two short of their end in every collection, as after
  // a very long life: the next changes take the last ones.
  make("sequence-near-end", kSizeFromHeader, filled, {},
       [](const std::string &file) {
         for (std::uint32_t c = 0; c < 3; ++c) {
           pokeWord(file,
                    format::kHeaderSize + c * sizeof(format::ControlBlock) +
                        offsetof(format::ControlBlock, commitSeq),
                    (format::kSeqMask - 2) << 1);
         }
       });
  em->close();
}

// ---- The entry log's seeds ----

template <typename F>
void entryLogSeed(const std::filesystem::path &dir, const std::string &name,
                  std::uint8_t flags, std::uint64_t confirmed,
                  std::uint64_t cleanup, auto &&changes) {
  const std::string inst =
      Shm::rootDirectory() + "/" + FuzzEntryLog::kAgent + ".0";
  std::filesystem::remove_all(inst);
  {
    auto stateDb = StateDb::entityManagerIs(FuzzEntryLog::kAgent, 0);
    auto group = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
    auto stats = Fwk::make<Asic::SwTableStats>();
    auto log = F::make(stateDb, group);
    log->mountSlateConfig(FuzzEntryLog::kUnit, 0);
    changes(*log, stats);
    log = nullptr;
    Shm::entityManager(FuzzEntryLog::kAgent, 0)->close();
  }
  const Bytes logImage =
      imageOf(inst + "/" + F::B::Constants::tableEntryLogSlatePath());
  const Bytes configImage = imageOf(
      inst + "/" + F::B::Constants::configSlatePath(FuzzEntryLog::kUnit));
  Bytes seed(56, 0);
  seed[0] = flags;
  std::copy(std::begin(kOps), std::end(kOps), seed.begin() + 1);
  put(seed, 36, logImage.size(), 4);
  put(seed, 40, confirmed, 8);
  put(seed, 48, cleanup, 8);
  seed.insert(seed.end(), logImage.begin(), logImage.end());
  seed.insert(seed.end(), configImage.begin(), configImage.end());
  writeSeed(dir, name, seed);
}

template <typename F>
void entryLogSeeds(const std::filesystem::path &dir, const std::string &family,
                   std::uint8_t familyFlag) {
  constexpr Asic::UnitId u = FuzzEntryLog::kUnit;
  const std::uint8_t flags = kSizeFromHeader | familyFlag;
  using Stats = Fwk::Ptr<Asic::SwTableStats>;
  auto written = [](typename F::Log &log, const Stats &stats) {
    for (std::uint32_t l = 1; l <= 5; ++l) {
      log.entryIs(F::logEntry(l, l * 10), F::rsrcKeys(l), nullptr, u, stats,
                  false);
    }
    log.entryDel(typename F::Key(2), nullptr, u);
  };
  entryLogSeed<F>(dir, family + "-fresh", flags, 0, 0,
                  [](typename F::Log &, const Stats &) {});
  entryLogSeed<F>(dir, family + "-written", flags, 0, 3, written);
  entryLogSeed<F>(dir, family + "-cleaned", flags | kFixRecords, 6, 4,
                  [&](typename F::Log &log, const Stats &stats) {
                    written(log, stats);
                    log.cleanupEntryLog(3);
                    log.tableDel(nullptr, u);
                    log.entryIs(F::logEntry(7, 1), F::rsrcKeys(7), nullptr, u,
                                stats, false);
                  });
  // A write cut off after its configuration record: the version reserved,
  // the record written, no change-log record and the change not marked
  // complete, as a killed agent leaves it.
  entryLogSeed<F>(
      dir, family + "-cut", flags | kFixHeader, 0, 0,
      [&](typename F::Log &log, const Stats &stats) {
        written(log, stats);
        const Asic::LogVersion v = log.tableVersion() + 1;
        log.tableEntryLog()->entryLogConfig().control().scratchpadIs(v);
        typename F::B::EntryLog::ConfigEntry r{};
        r.logEntry = F::logEntry(9, 90);
        r.rsrcKeys = F::rsrcKeys(9);
        r.logVersion = v;
        log.tableConfigSlate(u)->swTableEntriesIs(r);
      });
  // Versions two short of the largest, as after a very long life (or a
  // damaged scratchpad): the next changes take the last ones.
  entryLogSeed<F>(dir, family + "-versions-near-end", flags, 0, 0,
                  [&](typename F::Log &log, const Stats &stats) {
                    written(log, stats);
                    auto &control =
                        log.tableEntryLog()->entryLogConfig().control();
                    control.scratchpadIs(~Asic::LogVersion{0} - 2);
                    control.auxiliaryIs(~Asic::LogVersion{0} - 2);
                  });
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  ::setenv("MICA_AGENTLOG_FILE", "/dev/null", 1);
  static const Shm::EntityTypeRegistrar<FuzzShm::Slate> kSlateType;
  Root root("seeds");
  QuietReporter quiet;
  Shm::reporterIs(&quiet);
  const std::filesystem::path out(argv[1]);
  storeSeeds(out / "store");
  entryLogSeeds<FuzzEntryLog::Isem2>(out / "entrylog", "isem2", 0);
  entryLogSeeds<FuzzEntryLog::Lem>(out / "entrylog", "lem", 16);
  Shm::reporterIs(nullptr);
  return 0;
}
