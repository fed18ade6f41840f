// The reader's side of the slot protocol (layout in Format.h, writer in
// SlotWriter.h). Internal.
//
// Readers map the file read-only, take no lock and trust nothing: every word
// they act on is checked, every loop is bounded by the slot count taken from
// the validated header and by the file's size at the time of the scan, and a
// slot that keeps changing under them is skipped after a few tries rather
// than waited for.
//
// A slot is read like a seqlock whose sequence is the seal:
//   s1 = seal                              [R1: acquire, pairs with W3]
//   copy checksum and record bytes
//   fence                                  [R2: acquire, pairs with W2]
//   s2 = seal (relaxed)
// s1 == s2 != 0 means the copy is the record published under s1: the writer
// only writes into a slot whose seal is 0, and seals never repeat (the
// sequence only grows, across restarts too). The checksum is then checked;
// a mismatch under a stable seal is corruption, not a race.
//
// The record copy is a plain memcpy that may race with the writer's memcpy;
// the copy is discarded whenever that can have happened (s1 != s2).
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "platform/shm/Format.h"

namespace Shm::detail {

enum class SlotRead { free, ok, bad, busy };

// How often a reader retries a slot that changed while it copied it.
inline constexpr unsigned kSlotReadTries = 16;

inline std::uint64_t loadWord(const std::uint64_t &w,
                              std::memory_order o) noexcept {
  // A load through atomic_ref never writes, so it is fine on a read-only
  // mapping.
  return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t &>(w)).load(o);
}

// [R0] The high-water mark, clamped to `limit`: the slots that lie in the
// file (a damaged mark must not send a reader past the end of the file).
inline std::uint32_t highWater(const format::ControlBlock &c,
                               std::uint32_t limit) noexcept {
  const std::uint64_t hw = loadWord(c.highWater, std::memory_order_acquire);
  return hw > limit ? limit : static_cast<std::uint32_t>(hw);
}

// Copies the record of `slot` into `out` (`size` bytes). On ok and bad,
// `seal` is the stable seal the copy was taken under.
inline SlotRead readSlot(const unsigned char *slot, void *out, std::size_t size,
                         std::uint64_t &seal) noexcept {
  const auto &h = *reinterpret_cast<const format::SlotHeader *>(slot);
  for (unsigned t = 0; t < kSlotReadTries; ++t) {
    const std::uint64_t s1 = loadWord(h.seal, std::memory_order_acquire); // R1
    if (s1 == 0) {
      return SlotRead::free;
    }
    const std::uint64_t ck = loadWord(h.checksum, std::memory_order_relaxed);
    std::memcpy(out, slot + format::kSlotHeaderSize, size);
    std::atomic_thread_fence(std::memory_order_acquire); // R2
    const std::uint64_t s2 = loadWord(h.seal, std::memory_order_relaxed);
    if (s1 != s2) {
      continue;
    }
    seal = s1;
    if (!format::sealValid(s1)) {
      return SlotRead::bad;
    }
    return format::recordChecksum(out, size, s1) == ck ? SlotRead::ok
                                                       : SlotRead::bad;
  }
  return SlotRead::busy;
}

} // namespace Shm::detail
