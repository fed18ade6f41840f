// Entity types and helpers shared by the store's tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/shm/Store.h"
#include "support/Files.h"
#include "support/Fork.h"

namespace ShmTest {

struct BigKey {
  std::uint32_t label = 0;
  std::uint32_t unit = 0;
  bool operator==(const BigKey &) const = default;
};

// 832 bytes, like the library's config slate entries. Every byte after the
// key and value is derived from them, so a torn record cannot pass.
struct BigRecord {
  BigKey key;
  std::uint64_t value = 0;
  std::uint8_t flagged = 0;
  std::uint8_t pad[7] = {};
  std::uint64_t fill[101] = {};
};
static_assert(sizeof(BigRecord) == 832);

struct LogRecord {
  std::uint64_t version = 0;
  std::uint64_t value = 0;
  std::uint64_t check1 = 0;
  std::uint64_t check2 = 0;
};
static_assert(sizeof(LogRecord) == 32);

struct SmallRecord {
  std::uint32_t key = 0;
  std::uint32_t value = 0;
};

inline std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

inline BigRecord bigRecord(std::uint32_t label, std::uint64_t value) {
  BigRecord r;
  r.key = BigKey{label, label % 4};
  r.value = value;
  r.flagged = value % 3 == 0;
  for (std::size_t i = 0; i < std::size(r.fill); ++i) {
    r.fill[i] = mix(label * 1000003ull + value * 31 + i);
  }
  return r;
}
inline bool bigConsistent(const BigRecord &r) {
  const BigRecord want = bigRecord(r.key.label, r.value);
  return std::memcmp(&want, &r, sizeof r) == 0;
}

inline LogRecord logRecord(std::uint64_t version, std::uint64_t value) {
  return LogRecord{version, value, mix(version ^ value), mix(value + 7)};
}
inline bool logConsistent(const LogRecord &r) {
  return r.check1 == mix(r.version ^ r.value) && r.check2 == mix(r.value + 7);
}

struct BigTraits {
  using Key = BigKey;
  using Record = BigRecord;
  static Key keyOf(const Record &r) { return r.key; }
  static bool flagged(const Record &r) { return r.flagged != 0; }
  static constexpr const char *kRecordName = "ShmTest::BigRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct LogTraits {
  using Key = std::uint64_t;
  using Record = LogRecord;
  static Key keyOf(const Record &r) { return r.version; }
  static constexpr const char *kRecordName = "ShmTest::LogRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct SmallTraits {
  using Key = std::uint32_t;
  using Record = SmallRecord;
  static Key keyOf(const Record &r) { return r.key; }
  static constexpr const char *kRecordName = "ShmTest::SmallRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};

// Three collections in one file.
class Slate : public Shm::Entity {
public:
  static constexpr const char *kTypeName = "ShmTest::Slate";
  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName)
        .collection<BigTraits>("big")
        .collection<LogTraits>("log")
        .collection<SmallTraits>("small");
  }
  explicit Slate(Shm::EntityInit &init)
      : Shm::Entity(init), big_(init, "big"), log_(init, "log"),
        small_(init, "small") {}
  Shm::Collection<BigTraits> &big() { return big_; }
  Shm::Collection<LogTraits> &log() { return log_; }
  Shm::Collection<SmallTraits> &small() { return small_; }

private:
  Shm::Collection<BigTraits> big_;
  Shm::Collection<LogTraits> log_;
  Shm::Collection<SmallTraits> small_;
};

// One collection of small records.
class Table : public Shm::Entity {
public:
  static constexpr const char *kTypeName = "ShmTest::Table";
  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName).collection<SmallTraits>("entries");
  }
  explicit Table(Shm::EntityInit &init)
      : Shm::Entity(init), entries_(init, "entries") {}
  Shm::Collection<SmallTraits> &entries() { return entries_; }

private:
  Shm::Collection<SmallTraits> entries_;
};

inline Shm::MountInfo slateInfo(std::uint32_t big = 64, std::uint32_t log = 256,
                                std::uint32_t small = 8) {
  Shm::MountInfo info;
  info.collectionInfoIs("big", big);
  info.collectionInfoIs("log", log);
  info.collectionInfoIs("small", small);
  return info;
}
inline Shm::MountInfo tableInfo(std::uint32_t capacity) {
  Shm::MountInfo info;
  info.collectionInfoIs("entries", capacity);
  return info;
}
inline Shm::MountInfo readerInfo() {
  return Shm::MountInfo(Shm::MountInfo::kReaderMount);
}

template <typename E>
Fwk::Ptr<E> mount(const Fwk::Ptr<Shm::EntityManager> &em,
                  const std::string &path, const Shm::MountInfo &info) {
  em->mountGroup()->doMount(path, E::kTypeName, info);
  return Fwk::ptrCast<E>(em->entity(path));
}

// A fresh agent name per test, its instance directory removed.
inline std::string freshAgent(const std::string &suffix = "") {
  const auto *t = testing::UnitTest::GetInstance()->current_test_info();
  std::string name =
      std::string(t->test_suite_name()) + "-" + t->name() + suffix;
  for (char &c : name) {
    if (c == '/') {
      c = '-';
    }
  }
  std::filesystem::remove_all(Shm::rootDirectory() + "/" + name + ".0");
  return name;
}

// The permission bits of a file or directory.
inline mode_t modeOf(const std::string &path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

inline std::string instanceDir(const std::string &agent) {
  return Shm::rootDirectory() + "/" + agent + ".0";
}

// Collects the store's reports.
struct CaptureReporter : Shm::Reporter {
  CaptureReporter() { Shm::reporterIs(this); }
  ~CaptureReporter() override { Shm::reporterIs(nullptr); }
  void corruption(const std::string &m) override { corruptions.push_back(m); }
  void notice(const std::string &m) override { notices.push_back(m); }
  std::vector<std::string> corruptions;
  std::vector<std::string> notices;
};

using TestSupport::flipByte;
using TestSupport::forkChild;
using TestSupport::peek;
using TestSupport::pokeBytes;
using TestSupport::readFile;
using TestSupport::waitExit;
using TestSupport::writeFile;

} // namespace ShmTest
