#include "tools/mpls-agent/DesiredSet.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace MplsAgent {

namespace {

// At most this many problems are listed; the rest are counted.
constexpr std::size_t kMaxErrors = 20;

// splitmix64: a cheap, well-mixed hash of the generator's coordinates.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}
std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  return mix(mix(a) ^ b);
}

// Collects problems of one file; throws them together.
class Problems {
public:
  explicit Problems(std::string file) : file_(std::move(file)) {}

  void at(std::uint32_t line, const std::string &text) {
    if (lines_.size() < kMaxErrors) {
      lines_.push_back(fmt::format("{}:{}: {}", file_, line, text));
    }
    ++count_;
  }
  void whole(const std::string &text) {
    if (lines_.size() < kMaxErrors) {
      lines_.push_back(fmt::format("{}: {}", file_, text));
    }
    ++count_;
  }
  void throwIfAny() const {
    if (count_ == 0) {
      return;
    }
    std::string text;
    for (const auto &l : lines_) {
      text += l + "\n";
    }
    if (count_ > lines_.size()) {
      text += fmt::format("{}: ... and {} more problems\n", file_,
                          count_ - lines_.size());
    }
    text.pop_back();
    throw InputError(text);
  }

private:
  std::string file_;
  std::vector<std::string> lines_;
  std::size_t count_ = 0;
};

// A number in decimal or 0x-hex, at most `max`; an error text otherwise.
std::optional<std::string> parseNumber(std::string_view text, std::uint64_t max,
                                       std::uint64_t &out) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  const char *end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, out, base);
  if (text.empty() || ec == std::errc::invalid_argument || ptr != end) {
    return "not a number";
  }
  if (ec == std::errc::result_out_of_range || out > max) {
    return fmt::format("above {}", max);
  }
  return std::nullopt;
}

std::optional<TableKind> tableOf(const std::string &word) {
  for (TableKind t : {TableKind::isem2, TableKind::lem}) {
    if (::strcasecmp(word.c_str(), tableWord(t)) == 0 ||
        ::strcasecmp(word.c_str(), tableName(t)) == 0) {
      return t;
    }
  }
  return std::nullopt;
}

std::string keyText(const EntryKey &k) {
  return fmt::format("{} unit {} label {}/{}", tableWord(k.table), k.unit,
                     k.label, k.qualifier);
}

std::string unitsText(const std::vector<Asic::UnitId> &units) {
  return fmt::format("{}", fmt::join(units, ","));
}

// Checks that the set fits the tables: a unit's table and the resource
// tables have fixed capacities.
void checkCapacity(const DesiredSet &set, Problems &problems) {
  std::map<std::pair<TableKind, Asic::UnitId>, std::size_t> perUnit;
  std::set<std::uint32_t> inLifs, adjs;
  for (const auto &[k, item] : set.entries()) {
    ++perUnit[{k.table, k.unit}];
    (k.table == TableKind::isem2 ? inLifs : adjs).insert(item.value.resource);
  }
  for (const auto &[at, n] : perUnit) {
    if (n > kUnitTableCapacity) {
      problems.whole(fmt::format("{} unit {} has {} entries; a unit's table "
                                 "holds {}",
                                 tableWord(at.first), at.second, n,
                                 kUnitTableCapacity));
    }
  }
  if (inLifs.size() > kResourceCapacity) {
    problems.whole(fmt::format("{} distinct in-LIFs; the in-LIF table holds {}",
                               inLifs.size(), kResourceCapacity));
  }
  if (adjs.size() > kResourceCapacity) {
    problems.whole(fmt::format("{} distinct adjacencies; the adjacency table "
                               "holds {}",
                               adjs.size(), kResourceCapacity));
  }
}

struct ParsedLine {
  EntryKey key;
  EntryValue value;
  bool ok = false;
};

