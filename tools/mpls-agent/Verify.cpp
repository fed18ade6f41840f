#include "tools/mpls-agent/Verify.h"

#include <fmt/format.h>

#include <map>
#include <optional>
#include <set>

#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "tools/hw/InstanceView.h"
#include "tools/mpls-agent/Agent.h"

namespace MplsAgent {

namespace {

using Isem2 = MicaMpls::MplsIsem2Binding;
using Lem = MicaMpls::MplsLemBinding;
using MicaMplsHw::InstanceView;

constexpr std::size_t kShown = 20;

// The agent's stored allocations of a resource table: key -> data.
template <typename Table>
auto allocations(InstanceView &agent, const char *ns, const char *name) {
  using Slate = typename Table::Slate;
  std::map<std::uint64_t, typename Table::Allocation> out;
  auto slate = agent.entity<Slate>(std::string("resource/") + ns + "/" + name);
  if (slate) {
    MicaMplsHw::readRecords(
        slate->allocations(), false, [&] { out.clear(); },
        [&](const typename Table::Allocation &a) {
          if constexpr (std::is_same_v<Table,
                                       MicaTunnelNiLib::InLifResourceTable>) {
            if (a.key ==
                inLifKey(static_cast<std::uint32_t>(a.key.ownerCookie))) {
              out[a.key.ownerCookie] = a;
            }
          } else {
            out[a.key.l2AdjId] = a;
          }
        });
  }
  return out;
}

class Checker {
public:
  Checker(const std::string &agent, const DesiredSet &desired)
      : agent_(agent), hw_(MicaMplsHw::hwInstanceName(agent)),
        desired_(desired) {}

  bool hwPresent() { return hw_.instance() != nullptr; }

  void loadRefusals() { refusals_ = MicaMplsHw::hwRefusals(hw_); }

  void loadAllocations() {
    inLifs_ = allocations<MicaTunnelNiLib::InLifResourceTable>(
        agent_, Isem2::kResourceNamespace, Isem2::kResourceName);
    fecs_ = allocations<MicaAdjLib::L2AdjToFecResourceTableResourceTable>(
        agent_, Lem::kResourceNamespace, Lem::kResourceName);
  }

  template <typename B> void compare(const std::vector<Asic::UnitId> &units) {
    constexpr TableKind kind = kindOf<B>();
    std::set<Asic::UnitId> all(units.begin(), units.end());
    for (Asic::UnitId u : hw_.units(MicaMplsHw::hwTableBase<B>())) {
      all.insert(u);
    }
    for (Asic::UnitId u : desired_.units()) {
      all.insert(u);
    }
    for (Asic::UnitId u : all) {
      std::map<std::uint64_t, typename B::LogEntry> hw;
      if (auto t = hw_.entity<MicaMplsHw::HwTable<B>>(
              MicaMplsHw::hwTablePath<B>(u))) {
        MicaMplsHw::readRecords(
            t->hwEntries(), false, [&] { hw.clear(); },
            [&](const typename B::LogEntry &e) { hw[e.key.packed()] = e; });
      }
      std::size_t matched = 0;
      const auto lo = desired_.entries().lower_bound(EntryKey{kind, u, 0, 0});
      const auto hi =
          desired_.entries().upper_bound(EntryKey{kind, u, kMaxLabel, 255});
      for (auto it = lo; it != hi; ++it) {
        const EntryKey &k = it->first;
        const typename B::Key key(k.label, k.qualifier);
        const auto at = hw.find(key.packed());
        if (at == hw.end()) {
          const auto refused =
              refusals_.find({B::Constants::swTableTypeId, u, key.packed()});
          differ(refused == refusals_.end()
                     ? fmt::format("missing in the hardware: {}", describe(k))
                     : fmt::format("missing in the hardware: {}: refused by "
                                   "the hardware ({}{} version {})",
                                   describe(k),
                                   Asic::hwRefusalText(refused->second.reason),
                                   refused->second.byRebuild ? ", rebuild at"
                                                             : ", change of",
                                   refused->second.logVersion));
          continue;
        }
        const std::optional<std::string> wrong =
            check(at->second, it->second.value);
        hw.erase(at);
        if (wrong) {
          differ(fmt::format("{}: {}", describe(k), *wrong));
        } else {
          ++matched;
        }
      }
      for (const auto &[packed, e] : hw) {
        differ(fmt::format("in the hardware, not desired: {} unit {} label "
                           "{}/{}",
                           tableWord(kind), u, e.key.label, e.key.qualifier));
      }
      rows_.push_back(fmt::format("{} unit {}: {} of {} desired entries "
                                  "match",
                                  B::Constants::tableName, u, matched,
                                  std::distance(lo, hi)));
      total_ += matched;
    }
  }

