#include "platform/shm/Collection.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace Shm {

namespace {

// How far ahead of what it needs a collection reserves file space, at least.
constexpr std::uint64_t kReserveAhead = 256u << 10;

// "new key <hex>" for messages, "a new key" when the key is not known.
std::string newKeyText(const void *key, std::size_t keySize) {
  if (!key) {
    return "a new key";
  }
  std::string hex = "new key ";
  const auto *b = static_cast<const unsigned char *>(key);
  for (std::size_t i = 0; i < keySize && i < 32; ++i) {
    hex += fmt::format("{:02x}", b[i]);
  }
  return hex;
}

} // namespace

void CollectionControl::clearWiped() {
  requireWriter();
  detail::beforeStore(detail::WriteStep::control);
  detail::wordAt(block_->wiped).store(0, std::memory_order_release);
}

namespace detail {

void (*writeStepHook)(WriteStep) = nullptr;

CollectionCore::CollectionCore(const CollectionSite &site) : site_(site) {
  control_.block_ = site_.control;
  control_.file_ = site_.file;
  control_.writer_ = site_.writer;
}

CollectionCore::~CollectionCore() = default;

void CollectionCore::writerRequired() const {
  Fwk::assertionFailed("writer()",
                       fmt::format("collection {} of {} is {}", name(),
                                   site_.file->filePath,
                                   site_.writer ? "closed" : "read-only"),
                       __FILE__, __LINE__, __func__);
}

std::string CollectionCore::describe(std::uint32_t slot,
                                     const std::string &detail) const {
  return CorruptionError(site_.file->filePath, name(), slot, detail).what();
}

void CollectionCore::throwCorrupt(std::uint32_t slot,
                                  const std::string &detail) const {
  throw CorruptionError(site_.file->filePath, name(), slot, detail);
}

void CollectionCore::throwFull(const void *key, std::size_t keySize) const {
  throw CollectionFullError(fmt::format(
      "collection {} of {} is full ({} records): cannot insert {}", name(),
      site_.file->entityPath, capacity(), newKeyText(key, keySize)));
}

void CollectionCore::throwNoSpace(const std::string &what) const {
  const std::string msg =
      fmt::format("{}: {}", what, std::strerror(spaceError_));
  if (spaceError_ == ENOSPC || spaceError_ == EDQUOT) {
    throw NoSpaceError(msg);
  }
  throw Error(msg);
}

void CollectionCore::throwNoSpace(const void *key, std::size_t keySize) const {
  throwNoSpace(fmt::format("collection {} of {}: no file space for {}", name(),
                           site_.file->filePath, newKeyText(key, keySize)));
}

bool CollectionCore::backSlots(std::uint32_t n, bool mapIn) {
  const std::uint32_t slots = site_.desc.slotCount;
  n = std::min(n, slots);
  if (n <= backed_) {
    return true;
  }
  const std::uint64_t size = site_.desc.slotSize;
  const std::uint64_t ahead =
      std::max<std::uint64_t>(kReserveAhead / size, backed_ / 8);
  const auto want = static_cast<std::uint32_t>(std::min<std::uint64_t>(
      slots, std::max<std::uint64_t>(n, backed_ + ahead)));
  // When the chunk does not fit, what is needed may still (tmpfs gives back
  // what a failed reservation took).
  for (const std::uint32_t end : {want, n}) {
    spaceError_ = detail::reserveSpace(site_.file->fd,
                                       site_.desc.slotsOffset + backed_ * size,
                                       (end - backed_) * size);
    if (spaceError_ == 0) {
      if (mapIn) {
        detail::prefault(slotAt(0) + backed_ * size, (end - backed_) * size);
      }
      backed_ = end;
      return true;
    }
    if (end == n) {
      break;
    }
  }
  return false;
}

void CollectionCore::throwExhausted() const {
  throw Error(fmt::format(
      "collection {} of {}: its sequence numbers are used up (a seal holds "
      "the largest one); nothing written",
      name(), site_.file->filePath));
}

void CollectionCore::reportCorruption(const std::string &message) {
  ++corruptions_;
  reporter().corruption(message);
}

std::uint32_t CollectionCore::freshSlot() {
  FWK_ASSERT(hw_ < site_.desc.slotCount);
  // The callers have made sure the slot is backed; should that ever not
  // hold, the change fails here, before it stores anything, not in a fault.
  if (hw_ >= backed_ && !backSlots(hw_ + 1)) [[unlikely]] {
    throwNoSpace(nullptr, 0);
  }
  const std::uint32_t s = hw_;
  unsigned char *slot = slotAt(s);
  if (sealAt(slot) != 0) {
    // Slots at and beyond the mark have never been used; a seal there means
    // the mark itself was damaged. The slot is taken over.
    reportCorruption(describe(s, "sealed slot beyond the high-water mark"));
    const std::uint64_t seq = beginChange();
    unpublish(slot);
    endChange(seq);
  }
  highWaterIs(*site_.control, ++hw_); // W1
  return s;
}

void CollectionCore::growFree() {
  free_.reserve(std::max<std::size_t>(64, free_.capacity() * 2));
}

std::uint32_t CollectionCore::slotsInFile() const {
  const format::CollectionDesc &d = site_.desc;
  const int fd = site_.file->fd;
  struct stat st {};
  std::uint64_t end = d.slotsOffset + d.slotsBytes;
  end = std::min<std::uint64_t>(end, site_.file->size);
  if (::fstat(fd, &st) == 0) {
    end = std::min<std::uint64_t>(end, static_cast<std::uint64_t>(st.st_size));
  }
  if (end <= d.slotsOffset) {
    return 0;
  }
  // Whole slots only: a slot cut by the end of the file is not touched.
  std::uint64_t slots = (end - d.slotsOffset) / d.slotSize;
  // The end of the last extent of data in [slotsOffset, end). Every slot
  // that holds a seal had its header and record written, so they lie before
  // that end (only the few padding bytes after a record may not). Where the
  // file system cannot tell (or the extents are too many to follow), the
  // size alone bounds the scan.
  constexpr int kMaxExtents = 64;
  std::uint64_t dataEnd = d.slotsOffset;
  off_t at = static_cast<off_t>(d.slotsOffset);
  for (int n = 0;; ++n) {
    const off_t data = ::lseek(fd, at, SEEK_DATA);
    if (data < 0) {
      if (errno != ENXIO) {
        return static_cast<std::uint32_t>(slots); // no extent information
      }
      break; // no data from `at` on
    }
    if (static_cast<std::uint64_t>(data) >= end) {
      break;
    }
    const off_t hole = ::lseek(fd, data, SEEK_HOLE);
    if (hole < 0 || n == kMaxExtents) {
      return static_cast<std::uint32_t>(slots);
    }
    dataEnd = std::min<std::uint64_t>(static_cast<std::uint64_t>(hole), end);
    if (dataEnd >= end) {
      break;
    }
    at = hole;
  }
  const std::uint64_t used = format::kSlotHeaderSize + d.recordSize;
  const std::uint64_t data = dataEnd - d.slotsOffset;
  const std::uint64_t written =
      data < used ? 0 : (data - used) / d.slotSize + 1;
  return static_cast<std::uint32_t>(std::min(slots, written));
}

std::uint32_t CollectionCore::mountBegin() {
  const std::uint64_t mark =
      loadWord(site_.control->highWater, std::memory_order_relaxed);
  const std::uint32_t inFile = slotsInFile();
  const std::uint32_t hw =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(mark, inFile));
  // A writer killed between storing the mark (W1) and writing the slot
  // leaves the mark one slot past the written pages; more is damage.
  if (mark > std::uint64_t{inFile} + 1) {
    reportCorruption(describe(
        CorruptionError::kNoSlot,
        fmt::format("high-water mark {} beyond the {} slots in the file; "
                    "not followed",
                    mark, inFile)));
  }
  // Nothing below is read or written before the slots in use and the spare
  // are backed: a writer that died between storing the mark and writing the
  // slot (a full file system's SIGBUS, say) left the mark over a hole, which
  // a read on a full tmpfs turns into SIGBUS too.
  backed_ = 0;
  if (!backSlots(hw + 1, false)) {
    throwNoSpace(fmt::format("{}, collection {}: cannot reserve file space "
                             "for its {} slots in use and a spare",
                             site_.file->filePath, name(), hw));
  }
  if (hw > 0) {
    // Fault the used prefix in at once; the rest of a sparse file is left
    // alone (it may be far larger than what was ever used).
    // Rounded down to its page: madvise takes page-aligned addresses.
    auto *begin = reinterpret_cast<unsigned char *>( // NOLINT(performance-no-int-to-ptr)
        reinterpret_cast<std::uintptr_t>(site_.slots) &
        ~(format::kPageSize - 1));
    // Up to the last record's end: its padding may lie in a page that was
    // never written.
    const unsigned char *end =
        slotAt(hw - 1) + format::kSlotHeaderSize + site_.desc.recordSize;
    const std::size_t len = static_cast<std::size_t>(end - begin);
    // Read faults suffice: tmpfs pages map writable on a read fault.
    (void)::madvise(begin, len, MADV_POPULATE_READ);
  }
  free_.clear();
  free_.reserve(64);
  return hw;
}

