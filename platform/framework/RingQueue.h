// RingQueue<T>: a FIFO whose positions carry 32-bit wrapping sequence numbers.
//
//   Fwk::RingQueue<Fwk::Ptr<Handle>> q;
//   std::uint32_t n = q.enq(handle);     // 1 for the first element ever
//   q.has(n); q.at(n); q.front(); q.back();
//   Fwk::Ptr<Handle> h = q.deq();        // the oldest; the slot's reference
//   moves out
//
// Sequence numbers are compared in serial order: a comes before b when
// (b - a) mod 2^32 lies in [1, 2^31 - 1]. They only move forward, also across
// empty spells and clear(), for as long as the queue lives.
//
// Storage is a ring of arrays whose capacities are powers of two from 4 to
// 8192. The queue holds one pointer, to the newest array (the tail); each
// array links to the next newer one and the tail links to the oldest (the
// head), which closes the ring. When the tail is full, a new array is linked
// in whose capacity is the smallest power of two above the number queued, so
// a burst costs few allocations; elements never move, and an array is freed
// as soon as its last element is dequeued. When the last array empties, a
// zero-capacity placeholder takes its place and carries the next sequence
// number forward.
//
// Each array holds its link, one packed word (head index in bits 0-13, fill
// count in bits 14-27, log2 of the capacity in bits 28-31, where 0 marks a
// placeholder), the sequence number of its slot 0, and its slots.
//
// Complexity: enq, deq, front, back and has are O(1); at(n) walks the arrays
// (at most a few dozen for any queue length). Invalidation: enq never moves
// an element; deq and clear destroy the elements they remove. Not thread
// safe: one thread owns the queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

#include "platform/framework/Assert.h"

