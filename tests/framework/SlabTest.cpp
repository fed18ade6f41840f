#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "platform/framework/Slab.h"

namespace {

using namespace Fwk;

// Builds with AddressSanitizer take every object from the heap, which does
// not hand a freed block straight back.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSlabLists = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSlabLists = false;
#else
constexpr bool kSlabLists = true;
#endif
#else
constexpr bool kSlabLists = true;
#endif

// Objects of one class fill chunk after chunk and arena after arena (more
// than 2 MiB of them): each is aligned, none overlaps another, and what is
// written to one stays there. A freed object is the next one handed out.
TEST(Slab, ObjectsAcrossChunksAndArenasAreDistinctAndReused) {
  for (std::size_t size : {std::size_t{24}, Slab::kMaxSize}) {
    const std::size_t count = (5u << 20) / size; // about 5 MiB of objects
    std::vector<unsigned char *> objects;
    for (std::size_t i = 0; i < count; ++i) {
      auto *p = static_cast<unsigned char *>(Slab::allocate(size));
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % Slab::kGranule, 0u);
      std::memset(p, static_cast<int>(i & 0xff), size);
      objects.push_back(p);
    }
    EXPECT_EQ(std::set<unsigned char *>(objects.begin(), objects.end()).size(),
              count);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_EQ(objects[i][0], i & 0xff) << "object " << i << " of " << size;
      ASSERT_EQ(objects[i][size - 1], i & 0xff);
    }
    unsigned char *freed = objects[7];
    Slab::deallocate(freed, size);
    objects[7] = static_cast<unsigned char *>(Slab::allocate(size));
    if (kSlabLists) {
      EXPECT_EQ(objects[7], freed) << "the freed object first";
    }
    for (auto *p : objects) {
      Slab::deallocate(p, size);
    }
  }
}

// Blocks beyond the classes, small and of whole huge pages or more, can be
// written to their last byte; zeroed blocks read zero to their last byte.
// An object freed by another thread is handed out again on that thread.
TEST(Slab, LargeAndZeroedBlocksAndFreesFromAnotherThread) {
  for (std::size_t size : {Slab::kMaxSize + 1, std::size_t{1} << 20,
                           (std::size_t{3} << 20) + 5}) {
    auto *p = static_cast<unsigned char *>(Slab::allocate(size));
    std::memset(p, 0x5a, size);
    EXPECT_EQ(p[size - 1], 0x5a);
    Slab::deallocate(p, size);

    auto *z = static_cast<unsigned char *>(Slab::allocateZeroed(size));
    std::size_t nonZero = 0;
    for (std::size_t i = 0; i < size; i += 512) {
      nonZero += z[i] != 0;
    }
    EXPECT_EQ(nonZero + z[size - 1], 0u) << size;
    z[size - 1] = 1;
    Slab::deallocateZeroed(z, size);
  }

  void *made = Slab::allocate(64);
  void *again = nullptr;
  std::thread([&] {
    Slab::deallocate(made, 64);
    again = Slab::allocate(64);
  }).join();
  if (kSlabLists) {
    EXPECT_EQ(again, made);
  }
  Slab::deallocate(again, 64);
}

} // namespace
