#include "platform/framework/Slab.h"

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

std::atomic<std::uint64_t> gChunkBytes{0};

struct FreeNode {
  FreeNode *next;
};

struct Cache {
  FreeNode *heads[kClasses] = {};
};

// Initial-exec: the library is linked in, never dlopen()ed late, so its
// thread-local cache is reached without a call.
__attribute__((tls_model("initial-exec"))) thread_local Cache tCache;

[[maybe_unused]] std::size_t classOf(std::size_t size) noexcept {
  return (size + kGranule - 1) / kGranule;
}

// Carves a new chunk into objects of the class and puts them on its list.
[[maybe_unused]] void refill(std::size_t cls) {
  const std::size_t objectSize = cls * kGranule;
  const std::size_t count =
      kChunkBytes / objectSize > 0 ? kChunkBytes / objectSize : 1;
  auto *chunk = static_cast<unsigned char *>(::operator new(count *objectSize));
  gChunkBytes.fetch_add(count * objectSize, std::memory_order_relaxed);
  FreeNode *head = tCache.heads[cls];
  for (std::size_t i = count; i-- > 0;) {
    auto *n = reinterpret_cast<FreeNode *>(chunk + i * objectSize);
    n->next = head;
    head = n;
  }
  tCache.heads[cls] = head;
}

} // namespace

void *allocate(std::size_t size) {
#ifdef MICA_SLAB_OFF
  return ::operator new(size);
#else
  if (size == 0 || size > kMaxSize) {
    return ::operator new(size);
  }
  const std::size_t cls = classOf(size);
  FreeNode *&head = tCache.heads[cls];
  if (!head) [[unlikely]] {
    refill(cls);
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
    ::operator delete(p);
    return;
  }
  FreeNode *&head = tCache.heads[classOf(size)];
  auto *n = static_cast<FreeNode *>(p);
  n->next = head;
  head = n;
#endif
}

std::uint64_t chunkBytes() noexcept {
  return gChunkBytes.load(std::memory_order_relaxed);
}

} // namespace Fwk::Slab
