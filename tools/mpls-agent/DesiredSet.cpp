#include "tools/mpls-agent/DesiredSet.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>
#include <string_view>

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

// The words of a line, up to a '#'.
std::vector<std::string> fieldsOf(std::string_view text) {
  text = text.substr(0, text.find('#'));
  std::vector<std::string> out;
  const auto blank = [](char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
  };
  for (std::size_t at = 0; at < text.size();) {
    if (blank(text[at])) {
      ++at;
      continue;
    }
    std::size_t end = at;
    while (end < text.size() && !blank(text[end])) {
      ++end;
    }
    out.emplace_back(text.substr(at, end - at));
    at = end;
  }
  return out;
}

// What a file is when it is not a regular file.
const char *kindOf(mode_t mode) {
  switch (mode & S_IFMT) {
  case S_IFDIR:
    return "a directory";
  case S_IFIFO:
    return "a FIFO";
  case S_IFCHR:
    return "a character device";
  case S_IFBLK:
    return "a block device";
  case S_IFSOCK:
    return "a socket";
  default:
    return "a special file";
  }
}

// A desired-state file open for reading, refused unless it is a regular
// file: a FIFO or a device may never end, and the open itself does not wait
// for a FIFO's writer (O_NONBLOCK).
class FileReader {
public:
  explicit FileReader(const std::string &path) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
      throw InputError(
          fmt::format("{}: cannot read: {}", path, std::strerror(errno)));
    }
    struct stat st {};
    if (::fstat(fd_, &st) != 0) {
      const int err = errno;
      ::close(fd_);
      throw InputError(
          fmt::format("{}: cannot read: {}", path, std::strerror(err)));
    }
    if (!S_ISREG(st.st_mode)) {
      ::close(fd_);
      throw InputError(fmt::format("{}: cannot read: is {}, not a regular file",
                                   path, kindOf(st.st_mode)));
    }
  }
  ~FileReader() { ::close(fd_); }
  FileReader(const FileReader &) = delete;
  FileReader &operator=(const FileReader &) = delete;

  // Calls take(text, lineNumber) for every line, without its newline. False
  // when reading stopped early: a line beyond kMaxLineBytes or kMaxLines,
  // or a failed read (added to `problems`).
  template <typename Take> bool lines(Take &&take, Problems &problems) const {
    std::string text;
    std::uint32_t line = 0;
    const auto finish = [&] {
      if (line == kMaxLines) {
        problems.at(line + 1, fmt::format("more than {} lines; reading stopped",
                                          kMaxLines));
        return false;
      }
      take(std::string_view(text), ++line);
      text.clear();
      return true;
    };
    std::vector<char> buf(64 * 1024);
    for (;;) {
      const ssize_t n = ::read(fd_, buf.data(), buf.size());
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n < 0) {
        problems.whole(fmt::format("read failed: {}", std::strerror(errno)));
        return false;
      }
      if (n == 0) {
        return text.empty() || finish();
      }
      for (const char *at = buf.data(), *stop = at + n; at < stop;) {
        const char *nl = static_cast<const char *>(
            std::memchr(at, '\n', static_cast<std::size_t>(stop - at)));
        const char *upTo = nl ? nl : stop;
        if (text.size() + static_cast<std::size_t>(upTo - at) > kMaxLineBytes) {
          problems.at(line + 1,
                      fmt::format("line longer than {} bytes; reading stopped",
                                  kMaxLineBytes));
          return false;
        }
        text.append(at, upTo);
        if (!nl) {
          break;
        }
        if (!finish()) {
          return false;
        }
        at = nl + 1;
      }
    }
  }

private:
  int fd_ = -1;
};

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
  const FileReader in(path);
  Problems problems(path);
  DesiredSet set;
  // in-LIF id -> (data, line that first named it)
  std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> inLifs;
  const auto take = [&](std::string_view text, std::uint32_t line) {
    const std::vector<std::string> f = fieldsOf(text);
    if (f.empty()) {
      return;
    }
    const ParsedLine p = parseLine(f, line, units, problems);
    if (!p.ok) {
      return;
    }
    if (const auto it = set.entries().find(p.key); it != set.entries().end()) {
      problems.at(line, fmt::format("key '{}': duplicate of line {}",
                                    keyText(p.key), it->second.line));
      return;
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
        return;
      }
    }
    set.add(p.key, p.value, line);
  };
  if (in.lines(take, problems)) {
    checkCapacity(set, problems);
  }
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
