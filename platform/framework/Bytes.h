// Byte-wise comparison of small fixed-size objects, inline.
//
// compareBytes<N>(a, b) has the sign of std::memcmp(a, b, N): it orders by
// the first differing byte, as unsigned. It loads eight bytes at a time and
// compares them as big-endian integers, which is the same order, so keys
// compare in a few instructions instead of a library call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Fwk {

namespace detail {
template <typename U> inline U loadBigEndian(const unsigned char *p) noexcept {
  U v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (sizeof(U) == 8) {
    return __builtin_bswap64(v);
  } else if constexpr (sizeof(U) == 4) {
    return __builtin_bswap32(v);
  } else if constexpr (sizeof(U) == 2) {
    return __builtin_bswap16(v);
  } else {
    return v;
  }
}
} // namespace detail

template <std::size_t N>
inline int compareBytes(const void *a, const void *b) noexcept {
  const auto *x = static_cast<const unsigned char *>(a);
  const auto *y = static_cast<const unsigned char *>(b);
  std::size_t i = 0;
  auto step = [&]<typename U>(U) -> int {
    const U u = detail::loadBigEndian<U>(x + i),
            v = detail::loadBigEndian<U>(y + i);
    i += sizeof(U);
    return u == v ? 0 : (u < v ? -1 : 1);
  };
  for (; i + 8 <= N;) {
    if (const int c = step(std::uint64_t{})) {
      return c;
    }
  }
  if constexpr (N % 8 >= 4) {
    if (const int c = step(std::uint32_t{})) {
      return c;
    }
  }
  if constexpr (N % 4 >= 2) {
    if (const int c = step(std::uint16_t{})) {
      return c;
    }
  }
  if constexpr (N % 2 == 1) {
    return step(std::uint8_t{});
  }
  return 0;
}

} // namespace Fwk