  int report(std::FILE *out) {
    for (const auto &r : rows_) {
      std::fprintf(out, "  %s\n", r.c_str());
    }
    if (differences_ == 0) {
      std::fprintf(out,
                   "verified: the hardware tables equal the desired set, "
                   "%llu entries\n",
                   static_cast<unsigned long long>(total_));
      return kExitOk;
    }
    std::fprintf(out,
                 "the hardware tables differ from the desired set: %llu "
                 "difference(s)\n",
                 static_cast<unsigned long long>(differences_));
    for (const auto &d : shown_) {
      std::fprintf(out, "  %s\n", d.c_str());
    }
    if (differences_ > shown_.size()) {
      std::fprintf(
          out, "  ... and %llu more\n",
          static_cast<unsigned long long>(differences_ - shown_.size()));
    }
    return kExitFailed;
  }

private:
  std::string describe(const EntryKey &k) const {
    const auto &v = desired_.entries().at(k).value;
    return fmt::format(
        "{} unit {} label {}/{} {}={}", tableWord(k.table), k.unit, k.label,
        k.qualifier, k.table == TableKind::isem2 ? "inlif" : "adj", v.resource);
  }

  std::optional<std::string> check(const MicaMpls::MplsIsem2LogEntry &e,
                                   const EntryValue &v) const {
    const auto a = inLifs_.find(v.resource);
    if (a == inLifs_.end()) {
      return "its in-LIF has no allocation in the agent's store";
    }
    if (e.inLif0Index != a->second.data.inLif0Index ||
        e.inLif23Index != a->second.data.inLif23Index) {
      return fmt::format("the hardware holds in-LIF indexes {:#x}/{:#x}, the "
                         "in-LIF has {:#x}/{:#x}",
                         e.inLif0Index, e.inLif23Index,
                         a->second.data.inLif0Index,
                         a->second.data.inLif23Index);
    }
    return std::nullopt;
  }
  std::optional<std::string> check(const MicaMpls::MplsLemLogEntry &e,
                                   const EntryValue &v) const {
    const auto a = fecs_.find(v.resource);
    if (a == fecs_.end()) {
      return "its adjacency has no FEC in the agent's store";
    }
    if (e.fecId != a->second.data.fecId ||
        e.errorCode != a->second.data.errorCode) {
      return fmt::format("the hardware holds FEC {:#x} (error {}), the "
                         "adjacency has FEC {:#x} (error {})",
                         e.fecId, e.errorCode, a->second.data.fecId,
                         a->second.data.errorCode);
    }
    return std::nullopt;
  }

  void differ(std::string text) {
    if (shown_.size() < kShown) {
      shown_.push_back(std::move(text));
    }
    ++differences_;
  }

  InstanceView agent_;
  InstanceView hw_;
  const DesiredSet &desired_;
  std::map<std::uint64_t, MicaTunnelNiLib::InLifResourceTable::Allocation>
      inLifs_;
  std::map<std::uint64_t,
           MicaAdjLib::L2AdjToFecResourceTableResourceTable::Allocation>
      fecs_;
  std::map<std::tuple<std::uint32_t, Asic::UnitId, std::uint64_t>,
           Asic::HwRefusalRecord>
      refusals_;
  std::vector<std::string> rows_;
  std::vector<std::string> shown_;
  std::uint64_t differences_ = 0;
  std::uint64_t total_ = 0;
};

} // namespace

int verify(const std::string &agent, const DesiredSet &desired,
           const std::vector<Asic::UnitId> &units, std::FILE *out) {
  Checker c(agent, desired);
  if (!c.hwPresent()) {
    std::fprintf(stderr,
                 "mpls-agent: no hardware tables: the store instance %s of "
                 "the hardware writer does not exist (has mpls-hw --agent %s "
                 "run?)\n",
                 MicaMplsHw::hwInstanceName(agent).c_str(), agent.c_str());
    return kExitMissing;
  }
  c.loadAllocations();
  c.loadRefusals();
  c.compare<Isem2>(units);
  c.compare<Lem>(units);
  return c.report(out);
}

} // namespace MplsAgent
