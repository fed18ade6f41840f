// Shm::Collection<Traits>: a fixed-capacity keyed collection of records in a
// mapped entity file. Users include platform/shm/Store.h.
//
// Traits describe the records (see RecordTraits below):
//
//   struct ConfigRecordTraits {
//     using Key = MplsIsem2EntryKey;
//     using Record = MplsIsem2ConfigSlateEntry;
//     static Key keyOf(const Record &r) { return r.key; }
//     // Optional: the collection counts the records it flags.
//     static bool flagged(const Record &r) { return r.markedDeleted; }
//     static constexpr const char *kRecordName =
//         "MicaMpls::MplsIsem2ConfigSlateEntry";
//     static constexpr std::uint32_t kRecordVersion = 1;
//     // Optional: the writer's index is sized for the capacity at mount
//     // (see presize() below), for a collection that fills up with its
//     // table and is not walked in key order.
//     static constexpr bool kPresizeIndex = true;
//   };
//
//   auto &c = slate->swTableEntries();
//   c.insert(rec);                               // insert or replace
//   try {
//     MplsIsem2ConfigSlateEntry r;
//     if (c.find(key, r)) use(r);
//   } catch (const Shm::CorruptionError &e) {
//     c.doCorruptionDetected(e.what());          // reported, counted, dropped
//   }
//   for (auto k = c.firstKey(); k; k = c.nextKey(*k)) maybeErase(*k);
//
// Writer (the entity was mounted by the instance's writer). Keeps a private
// index, rebuilt at every mount from the slots, in the order (XXH3-64 of the
// key bytes seeded with the file's seed, then the key bytes). Costs are
// expected O(1) unless noted.
//   capacity, count, flaggedCount      O(1)
//   find, findRef                      verify the record's checksum and key;
//                                      throw CorruptionError when they fail
//   insert                             insert or replace; a new key when
//                                      count() == capacity() throws
//                                      CollectionFullError and changes nothing,
//                                      and so does one the file system has no
//                                      space for (NoSpaceError, see below);
//                                      any insert throws Shm::Error, changing
//                                      nothing, once the sequence numbers of
//                                      the collection are used up
//   roomForNewKey, reserveNewKey       whether such an insert would succeed
//   at, recordAt, insertAt, eraseAt    one lookup for a change that checks,
//                                      reads and then writes one key: at()
//                                      locates the key and answers whether it
//                                      is there (and flagged) without reading
//                                      the record; insertAt() builds the new
//                                      record in its slot (no copy of it is
//                                      made first)
//   erase                              true when the key was there
//   firstKey, nextKey, lowerBoundKey   the order; nextKey(k) and
//                                      lowerBoundKey(k) work whether or not k
//                                      is present. Read the index only: never
//                                      throw, never touch the file.
//   firstPos, nextPos, lowerBoundPos,  the same order by position, for a
//   keyAtPos, recordAtPos              walk that does not change the
//                                      collection; recordAtPos verifies as
//                                      findRef does
//   forEach(f)                         f(const Record &) in order, each
//                                      verified first (throws CorruptionError
//                                      at a bad one, after calling f for the
//                                      records before it)
// Invalidation: insert, erase and doCorruptionDetected invalidate every
// pointer returned by findRef and any forEach in progress (f must not change
// the collection). Keys are values: a walk by firstKey/nextKey stays valid
// across any change, and erasing the key just returned is the usual way to
// drain a collection in order.
//
// Reader (mounted with Access::read, typically in another process). Keeps no
// index; everything is a bounded scan of the slots below the high-water mark:
//   find                O(slots used); the newest copy of the key
//   forEach(f)          copies the live records, then calls f in the
//                       writer's order. Tries a few times for a scan that no
//                       change overlapped; lastScanConsistent() tells whether
//                       it got one. A scan that overlapped changes still
//                       returns only whole records that were committed, but a
//                       record changed meanwhile may show its old or new
//                       value, or (when replaced mid-scan) be missed.
//   forEachUnordered(f) one pass in slot order, no copies kept: for
//                       streaming (see its comment for what a concurrent
//                       replace does to it)
//   countByScan         the live slots of one such scan
// count(), flaggedCount(), the key walk, insert and erase are writer-only
// (assertion).
//
// Full file system: the writer never stores into a page of the file that the
// file system has not allocated (a store into a hole of a full tmpfs raises
// SIGBUS). Space is reserved ahead of the high-water mark, a chunk at a time,
// and always covers one free slot beyond the records: a replace takes it and
// frees the old copy's slot, an erase frees one, so neither ever needs more
// space. Only a new key may; when the file system refuses it, the insert
// throws NoSpaceError (a CollectionFullError) and changes nothing.
//
// Corruption: a record whose seal, checksum or key is wrong raises
// CorruptionError naming file, collection and slot. The caller passes its
// what() to doCorruptionDetected(), which reports it to the Reporter, counts
// it (corruptionCount()) and drops the record by its slot, whatever its bytes
// say (its key may be the damaged part): the writer frees the slot and
// forgets the index entry that points at it; a reader (or a closed writer
// handle) remembers the slot and seal and treats it as absent until the
// writer reuses the slot. So a scan that is retried after each drop meets
// every bad record once. Corruption
// found by the mount scan is reported, counted and dropped directly.
//
// NOT thread-safe: one thread uses a collection at a time. Readers in other
// processes are always safe.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "platform/Export.h"
#include "platform/framework/Assert.h"
#include "platform/framework/Bytes.h"
#include "platform/framework/Hash.h"
#include "platform/framework/OrderedProbe.h"
#include "platform/shm/Entity.h"
#include "platform/shm/Errors.h"
#include "platform/shm/Format.h"
#include "platform/shm/SlotReader.h"
#include "platform/shm/SlotWriter.h"

