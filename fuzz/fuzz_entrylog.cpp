// fuzz_entrylog: a damaged change log and configuration table under the
// entry log of a table type: its mount, its reads, its writes, its clean-up
// and its restart.
//
// An input is a prelude and two file images (see FuzzSupport.h for images
// and the flags of bits 0-3), the change log's and then unit 1's
// configuration table's:
//
//    0  u8      flags; also 16: the LEM family (else ISEM2), 32: the damage
//               goes to the configuration table (else to the change log)
//    1  u8[7]   operations, one per byte (see exercise())
//    8  u64     damage offset (modulo the length of the damaged file's image)
//   16  u8      damage length (modulo 17)
//   17  u8[16]  damage bytes
//   33  u8[3]   reserved
//   36  u32     length of the change log's image
//   40  u64     the version the hardware confirmed (mountSlateConfig)
//   48  u64     a version to clean up to
//   56  the change log's image, then the configuration table's
//
// One run: the images are put in place (their high-water marks kept within
// 64 slots of the pages they hold: see boundHighWater); a reader mounts and
// walks both; the entry log is made (it mounts the change log) and mounts the
// unit; the damage is written into the live file (kDamageLive) and the reader
// walks again; the entry log is read, written and cleaned; it is dropped and
// the store closed, as an agent exits, and (without live damage) a new one
// starts over the same files. Every error must be one of the store's
// exceptions. Without live damage the entry log must also keep its promises: no
// version handed out twice or below a record's, writes that read back,
// clean-ups that retire what they cover, and a restart that continues after
// every version used.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "EntryLogFamilies.h"
#include "FuzzSupport.h"
#include "platform/agentlog/AgentLog.h"

