// Helpers for value records: plain structs with explicit padding fields that
// are always zero, so that equality, hashing, checksums and shared-memory
// files see only meaningful bytes.
//
//   struct Key {
//     std::uint32_t label = 0; std::uint8_t sub = 0; std::uint8_t pad[3] = {};
//     bool operator==(const Key &o) const { return Fwk::bytesEqual(*this, o); }
//     std::uint32_t hash(std::uint32_t seed) const { return
//     Fwk::hashRecord(*this, seed); }
//   };
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "platform/framework/Hash.h"

namespace Fwk {

template <typename T>
concept PlainRecord = std::is_trivially_copyable_v<T> &&
    std::has_unique_object_representations_v<T>;

template <PlainRecord T> bool bytesEqual(const T &a, const T &b) noexcept {
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

template <PlainRecord T>
std::uint32_t hashRecord(const T &r, std::uint32_t seed) noexcept {
  return hashBytes(&r, sizeof(T), seed);
}

// True when the record equals a default-constructed one.
template <PlainRecord T> bool isDefault(const T &r) noexcept {
  static const T kDefault{};
  return bytesEqual(r, kDefault);
}

// Explicit padding of N zero bytes; Pad<0> takes no room when declared
// [[no_unique_address]].
template <std::size_t N> struct Pad {
  std::uint8_t bytes[N] = {};
};
template <> struct Pad<0> {};

} // namespace Fwk