ParsedLine parseLine(const std::vector<std::string> &f, std::uint32_t line,
                     const std::optional<std::vector<Asic::UnitId>> &units,
                     Problems &problems) {
  ParsedLine p;
  const auto bad = [&](const std::string &field, const std::string &text,
                       const std::string &why) {
    problems.at(line, fmt::format("{} '{}': {}", field, text, why));
  };
  if (f.size() < 3) {
    problems.at(line, "too few fields: an entry is '<table> <unit> "
                      "<label>[/<qualifier>]' followed by adj=<id> (lem) or "
                      "inlif=<id> [data=<u32>] (isem2)");
    return p;
  }
  const auto table = tableOf(f[0]);
  if (!table) {
    bad("table", f[0], "unknown table (isem2 or lem)");
    return p;
  }
  p.key.table = *table;
  std::uint64_t n = 0;
  bool ok = true;
  if (auto why = parseNumber(f[1], 65535, n)) {
    bad("unit", f[1], *why);
    ok = false;
  } else {
    p.key.unit = static_cast<Asic::UnitId>(n);
    if (units &&
        std::find(units->begin(), units->end(), p.key.unit) == units->end()) {
      bad("unit", f[1],
          fmt::format("not a unit this agent drives (--units {})",
                      unitsText(*units)));
      ok = false;
    }
  }
  const std::string &lk = f[2];
  const auto slash = lk.find('/');
  const std::string labelText = lk.substr(0, slash);
  if (auto why = parseNumber(labelText, kMaxLabel, n)) {
    bad("label", labelText, *why);
    ok = false;
  } else {
    p.key.label = static_cast<std::uint32_t>(n);
  }
  if (slash != std::string::npos) {
    const std::string q = lk.substr(slash + 1);
    if (auto why = parseNumber(q, 255, n)) {
      bad("qualifier", q, *why);
      ok = false;
    } else {
      p.key.qualifier = static_cast<std::uint8_t>(n);
    }
  }
  const bool isem2 = p.key.table == TableKind::isem2;
  const std::string need = isem2 ? "inlif" : "adj";
  bool haveResource = false, haveData = false;
  for (std::size_t i = 3; i < f.size(); ++i) {
    const auto eq = f[i].find('=');
    const std::string name = f[i].substr(0, eq);
    const std::string value =
        eq == std::string::npos ? std::string() : f[i].substr(eq + 1);
    if (eq == std::string::npos ||
        (name != need && !(isem2 && name == "data"))) {
      bad("field", f[i],
          fmt::format("unknown; {} entries take {}", tableWord(p.key.table),
                      isem2 ? "inlif=<id> [data=<u32>]" : "adj=<id>"));
      ok = false;
      continue;
    }
    bool &seen = name == "data" ? haveData : haveResource;
    if (seen) {
      bad(name, value, "given twice");
      ok = false;
      continue;
    }
    seen = true;
    if (auto why = parseNumber(value, 0xffffffffu, n)) {
      bad(name, value, *why);
      ok = false;
    } else if (name == "adj" && n == 0) {
      bad(name, value, "0 is the null adjacency; ids start at 1");
      ok = false;
    } else if (name == "data") {
      p.value.data = static_cast<std::uint32_t>(n);
    } else {
      p.value.resource = static_cast<std::uint32_t>(n);
    }
  }
  if (!haveResource) {
    problems.at(line, fmt::format("{}: missing; {} entries need {}=<id>", need,
                                  tableWord(p.key.table), need));
    ok = false;
  }
  p.ok = ok;
  return p;
}

} // namespace

const char *tableWord(TableKind t) noexcept {
  return t == TableKind::isem2 ? "isem2" : "lem";
}

const char *tableName(TableKind t) noexcept {
  return t == TableKind::isem2 ? MicaMpls::MplsIsem2Constants::tableName
                               : MicaMpls::MplsLemConstants::tableName;
}

std::size_t DesiredSet::count(TableKind table, Asic::UnitId unit) const {
  const auto lo = entries_.lower_bound(EntryKey{table, unit, 0, 0});
  const auto hi = entries_.upper_bound(EntryKey{table, unit, ~0u, 255});
  return static_cast<std::size_t>(std::distance(lo, hi));
}

std::vector<Asic::UnitId> DesiredSet::units() const {
  std::set<Asic::UnitId> u;
  for (const auto &[k, item] : entries_) {
    u.insert(k.unit);
  }
  return {u.begin(), u.end()};
}