void CollectionCore::mountFree(std::uint32_t slot) {
  unsigned char *s = slotAt(slot);
  if (sealAt(s) != 0) {
    unpublish(s);
  }
  if (free_.size() == free_.capacity()) {
    growFree();
  }
  free_.push_back(slot);
}

void CollectionCore::mountDrop(std::uint32_t slot, const std::string &detail) {
  reportCorruption(describe(slot, detail));
  mountFree(slot);
}

void CollectionCore::mountFinish(std::uint32_t hw, std::uint64_t maxSeq) {
  // Every slot at or beyond the new mark is free (seal 0), so lowering it
  // never hides a record from a reader; it heals a mark that damage (or an
  // earlier clamp) left far beyond what is used.
  while (hw > 0 && sealAt(slotAt(hw - 1)) == 0) {
    --hw;
  }
  hw_ = hw;
  if (loadWord(site_.control->highWater, std::memory_order_relaxed) != hw) {
    highWaterIs(*site_.control, hw);
  }
  free_.erase(std::remove_if(free_.begin(), free_.end(),
                             [hw](std::uint32_t s) { return s >= hw; }),
              free_.end());
  // Take free slots lowest first, so the used part stays compact.
  std::reverse(free_.begin(), free_.end());
  // Every change stores its number in the commit word before its seal (W2
  // before W3), so the word is never below the largest seal; and it cannot
  // have counted past kSeqPlausible. Outside those it was damaged: the
  // numbers continue after the largest seal.
  const std::uint64_t word =
      loadWord(site_.control->commitSeq, std::memory_order_relaxed);
  std::uint64_t last = word >> 1;
  if (last > format::kSeqPlausible || last < maxSeq) {
    reportCorruption(describe(
        CorruptionError::kNoSlot,
        fmt::format("commit sequence word {:#x} implausible (the largest "
                    "seal holds {}); continuing after the largest seal",
                    word, maxSeq)));
    last = maxSeq;
  }
  nextSeq_ = std::max(last, maxSeq) + 1;
  // A crash may have left the busy bit set: the mount settles the change.
  endChange(nextSeq_ - 1);
  if (recovered_ > 0) {
    reporter().notice(fmt::format(
        "{}, collection {}: kept the newer of two copies of {} key(s) left by "
        "an interrupted replace",
        site_.file->filePath, name(), recovered_));
  }
}

bool CollectionCore::droppedByReader(std::uint32_t slot,
                                     std::uint64_t seal) const {
  if (dropped_.empty()) {
    return false;
  }
  const auto it = dropped_.find(slot);
  if (it == dropped_.end()) {
    return false;
  }
  if (it->second == seal) {
    return true;
  }
  dropped_.erase(it); // the writer has reused the slot since
  return false;
}

void CollectionCore::dropByReader(std::uint32_t slot, std::uint64_t seal) {
  dropped_[slot] = seal;
}

} // namespace detail
} // namespace Shm