namespace Shm {

namespace detail {
class CollectionCore;
} // namespace detail

// What a collection needs to know of its records. `flagged` is optional: the
// collection keeps an O(1) count of the records it returns true for.
template <typename T>
concept RecordTraits = requires(const typename T::Record &r) {
  typename T::Key;
  { T::keyOf(r) } -> std::convertible_to<typename T::Key>;
  { T::kRecordName } -> std::convertible_to<const char *>;
  { T::kRecordVersion } -> std::convertible_to<std::uint32_t>;
};

// The per-collection control words in the file.
class MICA_PLATFORM_API CollectionControl {
public:
  // Set when the collection was recreated empty because its contents were
  // lost; stays set (across remounts) until clearWiped().
  bool wiped() const noexcept {
    return detail::loadWord(block_->wiped, std::memory_order_acquire) != 0;
  }
  // REQUIRES: writer.
  void clearWiped();

  // A word of the collection's owner, kept with the records. [W5/R5] The
  // store is a release and the load an acquire: a reader that sees a value
  // sees every change the writer made to the collection before storing it.
  std::uint64_t scratchpad() const noexcept {
    return detail::loadWord(block_->scratchpad, std::memory_order_acquire);
  }
  // REQUIRES: writer.
  void scratchpadIs(std::uint64_t v) {
    requireWriter();
    detail::beforeStore(detail::WriteStep::control);
    detail::wordAt(block_->scratchpad).store(v, std::memory_order_release);
  }

  // A second word of the owner, with the same guarantees.
  std::uint64_t auxiliary() const noexcept {
    return detail::loadWord(block_->auxiliary, std::memory_order_acquire);
  }
  // REQUIRES: writer.
  void auxiliaryIs(std::uint64_t v) {
    requireWriter();
    detail::beforeStore(detail::WriteStep::control);
    detail::wordAt(block_->auxiliary).store(v, std::memory_order_release);
  }

  // A third word of the owner, with the same guarantees.
  std::uint64_t epoch() const noexcept {
    return detail::loadWord(block_->epoch, std::memory_order_acquire);
  }
  // REQUIRES: writer.
  void epochIs(std::uint64_t v) {
    requireWriter();
    detail::beforeStore(detail::WriteStep::control);
    detail::wordAt(block_->epoch).store(v, std::memory_order_release);
  }

  // The high-water mark and the commit sequence word, for tools and tests.
  std::uint64_t highWater() const noexcept {
    return detail::loadWord(block_->highWater, std::memory_order_acquire);
  }
  std::uint64_t commitSequence() const noexcept {
    return detail::loadWord(block_->commitSeq, std::memory_order_acquire);
  }

private:
  friend class detail::CollectionCore;
  void requireWriter() const {
    FWK_ASSERT_MSG(writer_ && !file_->closed.load(std::memory_order_relaxed),
                   "shared-memory control of {} is read-only or closed",
                   file_->filePath);
  }

  format::ControlBlock *block_ = nullptr;
  const detail::MountedFile *file_ = nullptr;
  bool writer_ = false;
};

namespace detail {

// The part of a collection that does not depend on its record type.
class MICA_PLATFORM_API CollectionCore {
public:
  CollectionCore(const CollectionCore &) = delete;
  CollectionCore &operator=(const CollectionCore &) = delete;

  const std::string &name() const noexcept { return site_.name; }
  std::uint32_t capacity() const noexcept { return site_.desc.capacity; }
  bool writer() const noexcept { return site_.writer; }
  CollectionControl &control() noexcept { return control_; }
  const CollectionControl &control() const noexcept { return control_; }
  std::uint64_t corruptionCount() const noexcept { return corruptions_; }
  // Duplicate copies of a key (left by a replace that a crash interrupted)
  // that the last writer mount resolved.
  std::uint64_t recoveredAtMount() const noexcept { return recovered_; }
  // Reader: whether the last forEach/countByScan/find scan overlapped no
  // change of the writer.
  bool lastScanConsistent() const noexcept { return lastScanConsistent_; }

protected:
  explicit CollectionCore(const CollectionSite &site);
  ~CollectionCore();

  unsigned char *slotAt(std::uint32_t i) const noexcept {
    return site_.slots + static_cast<std::size_t>(i) * site_.desc.slotSize;
  }
  static std::uint64_t sealAt(const unsigned char *slot) noexcept {
    return loadWord(reinterpret_cast<const format::SlotHeader *>(slot)->seal,
                    std::memory_order_relaxed);
  }
  static std::uint64_t checksumAt(const unsigned char *slot) noexcept {
    return reinterpret_cast<const format::SlotHeader *>(slot)->checksum;
  }
  // The index hash of a key under the file's seed. Keys of up to 16 bytes
  // (every key in use) are mixed inline: a call through XXH3's CPU dispatch
  // costs more than the mixing of one or two words.
  std::uint64_t hashBytes(const void *key, std::size_t n) const noexcept {
    if (n <= 16) {
      std::uint64_t a = 0, b = 0;
      std::memcpy(&a, key, n < 8 ? n : 8);
      if (n > 8) {
        std::memcpy(&b, static_cast<const unsigned char *>(key) + 8, n - 8);
      }
      // fmix64 is a bijection: keys of up to 8 bytes never collide.
      return Fwk::fmix64(Fwk::fmix64(a ^ site_.hashSeed) ^ b);
    }
    return Fwk::hashBytes64(key, n, site_.hashSeed);
  }
  void requireWriter() const {
    if (!site_.writer || site_.file->closed.load(std::memory_order_relaxed))
        [[unlikely]] {
      writerRequired();
    }
  }
  [[noreturn]] void writerRequired() const;
  [[noreturn]] void throwCorrupt(std::uint32_t slot,
                                 const std::string &detail) const;
  [[noreturn]] void throwFull(const void *key, std::size_t keySize) const;
  [[noreturn]] void throwExhausted() const;
  std::string describe(std::uint32_t slot, const std::string &detail) const;
  // Reports and counts one corruption the caller deals with itself.
  void reportCorruption(const std::string &message);

