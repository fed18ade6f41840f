// The questions the agent's inspection endpoint (Endpoint.h) answers, read
// from the running agent's objects through their descriptions
// (platform/introspect, OrderedTable/TableAttributes.h). Read-only, and each
// answer's work is bounded: a walk answers one page, "top" looks at a
// bounded number of the resolver's lanes.
//
// Requests (one JSON object per line; "id" is echoed back):
//   {"op": "help"}
//   {"op": "tables"}                          tables, units, resources
//   {"op": "object", "object": O, ...}        every attribute of an object
//   {"op": "walk", "object": O, "collection": C, "after": CURSOR,
//    "limit": N}                              a page of a collection; the
//                                             reply's "next" resumes it
//   {"op": "entry", "table": T, "unit": U, "label": L, "qualifier": Q}
//   {"op": "why", "table": T, "unit": U, "label": L, "qualifier": Q}
//   {"op": "top"}                             rates' counters, queue depths,
//                                             waits by cause, the oldest
//                                             waiting change
// Objects O: "table" and "linkage" (with "table" and "unit"), "entryLog"
// (with "table"), "resolver", "inLifs", "adjacencies". Tables T: isem2 or
// lem (MplsIsem2, MplsLem; any case). Replies: {"ok": true, ...} or
// {"ok": false, "error": "..."}.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "MicaMpls/MplsIsem2Interface.h"
#include "MicaMpls/MplsLemInterface.h"
#include "platform/asic/GroupInterface.h"
#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "tools/hw/InstanceView.h"
#include "tools/inspect/JsonVisitor.h"

namespace MplsAgent {

using MicaMplsInspect::Json;

// What the inspector reads. The pointers outlive the inspector; a null one
// is a part the agent does not have.
struct InspectTargets {
  std::string agent;
  Asic::GroupInterface *group = nullptr;
  MicaMpls::MplsIsem2Interface *isem2 = nullptr;
  MicaMpls::MplsLemInterface *lem = nullptr;
  MicaTunnelNiLib::InLifResourceTable *inLifs = nullptr;
  MicaAdjLib::L2AdjToFecResourceTableResourceTable *adjacencies = nullptr;
  // The desired value of a key as JSON: an object, or false when the
  // desired set leaves the key out ("isem2"/"lem", unit, label, qualifier).
  std::function<Json(const std::string &, Asic::UnitId, std::uint32_t,
                     std::uint8_t)>
      desired;
  // Extra facts for "top" (the agent's own progress).
  std::function<Json()> progress;
};

class Inspector {
public:
  // Largest page of a walk, and the resolver lanes "top" looks at.
  static constexpr std::size_t kMaxPage = 1000;
  static constexpr std::size_t kTopLanes = 65536;

  explicit Inspector(InspectTargets targets);
  ~Inspector();
  Inspector(const Inspector &) = delete;
  Inspector &operator=(const Inspector &) = delete;

  // Answers one request; throws std::invalid_argument for a bad one (an
  // unknown op, table, unit or object, a field of the wrong type).
  Json answer(const Json &request);

private:
  template <typename B> const typename B::Interface *interface() const;
  template <typename B> typename B::SwTable &table(const Json &req);
  template <typename B> Json why(const Json &req);
  template <typename B> Json entry(const Json &req);
  template <typename B> Json tablesOf();
  Json tables();
  Json top();
  Json object(const Json &req, bool walk);

  InspectTargets t_;
  MicaMplsHw::InstanceView hw_;
};

} // namespace MplsAgent
