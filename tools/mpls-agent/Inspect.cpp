#include "tools/mpls-agent/Inspect.h"

#include <fmt/format.h>
#include <strings.h>

#include <chrono>
#include <stdexcept>
#include <type_traits>

#include "OrderedTable/TableAttributes.h"
#include "tools/hw/HwStore.h"
#include "tools/inspect/Why.h"

namespace MplsAgent {

namespace {

using Isem2 = MicaMpls::MplsIsem2Binding;
using Lem = MicaMpls::MplsLemBinding;
using MicaMplsInspect::JsonVisitor;
using MicaMplsInspect::toJson;

[[noreturn]] void bad(const std::string &what) {
  throw std::invalid_argument(what);
}

std::int64_t steadyNowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A request's unsigned field, within [0, max]; `dflt` when absent.
std::uint64_t field(const Json &req, const char *name, std::uint64_t max,
                    std::optional<std::uint64_t> dflt = std::nullopt) {
  const auto it = req.find(name);
  if (it == req.end() || it->is_null()) {
    if (dflt) {
      return *dflt;
    }
    bad(fmt::format("the request needs \"{}\"", name));
  }
  if (!it->is_number_unsigned() && !(it->is_number_integer() && *it >= 0)) {
    bad(fmt::format("\"{}\" must be a number from 0 to {}", name, max));
  }
  const auto v = it->get<std::uint64_t>();
  if (v > max) {
    bad(fmt::format("\"{}\" {} is above {}", name, v, max));
  }
  return v;
}

std::string text(const Json &req, const char *name) {
  const auto it = req.find(name);
  if (it == req.end() || !it->is_string()) {
    bad(fmt::format("the request needs \"{}\" (a string)", name));
  }
  return it->get<std::string>();
}

// Calls f(std::type_identity<B>{}) for the table a request names.
template <typename F> decltype(auto) withTable(const Json &req, F &&f) {
  const std::string name = text(req, "table");
  if (::strcasecmp(name.c_str(), "isem2") == 0 ||
      ::strcasecmp(name.c_str(), Isem2::Constants::tableName) == 0) {
    return f(std::type_identity<Isem2>{});
  }
  if (::strcasecmp(name.c_str(), "lem") == 0 ||
      ::strcasecmp(name.c_str(), Lem::Constants::tableName) == 0) {
    return f(std::type_identity<Lem>{});
  }
  bad(fmt::format("unknown table '{}': use isem2 (MplsIsem2) or lem (MplsLem)",
                  name));
}

template <typename B> const char *shortName() {
  return std::is_same_v<B, Isem2> ? "isem2" : "lem";
}

template <typename T> Json inspect(const T &obj) {
  JsonVisitor v;
  Introspect::inspectOperation(obj, v);
  return v.take();
}

// A page of a collection: {"elements": [...], "next": cursor or null}.
template <typename T> Json walk(const T &obj, const Json &req) {
  const std::string coll = text(req, "collection");
  const std::size_t limit =
      field(req, "limit", Inspector::kMaxPage, std::uint64_t{100});
  Introspect::Cursor after;
  if (const auto it = req.find("after"); it != req.end() && !it->is_null()) {
    if (!it->is_string() ||
        !Introspect::Cursor::fromHex(it->get<std::string>(), after)) {
      bad("\"after\" must be the \"next\" of an earlier page");
    }
  }
  JsonVisitor v;
  Introspect::Walk w;
  try {
    w = Introspect::genericIfIterator(obj, coll, after, limit, v);
  } catch (const Introspect::BadCursor &) {
    bad("\"after\" is not a cursor of collection " + coll);
  }
  if (!w.found) {
    bad(fmt::format("{} has no collection '{}'",
                    Introspect::Describe<T>::kClass, coll));
  }
  Json out = {{"collection", coll}, {"elements", v.take()}};
  out["next"] = w.next.empty() ? Json() : Json(w.next.hex());
  return out;
}

// Whether a queued change belongs to a table of family B; its key if so.
template <typename B>
const typename B::Key *keyOf(const Asic::ResolverEntry &e,
                             const typename B::SwTable *table) {
  if (e.orderTable() != table || e.isTableDeleted()) {
    return nullptr;
  }
  return &static_cast<const typename B::ResolverEntry &>(e)
              .entryWrapper()
              ->key();
}

} // namespace

Inspector::Inspector(InspectTargets targets)
    : t_(std::move(targets)), hw_(MicaMplsHw::hwInstanceName(t_.agent)) {}

Inspector::~Inspector() = default;

template <typename B>
const typename B::Interface *Inspector::interface() const {
  if constexpr (std::is_same_v<B, Isem2>) {
    return t_.isem2;
  } else {
    return t_.lem;
  }
}

template <typename B> typename B::SwTable &Inspector::table(const Json &req) {
  const auto unit = static_cast<Asic::UnitId>(field(req, "unit", 65535));
  const auto *intf = interface<B>();
  auto t =
      intf
          ? Fwk::ptrCast<typename B::SwTable>(intf->swTableSet()->swTable(unit))
          : nullptr;
  if (!t) {
    bad(fmt::format("{} has no table of unit {} in this agent",
                    B::Constants::tableName, unit));
  }
  return *t; // held by the table set
}

Json Inspector::answer(const Json &req) {
  const std::string op = text(req, "op");
  if (op == "help") {
    return {
        {"ops", {"help", "tables", "object", "walk", "entry", "why", "top"}},
        {"objects",
         {"table", "linkage", "entryLog", "resolver", "inLifs",
          "adjacencies"}}};
  }
  if (op == "tables") {
    return tables();
  }
  if (op == "object" || op == "walk") {
    return object(req, op == "walk");
  }
  if (op == "entry") {
    return withTable(req, [&](auto tag) {
      return entry<typename decltype(tag)::type>(req);
    });
  }
  if (op == "why") {
    return withTable(
        req, [&](auto tag) { return why<typename decltype(tag)::type>(req); });
  }
  if (op == "top") {
    return top();
  }
  bad(fmt::format("unknown op '{}' (help lists them)", op));
}

Json Inspector::object(const Json &req, bool walking) {
  const std::string name = text(req, "object");
  const auto read = [&](const auto &obj) {
    return walking ? walk(obj, req) : Json{{"object", inspect(obj)}};
  };
  if (name == "table") {
    return withTable(req, [&](auto tag) {
      return read(table<typename decltype(tag)::type>(req));
    });
  }
  if (name == "linkage") {
    return withTable(req, [&](auto tag) {
      const auto &l = table<typename decltype(tag)::type>(req).linkage();
      if (!l) {
        bad("the table has no resource linkage");
      }
      return read(*l);
    });
  }
  if (name == "entryLog") {
    return withTable(req, [&](auto tag) -> Json {
      using B = typename decltype(tag)::type;
      const auto *intf = interface<B>();
      if (!intf || !intf->entryLog()) {
        bad("no entry log");
      }
      return read(*intf->entryLog());
    });
  }
  if (name == "resolver") {
    return read(*t_.group->groupResolver());
  }
  if (name == "inLifs" && t_.inLifs) {
    return read(*t_.inLifs);
  }
  if (name == "adjacencies" && t_.adjacencies) {
    return read(*t_.adjacencies);
  }
  bad(fmt::format("unknown object '{}': table, linkage, entryLog, resolver, "
                  "inLifs or adjacencies",
                  name));
}

template <typename B> Json Inspector::entry(const Json &req) {
  auto &t = table<B>(req);
  const typename B::Key key(
      static_cast<std::uint32_t>(field(req, "label", 0xFFFFF)),
      static_cast<std::uint8_t>(field(req, "qualifier", 255, 0)));
  const bool has = t.entryHas(key);
  return {{"table", B::Constants::tableName},
          {"unit", t.unitId()},
          {"has", has},
          {"entry", has ? toJson(t.entry(key)) : Json()}};
}

template <typename B> Json Inspector::why(const Json &req) {
  auto &t = table<B>(req);
  const auto label = static_cast<std::uint32_t>(field(req, "label", 0xFFFFF));
  const auto qualifier =
      static_cast<std::uint8_t>(field(req, "qualifier", 255, 0));
  const typename B::Key key(label, qualifier);
  const Asic::UnitId unit = t.unitId();
  Json why = {{"table", B::Constants::tableName},
              {"unit", unit},
              {"label", label},
              {"qualifier", qualifier},
              {"source", "agent"}};
  why["desired"] =
      t_.desired ? t_.desired(shortName<B>(), unit, label, qualifier) : Json();

  // The newest change not committed yet, and the queued changes of the key.
  const auto add = t.transientAddEntry(key);
  const auto remove = t.transientRemoveEntry(key);
  if (add || remove) {
    Json p = {{"op", add ? "write" : "remove"},
              {"entry", add ? toJson(add->entry()) : Json()},
              {"entryVersion", toJson(t.transientVersionForKey(key))},
              {"changes", Json::array()}};
    const auto &resolver = *t_.group->groupResolver();
    const std::int64_t now = steadyNowNs();
    bool head = true;
    for (const Asic::ResolverEntry *e =
             resolver.resolverQueueLane(&t, key.packed());
         e; e = Asic::GroupResolver::resolverQueueLaneNext(*e), head = false) {
      Json c = toJson(*e);
      c["laneHead"] = head;
      c["ageMs"] = e->queuedAtNs() > 0 && now > e->queuedAtNs()
                       ? (now - e->queuedAtNs()) / 1000000
                       : 0;
      const auto &w =
          static_cast<const typename B::ResolverEntry &>(*e).entryWrapper();
      c["resource"] = toJson(w->resourcePtr());
      if (!w->resourcePtr() && !e->isEntryDeleted()) {
        // Not asked yet: the resource table's own view of the key.
        if constexpr (std::is_same_v<B, Isem2>) {
          if (t_.inLifs) {
            c["resource"] =
                toJson(t_.inLifs->entry(B::resourceKey(w->entry())));
          }
        } else if (t_.adjacencies) {
          c["resource"] =
              toJson(t_.adjacencies->entry(B::resourceKey(w->entry())));
        }
      }
      p["changes"].push_back(std::move(c));
    }
    if (t.transientRemoveAllVersion().valid()) {
      p["removeAllPending"] = true;
    }
    why["pending"] = std::move(p);
  } else {
    why["pending"] = nullptr;
  }

  const auto &log = *t.entryLog();
  const Asic::LogVersion v = log.entryLogVersion(key, unit);
  if (log.entryHas(key, unit)) {
    why["committed"] = {{"logVersion", v},
                        {"entry", toJson(t.entryFromConfig(key))},
                        {"inDeletion", false}};
  } else if (v != 0) {
    why["committed"] = {{"logVersion", v}, {"inDeletion", true}};
  } else {
    why["committed"] = nullptr;
  }
  const Asic::SwTableId tableId(B::Constants::swTableTypeId);
  why["loggedVersion"] = t_.group->loggedVersion(tableId);
  const auto confirmed = t_.group->hwTableVersion(tableId);
  why["confirmedVersion"] = confirmed ? Json(*confirmed) : Json();
  why["hardware"] = MicaMplsInspect::hardwareFacts<B>(hw_, unit, key);
  why["hardware"]["refused"] = MicaMplsInspect::refusalJson(
      t_.group->hwRefusal(tableId, unit, key.packed()));
  why["verdict"] = MicaMplsInspect::verdictOf(why);
  return why;
}

template <typename B> Json Inspector::tablesOf() {
  const auto *intf = interface<B>();
  Json rows = Json::array();
  if (!intf) {
    return rows;
  }
  const Asic::SwTableId tableId(B::Constants::swTableTypeId);
  const auto confirmed = t_.group->hwTableVersion(tableId);
  for (const auto &base : intf->swTableSet()->swTableList()) {
    const auto t = Fwk::ptrCast<typename B::SwTable>(base);
    if (!t) {
      continue;
    }
    Json counters = toJson(t->stats());
    rows.push_back({{"table", B::Constants::tableName},
                    {"unit", t->unitId()},
                    {"entries", t->entrys()},
                    {"pendingWrites", t->transientAddEntrys()},
                    {"pendingRemoves", t->transientRemoveEntrys()},
                    {"waitingForHardware", t->entryHandleInLogSize()},
                    {"inMarkingState", t->inMarkingState()},
                    {"loggedVersion", t_.group->loggedVersion(tableId)},
                    {"confirmedVersion", confirmed ? Json(*confirmed) : Json()},
                    {"counters", std::move(counters)}});
  }
  return rows;
}

Json Inspector::tables() {
  Json rows = tablesOf<Isem2>();
  for (auto &r : tablesOf<Lem>()) {
    rows.push_back(std::move(r));
  }
  Json resources = Json::array();
  if (t_.inLifs) {
    resources.push_back(inspect(*t_.inLifs));
  }
  if (t_.adjacencies) {
    resources.push_back(inspect(*t_.adjacencies));
  }
  return {{"agent", t_.agent},
          {"tables", std::move(rows)},
          {"resources", std::move(resources)}};
}

Json Inspector::top() {
  const auto &r = *t_.group->groupResolver();
  Json out = tables();
  out["timeNs"] = steadyNowNs();
  Json resolver = inspect(r);
  const std::size_t parked = r.parkedOn(Asic::WaitKind::dependency) +
                             r.parkedOn(Asic::WaitKind::resource) +
                             r.parkedOn(Asic::WaitKind::logRoom);
  // Queued changes neither offered nor parked wait behind an older change
  // of their key, or behind a remove-all of their table.
  const std::size_t queued = r.resolverQueueSize();
  const std::size_t ready = std::min(queued, r.offerable());
  resolver["behindOlder"] =
      queued > ready + parked ? queued - ready - parked : 0;
  out["resolver"] = std::move(resolver);

  // The oldest queued change, from a bounded look at the lanes.
  const Asic::ResolverEntry *oldest = nullptr;
  Asic::GroupResolver::QueueCursor next{};
  const bool more = r.resolverQueueWalk(
      nullptr, kTopLanes,
      [&](const Asic::ResolverEntry &e, bool head) {
        if (head && (!oldest || e.queueSeq() < oldest->queueSeq())) {
          oldest = &e;
        }
      },
      next);
  out["oldestComplete"] = !more;
  if (oldest) {
    const std::int64_t now = steadyNowNs();
    Json o = toJson(*oldest);
    o["ageMs"] = oldest->queuedAtNs() > 0 && now > oldest->queuedAtNs()
                     ? (now - oldest->queuedAtNs()) / 1000000
                     : 0;
    const auto name = [&](auto tag) {
      using B = typename decltype(tag)::type;
      const auto *intf = interface<B>();
      if (!intf) {
        return;
      }
      for (const auto &base : intf->swTableSet()->swTableList()) {
        const auto *t = static_cast<const typename B::SwTable *>(base.ptr());
        if (oldest->orderTable() != t) {
          continue;
        }
        o["table"] = B::Constants::tableName;
        o["unit"] = t->unitId();
        if (const auto *k = keyOf<B>(*oldest, t)) {
          o["label"] = k->label;
          o["qualifier"] = k->qualifier;
        }
      }
    };
    name(std::type_identity<Isem2>{});
    name(std::type_identity<Lem>{});
    out["oldest"] = std::move(o);
  } else {
    out["oldest"] = nullptr;
  }
  if (t_.progress) {
    out["agentProgress"] = t_.progress();
  }
  return out;
}

} // namespace MplsAgent
