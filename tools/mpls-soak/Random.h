// The soak's one source of randomness: a small generator whose every draw is
// defined here (splitmix64), so that a seed gives the same rounds on every
// machine and library (std::uniform_int_distribution's output is not fixed
// by the standard).
//
//   MplsSoak::Random rng(MplsSoak::Random::derive(seed, round));
//   if (rng.chance(0.25)) ...
//   const auto label = rng.between(16, (1u << 20) - 1);
//   const double delay = rng.uniform(0.0, window);
#pragma once

#include <cstdint>

namespace MplsSoak {

class Random {
public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  // A seed of its own for part `part` of a run of `seed` (a round, say), so
  // that what one round draws never shifts the draws of the next.
  static std::uint64_t derive(std::uint64_t seed, std::uint64_t part) {
    Random r(seed ^ (part * 0xd1b54a32d192ed03ull));
    r.next();
    return r.next();
  }

  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  // Uniform in [0, n); 0 when n is 0. The modulo bias is far below what a
  // soak could notice.
  std::uint64_t below(std::uint64_t n) { return n == 0 ? 0 : next() % n; }
  // Uniform in [lo, hi].
  std::uint64_t between(std::uint64_t lo, std::uint64_t hi) {
    return lo + below(hi - lo + 1);
  }
  // Uniform in [0, 1).
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double uniform(double lo, double hi) { return lo + (hi - lo) * unit(); }
  bool chance(double p) { return unit() < p; }

private:
  std::uint64_t state_;
};

} // namespace MplsSoak
