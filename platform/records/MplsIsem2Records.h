// Records of the ISEM2 table: label key -> in-LIF.
//
// An MplsIsem2Entry is laid out as its resource keys (the 800-byte in-LIF key
// and client data the in-LIF table is asked for) followed by its log entry
// (the key and the two in-LIF indexes the hardware entry holds). The entry
// log stores a committed entry as those two parts and reads it back joined.
//
//   MicaMpls::MplsIsem2Entry e;
//   e.key = MicaMpls::MplsIsem2EntryKey(1000);
//   e.inLifKey.label = 1000;
//   auto [rk, le] = std::pair(e.resourceKeys(), e.logEntry());
//   assert(MicaMpls::MplsIsem2Entry::fromParts(rk, le) == e);
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

struct MplsIsem2KeyTag {
  static constexpr const char *kName = "MplsIsem2EntryKey";
};
using MplsIsem2EntryKey = MplsLabelKey<MplsIsem2KeyTag>;

// What the entry asks of the in-LIF table: its first 800 bytes.
struct MplsIsem2ResourceKeys {
  MicaTunnelNiLib::InLifEntryKey inLifKey;
  MicaTunnelNiLib::InLifClientData inLifClientData;

  bool operator==(const MplsIsem2ResourceKeys &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
};

// What the hardware entry holds: the key and the two resolved indexes.
struct MplsIsem2LogEntry {
  MplsIsem2EntryKey key;
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif23Index = 0;

  bool operator==(const MplsIsem2LogEntry &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
  explicit operator bool() const noexcept { return !Fwk::isDefault(*this); }
};

// The value a client writes.
struct MplsIsem2Entry {
  MicaTunnelNiLib::InLifEntryKey inLifKey;
  MicaTunnelNiLib::InLifClientData inLifClientData;
  MplsIsem2EntryKey key;
  std::uint32_t inLif0Index = 0;  // resolved from the in-LIF at commit
  std::uint32_t inLif23Index = 0; // resolved from the in-LIF at commit

  bool operator==(const MplsIsem2Entry &o) const noexcept {
    return Fwk::bytesEqual(*this, o);
  }
  // True iff the entry differs from a default-constructed one.
  explicit operator bool() const noexcept { return !Fwk::isDefault(*this); }

  const MicaTunnelNiLib::InLifClientData &clientData() const noexcept {
    return inLifClientData;
  }
  void clientDataIs(const MicaTunnelNiLib::InLifClientData &d) noexcept {
    inLifClientData = d;
  }

  MplsIsem2ResourceKeys resourceKeys() const noexcept {
    return {inLifKey, inLifClientData};
  }
  MplsIsem2LogEntry logEntry() const noexcept {
    return {key, inLif0Index, inLif23Index};
  }
  static MplsIsem2Entry fromParts(const MplsIsem2ResourceKeys &rk,
                                  const MplsIsem2LogEntry &le) noexcept {
    return {rk.inLifKey, rk.inLifClientData, le.key, le.inLif0Index,
            le.inLif23Index};
  }
};

static_assert(sizeof(MplsIsem2EntryKey) == 8);
static_assert(sizeof(MplsIsem2ResourceKeys) == 800,
              "the resource part is the in-LIF key and client data");
static_assert(sizeof(MplsIsem2LogEntry) == 16,
              "the log entry is the key and two indexes");
static_assert(offsetof(MplsIsem2Entry, key) == sizeof(MplsIsem2ResourceKeys) &&
                  sizeof(MplsIsem2Entry) ==
                      sizeof(MplsIsem2ResourceKeys) + sizeof(MplsIsem2LogEntry),
              "an entry is its resource keys followed by its log entry");
static_assert(Fwk::PlainRecord<MplsIsem2Entry> && Fwk::PlainRecord<MplsIsem2LogEntry>,
              "records must have no implicit padding");

// Compile-time settings of the ISEM2 table.
struct MICA_PLATFORM_API MplsIsem2Constants {
  static constexpr bool doesMarkSweep = true;
  static constexpr bool hwErrorHandling = false;
  static constexpr const char *tableName = "MplsIsem2";
  static constexpr const char *groupName = "MicaMpls";
  static constexpr std::uint32_t swTableTypeId = 0x0A080401;

  // Where the table type's change log lives in the shared-memory store.
  static std::string tableEntryLogSlatePath();
  // Where the configuration table of one unit lives.
  static std::string configSlatePath(Asic::UnitId unitId);
};

} // namespace MicaMpls

template <> struct fmt::formatter<MicaMpls::MplsIsem2LogEntry> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsIsem2LogEntry &e, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "MplsIsem2LogEntry(key={}, inLif0Index={}, "
                          "inLif23Index={})",
                          e.key, e.inLif0Index, e.inLif23Index);
  }
};

template <> struct fmt::formatter<MicaMpls::MplsIsem2Entry> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsIsem2Entry &e, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "MplsIsem2Entry(inLifKey={}, inLifClientData={}, "
                          "key={}, inLif0Index={}, inLif23Index={})",
                          e.inLifKey, e.inLifClientData, e.key, e.inLif0Index,
                          e.inLif23Index);
  }
};

template <> struct fmt::formatter<MicaMpls::MplsIsem2ResourceKeys> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const MicaMpls::MplsIsem2ResourceKeys &r, Ctx &ctx) const {
    return fmt::format_to(ctx.out(),
                          "MplsIsem2ResourceKeys(inLifKey={}, inLifClientData={})",
                          r.inLifKey, r.inLifClientData);
  }
};
