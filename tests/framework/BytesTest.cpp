#include <gtest/gtest.h>

#include <cstring>
#include <random>

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

TEST(CompareBytes, OrdersLikeMemcmpForEveryKeySize) {
  std::mt19937 rng(3);
  expectSameOrderAsMemcmp<1>(rng);
  expectSameOrderAsMemcmp<2>(rng);
  expectSameOrderAsMemcmp<3>(rng);
  expectSameOrderAsMemcmp<4>(rng);
  expectSameOrderAsMemcmp<6>(rng);
  expectSameOrderAsMemcmp<7>(rng);
  expectSameOrderAsMemcmp<8>(rng);
  expectSameOrderAsMemcmp<12>(rng);
  expectSameOrderAsMemcmp<15>(rng);
  expectSameOrderAsMemcmp<16>(rng);
  expectSameOrderAsMemcmp<24>(rng);
}

} // namespace