  // Writer: a free slot, taken from the free list or beyond the high-water
  // mark (after storing the mark, W1). REQUIRES: one exists, which the
  // callers ensure from count() and the spare slot.
  std::uint32_t takeSlot() {
    if (!free_.empty()) [[likely]] {
      const std::uint32_t s = free_.back();
      free_.pop_back();
      return s;
    }
    return freshSlot();
  }
  // Writer: makes sure one more free slot can be remembered without
  // allocating, so nothing after a commit point can throw.
  void freeRoom() {
    if (free_.size() == free_.capacity()) [[unlikely]] {
      growFree();
    }
  }
  std::uint32_t freshSlot();
  void growFree();
  // Writer: whether a new key can go in with every store landing on space
  // the file system has allocated: the slot the insert takes and a spare for
  // the next replace must both be backed. Reserves space when they are not;
  // false when the file system refuses it (spaceError_ says why).
  bool spaceForNewKey() {
    const std::size_t freeSlots = free_.size();
    if (freeSlots >= 2 || backed_ >= hw_ + 2 - freeSlots) [[likely]] {
      return true;
    }
    return backSlots(hw_ + 2 - static_cast<std::uint32_t>(freeSlots));
  }
  // Writer: makes sure slots [0, n) (at most all) are backed, reserving
  // somewhat more than asked so that inserts seldom call the file system.
  // `mapIn`: also map the newly reserved pages in at once (inserts are about
  // to store into them; a mount only keeps a spare).
  bool backSlots(std::uint32_t n, bool mapIn = true);
  // Throws NoSpaceError (ENOSPC, EDQUOT) or Error for spaceError_.
  [[noreturn]] void throwNoSpace(const std::string &what) const;
  [[noreturn]] void throwNoSpace(const void *key, std::size_t keySize) const;
  // Writer: starts fetching the slot the next takeSlot() returns, for
  // writing, so that its cache lines arrive while the checksum and the index
  // lookup run.
  void prefetchDestination() const noexcept {
    const std::uint32_t next = free_.empty() ? hw_ : free_.back();
    if (next < site_.desc.slotCount) {
      prefetchSlot(next, true);
    }
  }
  // Starts fetching every cache line of a slot, to read or to write.
  void prefetchSlot(std::uint32_t slot, bool forWrite) const noexcept {
    const unsigned char *s = slotAt(slot);
    for (std::uint32_t off = 0; off < site_.desc.slotSize; off += 64) {
      if (forWrite) {
        __builtin_prefetch(s + off, 1);
      } else {
        __builtin_prefetch(s + off, 0);
      }
    }
  }

  // Writer mount: the high-water mark, bounded by slotsInFile() (and
  // reported when it is beyond them by more than a crash leaves); prefaults
  // that part of the mapping.
  std::uint32_t mountBegin();
  // Writer mount, per slot: frees a slot whose record was dropped or lost a
  // duplicate.
  void mountDrop(std::uint32_t slot, const std::string &detail);
  void mountFree(std::uint32_t slot);
  // Writer mount, last: lowers the mark to just past the last slot that
  // holds a record, and continues the sequence numbers after the largest
  // seal (`maxSeq`) and the commit word, when that word is plausible (it is
  // reported and ignored otherwise).
  void mountFinish(std::uint32_t hw, std::uint64_t maxSeq);

  // Writer: one change, around the stores of SlotWriter.h.
  std::uint64_t beginChange() noexcept {
    const std::uint64_t seq = nextSeq_++;
    detail::beginChange(*site_.control, seq);
    return seq;
  }
  void endChange(std::uint64_t seq) noexcept {
    detail::endChange(*site_.control, seq);
  }

  // Reader: whether (slot, seal) was dropped by doCorruptionDetected.
  bool droppedByReader(std::uint32_t slot, std::uint64_t seal) const;
  void dropByReader(std::uint32_t slot, std::uint64_t seal);
  // The slots of the collection that lie in the file as it is now: within
  // its size (which damage may have cut since the mount) and starting before
  // the end of its last written page (a page never written holds no seal,
  // and touching it would make a sparse file allocate it). Costs an fstat
  // and a few lseeks: for mounts and scans, not per record.
  std::uint32_t slotsInFile() const;
  // The slots a scan visits: the writer's own mark, or the file's mark
  // bounded by slotsInFile().
  std::uint32_t scanEnd() const {
    return site_.writer ? hw_ : highWater(*site_.control, slotsInFile());
  }
  std::uint64_t commitWord() const noexcept {
    return loadWord(site_.control->commitSeq, std::memory_order_acquire);
  }
  static constexpr unsigned kScanTries = 3;

  CollectionSite site_;
  CollectionControl control_;
  std::uint64_t corruptions_ = 0;
  std::uint64_t recovered_ = 0;
  mutable bool lastScanConsistent_ = true;
  // Writer state, rebuilt at mount.
  std::uint32_t hw_ = 0;
  // Slots [0, backed_) have their file space reserved. Between changes a
  // free slot is always backed: one below the mark, or backed_ > hw_.
  std::uint32_t backed_ = 0;
  int spaceError_ = 0;
  std::uint64_t nextSeq_ = 1;
  std::vector<std::uint32_t> free_;
  // Reader state: slots dropped as corrupt, with the seal they had.
  mutable std::unordered_map<std::uint32_t, std::uint64_t> dropped_;
};

} // namespace detail

template <RecordTraits Traits>
class Collection : public detail::CollectionCore {
public:
  using Key = typename Traits::Key;
  using Record = typename Traits::Record;

  static_assert(StorableRecords<Record, Key>);

  // Binds the collection `name` of the entity being mounted. A writer scans
  // the slots: checks every record, resolves duplicates left by a crash and
  // rebuilds the index and free list. Throws LayoutError when the file's
  // collection does not hold these records.
  Collection(EntityInit &init, const std::string &name)
      : CollectionCore(init.site(layoutOf(name))) {
    if (writer()) {
      mountScan();
    }
  }