std::map<std::uint32_t, std::uint32_t> DesiredSet::inLifData() const {
  std::map<std::uint32_t, std::uint32_t> out;
  for (const auto &[k, item] : entries_) {
    if (k.table == TableKind::isem2) {
      out.emplace(item.value.resource, item.value.data);
    }
  }
  return out;
}

DesiredSet readFile(const std::string &path,
                    const std::optional<std::vector<Asic::UnitId>> &units) {
  std::ifstream in(path);
  if (in && std::filesystem::is_directory(path)) {
    throw InputError(fmt::format("{}: cannot read: is a directory", path));
  }
  if (!in) {
    throw InputError(
        fmt::format("{}: cannot read: {}", path, std::strerror(errno)));
  }
  Problems problems(path);
  DesiredSet set;
  // in-LIF id -> (data, line that first named it)
  std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> inLifs;
  std::string text;
  std::uint32_t line = 0;
  while (std::getline(in, text)) {
    ++line;
    if (const auto hash = text.find('#'); hash != std::string::npos) {
      text.resize(hash);
    }
    std::istringstream words(text);
    std::vector<std::string> f;
    for (std::string w; words >> w;) {
      f.push_back(std::move(w));
    }
    if (f.empty()) {
      continue;
    }
    const ParsedLine p = parseLine(f, line, units, problems);
    if (!p.ok) {
      continue;
    }
    if (const auto it = set.entries().find(p.key); it != set.entries().end()) {
      problems.at(line, fmt::format("key '{}': duplicate of line {}",
                                    keyText(p.key), it->second.line));
      continue;
    }
    if (p.key.table == TableKind::isem2) {
      const auto [it, fresh] =
          inLifs.emplace(p.value.resource, std::pair(p.value.data, line));
      if (!fresh && it->second.first != p.value.data) {
        problems.at(line,
                    fmt::format("data '{}': in-LIF {} has data={} at line {}; "
                                "entries of one in-LIF share its data",
                                p.value.data, p.value.resource,
                                it->second.first, it->second.second));
        continue;
      }
    }
    set.add(p.key, p.value, line);
  }
  if (in.bad()) {
    problems.whole(fmt::format("read failed: {}", std::strerror(errno)));
  }
  checkCapacity(set, problems);
  problems.throwIfAny();
  return set;
}

DesiredSet generate(const Generator &g) {
  // Labels: k -> 16 + (kStride * k + offset) mod kSpan is one-to-one for k
  // below kSpan, because kStride shares no factor with kSpan
  // (2^20 - 16 = 2^4 * 3 * 5 * 17 * 257). Labels 0 to 15 are reserved.
  constexpr std::uint64_t kSpan = (1u << 20) - 16;
  constexpr std::uint64_t kStride = 648047;
  const std::uint32_t added = static_cast<std::uint32_t>(
      std::uint64_t{g.perTable} * g.churnPercent / 100);
  Problems problems("--generate");
  if (g.perTable + added > kUnitTableCapacity) {
    problems.whole(fmt::format("{} entries per table and unit; a unit's table "
                               "holds {}",
                               g.perTable + added, kUnitTableCapacity));
  }
  if (g.churnPercent > 33) {
    problems.whole("--churn above 33%: changed and dropped entries would "
                   "overlap");
  }
  problems.throwIfAny();
  // Resources are shared: about four entries per in-LIF or adjacency, the
  // same ids across units.
  const std::uint64_t pool =
      std::clamp<std::uint64_t>(g.perTable / 4, 1, kResourceCapacity / 4);
  DesiredSet set;
  for (TableKind t : {TableKind::isem2, TableKind::lem}) {
    for (Asic::UnitId u : g.units) {
      const std::uint64_t at =
          mix(g.seed, (std::uint64_t{u} << 8) | static_cast<std::uint64_t>(t));
      const std::uint64_t offset = at % kSpan;
      for (std::uint64_t k = 0; k < g.perTable + added; ++k) {
        const std::uint64_t h = mix(at, k);
        const std::uint64_t roll = mix(h, 0xc4) % 100;
        const bool fresh = k >= g.perTable;
        if (!fresh && roll < g.churnPercent) {
          continue; // dropped
        }
        EntryKey key{
            t, u,
            static_cast<std::uint32_t>(16 + (kStride * k + offset) % kSpan),
            static_cast<std::uint8_t>(h % 8 == 0 ? (h >> 8) % 256 : 0)};
        std::uint64_t r = mix(h, 1) % pool;
        if (!fresh && roll < 2ull * g.churnPercent) {
          r = (r + 1 + mix(h, 2) % (pool > 1 ? pool - 1 : 1)) % pool;
        }
        EntryValue v;
        v.resource = static_cast<std::uint32_t>(r + 1);
        if (t == TableKind::isem2) {
          v.data = static_cast<std::uint32_t>(mix(g.seed, v.resource));
        }
        set.add(key, v);
      }
    }
  }
  return set;
}

