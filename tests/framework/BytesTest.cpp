#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <utility>

#include "platform/framework/Bytes.h"

namespace {

int sign(int v) { return (v > 0) - (v < 0); }

// Keys are ordered by compareBytes in memory and by memcmp where a reader
// sorts a copy; the two must agree on every size a key can have, including
// differences in the last byte and bytes above 0x7f.
template <std::size_t N> void expectSameOrderAsMemcmp(std::mt19937 &rng) {
  unsigned char a[N], b[N];
  for (int round = 0; round < 2000; ++round) {
    for (std::size_t i = 0; i < N; ++i) {
      a[i] = b[i] = static_cast<unsigned char>(rng());
    }
    if (round % 4 != 0) {
      // Differ at one position only, so later bytes cannot decide.
      const std::size_t at = rng() % N;
      b[at] = static_cast<unsigned char>(rng());
      a[(at + 1) % N] ^= round % 3 == 0 ? 0xff : 0;
    }
    ASSERT_EQ(sign(Fwk::compareBytes<N>(a, b)), sign(std::memcmp(a, b, N)))
        << "size " << N << " round " << round;
    ASSERT_EQ(Fwk::compareBytes<N>(a, a), 0);
  }
}

template <std::size_t... N>
void expectSameOrderForSizes(std::mt19937 &rng, std::index_sequence<N...>) {
  (expectSameOrderAsMemcmp<N>(rng), ...);
}

TEST(CompareBytes, OrdersLikeMemcmpForEveryKeySize) {
  std::mt19937 rng(3);
  expectSameOrderForSizes(
      rng, std::index_sequence<1, 2, 3, 4, 6, 7, 8, 12, 15, 16, 24>{});
}

} // namespace
