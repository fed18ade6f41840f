#include "tools/mpls-soak/Holdings.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <set>

#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsLemBinding.h"
#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "tools/hw/HwStore.h"
#include "tools/hw/InstanceView.h"

namespace MplsSoak {

namespace {

using Isem2 = MicaMpls::MplsIsem2Binding;
using Lem = MicaMpls::MplsLemBinding;
using MicaMplsHw::InstanceView;

// Every index the allocations of a resource table hold.
template <typename Table, typename Index>
std::set<std::uint32_t> allocated(InstanceView &agent, const char *ns,
                                  const char *name, Index index) {
  std::set<std::uint32_t> out;
  auto slate = agent.entity<typename Table::Slate>(std::string("resource/") +
                                                   ns + "/" + name);
  if (slate) {
    MicaMplsHw::readRecords(
        slate->allocations(), false, [&] { out.clear(); },
        [&](const typename Table::Allocation &a) { index(a.data, out); });
  }
  return out;
}

template <typename B, typename Check>
void eachHwEntry(InstanceView &hw, Check check) {
  for (Asic::UnitId u : hw.units(MicaMplsHw::hwTableBase<B>())) {
    auto t = hw.entity<MicaMplsHw::HwTable<B>>(MicaMplsHw::hwTablePath<B>(u));
    if (!t) {
      continue;
    }
    std::vector<typename B::LogEntry> entries;
    MicaMplsHw::readRecords(
        t->hwEntries(), false, [&] { entries.clear(); },
        [&](const typename B::LogEntry &e) { entries.push_back(e); });
    for (const auto &e : entries) {
      check(u, e);
    }
  }
}

} // namespace

std::vector<std::string> unallocatedInHardware(const std::string &store,
                                               const std::string &agent,
                                               std::size_t limit) {
  ::setenv("MICA_SHM_ROOT", store.c_str(), 1);
  std::vector<std::string> out;
  std::size_t found = 0;
  const auto say = [&](std::string text) {
    if (out.size() < limit) {
      out.push_back(std::move(text));
    }
    ++found;
  };
  {
    InstanceView agentView(agent);
    InstanceView hwView(MicaMplsHw::hwInstanceName(agent));
    const auto inLifs = allocated<MicaTunnelNiLib::InLifResourceTable>(
        agentView, Isem2::kResourceNamespace, Isem2::kResourceName,
        [](const MicaTunnelNiLib::InLifData &d, std::set<std::uint32_t> &s) {
          s.insert(d.inLif0Index);
          s.insert(d.inLif23Index);
        });
    const auto fecs =
        allocated<MicaAdjLib::L2AdjToFecResourceTableResourceTable>(
            agentView, Lem::kResourceNamespace, Lem::kResourceName,
            [](const MicaAdjLib::L2AdjToFecData &d,
               std::set<std::uint32_t> &s) { s.insert(d.fecId); });
    eachHwEntry<Isem2>(hwView, [&](Asic::UnitId u,
                                   const MicaMpls::MplsIsem2LogEntry &e) {
      if (!inLifs.contains(e.inLif0Index) || !inLifs.contains(e.inLif23Index)) {
        say(fmt::format("isem2 unit {} label {}/{}: in-LIF indexes {:#x}/{:#x} "
                        "are not allocated in the agent's store",
                        u, e.key.label, e.key.qualifier, e.inLif0Index,
                        e.inLif23Index));
      }
    });
    eachHwEntry<Lem>(hwView, [&](Asic::UnitId u,
                                 const MicaMpls::MplsLemLogEntry &e) {
      if (!fecs.contains(e.fecId)) {
        say(fmt::format("lem unit {} label {}/{}: FEC {:#x} is not allocated "
                        "in the agent's store",
                        u, e.key.label, e.key.qualifier, e.fecId));
      }
    });
  }
  if (found > out.size()) {
    out.push_back(fmt::format("... and {} more", found - out.size()));
  }
  return out;
}

} // namespace MplsSoak
