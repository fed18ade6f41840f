// Key hashing of the framework's collections.
//
// Every in-memory hash collection hashes its keys with the process-wide seed
// mixed (exclusive or) with a 32-bit constant of the collection's own, so two
// collections of the same keys do not share a bucket layout:
//
//   Fwk::HashMap<Key, Value> pending(0x7a3c19e5);   // seed: processHashSeed()
//   ^ mix
//
// A key type provides `std::uint32_t hash(std::uint32_t seed) const`; integers,
// strings and padding-free trivially copyable records are hashed here.
// Shared-memory files never use the process seed: their index seed is stored
// in the file (platform/shm).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Export.h"
#include "platform/framework/Bytes.h"

namespace Fwk {

// The seed of this process, drawn from the kernel's random source the first
// time it is asked for. MICA_HASH_SEED (decimal or 0x-hex) fixes it, which
// makes iteration orders repeatable between runs.
MICA_PLATFORM_API std::uint32_t processHashSeed() noexcept;

// 64-bit hash of a byte range (XXH3).
MICA_PLATFORM_API std::uint64_t hashBytes64(const void *data, std::size_t size,
                                            std::uint64_t seed) noexcept;

// The 64-bit finaliser of MurmurHash3: every input bit affects every
// output bit.
constexpr std::uint64_t fmix64(std::uint64_t x) noexcept {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  x ^= x >> 33;
  return x;
}

// 32-bit hash of a byte range under a 32-bit seed, for in-memory hash
// collections (never stored). Keys of up to 32 bytes, every key in use, are
// mixed inline a word at a time: on the table's hot paths a call through
// XXH3's dispatch costs more than the mixing.
inline std::uint32_t hashBytes(const void *data, std::size_t size,
                               std::uint32_t seed) noexcept {
  if (size <= 32) {
    const auto *p = static_cast<const unsigned char *>(data);
    std::uint64_t h = (std::uint64_t{seed} << 32 | seed) ^ (size * 0x9e3779b97f4a7c15ull);
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
      std::uint64_t w;
      std::memcpy(&w, p + i, 8);
      h = fmix64(h ^ w) + 0x9e3779b97f4a7c15ull;
    }
    if (i < size) {
      std::uint64_t w = 0;
      std::memcpy(&w, p + i, size - i);
      h = fmix64(h ^ w);
    }
    return static_cast<std::uint32_t>(h ^ (h >> 32));
  }
  const std::uint64_t h = hashBytes64(data, size, seed);
  return static_cast<std::uint32_t>(h ^ (h >> 32));
}

// A finaliser for integers: every input bit affects every output bit.
constexpr std::uint32_t mixInt(std::uint64_t x, std::uint32_t seed) noexcept {
  x ^= static_cast<std::uint64_t>(seed) * 0x9e3779b97f4a7c15ull;
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  x ^= x >> 33;
  return static_cast<std::uint32_t>(x);
}

template <typename K>
concept HasHashMember = requires(const K &k, std::uint32_t s) {
  { k.hash(s) } -> std::convertible_to<std::uint32_t>;
};

// The 32-bit hash of a key under a seed.
template <typename K>
std::uint32_t keyHash(const K &key, std::uint32_t seed) noexcept {
  if constexpr (HasHashMember<K>) {
    return key.hash(seed);
  } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
    return mixInt(static_cast<std::uint64_t>(key), seed);
  } else if constexpr (std::is_convertible_v<const K &, std::string_view>) {
    const std::string_view s(key);
    return hashBytes(s.data(), s.size(), seed);
  } else {
    static_assert(std::has_unique_object_representations_v<K>,
                  "a key without a hash member is hashed as bytes, which "
                  "needs a type without padding bits");
    return hashBytes(&key, sizeof key, seed);
  }
}

// A total order of keys, used only to order keys whose hashes are equal so
// that a collection's iteration order depends on its keys alone.
template <typename K> bool keyLess(const K &a, const K &b) noexcept {
  if constexpr (std::has_unique_object_representations_v<K>) {
    return compareBytes<sizeof(K)>(&a, &b) < 0;
  } else {
    return a < b;
  }
}

} // namespace Fwk
