// Keys and data of the resource tables the MPLS tables take their results
// from: the in-LIF table (MicaTunnelNiLib) and the L2-adjacency-to-FEC table
// (MicaAdjLib). The default key of each is its null key: an entry whose
// resource key is null uses no resource.
#pragma once

#include <fmt/format.h>

#include <cstdint>

#include "platform/framework/Record.h"

namespace MicaTunnelNiLib {

// The key of an in-LIF: what kind of logical interface terminates the label,
// in which VRF and with which profile. 32 bytes.
struct InLifEntryKey {
  std::uint32_t lifType = 0;
  std::uint32_t vrfId = 0;
  std::uint32_t label = 0;
  std::uint32_t profile = 0;
  std::uint64_t ownerCookie = 0;
  std::uint32_t flags = 0;
  std::uint32_t pad = 0;

  bool operator==(const InLifEntryKey &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
  std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Fwk::hashRecord(*this, seed);
  }
  bool isNull() const noexcept { return Fwk::isDefault(*this); }
};
static_assert(sizeof(InLifEntryKey) == 32, "in-LIF keys are 32 bytes");

// What a client of the in-LIF table attaches to its request: QoS and TTL
// profiles, a counter, and opaque per-feature data. 768 bytes.
struct InLifClientData {
  std::uint32_t qosProfile = 0;
  std::uint32_t ttlProfile = 0;
  std::uint32_t counterId = 0;
  std::uint32_t flags = 0;
  std::uint8_t opaque[752] = {};

  bool operator==(const InLifClientData &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
};
static_assert(sizeof(InLifClientData) == 768,
              "in-LIF client data is 768 bytes");

} // namespace MicaTunnelNiLib

namespace MicaAdjLib {

// The key of the L2-adjacency-to-FEC table: the L2 adjacency id.
struct L2AdjToFecResourceTableEntryKey {
  std::uint32_t l2AdjId = 0;

  bool operator==(const L2AdjToFecResourceTableEntryKey &o) const noexcept {
    return l2AdjId == o.l2AdjId;
  }
  std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Fwk::hashRecord(*this, seed);
  }
  bool isNull() const noexcept { return l2AdjId == 0; }
};

} // namespace MicaAdjLib

template <> struct fmt::formatter<MicaTunnelNiLib::InLifEntryKey> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaTunnelNiLib::InLifEntryKey &k, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "InLifEntryKey(lifType={}, vrfId={}, label={}, "
                          "profile={}, ownerCookie={:#x}, flags={:#x})",
                          k.lifType, k.vrfId, k.label, k.profile, k.ownerCookie,
                          k.flags);
  }
};

template <> struct fmt::formatter<MicaTunnelNiLib::InLifClientData> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaTunnelNiLib::InLifClientData &d, Ctx &ctx) const {
    // The opaque part is summarised by a digest: equal digests, equal data.
    return fmt::format_to(ctx.out(),
                          "InLifClientData(qosProfile={}, ttlProfile={}, "
                          "counterId={}, flags={:#x}, opaqueDigest={:08x})",
                          d.qosProfile, d.ttlProfile, d.counterId, d.flags,
                          Fwk::hashBytes(d.opaque, sizeof d.opaque, 0));
  }
};

template <> struct fmt::formatter<MicaAdjLib::L2AdjToFecResourceTableEntryKey> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaAdjLib::L2AdjToFecResourceTableEntryKey &k,
              Ctx &ctx) const {
    return fmt::format_to(
        ctx.out(), "L2AdjToFecResourceTableEntryKey(l2AdjId={})", k.l2AdjId);
  }
};