  static CollectionLayout layoutOf(const std::string &name) {
    return CollectionLayout{name, Traits::kRecordName, Traits::kRecordVersion,
                            static_cast<std::uint32_t>(sizeof(Key)),
                            static_cast<std::uint32_t>(sizeof(Record))};
  }

  // Writer only.
  std::size_t count() const {
    requireView();
    return index_.size();
  }
  std::size_t flaggedCount() const {
    requireView();
    return flagged_;
  }

  // Whether the index holds the key, without reading (or checking) its
  // record. Writer only.
  bool contains(const Key &key) const {
    requireView();
    return locate(key).found;
  }

  // find() with the usual answer to corrupt shared memory built in: a record
  // that fails its checks is handed to doCorruptionDetected() (reported,
  // counted, dropped) and the key reads as absent, `out` as a default record.
  bool findOrDrop(const Key &key, Record &out) {
    try {
      return find(key, out);
    } catch (const CorruptionError &e) {
      doCorruptionDetected(e.what());
      out = Record{};
      return false;
    }
  }

  // The record of the key, copied into `out`. Throws CorruptionError when it
  // fails its checks. Reader: a scan (see the top of the file).
  bool find(const Key &key, Record &out) const {
    if (!writer()) {
      return scanFind(key, out);
    }
    const Record *r = findRef(key);
    if (!r) {
      return false;
    }
    std::memcpy(&out, r, sizeof(Record));
    return true;
  }

  // Writer only: the record of the key in place, verified, or null. Valid
  // until the next insert, erase or doCorruptionDetected.
  const Record *findRef(const Key &key) const {
    requireView();
    const auto p = locate(key);
    return p.found ? recordAtPos(p.pos) : nullptr;
  }

  // Starts fetching what a lookup or an insert of the key will touch (its
  // index entry and the slot the next insert writes), so that a caller with
  // several collections to change can overlap their memory latencies.
  // Changes nothing. Writer only; a no-op for readers.
  void prefetch(const Key &key) const noexcept {
    if (writer()) {
      index_.prefetch(hashBytes(&key, sizeof(Key)));
      prefetchDestination();
    }
  }

  // Starts fetching the record of a key, for a caller that knows which keys
  // it reads next: the slot, when the key's index entry is at hand (call
  // prefetch() some keys earlier to have it fetched). Changes nothing.
  // Writer only; a no-op for readers.
  void prefetchRecord(const Key &key) const noexcept {
    if (!writer()) {
      return;
    }
    const auto p = locate(key);
    if (p.found) {
      prefetchSlot(index_.at(p.pos).slot, false);
    }
  }

  // Where a key is, or would be inserted: found once, then used to check,
  // read and write the key without another lookup. Valid until the index
  // changes shape (an insert of a new key, an erase, a drop of a corrupt
  // record); a stale one is noticed and looked up again. A replace keeps it
  // valid.
  class Place {
  public:
    bool found() const noexcept { return found_; }
    // Whether the key's record is flagged (Traits::flagged), from the
    // index: no record is read.
    bool flagged() const noexcept { return found_ && (flags_ & kFlagged); }

  private:
    friend class Collection;
    Key key_{};
    std::uint64_t hash_ = 0;
    std::size_t pos_ = 0;
    std::uint64_t shape_ = 0;
    std::uint32_t flags_ = 0;
    bool found_ = false;
  };
  // REQUIRES: writer.
  Place at(const Key &key) const {
    requireView();
    Place p;
    p.key_ = key;
    p.hash_ = hashBytes(&key, sizeof(Key));
    refresh(p);
    return p;
  }
  // The record at a place where the key was found, verified as findRef
  // does; null when it is not there.
  const Record *recordAt(Place &p) const {
    refresh(p);
    return p.found_ ? verified(index_.at(p.pos_)) : nullptr;
  }
  // The two ends of an insert, shared by insert() and insertAt():
  // write(slot) fills a free slot with the record, which is then published.
  // Replacing publishes the new copy before the old one is unpublished, so
  // that a reader always finds one of them.
  template <typename Write>
  void replaceRecord(std::size_t pos, std::uint32_t flags, std::uint64_t seal,
                     Write &&write) {
    freeRoom();
    const std::uint32_t slot = takeSlot();
    unsigned char *s = slotAt(slot);
    const std::uint64_t seq = beginChange();
    write(s);
    detail::publish(s, seal);
    Entry &e = index_.at(pos);
    detail::unpublish(slotAt(e.slot));
    endChange(seq);
    free_.push_back(e.slot);
    flagged_ += (flags & kFlagged ? 1 : 0) - (e.flags & kFlagged ? 1 : 0);
    e.slot = slot;
    e.flags = flags;
  }
  // Adds a new key at `hint` (where the lookup left off); returns its
  // position. Throws CollectionFullError or NoSpaceError with nothing
  // changed.
  template <typename Hint, typename Write>
  std::size_t addRecord(std::uint64_t hash, const Key &key,
                        std::uint32_t flags, std::uint64_t seal, Hint hint,
                        Write &&write) {
    if (index_.size() >= capacity()) {
      throwFull(&key, sizeof(Key));
    }
    if (!spaceForNewKey()) [[unlikely]] {
      throwNoSpace(&key, sizeof(Key));
    }
    freeRoom();
    const std::uint32_t slot = takeSlot();
    std::size_t pos;
    try {
      pos = index_.insertNew(hash, cmpTo(key), Entry{hash, slot, flags, key},
                             hint);
    } catch (...) {
      free_.push_back(slot);
      throw;
    }
    ++shape_;
    unsigned char *s = slotAt(slot);
    const std::uint64_t seq = beginChange();
    write(s);
    detail::publish(s, seal);
    endChange(seq);
    flagged_ += flags & kFlagged ? 1 : 0;
    return pos;
  }