namespace {

using namespace FuzzSupport;
using FuzzEntryLog::kAgent;
using FuzzEntryLog::kUnit;

constexpr std::size_t kPrelude = 56;
// The files of the entry log are large and sparse (a unit's ISEM2 table is
// 56 MB), and their high-water marks are kept near the pages an input holds
// (boundHighWater).
constexpr std::uint64_t kMaxFileSize = 64ull << 20;
constexpr std::uint64_t kHighWaterSlack = 64;
constexpr Asic::LogVersion kLastVersion = ~Asic::LogVersion{0};
constexpr std::uint8_t kLem = 16;
constexpr std::uint8_t kDamageConfig = 32;

struct State {
  Root root{kAgent};
  QuietReporter reporter;
  Fwk::Ptr<Shm::EntityManager> reader;
};
State *state = nullptr;

struct Input {
  std::uint8_t flags = 0;
  std::uint8_t ops[7] = {};
  Damage damage;
  std::uint64_t confirmed = 0;
  std::uint64_t cleanup = 0;
  std::vector<std::uint8_t> logImage;
  std::vector<std::uint8_t> configImage;
};

Input parse(const std::uint8_t *data, std::size_t size) {
  const Reader in(data, size);
  Input i;
  i.flags = in.byte(0);
  for (std::size_t k = 0; k < 7; ++k) {
    i.ops[k] = in.byte(1 + k);
  }
  i.damage = in.damage(8);
  const std::size_t logBytes = static_cast<std::size_t>(in.uint(36, 4));
  i.confirmed = in.uint(40, 8);
  i.cleanup = in.uint(48, 8);
  i.logImage = in.bytes(kPrelude, logBytes);
  if (logBytes < size - std::min(size, kPrelude)) {
    i.configImage = in.bytes(kPrelude + logBytes, size);
  }
  return i;
}

template <typename F> std::string logPath() {
  return F::B::Constants::tableEntryLogSlatePath();
}
template <typename F> std::string configPath() {
  return F::B::Constants::configSlatePath(kUnit);
}

template <typename F> typename F::Key keyOf(std::uint32_t k) {
  return typename F::Key(k);
}
Asic::LogVersion versionOf(std::uint32_t k) {
  return k;
}

// A reader beside the agent (as the hardware writer and the inspector are):
// walks both files, whatever they hold.
template <typename F> void readerPass(const Input &in) {
  auto walk = [&](const std::string &path, const char *type, auto &&body) {
    auto group = state->reader->mountGroup();
    try {
      group->doMount(path, type, Shm::MountInfo(Shm::MountInfo::kReaderMount));
      body(state->reader->entity(path));
    } catch (const Shm::CorruptionError &) {
    } catch (const Shm::LayoutError &) {
    } catch (const Shm::NotFoundError &) {
    }
    group->doUnmount();
  };
  walk(logPath<F>(), F::LogSlate::kTypeName, [&](Fwk::Ptr<Shm::Entity> e) {
    auto s = Fwk::ptrCast<typename F::LogSlate>(e);
    require(s != nullptr, "a mounted change log is of another type");
    readerWalk(s->entryLogConfig(), in.ops, &versionOf);
  });
  walk(configPath<F>(), F::ConfigSlate::kTypeName,
       [&](Fwk::Ptr<Shm::Entity> e) {
         auto s = Fwk::ptrCast<typename F::ConfigSlate>(e);
         require(s != nullptr, "a mounted configuration is of another type");
         readerWalk(s->swTableEntries(), in.ops, &keyOf<F>);
       });
}

// An agent's entry log over the instance; dropped, with the store closed,
// when it ends, whatever happened.
template <typename F> struct Agent {
  Agent()
      : stateDb(StateDb::entityManagerIs(kAgent, 0)),
        group(Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls")),
        stats(Fwk::make<Asic::SwTableStats>()) {}
  ~Agent() {
    log = nullptr;
    Shm::entityManager(kAgent, 0)->close();
  }
  void start(const Input &in) {
    log = F::make(stateDb, group);
    log->mountSlateConfig(kUnit, in.confirmed);
  }

  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<Asic::SwTableStats> stats;
  Fwk::Ptr<typename F::Log> log;
};

// The highest version any record of the entry log carries. `strict`: every
// record must pass its checks.
template <typename F>
Asic::LogVersion highestVersion(typename F::Log &log, bool strict) {
  Asic::LogVersion highest = 0;
  auto &changes = log.tableEntryLog()->entryLogConfig();
  auto &config = log.tableConfigSlate(kUnit)->swTableEntries();
  auto see = [&](const auto &r) { highest = std::max(highest, r.logVersion); };
  const std::size_t drops =
      withDrops(changes, [&] { changes.forEachUnordered(see); }) +
      withDrops(config, [&] { config.forEachUnordered(see); });
  require(!strict || drops == 0,
          "a record the entry log's mount kept fails its checks");
  return highest;
}

// The entry log's reads and changes, one per operation byte: its low three
// bits choose what, the rest a label or an amount.
template <typename F>
void exercise(Agent<F> &agent, const Input &in, bool strict) {
  auto &log = *agent.log;
  auto &config = log.tableConfigSlate(kUnit)->swTableEntries();

  const Asic::LogVersion mounted = log.tableVersion();
  require(!strict || highestVersion<F>(log, strict) <= mounted,
          "a record carries a version above the table version after the "
          "mount (it would be handed out again)");
  require(log.entrys(kUnit) + log.entrysInDeletion(kUnit) == config.count(),
          "live and deleted entries do not add up to the unit's records");

  // Every key of the unit, read through the entry log.
  std::size_t keys = 0;
  for (auto k = config.firstKey(); k; k = config.nextKey(*k)) {
    require(++keys <= config.count(), "the unit's key walk does not end");
    const auto e = log.entry(*k, kUnit);
    (void)log.entryRsrcKeys(*k, kUnit);
    const bool has = log.entryHas(*k, kUnit);
    const Asic::LogVersion v = log.entryLogVersion(*k, kUnit);
    if (strict) {
      require(e.key == *k || v == 0, "an entry is stored under another key");
      require(!has || v <= log.tableVersion(),
              "an entry's version is above the table version");
    }
  }
  (void)log.entryLogRecords();
  (void)log.canLog(keyOf<F>(in.ops[0] >> 3), kUnit);

  for (std::size_t i = 0; i < 7; ++i) {
    const std::uint8_t op = in.ops[i];
    const std::uint32_t label = op >> 3;
    const typename F::Key key(label);
    const Asic::LogVersion before = log.tableVersion();
    // After the largest version there is no next one: a change then must be
    // refused, not handed version 0 or any other used before.
    auto noWrap = [&] {
      require(!strict || log.tableVersion() >= before,
              before == kLastVersion
                  ? "the table version wraps around after the largest "
                    "version (versions are handed out again)"
                  : "the table version went back");
    };
    auto freshVersion = [&](Asic::LogVersion v, const char *what) {
      noWrap();
      require(!strict || (v != 0 && v == before + 1 &&
                          log.tableVersion() == v && v > before),
              what);
    };
    switch (op & 7) {
    case 0:
    case 1: {
      // A write, suppressed when identical on odd operations.
      const auto le = F::logEntry(label, in.ops[(i + 1) % 7] + i);
      const auto rk = F::rsrcKeys(in.ops[(i + 2) % 7]);
      Asic::LogVersion v = 0;
      try {
        v = log.entryIs(le, rk, nullptr, kUnit, agent.stats, op & 1);
      } catch (const Shm::CollectionFullError &) {
        require(log.tableVersion() == before,
                "a write refused as full used a version");
        break;
      }
      if (v != 0 && v <= before && (op & 1)) {
        break; // suppressed: the stored version
      }
      freshVersion(v, "a write did not get the next version");
      if (strict) {
        require(log.entry(key, kUnit) == le && log.entryHas(key, kUnit) &&
                    log.entryRsrcKeys(key, kUnit) == rk &&
                    log.entryLogVersion(key, kUnit) == v,
                "a write does not read back");
        typename F::B::EntryLog::LogRecord logged;
        require(log.tableEntryLog()->entryLogConfig().find(v, logged) &&
                    logged.logEntry == le && logged.unitId == kUnit,
                "a write is not in the change log");
      }
      break;
    }
    case 2:
    case 3: {
      const bool had =
          log.entryLogVersion(key, kUnit) != 0 || config.contains(key);
      Asic::LogVersion v = 0;
      try {
        v = log.entryDel(key, nullptr, kUnit);
      } catch (const Shm::CollectionFullError &) {
        require(log.tableVersion() == before,
                "a deletion refused as full used a version");
        break;
      }
      if (v == 0) {
        require(!strict || (!had && log.tableVersion() == before),
                "a deletion of a present key logged nothing");
        break;
      }
      freshVersion(v, "a deletion did not get the next version");
      if (strict) {
        require(!log.entryHas(key, kUnit) &&
                    log.entryLogVersion(key, kUnit) == v,
                "a deleted entry is still live");
      }
      break;
    }
    case 4: {
      Asic::LogVersion v = 0;
      try {
        v = log.tableDel(nullptr, kUnit);
      } catch (const Shm::CollectionFullError &) {
        break;
      }
      freshVersion(v, "a table deletion did not get the next version");
      require(!strict || log.entrys(kUnit) == 0,
              "a table deletion left live entries");
      break;
    }
    case 5:
    case 6: {
      // Clean-up to a little below the table version, or to the input's
      // version taken below it: the hardware confirms only versions that
      // were handed out.
      const Asic::LogVersion to =
          (op & 7) == 5 ? before - std::min<Asic::LogVersion>(before, label)
          : before == kLastVersion ? in.cleanup
                                   : in.cleanup % (before + 1);
      const Asic::LogVersion mark = log.cleanupVersion();
      log.cleanupEntryLog(to);
      require(log.cleanupVersion() == to, "the clean-up mark did not move");
      if (strict && to != 0 && to >= mark) {
        auto &changes = log.tableEntryLog()->entryLogConfig();
        const auto first = changes.firstKey();
        std::size_t n = 0;
        for (auto k = first; k; k = changes.nextKey(*k)) {
          require(++n <= changes.count(), "the change log's walk does not end");
          require(*k > to, "a clean-up left a change it covers");
        }
      }
      break;
    }
    default: {
      // Reads of keys that may or may not be there.
      typename F::B::EntryLog::ConfigEntry r;
      withDrops(config, [&] { config.find(key, r); });
      (void)log.entryHas(key, kUnit);
      (void)log.entrysInDeletion(kUnit);
      break;
    }
    }
    noWrap();
  }
  if (strict) {
    require(highestVersion<F>(log, strict) <= log.tableVersion(),
            "a record carries a version above the table version");
  }
}

// Forgets the operator messages a run raised (a wiped collection raises
// one), so that a run keeps nothing: libFuzzer takes memory a run keeps for
// a leak to look into.
struct ForgetMessages {
  ~ForgetMessages() { AgentLog::raisedDelAll(); }
};

template <typename F> void run(const Input &in) {
  const ForgetMessages forget;
  const std::string dir = state->root.instanceDir();
  std::vector<std::uint8_t> logImage = in.logImage;
  std::vector<std::uint8_t> configImage = in.configImage;
  boundHighWater(logImage, kHighWaterSlack);
  boundHighWater(configImage, kHighWaterSlack);
  const std::string logFile =
      placeFile(dir, logPath<F>(), logImage, in.flags, kMaxFileSize);
  const std::string configFile =
      placeFile(dir, configPath<F>(), configImage, in.flags, kMaxFileSize);

  readerPass<F>(in);

  bool strict = true;
  Asic::LogVersion used = 0;
  {
    Agent<F> agent;
    agent.start(in);
    if (in.flags & kDamageLive) {
      const bool config = in.flags & kDamageConfig;
      strict = !damageFile(config ? configFile : logFile, in.damage,
                           (config ? configImage : logImage).size());
    }
    if (!strict) {
      readerPass<F>(in);
    }
    exercise(agent, in, strict);
    used = agent.log->tableVersion();
  }
  if (!strict) {
    return;
  }
  // The next agent starts where this one stopped.
  Agent<F> next;
  next.start(in);
  require(next.log->tableVersion() >= used,
          "a restart hands out versions that were used before it");
  require(highestVersion<F>(*next.log, true) <= next.log->tableVersion(),
          "after a restart a record carries a version above the table "
          "version");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ::setenv("MICA_AGENTLOG_FILE", "/dev/null", 1);
  state = new State;
  Shm::reporterIs(&state->reporter);
  // Makes the instance, the directories of the entities and the catalog.
  {
    Input empty;
    Agent<FuzzEntryLog::Isem2> isem2;
    isem2.start(empty);
  }
  {
    Input empty;
    Agent<FuzzEntryLog::Lem> lem;
    lem.start(empty);
  }
  state->reader = Shm::entityManager(kAgent, 0, Shm::Access::read);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data,
                                      std::size_t size) {
  const Input in = parse(data, size);
  try {
    if (in.flags & kLem) {
      run<FuzzEntryLog::Lem>(in);
    } else {
      run<FuzzEntryLog::Isem2>(in);
    }
  } catch (const Shm::Error &) {
    // A clean refusal of the store.
  } catch (const SetAside &) {
    return -1;
  }
  return 0;
}
