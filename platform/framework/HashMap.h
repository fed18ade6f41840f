// Keyed collections of the framework: HashMap<K, V> and HashSet<K>.
//
//   Fwk::HashMap<MplsIsem2EntryKey, Fwk::Ptr<Wrapper>> pending(0x2f4a7d11);
//   pending.insert(key, wrapper);              // insert or replace
//   if (auto *w = pending.find(key)) ...;      // O(1)
//   for (auto it = pending.begin(); it != pending.end(); ++it) use(it.key());
//   auto it = pending.lowerBound(bookmark);    // at bookmark, or after it
//
// Keys are hashed with the process-wide seed mixed with the collection's own
// constant (Hash.h). Iteration follows hash order (OrderedProbe.h): it is
// stable, it does not depend on the order of inserts, and a walk can resume
// after a key that has since been erased.
//
// Invalidation: insert (of a new key), erase, clear and shrinkToFit
// invalidate every iterator and every pointer to a key or value. Replacing
// the value of a present key invalidates nothing. Lookups invalidate nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/framework/Hash.h"
#include "platform/framework/OrderedProbe.h"

namespace Fwk {

// The value type of a set.
struct Unit {
  bool operator==(const Unit &) const = default;
};

template <typename K, typename V> class HashMap {
  struct Slot {
    std::uint32_t hash = 0;
    bool used = false;
    K key{};
    V value{};
  };
  struct Ops {
    using Hash = std::uint32_t;
    static bool used(const Slot &s) noexcept { return s.used; }
    static Hash hashOf(const Slot &s) noexcept { return s.hash; }
    static void vacate(Slot &s) {
      s.used = false;
      s.key = K{};
      s.value = V{};
    }
  };
  using Array = detail::OrderedProbeArray<Slot, Ops>;

public:
  static constexpr std::uint32_t kDefaultMix = 0x5bd1e995u;

  explicit HashMap(std::uint32_t mix = kDefaultMix)
      : seed_(processHashSeed() ^ mix) {}

  // The seed the keys are hashed with.
  std::uint32_t seed() const noexcept { return seed_; }
  std::size_t size() const noexcept { return a_.size(); }
  bool empty() const noexcept { return a_.size() == 0; }

  // Lookups in an empty map (a table's pending changes, mostly) answer
  // without hashing the key.
  V *find(const K &key) noexcept {
    if (empty()) {
      return nullptr;
    }
    const auto p = locate(key);
    return p.found ? &a_.at(p.pos).value : nullptr;
  }
  const V *find(const K &key) const noexcept {
    if (empty()) {
      return nullptr;
    }
    const auto p = locate(key);
    return p.found ? &a_.at(p.pos).value : nullptr;
  }
  bool contains(const K &key) const noexcept {
    return !empty() && locate(key).found;
  }
  // Starts fetching the part of the array where the key is or would be, for
  // a caller that knows which keys it looks up next. Changes nothing.
  void prefetch(const K &key) const noexcept {
    a_.prefetch(keyHash(key, seed_));
  }

  // Inserts the key or replaces its value. True when the key is new.
  bool insert(const K &key, V value) {
    const std::uint32_t h = keyHash(key, seed_);
    const auto p = a_.lowerBound(h, cmpTo(key));
    if (p.found) {
      a_.at(p.pos).value = std::move(value);
      return false;
    }
    a_.insertNew(h, cmpTo(key), Slot{h, true, key, std::move(value)}, p);
    return true;
  }

  // Removes the key. True when it was there.
  bool erase(const K &key) {
    const auto p = locate(key);
    if (!p.found) {
      return false;
    }
    a_.eraseAt(p.pos);
    return true;
  }

  // Removes the key and hands its value to the caller.
  bool take(const K &key, V &out) {
    const auto p = locate(key);
    if (!p.found) {
      return false;
    }
    out = std::move(a_.at(p.pos).value);
    a_.eraseAt(p.pos);
    return true;
  }

  void clear() noexcept { a_.clear(); }
  void reserve(std::size_t n) { a_.reserve(n); }
  void shrinkToFit() { a_.shrinkToFit(); }

  class const_iterator {
  public:
    const_iterator() = default;
    const K &key() const noexcept { return m_->a_.at(pos_).key; }
    const V &value() const noexcept { return m_->a_.at(pos_).value; }
    const_iterator &operator++() noexcept {
      pos_ = m_->a_.nextUsed(pos_ + 1);
      return *this;
    }
    bool operator==(const const_iterator &o) const noexcept {
      return pos_ == o.pos_;
    }
    explicit operator bool() const noexcept { return pos_ != Array::npos; }

  private:
    friend class HashMap;
    const_iterator(const HashMap *m, std::size_t pos) : m_(m), pos_(pos) {}
    const HashMap *m_ = nullptr;
    std::size_t pos_ = Array::npos;
  };

  const_iterator begin() const noexcept { return {this, a_.nextUsed(0)}; }
  const_iterator end() const noexcept { return {this, Array::npos}; }

  // The element of the key, or end().
  const_iterator findIter(const K &key) const noexcept {
    const auto p = locate(key);
    return {this, p.found ? p.pos : Array::npos};
  }
  // The element of the key, or the first element after where the key would
  // be; end() when there is none.
  const_iterator lowerBound(const K &key) const noexcept {
    return {this, a_.nextUsed(locate(key).pos)};
  }
  // The first element after the key, whether the key is there or not.
  const_iterator upperBound(const K &key) const noexcept {
    const auto p = locate(key);
    return {this, a_.nextUsed(p.found ? p.pos + 1 : p.pos)};
  }

private:
  auto cmpTo(const K &key) const noexcept {
    return [&key](const Slot &s) {
      return s.key == key ? 0 : keyLess(s.key, key) ? -1 : 1;
    };
  }
  typename Array::Pos locate(const K &key) const noexcept {
    return a_.lowerBound(keyHash(key, seed_), cmpTo(key));
  }

  std::uint32_t seed_;
  Array a_;
};

template <typename K> class HashSet {
public:
  using Map = HashMap<K, Unit>;
  using const_iterator = typename Map::const_iterator;

  explicit HashSet(std::uint32_t mix = Map::kDefaultMix) : m_(mix) {}

  std::uint32_t seed() const noexcept { return m_.seed(); }
  std::size_t size() const noexcept { return m_.size(); }
  bool empty() const noexcept { return m_.empty(); }
  bool contains(const K &key) const noexcept { return m_.contains(key); }
  // True when the key is new.
  bool insert(const K &key) { return m_.insert(key, Unit{}); }
  bool erase(const K &key) { return m_.erase(key); }
  void clear() noexcept { m_.clear(); }
  void reserve(std::size_t n) { m_.reserve(n); }

  const_iterator begin() const noexcept { return m_.begin(); }
  const_iterator end() const noexcept { return m_.end(); }
  const_iterator lowerBound(const K &key) const noexcept {
    return m_.lowerBound(key);
  }
  const_iterator upperBound(const K &key) const noexcept {
    return m_.upperBound(key);
  }

private:
  Map m_;
};

} // namespace Fwk