namespace Fwk {

// Serial-number order of 32-bit sequence numbers.
constexpr bool serialLess(std::uint32_t a, std::uint32_t b) noexcept {
  const std::uint32_t d = b - a;
  return d >= 1 && d <= 0x7fffffffu;
}

constexpr bool isPowerOfTwo(std::uint32_t i) noexcept {
  return i != 0 && (i & (i - 1)) == 0;
}

template <typename T> class RingQueue {
  struct Array {
    Array *link;
    std::uint32_t packed;
    std::uint32_t base;
    // Slots follow the header; slot i is constructed while the array holds it.

    static constexpr std::uint32_t kIndexMask = 0x3fff;
    std::uint32_t head() const noexcept { return packed & kIndexMask; }
    std::uint32_t fill() const noexcept { return (packed >> 14) & kIndexMask; }
    std::uint32_t log2() const noexcept { return packed >> 28; }
    std::uint32_t capacity() const noexcept {
      return log2() ? std::uint32_t{1} << log2() : 0;
    }
    void headIs(std::uint32_t h) noexcept {
      packed = (packed & ~kIndexMask) | h;
    }
    void fillIs(std::uint32_t f) noexcept {
      packed = (packed & ~(kIndexMask << 14)) | (f << 14);
    }
    bool linked() const noexcept { return link != nullptr; }
    T *slot(std::uint32_t i) noexcept {
      return reinterpret_cast<T *>(reinterpret_cast<char *>(this) +
                                   kSlotOffset) +
             i;
    }
    const T *slot(std::uint32_t i) const noexcept {
      return const_cast<Array *>(this)->slot(i);
    }
  };
  static constexpr std::size_t kSlotOffset =
      (sizeof(Array) + alignof(T) - 1) / alignof(T) * alignof(T);

public:
  static constexpr std::uint32_t kMinCapacity = 4;
  static constexpr std::uint32_t kMaxCapacity = 8192;

  RingQueue() = default;
  RingQueue(const RingQueue &) = delete;
  RingQueue &operator=(const RingQueue &) = delete;
  ~RingQueue() {
    clear();
    freeArray(unlinkOnly());
  }

  bool empty() const noexcept {
    return !tail_ || backNum() - frontSeq() == 0xffffffffu;
  }
  // The number of elements queued.
  std::uint32_t size() const noexcept {
    return tail_ ? backSeq() - frontSeq() + 1 : 0;
  }
  // Sequence numbers of the oldest and the newest element. On an empty queue
  // backSeq() is frontSeq() - 1.
  std::uint32_t frontSeq() const noexcept {
    const Array *h = headArray();
    return h ? h->base + h->head() : 1;
  }
  std::uint32_t backSeq() const noexcept { return backNum(); }
  // The number the next enq will return.
  std::uint32_t nextSeq() const noexcept { return backNum() + 1; }

  // Appends at the back and returns the element's sequence number.
  std::uint32_t enq(T value) {
    if (!tail_) {
      tail_ = newArray(kMinCapacity, 1);
      tail_->link = tail_;
    } else if (tail_->fill() == tail_->capacity()) {
      const std::uint32_t next = tail_->base + tail_->fill();
      if (tail_->capacity() == 0) {
        // A placeholder is always the only array.
        freeArray(unlinkOnly());
        tail_ = newArray(kMinCapacity, next);
        tail_->link = tail_;
      } else {
        const std::uint32_t n = backNum() - frontSeq() + 1;
        std::uint32_t cap = kMinCapacity;
        while (cap <= n && cap < kMaxCapacity) {
          cap <<= 1;
        }
        Array *a = newArray(cap, next);
        a->link = tail_->link;
        tail_->link = a;
        tail_ = a;
      }
    }
    const std::uint32_t f = tail_->fill();
    new (tail_->slot(f)) T(std::move(value));
    tail_->fillIs(f + 1);
    return tail_->base + f;
  }

  // Removes and returns the oldest element; a default T when empty.
  T deq() {
    if (empty()) {
      return T{};
    }
    Array *h = tail_->link;
    const std::uint32_t i = h->head();
    T out(std::move(*h->slot(i)));
    h->slot(i)->~T();
    h->headIs(i + 1);
    if (i + 1 == h->fill()) {
      retireHead();
    }
    return out;
  }

  // The oldest or the newest element, or null when empty.
  const T *front() const noexcept {
    if (empty()) {
      return nullptr;
    }
    const Array *h = headArray();
    return h->slot(h->head());
  }
  const T *back() const noexcept {
    return empty() ? nullptr : tail_->slot(tail_->fill() - 1);
  }

  // True iff front <= n <= back in serial order.
  bool has(std::uint32_t n) const noexcept {
    return !empty() && n - frontSeq() <= backNum() - frontSeq();
  }

  // The element numbered n, or null when n lies outside front .. back.
  const T *at(std::uint32_t n) const noexcept {
    if (!has(n)) {
      return nullptr;
    }
    const Array *a = headArray();
    for (;;) {
      const std::uint32_t first = a->base + a->head();
      if (n - first < a->fill() - a->head()) {
        return a->slot(a->head() + (n - first));
      }
      if (a == tail_) {
        return nullptr;
      }
      a = a->link;
    }
  }

  // Destroys every element and frees every array, leaving a placeholder so
  // that numbering goes on.
  void clear() noexcept {
    if (!tail_) {
      return;
    }
    const std::uint32_t next = nextSeq();
    Array *a = tail_->link;
    tail_->link = nullptr;
    while (a) {
      Array *n = a->link;
      for (std::uint32_t i = a->head(); i < a->fill(); ++i) {
        a->slot(i)->~T();
      }
      a->link = nullptr;
      freeArray(a);
      a = n;
    }
    tail_ = newArray(0, next);
    tail_->link = tail_;
  }

  // Number of arrays in the ring (placeholders included); for tests and
  // introspection.
  std::size_t arrays() const noexcept {
    if (!tail_) {
      return 0;
    }
    std::size_t n = 1;
    for (const Array *a = tail_->link; a != tail_; a = a->link) {
      ++n;
    }
    return n;
  }
  // Capacity of the newest array (0 for a placeholder or no array).
  std::uint32_t tailCapacity() const noexcept {
    return tail_ ? tail_->capacity() : 0;
  }

  class const_iterator {
  public:
    const T &operator*() const noexcept { return *a_->slot(i_); }
    const T *operator->() const noexcept { return a_->slot(i_); }
    std::uint32_t seq() const noexcept { return a_->base + i_; }
    const_iterator &operator++() noexcept {
      if (++i_ == a_->fill()) {
        if (a_ == tail_) {
          a_ = nullptr;
          i_ = 0;
        } else {
          a_ = a_->link;
          i_ = a_->head();
        }
      }
      return *this;
    }
    bool operator==(const const_iterator &o) const noexcept {
      return a_ == o.a_ && i_ == o.i_;
    }

  private:
    friend class RingQueue;
    const_iterator(const Array *a, std::uint32_t i, const Array *tail)
        : a_(a), i_(i), tail_(tail) {}
    const Array *a_;
    std::uint32_t i_;
    const Array *tail_;
  };

  const_iterator begin() const noexcept {
    if (empty()) {
      return end();
    }
    const Array *h = headArray();
    return {h, h->head(), tail_};
  }
  const_iterator end() const noexcept { return {nullptr, 0, tail_}; }

private:
  const Array *headArray() const noexcept {
    return tail_ ? tail_->link : nullptr;
  }
  std::uint32_t backNum() const noexcept {
    return tail_ ? tail_->base + tail_->fill() - 1 : 0;
  }

  static Array *newArray(std::uint32_t capacity, std::uint32_t base) {
    std::uint32_t log2 = 0;
    if (capacity) {
      FWK_ASSERT_NAMED(isPowerOfTwo(capacity), "isPowerOfTwo( i )");
      while ((std::uint32_t{1} << log2) < capacity) {
        ++log2;
      }
    }
    void *mem = std::malloc(kSlotOffset + sizeof(T) * capacity);
    if (!mem) {
      std::abort();
    }
    Array *a = new (mem) Array{nullptr, log2 << 28, base};
    return a;
  }

  static void freeArray(Array *a) noexcept {
    if (!a) {
      return;
    }
    FWK_ASSERT_NAMED(!a->linked(), "!linked()");
    a->~Array();
    std::free(a);
  }

  // Takes the only array out of the ring.
  Array *unlinkOnly() noexcept {
    Array *a = tail_;
    if (a) {
      a->link = nullptr;
    }
    tail_ = nullptr;
    return a;
  }

  // The head array is used up: unlink and free it; if it was the only one,
  // a placeholder carries the numbering on.
  void retireHead() {
    Array *h = tail_->link;
    if (h == tail_) {
      const std::uint32_t next = h->base + h->fill();
      freeArray(unlinkOnly());
      tail_ = newArray(0, next);
      tail_->link = tail_;
      return;
    }
    tail_->link = h->link;
    h->link = nullptr;
    freeArray(h);
  }

  Array *tail_ = nullptr;
};

} // namespace Fwk
