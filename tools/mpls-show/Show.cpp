#include "tools/mpls-show/Show.h"

#include <fmt/format.h>
#include <strings.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"
#include "platform/asic/SwTableStatsSlate.h"
#include "tools/hw/HwStore.h"
#include "tools/inspect/Client.h"
#include "tools/inspect/Why.h"
#include "tools/mpls-show/TableView.h"

namespace MplsShow {

namespace {

using Isem2 = MicaMpls::MplsIsem2Binding;
using Lem = MicaMpls::MplsLemBinding;
using MicaMplsHw::InstanceView;

// Calls f(std::type_identity<B>{}) with the binding of a table named by its
// short or full name (any case).
template <typename F> void withTable(const std::string &name, F &&f) {
  const auto is = [&](auto tag) {
    using B = typename decltype(tag)::type;
    return ::strcasecmp(name.c_str(), TableView<B>::kShortName) == 0 ||
           ::strcasecmp(name.c_str(), B::Constants::tableName) == 0;
  };
  if (is(std::type_identity<Isem2>{})) {
    f(std::type_identity<Isem2>{});
  } else if (is(std::type_identity<Lem>{})) {
    f(std::type_identity<Lem>{});
  } else {
    throw ShowError(kExitUsage,
                    fmt::format("unknown table '{}': use isem2 (MplsIsem2) "
                                "or lem (MplsLem)",
                                name));
  }
}

// The table name of a packed table id, or its hex form.
std::string tableNameOf(std::uint32_t tableId) {
  if (tableId == Isem2::Constants::swTableTypeId) {
    return Isem2::Constants::tableName;
  }
  if (tableId == Lem::Constants::swTableTypeId) {
    return Lem::Constants::tableName;
  }
  return fmt::format("{:#010x}", tableId);
}

template <typename Key> void putKey(Json &row, const Key &k) {
  row["label"] = k.label;
  row["qualifier"] = k.qualifier;
}

void putFields(Json &obj, const std::vector<Field> &fields) {
  for (const Field &f : fields) {
    obj[f.name] = f.value;
  }
}

template <typename B> std::vector<Column> keyAndResolvedColumns() {
  std::vector<Column> cols = {{"label", "/label"}, {"qualifier", "/qualifier"}};
  for (const Field &f : TableView<B>::resolved(typename B::LogEntry{})) {
    cols.push_back({f.name, std::string("/") + f.name, f.hex});
  }
  return cols;
}

template <typename Rows, typename Key> void sortByKey(Rows &rows, Key keyOf) {
  std::sort(rows.begin(), rows.end(), [&](const auto &a, const auto &b) {
    const auto ka = keyOf(a), kb = keyOf(b);
    return std::pair(ka.label, ka.qualifier) <
           std::pair(kb.label, kb.qualifier);
  });
}

// The Prometheus metric of a counter: "entryWriteCnt" ->
// "mica_mpls_sw_table_entry_write_total".
std::string metricName(const std::string &counter) {
  std::string base = counter;
  if (base.size() > 3 && base.compare(base.size() - 3, 3, "Cnt") == 0) {
    base.resize(base.size() - 3);
  }
  std::string out = "mica_mpls_sw_table_";
  for (char c : base) {
    if (c >= 'A' && c <= 'Z') {
      out += '_';
      out += static_cast<char>(c - 'A' + 'a');
    } else {
      out += c;
    }
  }
  return out + "_total";
}

// Seconds since the epoch, exactly, from ns.
std::string seconds(std::int64_t ns) {
  const char *sign = ns < 0 ? "-" : "";
  const std::uint64_t a = ns < 0 ? 0 - static_cast<std::uint64_t>(ns)
                                 : static_cast<std::uint64_t>(ns);
  return fmt::format("{}{}.{:09}", sign, a / 1000000000, a % 1000000000);
}

constexpr const char *kCounterHelp[] = {
    "Entries written to the software table.",
    "Entries removed from the software table.",
    "Entries whose resource failed to resolve.",
    "Removals of every entry of the table.",
    "Changes committed to the entry log.",
    "Writes suppressed as identical to the stored entry.",
    "Writes not suppressed because the entry or its resource key differed.",
    "Updates of committed entries.",
    "Updates of entries whose resource had failed.",
    "Changes refused because the entry log had no room for them.",
    "Writes the hardware refused (a full hardware table).",
};
static_assert(std::size(kCounterHelp) == Asic::SwTableStatsRecord::kCounters,
              "one help line per published counter");

} // namespace

void Show::CountingReporter::corruption(const std::string &message) {
  ++count;
  std::fprintf(stderr, "mpls-show: corrupt shared memory: %s\n",
               message.c_str());
}

void Show::CountingReporter::notice(const std::string &message) {
  std::fprintf(stderr, "mpls-show: %s\n", message.c_str());
}

Show::Show(std::string agent, bool json)
    : agentName_(std::move(agent)), json_(json), agent_(agentName_),
      hw_(MicaMplsHw::hwInstanceName(agentName_)) {
  Shm::reporterIs(&reporter_);
}

Show::~Show() {
  if (reporter_.count > 0 && !json_) {
    std::fprintf(stderr, "mpls-show: %llu corrupt record(s) skipped\n",
                 static_cast<unsigned long long>(reporter_.count));
  }
  Shm::reporterIs(nullptr);
}

InstanceView &Show::agent() {
  if (!agent_.instance()) {
    throw ShowError(kExitMissing,
                    fmt::format("no store instance for agent {} ({} does not "
                                "exist); has the agent started?",
                                agentName_, agent_.directory()));
  }
  return agent_;
}

template <typename E>
Fwk::Ptr<E> Show::need(InstanceView &view, const std::string &path,
                       const std::string &what) {
  if (!view.instance()) {
    throw ShowError(kExitMissing, fmt::format("no store instance {}: {} "
                                              "does not exist",
                                              view.name(), view.directory()));
  }
  Fwk::Ptr<E> e;
  try {
    e = view.template entity<E>(path);
  } catch (const Shm::Error &ex) {
    throw ShowError(kExitFailure,
                    fmt::format("cannot read {}: {}", what, ex.what()));
  }
  if (!e) {
    throw ShowError(kExitMissing, fmt::format("no {} in {} (no file {})", what,
                                              view.directory(), path));
  }
  return e;
}

template <typename E>
Fwk::Ptr<E> Show::maybe(InstanceView &view, const std::string &path) {
  try {
    return view.template entity<E>(path);
  } catch (const Shm::CorruptionError &) {
    return nullptr; // the store reported it (counted as corrupt)
  } catch (const Shm::Error &ex) {
    std::fprintf(stderr, "mpls-show: cannot read %s/%s: %s\n",
                 view.directory().c_str(), path.c_str(), ex.what());
    return nullptr;
  }
}

template <typename Coll, typename Restart, typename F>
void Show::read(Coll &coll, bool ordered, Restart &&restart, F &&f) {
  if (!MicaMplsHw::readRecords(coll, ordered, restart, f)) {
    std::fprintf(stderr,
                 "mpls-show: collection %s: too many corrupt records; "
                 "nothing shown of it\n",
                 coll.name().c_str());
  }
}

template <typename Text> void Show::print(Json doc, Text &&text) {
  if (capture_) {
    doc["corruptRecords"] = reporter_.count;
    *capture_ = std::move(doc);
  } else if (json_) {
    doc["corruptRecords"] = reporter_.count;
    std::printf("%s\n", doc.dump(2).c_str());
  } else {
    text(doc);
  }
}

// ---- summary ----

template <typename B> Json Show::tableSummary() {
  using LogSlate = Asic::EntryLogSlate<B>;
  using ConfigSlate = Asic::ConfigSlate<B>;
  using Log = Asic::LogSlateEntry<B>;
  using Config = Asic::ConfigSlateEntry<B>;
  const Asic::SwTableId tableId(B::Constants::swTableTypeId);
  Json t = {{"table", B::Constants::tableName},
            {"tableId", tableId.packed()},
            {"loggedVersion", nullptr},
            {"completeVersion", nullptr},
            {"confirmedVersion", nullptr},
            {"pendingLogRecords", nullptr},
            {"hw", nullptr},
            {"units", Json::array()}};
  // The confirmed version is read before the logged one: both only grow,
  // so the summary never shows more confirmed than logged.
  if (auto versions = maybe<Asic::TableVersionSlate>(
          hw_, Asic::TableVersionSlate::path(MicaMplsHw::kGroup))) {
    Asic::TableVersionRecord r;
    if (versions->tableVersion().findOrDrop(tableId.packed(), r)) {
      t["confirmedVersion"] = r.version;
    }
  }
  if (auto log =
          maybe<LogSlate>(agent_, B::Constants::tableEntryLogSlatePath())) {
    auto &c = log->entryLogConfig();
    t["loggedVersion"] = c.control().scratchpad();
    t["completeVersion"] = c.control().auxiliary();
    std::uint64_t n = 0;
    read(
        c, false, [&] { n = 0; }, [&](const Log &) { ++n; });
    t["pendingLogRecords"] = n;
  }
  if (auto follow = maybe<MicaMplsHw::FollowSlate>(
          hw_, MicaMplsHw::FollowSlate::path())) {
    MicaMplsHw::FollowRecord r;
    if (follow->follow().findOrDrop(tableId.packed(), r)) {
      t["hw"] = {{"changesApplied", r.changesApplied},
                 {"tableFullReports", r.tableFullReports},
                 {"gapsSkipped", r.gapsSkipped},
                 {"resyncs", r.resyncs},
                 {"updatedTimeNs", r.updatedTimeNs}};
    }
  }
  const std::string configBase =
      Asic::Constants::canonicalGroupTableConfigSlatePathBase(
          B::Constants::groupName, B::Constants::tableName);
  std::vector<Asic::UnitId> units = agent_.units(configBase);
  for (Asic::UnitId u : hw_.units(MicaMplsHw::hwTableBase<B>())) {
    if (std::find(units.begin(), units.end(), u) == units.end()) {
      units.push_back(u);
    }
  }
  std::sort(units.begin(), units.end());
  const auto refusals = MicaMplsHw::hwRefusals(hw_);
  for (Asic::UnitId u : units) {
    Json row = {{"table", B::Constants::tableName},
                {"unit", u},
                {"entries", nullptr},
                {"inDeletion", nullptr},
                {"hwEntries", nullptr},
                {"hwRefused", nullptr}};
    if (auto cfg =
            maybe<ConfigSlate>(agent_, B::Constants::configSlatePath(u))) {
      std::uint64_t live = 0, deleted = 0;
      read(
          cfg->swTableEntries(), false, [&] { live = deleted = 0; },
          [&](const Config &r) { ++(r.isDeleted ? deleted : live); });
      row["entries"] = live;
      row["inDeletion"] = deleted;
      agent_.forget(cfg->path());
    }
    if (auto hwt =
            maybe<MicaMplsHw::HwTable<B>>(hw_, MicaMplsHw::hwTablePath<B>(u))) {
      std::uint64_t n = 0;
      read(
          hwt->hwEntries(), false, [&] { n = 0; },
          [&](const typename B::LogEntry &) { ++n; });
      row["hwEntries"] = n;
      const std::uint32_t id = B::Constants::swTableTypeId;
      row["hwRefused"] = std::distance(
          refusals.lower_bound({id, u, 0}),
          refusals.upper_bound({id, u, ~std::uint64_t{0}}));
    }
    t["units"].push_back(std::move(row));
  }
  return t;
}

void Show::summary() {
  agent();
  Json doc = {
      {"agent", agentName_},
      {"instance", agent_.directory()},
      {"hwInstance", hw_.directory()},
      {"hwPresent", hw_.instance() != nullptr},
      {"tables", Json::array({tableSummary<Isem2>(), tableSummary<Lem>()})}};
  print(std::move(doc), [](const Json &d) {
    std::printf("agent %s: %s\nhardware writer: %s%s\n\n",
                d["agent"].get<std::string>().c_str(),
                d["instance"].get<std::string>().c_str(),
                d["hwInstance"].get<std::string>().c_str(),
                d["hwPresent"].get<bool>() ? "" : " (absent)");
    printColumns(stdout, d["tables"],
                 {{"table", "/table"},
                  {"logged", "/loggedVersion"},
                  {"complete", "/completeVersion"},
                  {"confirmed", "/confirmedVersion"},
                  {"pending", "/pendingLogRecords"},
                  {"hwApplied", "/hw/changesApplied"},
                  {"hwFull", "/hw/tableFullReports"},
                  {"hwGaps", "/hw/gapsSkipped"},
                  {"hwResyncs", "/hw/resyncs"}});
    Json units = Json::array();
    for (const Json &t : d["tables"]) {
      for (const Json &u : t["units"]) {
        units.push_back(u);
      }
    }
    std::printf("\n");
    printColumns(stdout, units,
                 {{"table", "/table"},
                  {"unit", "/unit"},
                  {"entries", "/entries"},
                  {"inDeletion", "/inDeletion"},
                  {"hwEntries", "/hwEntries"},
                  {"hwRefused", "/hwRefused"}});
  });
}

// ---- entries ----

template <typename B>
void Show::entriesOf(Asic::UnitId unit, std::optional<std::uint32_t> label) {
  using V = TableView<B>;
  using Config = Asic::ConfigSlateEntry<B>;
  auto cfg = need<Asic::ConfigSlate<B>>(
      agent(), B::Constants::configSlatePath(unit),
      fmt::format("configuration table of {} unit {}", B::Constants::tableName,
                  unit));
  std::vector<Config> recs;
  read(
      cfg->swTableEntries(), true, [&] { recs.clear(); },
      [&](const Config &r) {
        if (!label || r.logEntry.key.label == *label) {
          recs.push_back(r);
        }
      });
  sortByKey(recs, [](const Config &r) { return r.logEntry.key; });
  Json rows = Json::array();
  std::uint64_t deleted = 0;
  for (const Config &r : recs) {
    Json row;
    putKey(row, r.logEntry.key);
    putFields(row, V::resolved(r.logEntry));
    Json rk = Json::object();
    putFields(rk, V::resource(r.rsrcKeys));
    row["resourceKey"] = std::move(rk);
    row["logVersion"] = r.logVersion;
    row["deleted"] = r.isDeleted != 0;
    deleted += r.isDeleted ? 1 : 0;
    rows.push_back(std::move(row));
  }
  Json doc = {{"table", B::Constants::tableName},
              {"unit", unit},
              {"entries", std::move(rows)}};
  print(std::move(doc), [&](const Json &d) {
    std::printf("%s unit %u: %zu entries (%llu in deletion)\n\n",
                B::Constants::tableName, unsigned{unit}, d["entries"].size(),
                static_cast<unsigned long long>(deleted));
    std::vector<Column> cols = keyAndResolvedColumns<B>();
    for (const Field &f : V::resource(typename B::ResourceKeys{})) {
      cols.push_back({fmt::format("{}.{}", V::kResourceName, f.name),
                      std::string("/resourceKey/") + f.name, f.hex});
    }
    cols.push_back({"logVersion", "/logVersion"});
    cols.push_back({"deleted", "/deleted"});
    printColumns(stdout, d["entries"], cols);
  });
}

void Show::entries(const std::string &table, Asic::UnitId unit,
                   std::optional<std::uint32_t> label) {
  withTable(table, [&](auto tag) {
    entriesOf<typename decltype(tag)::type>(unit, label);
  });
}

// ---- log ----

template <typename B>
void Show::logOf(Asic::LogVersion from, std::uint64_t limit) {
  using V = TableView<B>;
  using Log = Asic::LogSlateEntry<B>;
  auto log = need<Asic::EntryLogSlate<B>>(
      agent(), B::Constants::tableEntryLogSlatePath(),
      fmt::format("change log of {}", B::Constants::tableName));
  auto &c = log->entryLogConfig();
  std::vector<Log> recs;
  read(
      c, false, [&] { recs.clear(); },
      [&](const Log &r) {
        if (r.logVersion >= from) {
          recs.push_back(r);
        }
      });
  std::sort(recs.begin(), recs.end(), [](const Log &a, const Log &b) {
    return a.logVersion < b.logVersion;
  });
  if (limit != 0 && recs.size() > limit) {
    recs.resize(limit);
  }
  Json rows = Json::array();
  for (const Log &r : recs) {
    Json row = {{"version", r.logVersion},
                {"unit", r.unitId},
                {"op", r.isTableDelete()   ? "tableDelete"
                       : r.isEntryDelete() ? "delete"
                                           : "write"}};
    if (!r.isTableDelete()) {
      putKey(row, r.logEntry.key);
      putFields(row, V::resolved(r.logEntry));
    }
    rows.push_back(std::move(row));
  }
  Json doc = {{"table", B::Constants::tableName},
              {"loggedVersion", c.control().scratchpad()},
              {"completeVersion", c.control().auxiliary()},
              {"records", std::move(rows)}};
  print(std::move(doc), [](const Json &d) {
    std::printf("%s change log: logged version %llu, %zu record(s) shown\n\n",
                B::Constants::tableName,
                static_cast<unsigned long long>(
                    d["loggedVersion"].get<std::uint64_t>()),
                d["records"].size());
    std::vector<Column> cols = {
        {"version", "/version"}, {"unit", "/unit"}, {"op", "/op"}};
    for (Column &k : keyAndResolvedColumns<B>()) {
      cols.push_back(std::move(k));
    }
    printColumns(stdout, d["records"], cols);
  });
}

void Show::log(const std::string &table, Asic::LogVersion from,
               std::uint64_t limit) {
  withTable(table, [&](auto tag) {
    logOf<typename decltype(tag)::type>(from, limit);
  });
}

// ---- hw ----

template <typename B> void Show::hwOf(Asic::UnitId unit) {
  using V = TableView<B>;
  using Entry = typename B::LogEntry;
  auto table =
      need<MicaMplsHw::HwTable<B>>(hw_, MicaMplsHw::hwTablePath<B>(unit),
                                   fmt::format("hardware table of {} unit {}",
                                               B::Constants::tableName, unit));
  std::vector<Entry> recs;
  read(
      table->hwEntries(), true, [&] { recs.clear(); },
      [&](const Entry &e) { recs.push_back(e); });
  sortByKey(recs, [](const Entry &e) { return e.key; });
  Json confirmed = nullptr;
  if (auto versions = maybe<Asic::TableVersionSlate>(
          hw_, Asic::TableVersionSlate::path(MicaMplsHw::kGroup))) {
    Asic::TableVersionRecord r;
    if (versions->tableVersion().findOrDrop(B::Constants::swTableTypeId, r)) {
      confirmed = r.version;
    }
  }
  Json rows = Json::array();
  for (const Entry &e : recs) {
    Json row;
    putKey(row, e.key);
    putFields(row, V::resolved(e));
    rows.push_back(std::move(row));
  }
  // The changes the hardware refused, by key.
  Json refused = Json::array();
  const std::uint32_t id = B::Constants::swTableTypeId;
  const auto refusals = MicaMplsHw::hwRefusals(hw_);
  for (auto it = refusals.lower_bound({id, unit, 0});
       it != refusals.upper_bound({id, unit, ~std::uint64_t{0}}); ++it) {
    const Asic::HwRefusalRecord &r = it->second;
    Json row;
    putKey(row, B::Key::fromPacked(r.at.key));
    row["version"] = r.logVersion;
    row["byRebuild"] = r.byRebuild != 0;
    row["reason"] = Asic::hwRefusalText(r.reason);
    refused.push_back(std::move(row));
  }
  Json doc = {{"table", B::Constants::tableName},
              {"unit", unit},
              {"confirmedVersion", confirmed},
              {"capacity", table->hwEntries().capacity()},
              {"entries", std::move(rows)},
              {"refused", std::move(refused)}};
  print(std::move(doc), [&](const Json &d) {
    std::printf("%s hardware table of unit %u: %zu of %u entries, confirmed "
                "version %s\n\n",
                B::Constants::tableName, unsigned{unit}, d["entries"].size(),
                table->hwEntries().capacity(),
                confirmed.is_null() ? "-" : confirmed.dump().c_str());
    printColumns(stdout, d["entries"], keyAndResolvedColumns<B>());
    if (!d["refused"].empty()) {
      std::printf("\nrefused by the hardware (not in the table): %zu\n\n",
                  d["refused"].size());
      printColumns(stdout, d["refused"],
                   {{"label", "/label"},
                    {"qualifier", "/qualifier"},
                    {"version", "/version"},
                    {"byRebuild", "/byRebuild"},
                    {"reason", "/reason"}});
    }
  });
}

void Show::hw(const std::string &table, Asic::UnitId unit) {
  withTable(table, [&](auto tag) { hwOf<typename decltype(tag)::type>(unit); });
}

// ---- stats ----

void Show::stats(bool prometheus) {
  using Rec = Asic::SwTableStatsRecord;
  auto slate = need<Asic::SwTableStatsSlate>(
      agent(), Asic::SwTableStatsSlate::path(MicaMplsHw::kGroup),
      "published table counters");
  std::vector<Rec> recs;
  read(
      slate->swTableStats(), true, [&] { recs.clear(); },
      [&](const Rec &r) { recs.push_back(r); });
  std::sort(recs.begin(), recs.end(),
            [](const Rec &a, const Rec &b) { return a.key < b.key; });
  if (prometheus) {
    const auto labels = [](const Rec &r) {
      return fmt::format("{{table=\"{}\",unit=\"{}\"}}", tableNameOf(r.tableId),
                         r.unitId);
    };
    const auto family = [&](const std::string &name, const char *help,
                            const char *type, auto valueOf) {
      std::printf("# HELP %s %s\n# TYPE %s %s\n", name.c_str(), help,
                  name.c_str(), type);
      for (const Rec &r : recs) {
        std::printf("%s%s %s\n", name.c_str(), labels(r).c_str(),
                    valueOf(r).c_str());
      }
    };
    for (std::uint32_t i = 0; i < Rec::kCounters; ++i) {
      family(metricName(Rec::kCounterNames[i]), kCounterHelp[i], "counter",
             [i](const Rec &r) { return std::to_string(r.counters[i]); });
    }
    family("mica_mpls_sw_table_pending_hw_writes",
           "1 while changes of the table wait for the hardware, else 0.",
           "gauge", [](const Rec &r) {
             return std::to_string(unsigned{r.pendingHwWrites});
           });
    family("mica_mpls_sw_table_last_commit_timestamp_seconds",
           "Time of the table's last commit (0: none).", "gauge",
           [](const Rec &r) { return seconds(r.lastCommitTimeNs); });
    family("mica_mpls_sw_table_published_timestamp_seconds",
           "Time the agent published these counters.", "gauge",
           [](const Rec &r) { return seconds(r.publishedTimeNs); });
    return;
  }
  Json rows = Json::array();
  for (const Rec &r : recs) {
    Json counters = Json::object();
    for (std::uint32_t i = 0; i < Rec::kCounters; ++i) {
      counters[Rec::kCounterNames[i]] = r.counters[i];
    }
    rows.push_back({{"table", tableNameOf(r.tableId)},
                    {"tableId", r.tableId},
                    {"unit", r.unitId},
                    {"pendingHwWrites", r.pendingHwWrites != 0},
                    {"counters", std::move(counters)},
                    {"lastCommitTimeNs", r.lastCommitTimeNs},
                    {"publishedTimeNs", r.publishedTimeNs}});
  }
  print(Json{{"stats", std::move(rows)}}, [](const Json &d) {
    bool first = true;
    for (const Json &r : d["stats"]) {
      std::printf("%s%s unit %u: published %s, last commit %s, pending "
                  "hardware writes: %s\n",
                  first ? "" : "\n", r["table"].get<std::string>().c_str(),
                  r["unit"].get<unsigned>(),
                  utcTime(r["publishedTimeNs"].get<std::int64_t>()).c_str(),
                  utcTime(r["lastCommitTimeNs"].get<std::int64_t>()).c_str(),
                  r["pendingHwWrites"].get<bool>() ? "yes" : "no");
      for (const auto &[name, value] : r["counters"].items()) {
        std::printf(
            "  %-28s %20llu\n", name.c_str(),
            static_cast<unsigned long long>(value.get<std::uint64_t>()));
      }
      first = false;
    }
  });
}

} // namespace MplsShow