  // Inserts or replaces the key's record at its place, built by
  // fill(Record &) in the slot it goes to: fill must write every byte of
  // the record (padding included) and its key must be the place's. Throws
  // as insert() does, with nothing changed; afterwards the place holds the
  // key.
  template <typename Fill> void insertAt(Place &p, bool flagged, Fill &&fill) {
    requireWriter();
    if (nextSeq_ > format::kSeqMask) [[unlikely]] {
      throwExhausted();
    }
    refresh(p);
    const std::uint32_t flags = kUsed | (flagged ? kFlagged : 0);
    const std::uint64_t seal = format::sealOf(nextSeq_);
    const auto write = [&](unsigned char *s) { buildRecord(s, seal, fill); };
    if (p.found_) {
      // The old copy's seal is stored to below; fetch it meanwhile.
      __builtin_prefetch(slotAt(index_.at(p.pos_).slot), 1);
      replaceRecord(p.pos_, flags, seal, write);
      p.flags_ = flags;
      return;
    }
    p.pos_ = addRecord(p.hash_, p.key_, flags, seal,
                       typename Array::Pos{p.pos_, false}, write);
    p.found_ = true;
    p.flags_ = flags;
    p.shape_ = shape_;
  }
  // Removes the key's record at its place. True when it was there.
  bool eraseAt(Place &p) {
    requireWriter();
    refresh(p);
    if (!p.found_) {
      return false;
    }
    freeRoom();
    Entry &e = index_.at(p.pos_);
    const std::uint32_t slot = e.slot;
    const std::uint64_t seq = beginChange();
    detail::unpublish(slotAt(slot));
    endChange(seq);
    free_.push_back(slot);
    flagged_ -= e.flags & kFlagged ? 1 : 0;
    index_.eraseAt(p.pos_);
    ++shape_;
    maybeShrink();
    refresh(p);
    return true;
  }

  // Whether an insert() of a new key would succeed now: the collection has
  // room and the file system has space for the record (reserved here, so the
  // insert cannot then fail for want of it). Changes no record.
  // REQUIRES: writer.
  bool roomForNewKey() {
    requireWriter();
    return index_.size() < capacity() && spaceForNewKey();
  }
  // The same, but throws what that insert would: CollectionFullError, or
  // NoSpaceError. REQUIRES: writer.
  void reserveNewKey() {
    requireWriter();
    if (index_.size() >= capacity()) {
      throwFull(nullptr, 0);
    }
    if (!spaceForNewKey()) {
      throwNoSpace(nullptr, 0);
    }
  }

  // Inserts the record or replaces the one of its key.
  // REQUIRES: writer. Throws CollectionFullError (nothing changed) for a new
  // key when count() == capacity(), NoSpaceError (nothing changed) for one
  // the file system has no space for.
  void insert(const Record &r) {
    requireWriter();
    if (nextSeq_ > format::kSeqMask) [[unlikely]] {
      throwExhausted();
    }
    const Key key = Traits::keyOf(r);
    const std::uint64_t h = hashBytes(&key, sizeof(Key));
    prefetchDestination();
    index_.prefetch(h);
    // Checksum the caller's copy while it is cache-hot and while the key's
    // index entry and the destination slot are on their way.
    const std::uint64_t seal = format::sealOf(nextSeq_);
    const std::uint64_t ck = format::recordChecksum(&r, sizeof(Record), seal);
    const auto p = index_.lowerBound(h, cmpTo(key));
    if (p.found) {
      // The old copy's seal is stored to below; fetch it meanwhile.
      __builtin_prefetch(slotAt(index_.at(p.pos).slot), 1);
    }
    const std::uint32_t flags = kUsed | (flaggedOf(r) ? kFlagged : 0);
    const auto write = [&](unsigned char *s) {
      detail::writeRecord(s, &r, sizeof(Record), ck);
    };
    if (p.found) {
      replaceRecord(p.pos, flags, seal, write);
      return;
    }
    addRecord(h, key, flags, seal, p, write);
  }

  // Removes the key's record. True when it was there. REQUIRES: writer.
  bool erase(const Key &key) {
    requireWriter();
    Place p = at(key);
    return eraseAt(p);
  }

  // The order. Writer only.
  // The key walk reads only the writer's index, never a record: it does not
  // throw CorruptionError.
  std::optional<Key> firstKey() const { return keyAt(firstPos()); }
  // The first key after `key` in the order, present or not.
  // With `ahead` > 0 it also starts fetching the record `ahead` places
  // further on, for a walk in order that reads it some steps later.
  std::optional<Key> nextKey(const Key &key, unsigned ahead = 0) const {
    requireView();
    const auto p = locate(key);
    return keyAt(usedFrom(p.found ? p.pos + 1 : p.pos, ahead));
  }
  // `key` when present, else the first key after it.
  std::optional<Key> lowerBoundKey(const Key &key) const {
    return keyAt(lowerBoundPos(key));
  }

  // The order by position, for a walk that reads records as it goes and
  // would otherwise look each key up three times (its bound, its record,
  // its successor). A position is valid until the next insert, erase or
  // doCorruptionDetected; a walk that changes the collection, or resumes
  // later, goes by keys. Writer only.
  static constexpr std::size_t kEnd = ~std::size_t{0}; // the index's npos
  // The position of `key` when present, else of the first key after it.
  std::size_t lowerBoundPos(const Key &key) const {
    requireView();
    return index_.nextUsed(locate(key).pos);
  }
  std::size_t firstPos() const {
    requireView();
    return index_.nextUsed(0);
  }
  // The next position; with `ahead` > 0, as nextKey.
  std::size_t nextPos(std::size_t pos, unsigned ahead = 0) const {
    return usedFrom(pos + 1, ahead);
  }
  const Key &keyAtPos(std::size_t pos) const { return index_.at(pos).key; }
  // The record at a position, verified as findRef does.
  const Record *recordAtPos(std::size_t pos) const {
    return verified(index_.at(pos));
  }

  // f(const Record &) for every record, in order.
  template <typename F> void forEach(F &&f) const {
    if (!writer()) {
      scanForEach(f);
      return;
    }
    for (std::size_t pos = index_.nextUsed(0); pos != Array::npos;
         pos = index_.nextUsed(pos + 1)) {
      f(*verified(index_.at(pos)));
    }
  }

