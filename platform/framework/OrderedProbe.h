// Ordered linear probing: the hash table under every keyed collection.
//
// Elements sit in one array in the order of their hash (ties broken by a
// total order of keys). An element's home slot is the top bits of its hash,
// so growing or shrinking the array keeps the order, and the order depends on
// the keys alone, never on the history of inserts. That gives what the
// collections promise:
//
// - lookup in O(1) expected (a miss stops at the first greater element);
// - iteration in a stable order: an insert or an erase elsewhere never moves
//   an element to the other side of another;
// - "the element at key k, or the first one after where k would be", also
//   when k is not (or no longer) there, which resumable walks rely on.
//
// Runs of displaced elements are kept sorted: an insert shifts the rest of
// its run one slot right, an erase shifts the displaced tail of the run left.
// The array has a tail beyond its 2^bits home slots instead of wrapping
// around, so slot order is hash order. The load stays between 1/8 and 1/2.
//
// Invalidation: insertNew, eraseAt, clear and shrinkToFit move elements and
// may reallocate: every position and every reference into the array is
// invalid after them. Lookups never change the array.
//
// Ops requirements:
//   using Hash = std::uint32_t or std::uint64_t;
//   static bool used(const Slot &);
//   static Hash hashOf(const Slot &);
//   static void vacate(Slot &);    // make it unused, dropping what it holds
// Slot must be default-constructible (unused) and movable.
//   Optional: static constexpr bool kZeroBytesUnused = true; when a slot
//   whose bytes are all zero is an unused one (and Slot is trivially
//   copyable and destructible), large arrays come from zeroed fresh memory
//   (Slab::allocateZeroed) instead of being cleared slot by slot.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/framework/Slab.h"

