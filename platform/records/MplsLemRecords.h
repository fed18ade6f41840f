// Records of the LEM table: label key -> FEC, reached through the
// L2-adjacency-to-FEC table.
//
// An MplsLemEntry is laid out as its resource keys (the 32-bit L2 adjacency
// id) followed by its 24-byte log entry (the key, the resolved FEC id and
// error code, and two reserved words that stay zero).
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Export.h"
#include "platform/asic/Types.h"
#include "platform/records/MplsLabelKey.h"
#include "platform/resource/ResourceTypes.h"

namespace MicaMpls {

struct MplsLemKeyTag {
  static constexpr const char *kName = "MplsLemEntryKey";
};
using MplsLemEntryKey = MplsLabelKey<MplsLemKeyTag>;

// What the entry asks of the L2-adjacency-to-FEC table.
struct MplsLemResourceKeys {
  std::uint32_t l2AdjId = 0;

  bool operator==(const MplsLemResourceKeys &o) const noexcept {
    return l2AdjId == o.l2AdjId;
  }
};

// What the hardware entry holds.
struct MplsLemLogEntry {
  MplsLemEntryKey key;
  std::uint32_t fecId = 0;
  std::uint32_t errorCode = 0;
  std::uint32_t reserved[2] = {};

  bool operator==(const MplsLemLogEntry &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
  explicit operator bool() const noexcept { return !Fwk::isDefault(*this); }
};

// The value a client writes. It carries no client data the table fills in.
struct MplsLemEntry {
  std::uint32_t l2AdjId = 0;
  MplsLemEntryKey key;
  std::uint32_t fecId = 0;     // resolved from the adjacency's FEC at commit
  std::uint32_t errorCode = 0; // resolved from the adjacency's FEC at commit
  std::uint32_t reserved[2] = {};

  bool operator==(const MplsLemEntry &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
  // True iff the entry differs from a default-constructed one.
  explicit operator bool() const noexcept { return !Fwk::isDefault(*this); }

  MplsLemResourceKeys resourceKeys() const noexcept { return {l2AdjId}; }
  MplsLemLogEntry logEntry() const noexcept {
    return {key, fecId, errorCode, {reserved[0], reserved[1]}};
  }
  static MplsLemEntry fromParts(const MplsLemResourceKeys &rk,
                                const MplsLemLogEntry &le) noexcept {
    return {rk.l2AdjId, le.key, le.fecId, le.errorCode,
            {le.reserved[0], le.reserved[1]}};
  }
};

static_assert(sizeof(MplsLemLogEntry) == 24, "the log entry is 24 bytes");
static_assert(offsetof(MplsLemEntry, key) == sizeof(MplsLemResourceKeys) &&
                  sizeof(MplsLemEntry) ==
                      sizeof(MplsLemResourceKeys) + sizeof(MplsLemLogEntry),
              "an entry is its resource keys followed by its log entry");
static_assert(Fwk::PlainRecord<MplsLemEntry> && Fwk::PlainRecord<MplsLemLogEntry>,
              "records must have no implicit padding");

// Compile-time settings of the LEM table.
struct MICA_PLATFORM_API MplsLemConstants {
  static constexpr bool doesMarkSweep = true;
  static constexpr bool hwErrorHandling = false;
  static constexpr const char *tableName = "MplsLem";
  static constexpr const char *groupName = "MicaMpls";
  static constexpr std::uint32_t swTableTypeId = 0x0A080402;

  static std::string tableEntryLogSlatePath();
  static std::string configSlatePath(Asic::UnitId unitId);
};

} // namespace MicaMpls

template <> struct fmt::formatter<MicaMpls::MplsLemLogEntry> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsLemLogEntry &e, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "MplsLemLogEntry(key={}, fecId={}, errorCode={})",
                          e.key, e.fecId, e.errorCode);
  }
};

template <> struct fmt::formatter<MicaMpls::MplsLemEntry> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsLemEntry &e, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "MplsLemEntry(l2AdjId={}, key={}, fecId={}, "
                          "errorCode={})",
                          e.l2AdjId, e.key, e.fecId, e.errorCode);
  }
};

template <> struct fmt::formatter<MicaMpls::MplsLemResourceKeys> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsLemResourceKeys &r, Ctx &ctx) const {
    return fmt::format_to(ctx.out(), "MplsLemResourceKeys(l2AdjId={})",
                          r.l2AdjId);
  }
};