  // f(const Record &) for every live record in slot order: one pass, no
  // allocation, the cheapest way for a reader to stream a collection. Not in
  // the collection's order; during a replace that overlaps the pass both
  // copies of the key (old, then new) or neither may be seen
  // (lastScanConsistent() is false then). Reader or writer; O(slots used).
  // Throws CorruptionError at a bad record.
  template <typename F> void forEachUnordered(F &&f) const {
    Record rec;
    const std::uint64_t c0 = commitWord(); // R4
    bool complete = true;
    const std::uint32_t hw = scanEnd();
    for (std::uint32_t i = 0; i < hw; ++i) {
      std::uint64_t seal = 0;
      const detail::SlotRead got =
          detail::readSlot(slotAt(i), &rec, sizeof rec, seal);
      if (got == detail::SlotRead::busy) {
        complete = false;
      } else if (got != detail::SlotRead::free && !droppedByReader(i, seal)) {
        if (got == detail::SlotRead::bad) {
          pending_.push_back(Pending{i, seal, Traits::keyOf(rec)});
          throwCorrupt(i, format::sealValid(seal) ? "checksum mismatch"
                                                  : "the seal is not valid");
        }
        f(static_cast<const Record &>(rec));
      }
    }
    std::atomic_thread_fence(std::memory_order_acquire); // R2 for the pass
    const std::uint64_t c1 =
        detail::loadWord(site_.control->commitSeq, std::memory_order_relaxed);
    lastScanConsistent_ = complete && c0 == c1 && (c0 & 1) == 0;
  }

  // f(const Record &) for every record in slot order, each verified in
  // place, without a copy: the cheapest walk of a whole collection for its
  // writer (readers get forEachUnordered). f must not change the
  // collection. Throws CorruptionError at a bad record, after calling f for
  // the records before it.
  template <typename F> void forEachInPlace(F &&f) const {
    if (!writer()) {
      forEachUnordered(f);
      return;
    }
    requireView();
    for (std::uint32_t i = 0; i < hw_; ++i) {
      const unsigned char *s = slotAt(i);
      const std::uint64_t seal = sealAt(s);
      if (seal == 0) {
        continue;
      }
      const auto *r =
          reinterpret_cast<const Record *>(s + format::kSlotHeaderSize);
      if (!format::sealValid(seal) ||
          format::recordChecksum(r, sizeof(Record), seal) != checksumAt(s))
          [[unlikely]] {
        if (droppedByReader(i, seal)) {
          continue; // dropped through a closed handle
        }
        pending_.push_back(Pending{i, seal, Traits::keyOf(*r)});
        throwCorrupt(i, format::sealValid(seal) ? "checksum mismatch"
                                                : "the seal is not valid");
      }
      f(*r);
    }
  }

  // The live slots found by one scan. Reader or writer; O(slots used).
  std::size_t countByScan() const {
    std::size_t n = 0;
    scanConsistently(
        [&](std::uint32_t) { n = 0; },
        [&](std::uint32_t, std::uint64_t, const Record &) { ++n; });
    return n;
  }

  // Reports `message`, counts it, and drops every record whose failed check
  // raised a CorruptionError since the last call.
  void doCorruptionDetected(const std::string &message) {
    reportCorruption(message);
    for (const Pending &p : pending_) {
      // A closed writer handle changes nothing: like a reader, it skips the
      // slot while it holds that seal.
      if (!writer() || site_.file->closed.load(std::memory_order_relaxed)) {
        dropByReader(p.slot, p.seal);
        continue;
      }
      dropSlot(p.slot, p.seal, p.key);
    }
    pending_.clear();
  }

private:
  static constexpr std::uint32_t kUsed = 1;
  static constexpr std::uint32_t kFlagged = 2;

  struct Entry {
    std::uint64_t hash = 0;
    std::uint32_t slot = 0;
    std::uint32_t flags = 0;
    Key key{};
  };
  struct Ops {
    using Hash = std::uint64_t;
    static constexpr bool kZeroBytesUnused = true; // flags 0: unused
    static bool used(const Entry &e) noexcept { return e.flags & kUsed; }
    static Hash hashOf(const Entry &e) noexcept { return e.hash; }
    static void vacate(Entry &e) noexcept { e.flags = 0; }
  };
  using Array = Fwk::detail::OrderedProbeArray<Entry, Ops>;
  static_assert(Array::npos == kEnd);

  struct Pending {
    std::uint32_t slot;
    std::uint64_t seal;
    Key key;
  };

