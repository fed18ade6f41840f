// The framework's slab allocator: where counted objects (Object.h) live.
//
// Entry handles, wrappers and resolver entries are made and dropped at the
// rate of changes; a general-purpose heap charges each of them a search and,
// when many are dropped at once, a consolidation. The slab keeps one free
// list per size class (16-byte steps up to kMaxSize); when it is empty, the
// next object is cut from the class's newest chunk (a new chunk of 64 KiB
// is taken when that is used up). An allocation and a free are a list pop
// and push:
//
//   void *p = Fwk::Slab::allocate(sizeof(Thing));   // from its size class
//   Fwk::Slab::deallocate(p, sizeof(Thing));        // back to that class
//
// Chunks are cut from arenas of 2 MiB, each a mapping the kernel may back
// with one huge page. Fresh memory is where the change path's page faults
// come from, and on a virtual machine a 4 KiB fault costs several
// microseconds: one per few objects would cost more than the objects' work.
// Larger sizes go to the heap, except blocks of 1 MiB or more (the arrays of
// large indexes), which are mappings of their own in whole huge pages. Free
// lists are per thread: an object freed by another thread than the one that
// made it joins that thread's list. Chunks and arenas are never given back:
// the slab holds the peak of what was in use at once.
// Builds with AddressSanitizer allocate every object on the heap, so that
// the sanitizer still sees each one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Export.h"

namespace Fwk::Slab {

inline constexpr std::size_t kGranule = 16;
inline constexpr std::size_t kMaxSize = 2048;

// Memory for an object of `size` bytes, aligned to 16 bytes.
MICA_PLATFORM_API void *allocate(std::size_t size);
// Gives back what allocate(size) returned, with the same size.
MICA_PLATFORM_API void deallocate(void *p, std::size_t size) noexcept;

// Memory of `size` bytes that reads as zero, for large arrays (a presized
// index): a fresh mapping (in whole huge pages) whose pages the kernel
// zeroes, all in one call,
// instead of a clear that faults them in one by one. (Builds with
// AddressSanitizer take it from the sanitizer's calloc, which maps large
// blocks afresh and zeroes their pages only when they are touched.) Give it
// back with deallocateZeroed(p, size).
MICA_PLATFORM_API void *allocateZeroed(std::size_t size);
MICA_PLATFORM_API void deallocateZeroed(void *p, std::size_t size) noexcept;
// Bytes taken for chunks so far (all threads).
MICA_PLATFORM_API std::uint64_t chunkBytes() noexcept;

// A standard allocator over the slab, for the small arrays of framework
// collections (observer lists, hash tables of a few elements).
template <typename T> struct Allocator {
  using value_type = T;
  static_assert(alignof(T) <= kGranule, "the slab aligns to 16 bytes");

  Allocator() noexcept = default;
  template <typename U> Allocator(const Allocator<U> &) noexcept {}
  T *allocate(std::size_t n) {
    return static_cast<T *>(Slab::allocate(n * sizeof(T)));
  }
  void deallocate(T *p, std::size_t n) noexcept {
    Slab::deallocate(p, n * sizeof(T));
  }
  template <typename U> bool operator==(const Allocator<U> &) const noexcept {
    return true;
  }
};

} // namespace Fwk::Slab
