// The writer's side of the slot protocol (layout in Format.h). Internal.
//
// NOT multi-writer safe: exactly one process (the holder of the instance
// lock) and one thread in it may call these on a file.
//
// A change of one collection is, in program order:
//   takeSlot     if the slot is beyond the high-water mark: store the new
//                mark                                   [W1: release]
//   beginChange  commitSeq = seq<<1 | 1, then a release fence      [W2]
//   writeRecord  record bytes and checksum into a slot whose seal is 0
//   publish      seal = tag | seq                       [W3: release]
//   release      seal of the replaced or erased copy = 0 [W3: release]
//   endChange    commitSeq = seq<<1                     [W4: release]
//
// Acquire/release pairs (the reader side is in SlotReader.h):
//   W1 -> R0  a reader that sees the mark sees no seal beyond it that the
//             mark does not cover.
//   W3 -> R1  a reader whose acquire load of a seal returns a published value
//             sees the record and checksum written before it.
//   W2 -> R2  the fence orders this change's "busy" mark and every earlier
//             release of a slot (seal 0) before the record bytes of this
//             change; a reader that copied any of those bytes and then runs
//             its acquire fence reloads a seal that differs from the one it
//             started with, and discards the copy.
//   W4 -> R4  a reader that sees an even commitSeq equal before and after its
//             scan saw no change in between.
//
// Crash: the writer may die between any two of these stores. Each store is
// one aligned 64-bit store, so it happened or it did not; the release
// semantics keep the compiler (and weakly ordered CPUs) from letting a later
// one overtake an earlier one.
//
// Every store of a change, and of the owner's control words, first calls
// writeStepHook when one is set: a test sets it in a forked writer to kill
// the writer before the n-th store, for every n in turn, so that a store in
// the wrong order fails every run rather than when a random kill lands in
// the gap.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "platform/Export.h"
#include "platform/shm/Format.h"

namespace Shm::detail {

// The stores a hook is told about, in the order of a change.
enum class WriteStep : std::uint8_t {
  highWater, // W1
  begin,     // W2
  record,    // the record bytes
  checksum,  // the checksum word
  publish,   // W3, a new seal
  unpublish, // W3, a seal set to 0
  end,       // W4
  control,   // the wiped flag, the scratchpad or the auxiliary word
};

// Test-only; null in production, where each store pays one predictable
// branch for it.
MICA_PLATFORM_API extern void (*writeStepHook)(WriteStep step);

inline void beforeStore(WriteStep step) {
  if (writeStepHook != nullptr) [[unlikely]] {
    writeStepHook(step);
  }
}

inline std::atomic_ref<std::uint64_t> wordAt(std::uint64_t &w) noexcept {
  return std::atomic_ref<std::uint64_t>(w);
}
inline format::SlotHeader &slotHeader(unsigned char *slot) noexcept {
  return *reinterpret_cast<format::SlotHeader *>(slot);
}

// [W1] Bumped before any byte of slot `mark - 1` is written.
inline void highWaterIs(format::ControlBlock &c, std::uint64_t mark) noexcept {
  beforeStore(WriteStep::highWater);
  wordAt(c.highWater).store(mark, std::memory_order_release);
}

// [W2]
inline void beginChange(format::ControlBlock &c, std::uint64_t seq) noexcept {
  beforeStore(WriteStep::begin);
  wordAt(c.commitSeq).store((seq << 1) | 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
}

// REQUIRES: the slot's seal is 0 and beginChange ran after it became 0.
inline void writeRecord(unsigned char *slot, const void *record,
                        std::size_t size, std::uint64_t checksum) noexcept {
  beforeStore(WriteStep::record);
  std::memcpy(slot + format::kSlotHeaderSize, record, size);
  beforeStore(WriteStep::checksum);
  wordAt(slotHeader(slot).checksum).store(checksum, std::memory_order_relaxed);
}

// [W3] The commit point of an insert or replace.
inline void publish(unsigned char *slot, std::uint64_t seal) noexcept {
  beforeStore(WriteStep::publish);
  wordAt(slotHeader(slot).seal).store(seal, std::memory_order_release);
}

// [W3] The commit point of an erase; frees the old copy of a replace.
inline void unpublish(unsigned char *slot) noexcept {
  beforeStore(WriteStep::unpublish);
  wordAt(slotHeader(slot).seal).store(0, std::memory_order_release);
}

// [W4]
inline void endChange(format::ControlBlock &c, std::uint64_t seq) noexcept {
  beforeStore(WriteStep::end);
  wordAt(c.commitSeq).store(seq << 1, std::memory_order_release);
}

} // namespace Shm::detail