  static bool flaggedOf(const Record &r) {
    if constexpr (requires { Traits::flagged(r); }) {
      return Traits::flagged(r);
    } else {
      return false;
    }
  }
  static bool sameKey(const Key &a, const Key &b) noexcept {
    return Fwk::compareBytes<sizeof(Key)>(&a, &b) == 0;
  }
  static auto cmpTo(const Key &key) noexcept {
    return [&key](const Entry &e) {
      return Fwk::compareBytes<sizeof(Key)>(&e.key, &key);
    };
  }
  typename Array::Pos locate(const Key &key) const {
    return index_.lowerBound(hashBytes(&key, sizeof(Key)), cmpTo(key));
  }
  // Locates a place again when the index changed shape since.
  void refresh(Place &p) const {
    if (p.shape_ == shape_) {
      return;
    }
    const auto at = index_.lowerBound(p.hash_, cmpTo(p.key_));
    p.pos_ = at.pos;
    p.found_ = at.found;
    p.flags_ = at.found ? index_.at(at.pos).flags : 0;
    p.shape_ = shape_;
  }
  // The record bytes and checksum of a change, built in slot `s` (whose
  // seal is 0, inside beginChange): the store steps of writeRecord, with
  // the record written by `fill` instead of copied.
  template <typename Fill>
  void buildRecord(unsigned char *s, std::uint64_t seal, Fill &&fill) {
    detail::beforeStore(detail::WriteStep::record);
    auto *r = reinterpret_cast<Record *>(s + format::kSlotHeaderSize);
    fill(*r);
    const std::uint64_t ck = format::recordChecksum(r, sizeof(Record), seal);
    detail::beforeStore(detail::WriteStep::checksum);
    detail::wordAt(detail::slotHeader(s).checksum)
        .store(ck, std::memory_order_relaxed);
  }
  std::optional<Key> keyAt(std::size_t pos) const {
    if (pos == Array::npos) {
      return std::nullopt;
    }
    return index_.at(pos).key;
  }
  // The first used position at or after `from`; with `ahead` > 0 it also
  // starts fetching the record `ahead` used positions further on.
  std::size_t usedFrom(std::size_t from, unsigned ahead) const {
    const std::size_t next = index_.nextUsed(from);
    if (ahead > 0) {
      std::size_t at = next;
      for (unsigned i = 0; i < ahead && at != Array::npos; ++i) {
        at = index_.nextUsed(at + 1);
      }
      if (at != Array::npos) {
        prefetchSlot(index_.at(at).slot, false);
      }
    }
    return next;
  }
  void requireView() const {
    FWK_ASSERT_MSG(writer(),
                   "collection {} of {}: only the writer keeps an index",
                   name(), site_.file->filePath);
  }
  // The index is given back only when the collection empties. Shrinking a
  // non-empty index would pack what is left at the global load, but the
  // keys left after an ordered walk that erases (a clean-up) sit in one part
  // of the hash range: packed, they would form long runs that every later
  // insert and erase has to shift.
  //
  // A collection whose traits ask for it (kPresizeIndex) has its writer's
  // index sized at mount for its capacity, so that filling it never
  // rebuilds the index (a rebuild moves every entry at once). A presized
  // index is sparse until the collection fills, and a walk in key order
  // (firstKey/nextKey, forEach) steps over every slot of it, so it suits a
  // collection that fills up with its table and is not walked in order: the
  // resource allocations. The others grow as they fill; the change log,
  // which holds only what the hardware has yet to confirm, keeps a small
  // index that stays in cache.
  std::size_t presize() const noexcept {
    if constexpr (requires { Traits::kPresizeIndex; }) {
      // Room for twice the capacity: a load of at most 1/4 when full.
      return Traits::kPresizeIndex ? 2 * std::size_t{capacity()} : 0;
    }
    return 0;
  }
  void maybeShrink() {
    if (index_.size() == 0 && index_.slots() > 4096 &&
        index_.slots() > presizedSlots_) {
      ++shape_;
      index_.clear();
      if (const std::size_t n = presize()) {
        index_.reserve(n);
      }
    }
  }

  // Writer: frees `slot` if it still holds `seal`, and forgets the index
  // entry that points at it. `key` is what the slot was read under: the
  // index's key (found at once) or the record's own bytes, which may be the
  // damaged part; then the entry is found by a walk of the index, which is
  // rare enough to be cheap. A sealed slot that no entry points at is one
  // the free list already holds (its seal was damaged while it was free):
  // it is only cleared.
  void dropSlot(std::uint32_t slot, std::uint64_t seal, const Key &key) {
    if (slot >= hw_ || sealAt(slotAt(slot)) != seal) {
      return; // already dropped or changed since
    }
    std::size_t pos = Array::npos;
    if (const auto p = locate(key); p.found && index_.at(p.pos).slot == slot) {
      pos = p.pos;
    } else {
      for (std::size_t q = index_.nextUsed(0); q != Array::npos;
           q = index_.nextUsed(q + 1)) {
        if (index_.at(q).slot == slot) {
          pos = q;
          break;
        }
      }
    }
    freeRoom();
    const std::uint64_t seq = beginChange();
    detail::unpublish(slotAt(slot));
    endChange(seq);
    if (pos != Array::npos) {
      free_.push_back(slot);
      flagged_ -= index_.at(pos).flags & kFlagged ? 1 : 0;
      index_.eraseAt(pos);
      ++shape_;
    }
  }

  // Writer: the record of an index entry, checked in place.
  const Record *verified(const Entry &e) const {
    const unsigned char *s = slotAt(e.slot);
    const std::uint64_t seal = sealAt(s);
    const auto *r =
        reinterpret_cast<const Record *>(s + format::kSlotHeaderSize);
    const char *why = nullptr;
    if (!format::sealValid(seal)) {
      why = "the seal is not valid";
    } else if (format::recordChecksum(r, sizeof(Record), seal) !=
               checksumAt(s)) {
      why = "checksum mismatch";
    } else if (!sameKey(Traits::keyOf(*r), e.key)) {
      why = "the record's key is not the key it is indexed under";
    }
    if (why) [[unlikely]] {
      pending_.push_back(Pending{e.slot, seal, e.key});
      throwCorrupt(e.slot, why);
    }
    return r;
  }

