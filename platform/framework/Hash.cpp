#include "platform/framework/Hash.h"

#include <sys/random.h>
#include <xxhash.h>

#include <cstdlib>

namespace Fwk {

namespace {

std::uint32_t drawSeed() noexcept {
  if (const char *env = std::getenv("MICA_HASH_SEED")) {
    char *end = nullptr;
    const unsigned long v = std::strtoul(env, &end, 0);
    if (end && *end == '\0' && end != env) {
      return static_cast<std::uint32_t>(v);
    }
  }
  std::uint32_t seed = 0;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed) {
    seed = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&seed));
  }
  return seed;
}

} // namespace

std::uint32_t processHashSeed() noexcept {
  static const std::uint32_t seed = drawSeed();
  return seed;
}

std::uint64_t hashBytes64(const void *data, std::size_t size,
                          std::uint64_t seed) noexcept {
  return XXH3_64bits_withSeed(data, size, seed);
}

} // namespace Fwk
