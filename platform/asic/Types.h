// The ordered-table base library: value types shared by every table.
//
// This folder (platform/asic) is the base the software tables are built on:
// versions and ids here; entry handles, resolver entries and needed-entry
// sets in EntryHandle.h; the table base classes, table set, statistics and
// canonical names in OrderedSwTable.h; the group resolver in GroupResolver.h.
//
//   Asic::SwTableId id(0x0A080401);          // prints "0a:08:0401"
//   Asic::EntryVersion v{0, 0};              // first change of a key
//   v = v.next();                            // (1, 0)
//   Asic::MajorVersion none;                 // invalid until a remove-all
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <limits>

#include "platform/framework/Hash.h"

namespace Asic {

// A chip (unit) number. Every software table, configuration table and log
// record belongs to one unit.
using UnitId = std::uint16_t;

// The version of a logged change, allocated one by one from the entry log's
// table version. 0 means none and is never allocated.
using LogVersion = std::uint64_t;

// The table type: agent id (8 bits), group id (8 bits), table id (16 bits).
struct SwTableId {
  std::uint8_t agentId = 0;
  std::uint8_t groupId = 0;
  std::uint16_t tableId = 0;

  constexpr SwTableId() = default;
  constexpr SwTableId(std::uint8_t agent, std::uint8_t group,
                      std::uint16_t table)
      : agentId(agent), groupId(group), tableId(table) {}
  // From the packed form 0xAAGGTTTT.
  constexpr explicit SwTableId(std::uint32_t packed)
      : agentId(static_cast<std::uint8_t>(packed >> 24)),
        groupId(static_cast<std::uint8_t>(packed >> 16)),
        tableId(static_cast<std::uint16_t>(packed)) {}

  constexpr std::uint32_t packed() const noexcept {
    return std::uint32_t{agentId} << 24 | std::uint32_t{groupId} << 16 |
           tableId;
  }
  // The agent-and-group part, which names the table's group.
  constexpr std::uint16_t agentGroupId() const noexcept {
    return static_cast<std::uint16_t>(packed() >> 16);
  }
  constexpr bool operator==(const SwTableId &) const = default;
  std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Fwk::mixInt(packed(), seed);
  }
};

// The version of a pending change of one key: a 64-bit sequence number and
// a 16-bit field. The first change of a key gets (0, 0); each further change
// while one is pending raises the sequence number. All ones means none.
struct EntryVersion {
  static constexpr std::uint64_t kInvalidSeq =
      std::numeric_limits<std::uint64_t>::max();
  static constexpr std::uint16_t kInvalidMinor =
      std::numeric_limits<std::uint16_t>::max();

  std::uint64_t seq = kInvalidSeq;
  std::uint16_t minor = kInvalidMinor;

  constexpr EntryVersion() = default;
  constexpr EntryVersion(std::uint64_t s, std::uint16_t m) : seq(s), minor(m) {}

  static constexpr EntryVersion invalid() { return EntryVersion(); }
  constexpr bool valid() const noexcept {
    return !(seq == kInvalidSeq && minor == kInvalidMinor);
  }
  // The version of the next change of the same key.
  constexpr EntryVersion next() const noexcept {
    return EntryVersion(seq + 1, minor);
  }
  constexpr bool operator==(const EntryVersion &) const = default;
};

// The version of a pending remove-all: the number of remove-alls queued but
// not committed, less one; invalid (all ones) when none is queued.
struct MajorVersion {
  static constexpr std::uint64_t kInvalid =
      std::numeric_limits<std::uint64_t>::max();
  std::uint64_t value = kInvalid;

  constexpr MajorVersion() = default;
  constexpr explicit MajorVersion(std::uint64_t v) : value(v) {}
  static constexpr MajorVersion invalid() { return MajorVersion(); }
  constexpr bool valid() const noexcept { return value != kInvalid; }
  constexpr bool operator==(const MajorVersion &) const = default;
};

// Flags a change carries through the resolver.
using EntryFlags = std::uint8_t;
inline constexpr EntryFlags entryFlagNone = 0;
inline constexpr EntryFlags entryFlagRemove = 1;    // remove of one entry
inline constexpr EntryFlags entryFlagRemoveAll = 2; // remove of every entry
inline constexpr EntryFlags entryFlagMarked = 4; // written while marking

// One table's log version: what a committed entry depends on in another
// table.
struct TableVersion {
  SwTableId tableId;
  LogVersion version = 0;
  constexpr bool operator==(const TableVersion &) const = default;
};

} // namespace Asic

template <> struct fmt::formatter<Asic::SwTableId> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const Asic::SwTableId &id, Ctx &ctx) const {
    return fmt::format_to(ctx.out(), "{:02x}:{:02x}:{:04x}", id.agentId,
                          id.groupId, id.tableId);
  }
};

template <> struct fmt::formatter<Asic::EntryVersion> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const Asic::EntryVersion &v, Ctx &ctx) const {
    if (!v.valid()) {
      return fmt::format_to(ctx.out(), "EntryVersion(invalid)");
    }
    return fmt::format_to(ctx.out(), "EntryVersion(seq={}, minor={})", v.seq,
                          v.minor);
  }
};

template <> struct fmt::formatter<Asic::MajorVersion> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const Asic::MajorVersion &v, Ctx &ctx) const {
    if (!v.valid()) {
      return fmt::format_to(ctx.out(), "invalid");
    }
    return fmt::format_to(ctx.out(), "{}", v.value);
  }
};

template <> struct fmt::formatter<Asic::TableVersion> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx>
  auto format(const Asic::TableVersion &v, Ctx &ctx) const {
    return fmt::format_to(ctx.out(), "TableVersion(tableId={}, version={})",
                          v.tableId, v.version);
  }
};
