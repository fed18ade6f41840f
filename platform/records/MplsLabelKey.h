// The MPLS label key both tables are keyed by: a 32-bit label field and an
// 8-bit qualifier, compared and copied as a pair. The default key holds
// 0x100000 (one above the largest 20-bit label) and qualifier 0: it is the
// key of a default entry and never a real label.
//
// Each table has its own key type (MplsIsem2EntryKey, MplsLemEntryKey),
// made from this template with a tag that names it.
#pragma once

#include <fmt/format.h>

#include <cstdint>

#include "platform/framework/Record.h"

namespace MicaMpls {

inline constexpr std::uint32_t kInvalidLabel = 0x100000;

template <typename Tag> struct MplsLabelKey {
  std::uint32_t label = kInvalidLabel;
  std::uint8_t qualifier = 0;
  std::uint8_t pad[3] = {};

  constexpr MplsLabelKey() = default;
  constexpr MplsLabelKey(std::uint32_t l, std::uint8_t q = 0)
      : label(l), qualifier(q) {}

  bool operator==(const MplsLabelKey &o) const noexcept {
    return label == o.label && qualifier == o.qualifier;
  }
  // Mixed from the packed key: a few instructions, where the byte hash of
  // the whole key costs a call (every change hashes its key several times).
  std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Fwk::mixInt(packed(), seed);
  }
  // The key as one number, distinct for distinct keys.
  constexpr std::uint64_t packed() const noexcept {
    return std::uint64_t{label} << 8 | qualifier;
  }
  static constexpr MplsLabelKey fromPacked(std::uint64_t p) noexcept {
    return MplsLabelKey(static_cast<std::uint32_t>(p >> 8),
                        static_cast<std::uint8_t>(p & 0xff));
  }
};

} // namespace MicaMpls

template <typename Tag> struct fmt::formatter<MicaMpls::MplsLabelKey<Tag>> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsLabelKey<Tag> &k, Ctx &ctx) const {
    return fmt::format_to(ctx.out(), "{}(label={}, qualifier={})", Tag::kName,
                          k.label, k.qualifier);
  }
};