std::string formatFile(const DesiredSet &set, const std::string &header) {
  std::string out = "# " + header + "\n";
  for (const auto &[k, item] : set.entries()) {
    if (k.table == TableKind::isem2) {
      out +=
          fmt::format("isem2 {} {}/{} inlif={} data={:#x}\n", k.unit, k.label,
                      k.qualifier, item.value.resource, item.value.data);
    } else {
      out += fmt::format("lem {} {}/{} adj={}\n", k.unit, k.label, k.qualifier,
                         item.value.resource);
    }
  }
  return out;
}

std::vector<Change> diff(const DesiredSet &from, const DesiredSet &to) {
  std::vector<Change> out;
  auto a = from.entries().begin();
  auto b = to.entries().begin();
  const auto aEnd = from.entries().end();
  const auto bEnd = to.entries().end();
  while (a != aEnd || b != bEnd) {
    if (b == bEnd || (a != aEnd && a->first < b->first)) {
      out.push_back({Change::Op::remove, a->first, {}});
      ++a;
    } else if (a == aEnd || b->first < a->first) {
      out.push_back({Change::Op::write, b->first, b->second.value});
      ++b;
    } else {
      if (!(a->second.value == b->second.value)) {
        out.push_back({Change::Op::write, b->first, b->second.value});
      }
      ++a;
      ++b;
    }
  }
  return out;
}

std::vector<Change> writesOf(const DesiredSet &set) {
  std::map<std::pair<TableKind, Asic::UnitId>, std::vector<Change>> streams;
  std::size_t longest = 0;
  for (const auto &[k, item] : set.entries()) {
    auto &s = streams[{k.table, k.unit}];
    s.push_back({Change::Op::write, k, item.value});
    longest = std::max(longest, s.size());
  }
  std::vector<Change> out;
  out.reserve(set.size());
  for (std::size_t i = 0; i < longest; ++i) {
    for (const auto &[at, s] : streams) {
      if (i < s.size()) {
        out.push_back(s[i]);
      }
    }
  }
  return out;
}

MicaTunnelNiLib::InLifEntryKey inLifKey(std::uint32_t inLifId) noexcept {
  MicaTunnelNiLib::InLifEntryKey k;
  k.lifType = kMplsLifType;
  k.ownerCookie = inLifId;
  return k;
}

MicaTunnelNiLib::InLifClientData inLifClientData(std::uint32_t data) noexcept {
  MicaTunnelNiLib::InLifClientData d;
  for (int i = 0; i < 4; ++i) {
    d.opaque[i] = static_cast<std::uint8_t>(data >> (8 * i));
  }
  return d;
}

MicaMpls::MplsIsem2Entry isem2Entry(const EntryKey &key,
                                    const EntryValue &value) noexcept {
  MicaMpls::MplsIsem2Entry e;
  e.key = MicaMpls::MplsIsem2EntryKey(key.label, key.qualifier);
  e.inLifKey = inLifKey(value.resource);
  e.inLifClientData = inLifClientData(value.data);
  return e;
}

MicaMpls::MplsLemEntry lemEntry(const EntryKey &key,
                                const EntryValue &value) noexcept {
  MicaMpls::MplsLemEntry e;
  e.key = MicaMpls::MplsLemEntryKey(key.label, key.qualifier);
  e.l2AdjId = value.resource;
  return e;
}

} // namespace MplsAgent
