#include "tools/mpls-soak/Desired.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>

namespace MplsSoak {

namespace {

using MplsAgent::DesiredSet;
using MplsAgent::EntryKey;
using MplsAgent::EntryValue;
using MplsAgent::TableKind;

// Generated sets come from this many seeds: a new one is a big change, a
// known one with other churn a moderate one.
constexpr std::uint64_t kGenSeeds = 4;
// The share of rounds that take a generated set; the others edit.
constexpr double kGenerated = 0.4;
// Labels 0 to 15 are reserved (the generator leaves them out too).
constexpr std::uint32_t kFirstLabel = 16;

std::size_t changesBetween(const DesiredSet &a, const DesiredSet &b) {
  return MplsAgent::diff(a, b).size();
}

NextSet generated(const DesiredSet &current,
                  const std::vector<Asic::UnitId> &units, std::uint32_t n,
                  std::uint64_t seed, std::uint32_t churn) {
  NextSet out;
  out.set = MplsAgent::generate(MplsAgent::Generator{n, seed, churn, units});
  out.description =
      fmt::format("generated {} seed {} churn {}", n, seed, churn);
  out.changes = changesBetween(current, out.set);
  return out;
}

// Ids of in-LIFs and adjacencies an edit points at: the generator's pool of
// about one per four entries, and some beyond it, so that edits allocate
// new resources as well as share the ones in use.
std::uint32_t resourcePool(std::uint32_t labels) {
  const std::uint32_t pool = std::max<std::uint32_t>(1, labels / 4);
  return pool + pool / 2;
}

NextSet edited(const DesiredSet &current,
               const std::vector<Asic::UnitId> &units, std::uint32_t labels,
               Random &rng) {
  const double percent = static_cast<double>(rng.between(1, 10));
  const std::uint32_t pool = resourcePool(labels);
  std::map<EntryKey, EntryValue> entries;
  std::map<std::uint32_t, std::uint32_t> inLifData = current.inLifData();
  std::size_t dropped = 0, repointed = 0, added = 0;
  const auto dataOf = [&](std::uint32_t inLif) {
    const auto it = inLifData.find(inLif);
    if (it != inLifData.end()) {
      return it->second;
    }
    const auto data = static_cast<std::uint32_t>(rng.next());
    inLifData.emplace(inLif, data);
    return data;
  };
  for (const auto &[key, item] : current.entries()) {
    const double roll = rng.uniform(0, 100);
    if (roll < percent) {
      ++dropped;
      continue;
    }
    EntryValue v = item.value;
    if (roll < 2 * percent && pool > 1) {
      std::uint32_t to = static_cast<std::uint32_t>(rng.between(1, pool - 1));
      v.resource = to >= v.resource ? to + 1 : to; // another one
      v.data = key.table == TableKind::isem2 ? dataOf(v.resource) : 0;
      ++repointed;
    }
    entries.emplace(key, v);
  }
  for (TableKind t : {TableKind::isem2, TableKind::lem}) {
    for (Asic::UnitId u : units) {
      const auto want =
          static_cast<std::size_t>(std::lround(labels * percent / 100.0));
      for (std::size_t i = 0; i < want; ++i) {
        EntryKey k{
            t, u,
            static_cast<std::uint32_t>(
                rng.between(kFirstLabel, MplsAgent::kMaxLabel)),
            static_cast<std::uint8_t>(rng.chance(0.125) ? rng.below(256) : 0)};
        EntryValue v{static_cast<std::uint32_t>(rng.between(1, pool)), 0};
        if (t == TableKind::isem2) {
          v.data = dataOf(v.resource);
        }
        if (entries.emplace(k, v).second) {
          ++added;
        }
      }
    }
  }
  // Now and then an in-LIF in use takes other data: every entry naming it
  // changes with it, and the agent updates the in-LIF.
  std::string dataNote;
  std::vector<std::uint32_t> inUse;
  for (const auto &[k, v] : entries) {
    if (k.table == TableKind::isem2) {
      inUse.push_back(v.resource);
    }
  }
  if (!inUse.empty() && rng.chance(0.5)) {
    const std::uint32_t inLif = inUse[rng.below(inUse.size())];
    const auto data = static_cast<std::uint32_t>(rng.next());
    std::size_t n = 0;
    for (auto &[k, v] : entries) {
      if (k.table == TableKind::isem2 && v.resource == inLif) {
        v.data = data;
        ++n;
      }
    }
    dataNote = fmt::format(", in-LIF {} new data ({} entries)", inLif, n);
  }
  NextSet out;
  for (const auto &[k, v] : entries) {
    out.set.add(k, v);
  }
  out.description = fmt::format("edit {}%: {} dropped, {} repointed, {} "
                                "added{}",
                                percent, dropped, repointed, added, dataNote);
  out.changes = changesBetween(current, out.set);
  return out;
}

} // namespace

NextSet firstSet(const std::vector<Asic::UnitId> &units, std::uint32_t labels,
                 std::uint64_t genSeed) {
  return generated(DesiredSet{}, units, labels, genSeed, 0);
}

NextSet nextSet(const DesiredSet &current,
                const std::vector<Asic::UnitId> &units, std::uint32_t labels,
                std::uint64_t genSeed, Random &rng) {
  if (rng.chance(kGenerated)) {
    const auto n = static_cast<std::uint32_t>(
        rng.between(std::max<std::uint32_t>(1, labels / 2), labels));
    const std::uint64_t seed = genSeed + rng.below(kGenSeeds);
    const auto churn = static_cast<std::uint32_t>(rng.below(34));
    return generated(current, units, n, seed, churn);
  }
  return edited(current, units, labels, rng);
}

void writeSet(const std::string &path, const DesiredSet &set,
              const std::vector<Asic::UnitId> &units,
              const std::string &header) {
  const std::string tmp = path + ".new";
  {
    std::ofstream f(tmp, std::ios::trunc);
    f << MplsAgent::formatFile(set, header);
    f.close();
    if (!f) {
      throw std::runtime_error("cannot write " + tmp);
    }
  }
  // The agent would refuse a bad file on SIGHUP and keep its old set: a
  // soak that wrote one would test nothing, so it stops here instead.
  try {
    const DesiredSet back = MplsAgent::readFile(tmp, units);
    if (!MplsAgent::diff(set, back).empty()) {
      throw std::runtime_error(tmp + " does not read back as the set written");
    }
  } catch (const MplsAgent::InputError &e) {
    throw std::runtime_error(fmt::format("the soak wrote a desired set the "
                                         "agent refuses:\n{}",
                                         e.what()));
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot rename " + tmp + " to " + path);
  }
}

} // namespace MplsSoak
