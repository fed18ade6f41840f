// The persistent records of a table type's entry log, and the two
// shared-memory entities that hold them, written once for every table family.
//
// ConfigSlate (one per unit, collection `swTableEntries`, 65,536 records):
// the last committed state of every key of the unit's table.
//
//   ConfigSlateEntry   rsrcKeys | logEntry | pad | logVersion | isDeleted | pad
//   ISEM2: 800 + 16 + 0 + 8 + 1 + 7 = 832 bytes; LEM: 4 + 24 + 4 + 8 + 1 + 7 =
//   48
//
// EntryLogSlate (one per table type, collection `entryLogConfig`, 1,000,000
// records, keyed by log version): one record per logged change, until the
// hardware has taken it. Its collection control's scratchpad holds the table
// version, the last log version handed out.
//
//   LogSlateEntry      logVersion | logEntry | unitId | deleteBits | pad
//   ISEM2: 8 + 16 + 2 + 1 + 5 = 32 bytes; LEM: 8 + 24 + 2 + 1 + 5 = 40
//   deleteBits: 0 a write, 1 a delete of one entry, 2 a delete of the table.
//
// Padding fields are explicit and always zero, so checksums and equality see
// only meaningful bytes; a default-constructed record stands for absence.
#pragma once

#include <cstdint>

#include "OrderedTable/TableBinding.h"
#include "platform/asic/Types.h"
#include "platform/framework/Record.h"
#include "platform/shm/OneCollectionEntity.h"
#include "platform/shm/Store.h"

namespace Asic {

namespace detail {
constexpr std::size_t padTo8(std::size_t n) {
  return (8 - n % 8) % 8;
}
} // namespace detail

// Operations shared by the two layouts of a configuration record.
template <typename Rec, typename B> struct ConfigSlateEntryOps {
  friend bool operator==(const Rec &a, const Rec &b) noexcept {
    return Fwk::bytesEqual(a, b);
  }
  // Equality with the default record, which stands for absence.
  bool isEq(const Rec &o) const noexcept { return self() == o; }
  // The committed entry: its resource keys followed by its log entry.
  typename B::Entry entry() const noexcept {
    return B::Entry::fromParts(self().rsrcKeys, self().logEntry);
  }

private:
  const Rec &self() const noexcept { return static_cast<const Rec &>(*this); }
};

template <typename B>
constexpr std::size_t
    kConfigPad = detail::padTo8(sizeof(typename B::ResourceKeys) +
                                sizeof(typename B::LogEntry));

// Whether a configuration record is marked deleted: 0 live, anything else
// deleted (the entry log writes 1). A byte rather than a bool: records are
// read from shared memory, where a damaged byte may hold any value, and
// loading a bool that is neither 0 nor 1 is undefined behaviour.
using DeletedMark = std::uint8_t;

// A configuration record. Its layout has an explicit padding field between
// the log entry and the version when the two parts do not end on 8 bytes.
template <typename B, bool Padded = (kConfigPad<B> != 0)>
struct ConfigSlateEntry : ConfigSlateEntryOps<ConfigSlateEntry<B, Padded>, B> {
  typename B::ResourceKeys rsrcKeys;
  typename B::LogEntry logEntry;
  std::uint8_t pad0[kConfigPad<B>] = {};
  LogVersion logVersion = 0;
  DeletedMark isDeleted = 0;
  std::uint8_t pad1[7] = {};
};

template <typename B>
struct ConfigSlateEntry<B, false>
    : ConfigSlateEntryOps<ConfigSlateEntry<B, false>, B> {
  typename B::ResourceKeys rsrcKeys;
  typename B::LogEntry logEntry;
  LogVersion logVersion = 0;
  DeletedMark isDeleted = 0;
  std::uint8_t pad1[7] = {};
};

template <typename B> struct LogSlateEntry {
  using LogEntry = typename B::LogEntry;
  static constexpr std::uint8_t kEntryDelete = 1;
  static constexpr std::uint8_t kTableDelete = 2;

  LogVersion logVersion = 0;
  LogEntry logEntry;
  UnitId unitId = 0;
  std::uint8_t deleteBits = 0;
  std::uint8_t pad[detail::padTo8(sizeof(LogVersion) + sizeof(LogEntry) +
                                  sizeof(UnitId) + 1)] = {};

  bool isEntryDelete() const noexcept { return deleteBits & kEntryDelete; }
  bool isTableDelete() const noexcept { return deleteBits & kTableDelete; }
  bool operator==(const LogSlateEntry &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
};

template <typename B> struct ConfigSlateRecordTraits {
  using Key = typename B::Key;
  using Record = ConfigSlateEntry<B>;
  static_assert(Fwk::PlainRecord<Record>,
                "configuration records are plain bytes");
  static Key keyOf(const Record &r) noexcept { return r.logEntry.key; }
  // The collection counts records marked deleted in O(1).
  static bool flagged(const Record &r) noexcept { return r.isDeleted != 0; }
  static constexpr const char *kRecordName = B::kConfigSlateEntryType;
  static constexpr std::uint32_t kRecordVersion = 1;
};

template <typename B> struct LogSlateRecordTraits {
  using Key = LogVersion;
  using Record = LogSlateEntry<B>;
  static Key keyOf(const Record &r) noexcept { return r.logVersion; }
  static bool flagged(const Record &) noexcept { return false; }
  static constexpr const char *kRecordName = B::kLogSlateEntryType;
  static constexpr std::uint32_t kRecordVersion = 1;
};

// Entities of one collection (the common shape lives with the store).
using Shm::OneCollectionEntity;

template <typename B> struct ConfigSlateNames {
  static constexpr const char *kTypeName = B::kConfigSlateType;
  static constexpr const char *kCollection = "swTableEntries";
  static constexpr std::uint32_t kCapacity = 65536;
};

template <typename B> struct EntryLogSlateNames {
  static constexpr const char *kTypeName = B::kEntryLogSlateType;
  static constexpr const char *kCollection = "entryLogConfig";
  static constexpr std::uint32_t kCapacity = 1000000;
};

// One unit's configuration table.
template <typename B>
class ConfigSlate : public OneCollectionEntity<ConfigSlateRecordTraits<B>,
                                               ConfigSlateNames<B>> {
public:
  using OneCollectionEntity<ConfigSlateRecordTraits<B>,
                            ConfigSlateNames<B>>::OneCollectionEntity;
  using Collection = Shm::Collection<ConfigSlateRecordTraits<B>>;

  Collection &swTableEntries() noexcept { return this->collection_; }
  const Collection &swTableEntries() const noexcept {
    return this->collection_;
  }
  // Inserts or replaces the record of its key.
  void swTableEntriesIs(const ConfigSlateEntry<B> &r) {
    this->collection_.insert(r);
  }
  void swTableEntriesDel(const typename B::Key &key) {
    this->collection_.erase(key);
  }
};

// The table type's change log.
template <typename B>
class EntryLogSlate : public OneCollectionEntity<LogSlateRecordTraits<B>,
                                                 EntryLogSlateNames<B>> {
public:
  using OneCollectionEntity<LogSlateRecordTraits<B>,
                            EntryLogSlateNames<B>>::OneCollectionEntity;
  using Collection = Shm::Collection<LogSlateRecordTraits<B>>;

  Collection &entryLogConfig() noexcept { return this->collection_; }
  const Collection &entryLogConfig() const noexcept {
    return this->collection_;
  }
  void entryLogConfigIs(const LogSlateEntry<B> &r) {
    this->collection_.insert(r);
  }
  void entryLogConfigDel(LogVersion v) { this->collection_.erase(v); }
};

} // namespace Asic
