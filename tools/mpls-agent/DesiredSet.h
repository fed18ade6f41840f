// The label set an agent drives to hardware: which labels each table of each
// unit should hold, and what they point at. It is read from a file, or
// generated, and checked whole before anything touches the store.
//
//   MplsAgent::DesiredSet set = MplsAgent::readFile("labels.conf", {});
//   for (const auto &[key, want] : set.entries()) ...      // by table, unit,
//   key auto changes = MplsAgent::diff(set, MplsAgent::readFile("new.conf",
//   units));
//
// File format: one entry per line, fields separated by blanks, '#' starts a
// comment, blank lines are ignored:
//
//   lem   <unit> <label>[/<qualifier>] adj=<l2-adjacency-id>
//   isem2 <unit> <label>[/<qualifier>] inlif=<in-LIF id> [data=<u32>]
//
// The file is a regular file (a FIFO, a device or a directory is refused
// before anything is read) of at most kMaxLines lines of at most
// kMaxLineBytes bytes; reading stops at the first line beyond either.
//
// Labels are 0 to 2^20-1, qualifiers 0 to 255 (default 0), units 0 to 65535;
// numbers are decimal or 0x-prefixed hex. adj=0 is refused (the null
// adjacency means "no FEC"). An in-LIF id names one in-LIF: every ISEM2 entry
// that names it, in any unit, shares that one allocation, and so shares its
// client data: entries of one in-LIF must agree on data=. How ids become the
// tables' records is in isem2Entry() and lemEntry() below.
//
// Errors are InputError, whose text names the file, the line and the field:
// "labels.conf:12: label '1048576': above 1048575".
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsLemBinding.h"
#include "platform/asic/Types.h"

namespace MplsAgent {

enum class TableKind : std::uint8_t { isem2 = 0, lem = 1 };

// "isem2" / "lem": the word the file uses.
const char *tableWord(TableKind t) noexcept;
// "MplsIsem2" / "MplsLem": the table's name in the library and the tools.
const char *tableName(TableKind t) noexcept;

template <typename B> constexpr TableKind kindOf() {
  return std::is_same_v<B, MicaMpls::MplsIsem2Binding> ? TableKind::isem2
                                                       : TableKind::lem;
}

// Where an entry lives: table, unit and label key. Ordered by table, unit,
// label, qualifier (the order files are written and summaries are printed).
struct EntryKey {
  TableKind table = TableKind::isem2;
  Asic::UnitId unit = 0;
  std::uint32_t label = 0;
  std::uint8_t qualifier = 0;
  auto operator<=>(const EntryKey &) const = default;
};

// What an entry points at: the in-LIF id and its data (ISEM2), or the L2
// adjacency id (LEM; data unused).
struct EntryValue {
  std::uint32_t resource = 0;
  std::uint32_t data = 0;
  bool operator==(const EntryValue &) const = default;
};

// The size of what the library keeps: a unit's table, and the resource
// tables shared by all units.
inline constexpr std::uint32_t kMaxLabel = (1u << 20) - 1;
inline constexpr std::uint32_t kUnitTableCapacity = 65536;
inline constexpr std::uint32_t kResourceCapacity = 65536;

// Bounds of a desired-state file, far above any real one (a unit's table
// holds 65536 entries, one a line), so that endless input ends in an error.
inline constexpr std::uint32_t kMaxLines = 4u << 20; // 4,194,304
inline constexpr std::size_t kMaxLineBytes = 4096;   // without the newline

// Bad input; what() is one or more lines "file:line: field 'text': problem".
class InputError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class DesiredSet {
public:
  struct Item {
    EntryValue value;
    std::uint32_t line = 0; // 0 when generated
  };
  using Map = std::map<EntryKey, Item>;

  const Map &entries() const noexcept { return entries_; }
  std::size_t size() const noexcept { return entries_.size(); }
  // Entries of one table and unit.
  std::size_t count(TableKind table, Asic::UnitId unit) const;
  // The units the set names, in increasing order.
  std::vector<Asic::UnitId> units() const;
  // The in-LIF ids the set names, with their data.
  std::map<std::uint32_t, std::uint32_t> inLifData() const;

  // Adds an entry. REQUIRES: the key is new.
  void add(const EntryKey &key, const EntryValue &value,
           std::uint32_t line = 0) {
    entries_.emplace(key, Item{value, line});
  }

private:
  Map entries_;
};

// Reads and checks a desired-state file. `units`, when given, are the units
// the agent drives: an entry of any other unit is an error. Throws
// InputError (every problem found, at most 20 lines of them) when the file
// cannot be read, is not a regular file, goes beyond kMaxLines or
// kMaxLineBytes, or anything in it is wrong.
DesiredSet readFile(const std::string &path,
                    const std::optional<std::vector<Asic::UnitId>> &units);

// A deterministic label set: `perTable` entries in each table of each unit.
// The k-th entry of a table and unit depends only on (seed, table, unit, k),
// so sets made for more units or more entries contain the smaller ones.
// With churnPercent p, p% of the entries point elsewhere, p% are left out
// and p% more are added: the same set, changed the way a reconfiguration
// changes it. Throws InputError when the set would not fit the tables.
struct Generator {
  std::uint32_t perTable = 0;
  std::uint64_t seed = 1;
  std::uint32_t churnPercent = 0;
  std::vector<Asic::UnitId> units;
};
DesiredSet generate(const Generator &g);

// Writes the set in the file format, sorted, after a comment line of
// `header`.
std::string formatFile(const DesiredSet &set, const std::string &header);

// What turns one set into another: writes of new or changed keys, removes
// of keys that are gone, in key order.
struct Change {
  enum class Op : std::uint8_t { write, remove };
  Op op = Op::write;
  EntryKey key;
  EntryValue value; // for writes
};
std::vector<Change> diff(const DesiredSet &from, const DesiredSet &to);
// Every entry of the set as a write: each table and unit in key order, the
// tables and units taking turns, the way a replay reaches every table early.
std::vector<Change> writesOf(const DesiredSet &set);

// ---- From desired entries to the tables' records ----

// The in-LIF an ISEM2 entry names: the MPLS-termination in-LIF type with the
// id as its owner cookie (no VRF, profile or flags).
inline constexpr std::uint32_t kMplsLifType = 1;
MicaTunnelNiLib::InLifEntryKey inLifKey(std::uint32_t inLifId) noexcept;
// The client data an in-LIF is requested with: data= in the first four bytes
// of the opaque per-feature part, little-endian; everything else zero.
MicaTunnelNiLib::InLifClientData inLifClientData(std::uint32_t data) noexcept;

MicaMpls::MplsIsem2Entry isem2Entry(const EntryKey &key,
                                    const EntryValue &value) noexcept;
MicaMpls::MplsLemEntry lemEntry(const EntryKey &key,
                                const EntryValue &value) noexcept;

} // namespace MplsAgent
