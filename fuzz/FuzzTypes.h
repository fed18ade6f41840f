// The entity type the store's fuzz target mounts: three small collections
// that between them take every path of the collection code (a key longer
// than 16 bytes hashed through XXH3, keys of 8 and 4 bytes mixed inline,
// flagged records, and a collection small enough to fill), in a file of five
// pages, so that an input stays small.
#pragma once

#include <cstdint>

#include "platform/shm/Store.h"

namespace FuzzShm {

struct WideKey {
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  std::uint32_t c = 0;
  std::uint32_t pad = 0;
};
static_assert(sizeof(WideKey) == 24, "longer than the inline hash");

struct WideRecord {
  WideKey key;
  std::uint64_t value = 0;
  std::uint8_t flagged = 0;
  std::uint8_t pad[7] = {};
  std::uint64_t fill[10] = {};
};
static_assert(sizeof(WideRecord) == 120);

struct LogRecord {
  std::uint64_t version = 0;
  std::uint64_t value = 0;
  std::uint64_t check = 0;
  std::uint64_t pad = 0;
};

struct SmallRecord {
  std::uint32_t key = 0;
  std::uint32_t value = 0;
};

struct WideTraits {
  using Key = WideKey;
  using Record = WideRecord;
  static Key keyOf(const Record &r) { return r.key; }
  static bool flagged(const Record &r) { return r.flagged != 0; }
  static constexpr const char *kRecordName = "FuzzShm::WideRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct LogTraits {
  using Key = std::uint64_t;
  using Record = LogRecord;
  static Key keyOf(const Record &r) { return r.version; }
  static constexpr const char *kRecordName = "FuzzShm::LogRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct SmallTraits {
  using Key = std::uint32_t;
  using Record = SmallRecord;
  static Key keyOf(const Record &r) { return r.key; }
  static constexpr const char *kRecordName = "FuzzShm::SmallRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};

class Slate : public Shm::Entity {
public:
  static constexpr const char *kTypeName = "FuzzShm::Slate";
  static constexpr const char *kPath = "fuzz/slate";
  // Each collection fits in one page.
  static constexpr std::uint32_t kWideCapacity = 6;
  static constexpr std::uint32_t kLogCapacity = 12;
  static constexpr std::uint32_t kSmallCapacity = 4;

  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName)
        .collection<SmallTraits>("small")
        .collection<LogTraits>("log")
        .collection<WideTraits>("wide");
  }
  static Shm::MountInfo writerInfo() {
    Shm::MountInfo info;
    info.collectionInfoIs("small", kSmallCapacity);
    info.collectionInfoIs("log", kLogCapacity);
    info.collectionInfoIs("wide", kWideCapacity);
    return info;
  }
  explicit Slate(Shm::EntityInit &init)
      : Shm::Entity(init), small_(init, "small"), log_(init, "log"),
        wide_(init, "wide") {}

  Shm::Collection<SmallTraits> &small() { return small_; }
  Shm::Collection<LogTraits> &log() { return log_; }
  Shm::Collection<WideTraits> &wide() { return wide_; }

private:
  Shm::Collection<SmallTraits> small_;
  Shm::Collection<LogTraits> log_;
  Shm::Collection<WideTraits> wide_;
};

// Records derived from a small number, so that inputs name keys that the
// seeds hold.
inline SmallRecord smallRecord(std::uint32_t k, std::uint32_t v) {
  return SmallRecord{k, v};
}
inline LogRecord logRecord(std::uint64_t version, std::uint64_t v) {
  return LogRecord{version, v, version * 0x9e3779b97f4a7c15ull ^ v, 0};
}
inline WideRecord wideRecord(std::uint32_t k, std::uint64_t v) {
  WideRecord r;
  r.key = WideKey{k, ~std::uint64_t{k}, k * 7u, 0};
  r.value = v;
  r.flagged = v % 3 == 0;
  for (std::uint64_t i = 0; i < std::size(r.fill); ++i) {
    r.fill[i] = (k + 1) * 0x100000001b3ull + v * 31 + i;
  }
  return r;
}

} // namespace FuzzShm
