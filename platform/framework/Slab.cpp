#include "platform/framework/Slab.h"

#include <sys/mman.h>

#include <cstdlib>

#include <atomic>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define MICA_SLAB_OFF 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MICA_SLAB_OFF 1
#endif
#endif

namespace Fwk::Slab {

namespace {

constexpr std::size_t kClasses = kMaxSize / kGranule + 1;
constexpr std::size_t kChunkBytes = 64 * 1024;
// Chunks are cut from arenas of one huge page each.
constexpr std::size_t kArenaBytes = 2 * 1024 * 1024;
// Blocks of at least this size are mappings of their own, in whole huge
// pages.
[[maybe_unused]] constexpr std::size_t kMappedBytes = 1024 * 1024;

[[maybe_unused]] constexpr std::size_t mappedSize(std::size_t size) noexcept {
  return (size + kArenaBytes - 1) / kArenaBytes * kArenaBytes;
}

std::atomic<std::uint64_t> gChunkBytes{0};

struct FreeNode {
  FreeNode *next;
};

struct Cache {
  FreeNode *heads[kClasses] = {};
  // The unused rest of each class's newest chunk: objects are cut from it
  // only when the free list is empty, so a new chunk is not touched (nor its
  // pages faulted in) before its objects are used.
  unsigned char *carve[kClasses] = {};
  unsigned char *carveEnd[kClasses] = {};
  // The unused rest of the newest arena, where chunks come from.
  unsigned char *arena = nullptr;
  unsigned char *arenaEnd = nullptr;
};

// Initial-exec: the thread's cache is reached without a call. Only a
// pointer lives in the static TLS block: the few bytes a library loaded
// late (the Python module's dlopen()) may still take there; the cache
// itself is made on a thread's first allocation and lives as long as the
// process, like the memory it hands out.
__attribute__((tls_model("initial-exec"))) thread_local Cache *tCachePtr =
    nullptr;

[[maybe_unused]] __attribute__((noinline)) Cache &newCache() {
  tCachePtr = new Cache();
  return *tCachePtr;
}

[[maybe_unused]] inline Cache &cache() noexcept {
  Cache *c = tCachePtr;
  return __builtin_expect(c != nullptr, 1) ? *c : newCache();
}

[[maybe_unused]] std::size_t classOf(std::size_t size) noexcept {
  return (size + kGranule - 1) / kGranule;
}

// A fresh mapping of `size` bytes (a multiple of kArenaBytes) aligned to
// kArenaBytes, which the kernel may back with huge pages: a first touch
// then maps 2 MiB at once. On a virtual machine a fault of a 4 KiB page
// costs several microseconds, and objects made at the rate of changes
// would otherwise fault one page per few objects.
[[maybe_unused]] void *mapHuge(std::size_t size) {
  void *p = ::mmap(nullptr, size + kArenaBytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    throw std::bad_alloc();
  }
  auto *base = static_cast<unsigned char *>(p);
  const auto addr = reinterpret_cast<std::uintptr_t>(base);
  const std::size_t head = (kArenaBytes - addr % kArenaBytes) % kArenaBytes;
  if (head) {
    ::munmap(base, head);
  }
  ::munmap(base + head + size, kArenaBytes - head);
  ::madvise(base + head, size, MADV_HUGEPAGE);
  return base + head;
}

// A new chunk of `bytes` (at most kChunkBytes) from the thread's arena.
[[maybe_unused]] unsigned char *takeChunk(std::size_t bytes) {
  Cache &tCache = cache();
  if (static_cast<std::size_t>(tCache.arenaEnd - tCache.arena) < bytes) {
    tCache.arena = static_cast<unsigned char *>(mapHuge(kArenaBytes));
    tCache.arenaEnd = tCache.arena + kArenaBytes;
  }
  unsigned char *c = tCache.arena;
  tCache.arena += bytes;
  return c;
}

// An object of the class from the rest of its newest chunk, after taking a
// new chunk when that is used up.
[[maybe_unused]] __attribute__((noinline)) void *carve(std::size_t cls) {
  const std::size_t objectSize = cls * kGranule;
  Cache &tCache = cache();
  unsigned char *&next = tCache.carve[cls];
  if (next == tCache.carveEnd[cls]) {
    const std::size_t count =
        kChunkBytes / objectSize > 0 ? kChunkBytes / objectSize : 1;
    next = takeChunk(count * objectSize);
    tCache.carveEnd[cls] = next + count * objectSize;
    gChunkBytes.fetch_add(count * objectSize, std::memory_order_relaxed);
  }
  void *p = next;
  next += objectSize;
  return p;
}

} // namespace

void *allocate(std::size_t size) {
#ifdef MICA_SLAB_OFF
  return ::operator new(size);
#else
  if (size == 0 || size > kMaxSize) {
    if (size >= kMappedBytes) {
      return mapHuge(mappedSize(size));
    }
    return ::operator new(size);
  }
  const std::size_t cls = classOf(size);
  FreeNode *&head = cache().heads[cls];
  if (!head) [[unlikely]] {
    return carve(cls);
  }
  FreeNode *n = head;
  head = n->next;
  return n;
#endif
}

void deallocate(void *p, std::size_t size) noexcept {
#ifdef MICA_SLAB_OFF
  ::operator delete(p);
  (void)size;
#else
  if (!p) {
    return;
  }
  if (size == 0 || size > kMaxSize) {
    if (size >= kMappedBytes) {
      ::munmap(p, mappedSize(size));
      return;
    }
    ::operator delete(p);
    return;
  }
  FreeNode *&head = cache().heads[classOf(size)];
  auto *n = static_cast<FreeNode *>(p);
  n->next = head;
  head = n;
#endif
}

void *allocateZeroed(std::size_t size) {
#ifdef MICA_SLAB_OFF
  // The sanitizer's calloc maps large blocks afresh and does not clear them,
  // and it still sees every access.
  void *p = std::calloc(1, size);
  if (!p) {
    throw std::bad_alloc();
  }
  return p;
#else
  // Mapped in up front, in one call: the array is to be filled at the rate
  // of changes, and a fault per page then would cost more than the call.
  // (A kernel without MADV_POPULATE_WRITE maps the pages in as they are
  // touched.)
  const std::size_t mapped = mappedSize(size);
  void *p = mapHuge(mapped);
  ::madvise(p, mapped, MADV_POPULATE_WRITE);
  return p;
#endif
}

void deallocateZeroed(void *p, std::size_t size) noexcept {
#ifdef MICA_SLAB_OFF
  std::free(p);
  (void)size;
#else
  if (p) {
    ::munmap(p, mappedSize(size));
  }
#endif
}

std::uint64_t chunkBytes() noexcept {
  return gChunkBytes.load(std::memory_order_relaxed);
}

} // namespace Fwk::Slab
