// Where a label stands, one document for every reader: the agent's live
// endpoint fills it from what the running agent holds, mpls-show from the
// stores when no agent runs; both read the hardware writer's store the same
// way (hardwareFacts), and one function says it in words (explainLines).
//
//   Json why = {{"table", "MplsLem"}, {"unit", 1}, {"label", 1234}, ...};
//   why["hardware"] = hardwareFacts<MplsLemBinding>(hwView, 1, key);
//   why["verdict"] = verdictOf(why);
//   for (const auto &line : explainLines(why)) puts(line.c_str());
//
// The document (absent parts are null):
//   table, unit, label, qualifier   the key asked about
//   source          "agent" (live) or "store" (the agent is not running)
//   desired         the agent's desired value of the key (live only): an
//                   object, false when the desired set leaves it out, null
//                   when not known
//   pending         the newest change not committed yet (live only):
//                   {op, entry, entryVersion, changes: [{queueSeq, ageMs,
//                   waitsOn, laneHead, resource?, dependency?}]}
//   committed       the entry's committed record: {logVersion, entry,
//                   inDeletion}, or null when the key is not committed
//   loggedVersion   the newest version the table type logged
//   confirmedVersion the version the hardware writer confirmed
//   handle          the newest change's handle when it waits for the
//                   hardware (live only): {logVersion, entryState}
//   hardware        hardwareFacts(): {present, entry, entries, capacity,
//                   tableFullReports, confirmedVersion}, and "refused":
//                   the hardware writer's refusal record of the key
//                   (refusalJson), or null
//   verdict         {state, cause}: state one of notDesired, waiting,
//                   committed, confirmed, inHardware, missingInHardware,
//                   refused, absent, removing
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/asic/HwRefusalSlate.h"
#include "tools/hw/HwStore.h"
#include "tools/hw/InstanceView.h"
#include "tools/inspect/JsonVisitor.h"

namespace MicaMplsInspect {

// What the hardware writer's store says of a key: whether its unit's
// hardware table has it (and what), how full that table is, the writer's
// full-table reports for the table type, and the version it confirmed.
// Never throws for a missing or damaged store: the parts it cannot read
// are null.
template <typename B>
Json hardwareFacts(MicaMplsHw::InstanceView &hw, Asic::UnitId unit,
                   const typename B::Key &key) {
  Json out = {{"present", nullptr},          {"entry", nullptr},
              {"entries", nullptr},          {"capacity", nullptr},
              {"tableFullReports", nullptr}, {"confirmedVersion", nullptr}};
  const std::uint32_t tableId = B::Constants::swTableTypeId;
  try {
    if (auto versions = hw.entity<Asic::TableVersionSlate>(
            Asic::TableVersionSlate::path(MicaMplsHw::kGroup))) {
      Asic::TableVersionRecord r;
      if (versions->tableVersion().findOrDrop(tableId, r)) {
        out["confirmedVersion"] = r.version;
      }
    }
    if (auto follow = hw.entity<MicaMplsHw::FollowSlate>(
            MicaMplsHw::FollowSlate::path())) {
      MicaMplsHw::FollowRecord r;
      if (follow->follow().findOrDrop(tableId, r)) {
        out["tableFullReports"] = r.tableFullReports;
      }
    }
    auto table =
        hw.entity<MicaMplsHw::HwTable<B>>(MicaMplsHw::hwTablePath<B>(unit));
    if (!table) {
      return out;
    }
    auto &coll = table->hwEntries();
    out["capacity"] = coll.capacity();
    typename B::LogEntry e;
    const bool present = coll.findOrDrop(key, e);
    out["present"] = present;
    if (present) {
      out["entry"] = toJson(e);
    } else {
      // Only an absent key needs to know whether the table is full.
      std::uint64_t n = 0;
      MicaMplsHw::readRecords(
          coll, false, [&] { n = 0; },
          [&](const typename B::LogEntry &) { ++n; });
      out["entries"] = n;
    }
  } catch (const Shm::Error &) {
    // A store that cannot be read says nothing; what was read stays.
  }
  return out;
}

// The hardware writer's refusal of a key (HwRefusalSlate.h) as the
// document shows it: {logVersion, reason, byRebuild}, or null.
inline Json refusalJson(const Asic::HwRefusalRecord *r) {
  if (!r) {
    return nullptr;
  }
  return {{"logVersion", r->logVersion},
          {"reason", Asic::hwRefusalText(r->reason)},
          {"byRebuild", r->byRebuild != 0}};
}

// The state of the key and its cause in a few words, from the document.
Json verdictOf(const Json &why);

// The document in words, one line each, for a terminal.
std::vector<std::string> explainLines(const Json &why);

} // namespace MicaMplsInspect