namespace Fwk::detail {

template <typename Slot, typename Ops> class OrderedProbeArray {
public:
  using Hash = typename Ops::Hash;
  static constexpr std::size_t npos = ~std::size_t{0};
  static constexpr unsigned kHashBits = sizeof(Hash) * 8;
  static constexpr unsigned kMinBits = 3;

  struct Pos {
    std::size_t pos;
    bool found;
  };

  OrderedProbeArray() = default;
  OrderedProbeArray(OrderedProbeArray &&o) noexcept { swap(o); }
  OrderedProbeArray &operator=(OrderedProbeArray &&o) noexcept {
    OrderedProbeArray(std::move(o)).swap(*this);
    return *this;
  }

  std::size_t size() const noexcept { return size_; }
  std::size_t slots() const noexcept { return len_; }

  Slot &at(std::size_t pos) noexcept { return a_[pos]; }
  const Slot &at(std::size_t pos) const noexcept { return a_[pos]; }

  // The position of the probe's element, or of the first element that comes
  // after it. `cmp(slot)` orders an element of equal hash against the probe:
  // negative before, zero the same key, positive after.
  template <typename Cmp> Pos lowerBound(Hash h, Cmp &&cmp) const {
    std::size_t i = home(h);
    while (i < len_ && Ops::used(a_[i])) {
      const Hash hi = Ops::hashOf(a_[i]);
      if (hi > h) {
        break;
      }
      if (hi == h) {
        const int c = cmp(a_[i]);
        if (c == 0) {
          return {i, true};
        }
        if (c > 0) {
          break;
        }
      }
      ++i;
    }
    return {i, false};
  }

  // Starts fetching the cache line where a lookup of `h` begins, so that a
  // lookup issued a little later does not wait for memory.
  void prefetch(Hash h) const noexcept {
    if (len_) {
      __builtin_prefetch(&a_[home(h)]);
    }
  }

  // The first used position at or after `from`, or npos.
  std::size_t nextUsed(std::size_t from) const noexcept {
    for (std::size_t i = from; i < len_; ++i) {
      if (Ops::used(a_[i])) {
        return i;
      }
    }
    return npos;
  }

  // Inserts an element whose key is not in the table. Returns its position.
  // `at` is where a lowerBound() of the key, made since the last change,
  // found no element; it saves probing again unless the array must grow.
  template <typename Cmp>
  std::size_t insertNew(Hash h, Cmp &&cmp, Slot &&s, Pos at = {npos, false}) {
    if ((size_ + 1) * 2 > (std::size_t{1} << bits_) || len_ == 0) {
      rebuild(std::max(bits_ + 1, kMinBits));
      at.pos = npos;
    }
    for (;;) {
      const std::size_t pos = at.pos != npos ? at.pos : lowerBound(h, cmp).pos;
      at.pos = npos;
      std::size_t e = pos;
      while (e < len_ && Ops::used(a_[e])) {
        ++e;
      }
      if (e == len_) {
        // The run reaches the end of the tail: lengthen the tail and retry.
        rebuild(bits_, tail_ * 2);
        continue;
      }
      for (std::size_t j = e; j > pos; --j) {
        a_[j] = std::move(a_[j - 1]);
      }
      a_[pos] = std::move(s);
      ++size_;
      return pos;
    }
  }

  // Removes the element at `pos`.
  void eraseAt(std::size_t pos) {
    std::size_t hole = pos;
    for (std::size_t j = pos + 1;
         j < len_ && Ops::used(a_[j]) && home(Ops::hashOf(a_[j])) <= hole;
         ++j) {
      a_[hole] = std::move(a_[j]);
      hole = j;
    }
    Ops::vacate(a_[hole]);
    --size_;
  }

  // Releases memory after many erases: shrinks while the load is below 1/8.
  // The load is global: when the elements left are concentrated in one part
  // of the hash range (after erasing in order, say), shrinking packs them
  // into long runs, so callers shrink only where keys are spread.
  void shrinkToFit() {
    unsigned b = bits_;
    while (b > kMinBits && size_ * 8 < (std::size_t{1} << b)) {
      --b;
    }
    if (b != bits_) {
      rebuild(b);
    }
  }

  // Makes room for n elements without further growth.
  void reserve(std::size_t n) {
    unsigned b = std::max(bits_, kMinBits);
    while (n * 2 > (std::size_t{1} << b)) {
      ++b;
    }
    if (b != bits_ || len_ == 0) {
      rebuild(b);
    }
  }

  void clear() noexcept {
    a_.reset();
    len_ = 0;
    bits_ = 0;
    tail_ = 0;
    size_ = 0;
  }

  void swap(OrderedProbeArray &o) noexcept {
    std::swap(a_, o.a_);
    std::swap(len_, o.len_);
    std::swap(bits_, o.bits_);
    std::swap(tail_, o.tail_);
    std::swap(size_, o.size_);
  }

private:
  std::size_t home(Hash h) const noexcept {
    return bits_ ? static_cast<std::size_t>(h >> (kHashBits - bits_)) : 0;
  }

  static std::size_t defaultTail(unsigned bits) {
    return std::max<std::size_t>(8, (std::size_t{1} << bits) / 16);
  }

  // The position of the element at old position i in an array of 2^bits home
  // slots, given the position after the previously placed one.
  std::size_t placement(std::size_t i, unsigned bits,
                        std::size_t next) const noexcept {
    const Hash h = Ops::hashOf(a_[i]);
    const std::size_t p =
        bits ? static_cast<std::size_t>(h >> (kHashBits - bits)) : 0;
    return std::max(p, next);
  }

  // Moves every element, in order, into a new array of 2^bits home slots
  // followed by a tail long enough for the last run.
  void rebuild(unsigned bits, std::size_t tail = 0) {
    tail = std::max(tail, defaultTail(bits));
    std::size_t next = 0;
    for (std::size_t i = 0; i < len_; ++i) {
      if (Ops::used(a_[i])) {
        next = placement(i, bits, next) + 1;
      }
    }
    const std::size_t homes = std::size_t{1} << bits;
    if (next > homes + tail) {
      tail = next - homes;
    }
    const std::size_t len = homes + tail;
    Slots a = makeSlots(len);
    next = 0;
    for (std::size_t i = 0; i < len_; ++i) {
      if (Ops::used(a_[i])) {
        const std::size_t p = placement(i, bits, next);
        a[p] = std::move(a_[i]);
        next = p + 1;
      }
    }
    a_ = std::move(a);
    len_ = len;
    bits_ = bits;
    tail_ = tail;
  }

  // Arrays of at least this many bytes of slots that may start as zero
  // bytes come from zeroed fresh memory.
  static constexpr std::size_t kZeroedBytes = std::size_t{1} << 20;
  static constexpr bool kZeroBytesUnused = [] {
    if constexpr (requires { Ops::kZeroBytesUnused; }) {
      return Ops::kZeroBytesUnused && std::is_trivially_copyable_v<Slot> &&
             std::is_trivially_destructible_v<Slot>;
    }
    return false;
  }();
  static bool zeroed(std::size_t len) noexcept {
    return kZeroBytesUnused && len * sizeof(Slot) >= kZeroedBytes;
  }

  // The array lives in the framework's slab (Slab.h); its deleter knows
  // its length.
  struct SlotsDeleter {
    std::size_t len = 0;
    void operator()(Slot *p) const noexcept {
      if (zeroed(len)) {
        Slab::deallocateZeroed(p, len * sizeof(Slot));
        return;
      }
      std::destroy_n(p, len);
      Slab::deallocate(p, len * sizeof(Slot));
    }
  };
  using Slots = std::unique_ptr<Slot[], SlotsDeleter>;
  static Slots makeSlots(std::size_t len) {
    if (zeroed(len)) {
      // Zero bytes are unused slots of a trivial type: nothing to construct.
      return Slots(static_cast<Slot *>(Slab::allocateZeroed(len * sizeof(Slot))),
                   SlotsDeleter{len});
    }
    Slot *p = static_cast<Slot *>(Slab::allocate(len * sizeof(Slot)));
    try {
      std::uninitialized_value_construct_n(p, len);
    } catch (...) {
      Slab::deallocate(p, len * sizeof(Slot));
      throw;
    }
    return Slots(p, SlotsDeleter{len});
  }

  Slots a_;
  std::size_t len_ = 0;
  unsigned bits_ = 0;
  std::size_t tail_ = 0;
  std::size_t size_ = 0;
};

} // namespace Fwk::detail