  void mountScan() {
    const std::uint32_t hw = mountBegin();
    std::uint64_t maxSeq = 0;
    // Checked records are collected and sorted in the index order first, so
    // that the index is then filled front to back instead of at random.
    struct Found {
      std::uint64_t hash;
      std::uint64_t seq;
      std::uint32_t slot;
      std::uint32_t flags;
      Key key;
    };
    std::vector<Found> found;
    found.reserve(hw);
    for (std::uint32_t i = 0; i < hw; ++i) {
      unsigned char *s = slotAt(i);
      const std::uint64_t seal = sealAt(s);
      if (seal == 0) {
        mountFree(i);
        continue;
      }
      if (!format::sealValid(seal)) {
        mountDrop(i, "the seal is not valid");
        continue;
      }
      const auto *r =
          reinterpret_cast<const Record *>(s + format::kSlotHeaderSize);
      if (format::recordChecksum(r, sizeof(Record), seal) != checksumAt(s)) {
        mountDrop(i, "checksum mismatch");
        continue;
      }
      const std::uint64_t seq = seal & format::kSeqMask;
      maxSeq = std::max(maxSeq, seq);
      const Key key = Traits::keyOf(*r);
      found.push_back(Found{hashBytes(&key, sizeof(Key)), seq, i,
                            kUsed | (flaggedOf(*r) ? kFlagged : 0), key});
    }
    std::sort(found.begin(), found.end(), [](const Found &a, const Found &b) {
      if (a.hash != b.hash) {
        return a.hash < b.hash;
      }
      const int c = Fwk::compareBytes<sizeof(Key)>(&a.key, &b.key);
      return c != 0 ? c < 0 : a.seq > b.seq;
    });
    index_.reserve(std::max(found.size(), presize()));
    presizedSlots_ = index_.slots();
    for (std::size_t j = 0; j < found.size(); ++j) {
      const Found &f = found[j];
      if (j > 0 && f.hash == found[j - 1].hash &&
          sameKey(f.key, found[j - 1].key)) {
        // Two copies: a replace was interrupted after publishing the new
        // copy. The newer one (sorted first) is the outcome of the replace.
        ++recovered_;
        mountFree(f.slot);
        continue;
      }
      index_.insertNew(f.hash, cmpTo(f.key),
                       Entry{f.hash, f.slot, f.flags, f.key});
      flagged_ += f.flags & kFlagged ? 1 : 0;
    }
    // More records than the capacity can only come from damage; keep the
    // first ones in order.
    while (index_.size() > capacity()) {
      std::size_t last = Array::npos;
      for (std::size_t pos = index_.nextUsed(0); pos != Array::npos;
           pos = index_.nextUsed(pos + 1)) {
        last = pos;
      }
      const Entry &e = index_.at(last);
      flagged_ -= e.flags & kFlagged ? 1 : 0;
      mountDrop(e.slot, "more records than the capacity");
      index_.eraseAt(last);
      ++shape_;
    }
    mountFinish(hw, maxSeq);
  }

  // Reader scans. `reset(slots)` runs before each attempt, with the number
  // of slots it visits; `visit(slot, seal, record)` for each live record.
  // Throws CorruptionError at a bad record.
  template <typename Reset, typename Visit>
  void scanConsistently(Reset &&reset, Visit &&visit) const {
    Record rec;
    bool consistent = false;
    for (unsigned attempt = 0; attempt < kScanTries && !consistent; ++attempt) {
      const std::uint64_t c0 = commitWord(); // R4
      bool complete = true;
      const std::uint32_t hw = scanEnd();
      reset(hw);
      for (std::uint32_t i = 0; i < hw; ++i) {
        std::uint64_t seal = 0;
        switch (detail::readSlot(slotAt(i), &rec, sizeof rec, seal)) {
        case detail::SlotRead::free:
          continue;
        case detail::SlotRead::busy:
          complete = false;
          continue;
        case detail::SlotRead::bad:
          if (droppedByReader(i, seal)) {
            continue;
          }
          pending_.push_back(Pending{i, seal, Traits::keyOf(rec)});
          throwCorrupt(i, format::sealValid(seal) ? "checksum mismatch"
                                                  : "the seal is not valid");
        case detail::SlotRead::ok:
          if (droppedByReader(i, seal)) {
            continue;
          }
          visit(i, seal, static_cast<const Record &>(rec));
          continue;
        }
      }
      std::atomic_thread_fence(std::memory_order_acquire); // R2 for the scan
      const std::uint64_t c1 =
          detail::loadWord(site_.control->commitSeq, std::memory_order_relaxed);
      consistent = complete && c0 == c1 && (c0 & 1) == 0;
    }
    lastScanConsistent_ = consistent;
  }

  bool scanFind(const Key &key, Record &out) const {
    bool found = false;
    std::uint64_t best = 0;
    scanConsistently(
        [&](std::uint32_t) {
          found = false;
          best = 0;
        },
        [&](std::uint32_t, std::uint64_t seal, const Record &r) {
          const std::uint64_t seq = seal & format::kSeqMask;
          if (sameKey(Traits::keyOf(r), key) && seq > best) {
            best = seq;
            found = true;
            std::memcpy(&out, &r, sizeof(Record));
          }
        });
    return found;
  }

  template <typename F> void scanForEach(F &f) const {
    struct Item {
      std::uint64_t hash;
      std::uint64_t seq;
      std::uint32_t at;
    };
    std::vector<Item> items;
    std::vector<Record> recs;
    scanConsistently(
        [&](std::uint32_t slots) {
          items.clear();
          recs.clear();
          items.reserve(slots);
          recs.reserve(slots);
        },
        [&](std::uint32_t, std::uint64_t seal, const Record &r) {
          const Key k = Traits::keyOf(r);
          items.push_back(Item{hashBytes(&k, sizeof(Key)),
                               seal & format::kSeqMask,
                               static_cast<std::uint32_t>(recs.size())});
          recs.push_back(r);
        });
    auto keyOfItem = [&](const Item &i) { return Traits::keyOf(recs[i.at]); };
    std::sort(items.begin(), items.end(), [&](const Item &a, const Item &b) {
      if (a.hash != b.hash) {
        return a.hash < b.hash;
      }
      const Key ka = keyOfItem(a), kb = keyOfItem(b);
      const int c = Fwk::compareBytes<sizeof(Key)>(&ka, &kb);
      return c != 0 ? c < 0 : a.seq > b.seq;
    });
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i > 0 && items[i].hash == items[i - 1].hash &&
          sameKey(keyOfItem(items[i]), keyOfItem(items[i - 1]))) {
        continue; // an older copy of a key being replaced
      }
      f(static_cast<const Record &>(recs[items[i].at]));
    }
  }

  Array index_;
  // Raised whenever the index changes shape (positions move): what tells a
  // stale Place.
  std::uint64_t shape_ = 1;
  std::size_t presizedSlots_ = 0; // index_.slots() after the mount
  std::size_t flagged_ = 0;
  mutable std::vector<Pending> pending_;
};

} // namespace Shm