// ---- why ----

namespace MplsShow {

template <typename B>
Json Show::whyFromStores(Asic::UnitId unit, const typename B::Key &key) {
  Json why = {{"table", B::Constants::tableName},
              {"unit", unit},
              {"label", key.label},
              {"qualifier", key.qualifier},
              {"source", "store"},
              {"desired", nullptr},
              {"committed", nullptr},
              {"loggedVersion", nullptr}};
  auto cfg = need<Asic::ConfigSlate<B>>(
      agent(), B::Constants::configSlatePath(unit),
      fmt::format("configuration table of {} unit {}", B::Constants::tableName,
                  unit));
  Asic::ConfigSlateEntry<B> r;
  if (cfg->swTableEntries().findOrDrop(key, r)) {
    why["committed"] = {{"logVersion", r.logVersion},
                        {"entry", MicaMplsInspect::toJson(B::Entry::fromParts(
                                      r.rsrcKeys, r.logEntry))},
                        {"inDeletion", r.isDeleted != 0}};
  }
  if (auto log = maybe<Asic::EntryLogSlate<B>>(
          agent_, B::Constants::tableEntryLogSlatePath())) {
    why["loggedVersion"] = log->entryLogConfig().control().scratchpad();
  }
  why["hardware"] = MicaMplsInspect::hardwareFacts<B>(hw_, unit, key);
  why["confirmedVersion"] = why["hardware"]["confirmedVersion"];
  const auto refusals = MicaMplsHw::hwRefusals(hw_);
  const auto refused =
      refusals.find({B::Constants::swTableTypeId, unit, key.packed()});
  why["hardware"]["refused"] = MicaMplsInspect::refusalJson(
      refused == refusals.end() ? nullptr : &refused->second);
  why["verdict"] = MicaMplsInspect::verdictOf(why);
  return why;
}

void Show::why(const std::string &table, Asic::UnitId unit, std::uint32_t label,
               std::uint8_t qualifier, bool storesOnly) {
  Json doc;
  withTable(table, [&](auto tag) {
    using B = typename decltype(tag)::type;
    if (!storesOnly) {
      MicaMplsInspect::Client live(MicaMplsInspect::endpointPath(agentName_));
      if (live.connected()) {
        try {
          doc = live.ask({{"op", "why"},
                          {"table", TableView<B>::kShortName},
                          {"unit", unit},
                          {"label", label},
                          {"qualifier", qualifier}});
          return;
        } catch (const MicaMplsInspect::EndpointError &e) {
          throw ShowError(kExitMissing,
                          fmt::format("agent {}: {}", agentName_, e.what()));
        }
      }
    }
    doc = whyFromStores<B>(unit, typename B::Key(label, qualifier));
  });
  print(std::move(doc), [](const Json &d) {
    for (const std::string &line : MicaMplsInspect::explainLines(d)) {
      std::printf("%s\n", line.c_str());
    }
  });
}

// ---- top ----

namespace {

// Per second, from two readings of a counter `dt` seconds apart.
Json rate(const Json &now, const Json *before, const std::string &pointer,
          double dt) {
  if (!before || dt <= 0) {
    return nullptr;
  }
  const Json::json_pointer p(pointer);
  if (!now.contains(p) || !before->contains(p) || !now[p].is_number() ||
      !(*before)[p].is_number()) {
    return nullptr;
  }
  const double d = now[p].get<double>() - (*before)[p].get<double>();
  return d < 0 ? Json() : Json(d / dt);
}

// Adds the rates of `before` (the previous screen) to a "top" reply.
void addRates(Json &now, const Json *before) {
  const double dt =
      before ? (now.value("timeNs", 0.0) - before->value("timeNs", 0.0)) / 1e9
             : 0.0;
  Json rates = {
      {"commitsPerSecond", rate(now, before, "/resolver/commits", dt)},
      {"passesPerSecond", rate(now, before, "/resolver/passes", dt)}};
  for (std::size_t i = 0; i < now["tables"].size(); ++i) {
    Json &t = now["tables"][i];
    const Json *bt = nullptr;
    if (before) {
      for (const Json &b : (*before)["tables"]) {
        if (b["table"] == t["table"] && b["unit"] == t["unit"]) {
          bt = &b;
        }
      }
    }
    t["writesPerSecond"] = rate(t, bt, "/counters/entryWriteCnt", dt);
    t["commitsPerSecond"] = rate(t, bt, "/counters/commitCnt", dt);
    t["confirmedPerSecond"] = rate(t, bt, "/confirmedVersion", dt);
  }
  now["rates"] = std::move(rates);
}

void printTop(const Json &d, bool clear) {
  if (clear) {
    std::printf("\x1b[H\x1b[2J");
  }
  const Json &r = d["resolver"];
  const auto num = [](const Json &j) {
    return j.is_number() ? fmt::format("{:.0f}", j.get<double>())
                         : std::string("-");
  };
  std::printf("agent %s: %s commits/s, %s resolver passes/s\n\n",
              d.value("agent", "?").c_str(),
              num(d["rates"]["commitsPerSecond"]).c_str(),
              num(d["rates"]["passesPerSecond"]).c_str());
  printColumns(stdout, d["tables"],
               {{"table", "/table"},
                {"unit", "/unit"},
                {"entries", "/entries"},
                {"pendWrite", "/pendingWrites"},
                {"pendRemove", "/pendingRemoves"},
                {"forHw", "/waitingForHardware"},
                {"logged", "/loggedVersion"},
                {"confirmed", "/confirmedVersion"},
                {"writes/s", "/writesPerSecond"},
                {"commits/s", "/commitsPerSecond"},
                {"confirms/s", "/confirmedPerSecond"}});
  std::printf(
      "\nresolver: %s queued, %s offerable; waiting on a resource %s, a "
      "dependency %s, log room %s, behind an older change %s, unnamed %s%s\n",
      r["resolverQueue"].dump().c_str(), r["offerable"].dump().c_str(),
      r["parkedOn"]["resource"].dump().c_str(),
      r["parkedOn"]["dependency"].dump().c_str(),
      r["parkedOn"]["logRoom"].dump().c_str(), r["behindOlder"].dump().c_str(),
      r["waitingUnnamed"].dump().c_str(),
      r.value("suspended", false) ? " (clients held back)" : "");
  const Json &o = d["oldest"];
  if (o.is_object()) {
    std::printf("oldest waiting: %s unit %s label %s/%s, queued %.1f s ago, "
                "%s%s\n",
                o.value("table", "?").c_str(), o["unit"].dump().c_str(),
                o.contains("label") ? o["label"].dump().c_str() : "-",
                o.contains("qualifier") ? o["qualifier"].dump().c_str() : "-",
                o.value("ageMs", 0.0) / 1000.0,
                o.value("waitsOn", "").empty()
                    ? "not parked"
                    : ("waits on: " + o.value("waitsOn", "")).c_str(),
                d.value("oldestComplete", true) ? ""
                                                : " (of the lanes looked at)");
  } else {
    std::printf("oldest waiting: none\n");
  }
  std::printf("\n");
  Json res = Json::array();
  for (const Json &t : d["resources"]) {
    res.push_back(t);
  }
  printColumns(stdout, res,
               {{"resource table", "/name"},
                {"inUse", "/inUse"},
                {"capacity", "/capacity"},
                {"pending", "/pendingAllocations"},
                {"held", "/heldAllocations"},
                {"releasing", "/releasesPending"}});
  std::fflush(stdout);
}

} // namespace

void Show::top(std::uint64_t count, std::chrono::milliseconds interval) {
  MicaMplsInspect::Client live(MicaMplsInspect::endpointPath(agentName_));
  if (!live.connected()) {
    throw ShowError(kExitMissing, fmt::format("agent {} is not running: {}",
                                              agentName_, live.failure()));
  }
  const bool clear = !json_ && !capture_ && count != 1 && ::isatty(1);
  Json before;
  for (std::uint64_t n = 0; count == 0 || n < count; ++n) {
    if (n != 0) {
      std::this_thread::sleep_for(interval);
    }
    Json now;
    try {
      now = live.ask({{"op", "top"}});
    } catch (const MicaMplsInspect::EndpointError &e) {
      throw ShowError(kExitMissing,
                      fmt::format("agent {}: {}", agentName_, e.what()));
    }
    addRates(now, n == 0 ? nullptr : &before);
    before = now;
    print(std::move(now), [clear](const Json &d) { printTop(d, clear); });
  }
}

} // namespace MplsShow
