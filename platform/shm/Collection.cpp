#include "platform/shm/Collection.h"

#include <sys/mman.h>

#include <fmt/format.h>

namespace Shm {

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
  std::string hex;
  const auto *b = static_cast<const unsigned char *>(key);
  for (std::size_t i = 0; i < keySize && i < 32; ++i) {
    hex += fmt::format("{:02x}", b[i]);
  }
  throw CollectionFullError(fmt::format(
      "collection {} of {} is full ({} records): cannot insert new key {}",
      name(), site_.file->entityPath, capacity(), hex));
}

void CollectionCore::reportCorruption(const std::string &message) {
  ++corruptions_;
  reporter().corruption(message);
}

std::uint32_t CollectionCore::freshSlot() {
  FWK_ASSERT(hw_ < site_.desc.slotCount);
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

std::uint32_t CollectionCore::mountBegin() {
  const std::uint64_t mark =
      loadWord(site_.control->highWater, std::memory_order_relaxed);
  std::uint32_t hw = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(mark, site_.desc.slotCount));
  if (mark > site_.desc.slotCount) {
    reportCorruption(
        describe(CorruptionError::kNoSlot,
                 fmt::format("high-water mark {} beyond the {} slots; clamped",
                             mark, site_.desc.slotCount)));
    highWaterIs(*site_.control, hw);
  }
  if (hw > 0) {
    // Fault the used prefix in at once; the rest of a sparse file is left
    // alone (it may be far larger than what was ever used).
    // Rounded down to its page: madvise takes page-aligned addresses.
    auto *begin = reinterpret_cast<unsigned char *>( // NOLINT(performance-no-int-to-ptr)
        reinterpret_cast<std::uintptr_t>(site_.slots) &
        ~(format::kPageSize - 1));
    const std::size_t len = static_cast<std::size_t>(slotAt(hw) - begin);
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
  hw_ = hw;
  // Take free slots lowest first, so the used part stays compact.
  std::reverse(free_.begin(), free_.end());
  std::uint64_t last =
      loadWord(site_.control->commitSeq, std::memory_order_relaxed) >> 1;
  if (last >= format::kSeqMask) {
    reportCorruption(describe(CorruptionError::kNoSlot,
                              fmt::format("commit sequence word {:#x} out of "
                                          "range; ignored",
                                          last)));
    last = 0;
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
