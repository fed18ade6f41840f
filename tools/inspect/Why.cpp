#include "tools/inspect/Why.h"

#include <fmt/format.h>

namespace MicaMplsInspect {

namespace {

std::uint64_t u64(const Json &j, const char *name, std::uint64_t dflt = 0) {
  const auto it = j.find(name);
  return it != j.end() && it->is_number() ? it->get<std::uint64_t>() : dflt;
}

bool isObject(const Json &j, const char *name) {
  const auto it = j.find(name);
  return it != j.end() && it->is_object();
}

// The fields of an entry other than its key, "fecId=131072 errorCode=0".
std::string fieldsText(const Json &entry) {
  std::string out;
  const auto add = [&](const std::string &name, const Json &v) {
    if (v.is_number() || v.is_boolean()) {
      out += fmt::format("{}{}={}", out.empty() ? "" : " ", name, v.dump());
    }
  };
  for (const auto &[name, v] : entry.items()) {
    if (name == "key") {
      continue;
    }
    if (v.is_object()) {
      for (const auto &[sub, sv] : v.items()) {
        if (sv.is_number() && sv.get<std::uint64_t>() != 0) {
          add(name + "." + sub, sv);
        }
      }
    } else {
      add(name, v);
    }
  }
  return out;
}

// Why the oldest change of a key waits, in words.
std::string waitText(const Json &change) {
  const std::string on = change.value("waitsOn", "");
  if (on == "resource") {
    const Json &r = change.contains("resource") ? change["resource"] : Json();
    std::string what = "its resource";
    if (r.is_object() && r.contains("key")) {
      what =
          fmt::format("its resource ({})", fieldsText(Json{{"r", r["key"]}}));
    }
    return fmt::format("{} is not allocated yet (state {})", what,
                       r.is_object() ? r.value("entryStateName", "?") : "?");
  }
  if (on == "dependency") {
    return "it waits for the change of another table it depends on";
  }
  if (on == "logRoom") {
    return "the change log is full; it waits for room as the hardware "
           "confirms older changes";
  }
  if (!change.value("laneHead", true)) {
    return "it waits behind an older change of the same key";
  }
  if (change.value("offered", false)) {
    return "it is ready and commits at the next resolver pass";
  }
  return "it waits for the resolver to offer it again";
}

} // namespace

Json verdictOf(const Json &why) {
  const auto verdict = [](const char *state, std::string cause) {
    return Json{{"state", state}, {"cause", std::move(cause)}};
  };
  const Json &hw = why.contains("hardware") ? why["hardware"] : Json();
  std::optional<std::uint64_t> confirmed;
  if (why.contains("confirmedVersion") && why["confirmedVersion"].is_number()) {
    confirmed = why["confirmedVersion"].get<std::uint64_t>();
  } else if (hw.is_object() && hw["confirmedVersion"].is_number()) {
    confirmed = hw["confirmedVersion"].get<std::uint64_t>();
  }
  if (isObject(why, "pending")) {
    const Json &p = why["pending"];
    const Json &changes = p["changes"];
    if (changes.is_array() && !changes.empty()) {
      return verdict("waiting", waitText(changes.front()));
    }
    return verdict("waiting", "its change is queued");
  }
  if (isObject(why, "handle")) {
    const std::uint64_t v = u64(why["handle"], "logVersion");
    return verdict(
        "committed",
        fmt::format("logged at version {}; the hardware has confirmed up to "
                    "version {}",
                    v, confirmed ? std::to_string(*confirmed) : "none"));
  }
  if (isObject(why, "committed")) {
    const Json &c = why["committed"];
    const std::uint64_t v = u64(c, "logVersion");
    if (c.value("inDeletion", false)) {
      return verdict("removing",
                     fmt::format("its removal is logged at version {} and "
                                 "waits for the hardware",
                                 v));
    }
    if (!confirmed || *confirmed < v) {
      return verdict(
          "committed",
          fmt::format("committed at version {}; the hardware has confirmed "
                      "up to version {}",
                      v, confirmed ? std::to_string(*confirmed) : "none"));
    }
    if (!hw.is_object() || hw["present"].is_null()) {
      return verdict("confirmed",
                     fmt::format("the hardware confirmed version {} (its "
                                 "table could not be read)",
                                 v));
    }
    if (hw["present"].get<bool>()) {
      return verdict("inHardware",
                     fmt::format("the hardware has it (confirmed version "
                                 "{} >= {})",
                                 *confirmed, v));
    }
    if (hw.contains("refused") && hw["refused"].is_object()) {
      const Json &r = hw["refused"];
      return verdict("refused",
                     fmt::format("the hardware refused it ({}) at version {}{}",
                                 r.value("reason", ""), u64(r, "logVersion"),
                                 r.value("byRebuild", false)
                                     ? ", rebuilding its table"
                                     : ""));
    }
    const std::uint64_t n = u64(hw, "entries"), cap = u64(hw, "capacity");
    if (cap != 0 && n >= cap) {
      return verdict("refused",
                     fmt::format("the hardware table of unit {} is full ({} "
                                 "of {} entries): the hardware refused the "
                                 "write",
                                 u64(why, "unit"), n, cap));
    }
    return verdict("missingInHardware",
                   fmt::format("the hardware confirmed version {} but its "
                               "table does not have the entry",
                               v));
  }
  if (why.contains("desired") && why["desired"].is_object()) {
    return verdict("absent",
                   "desired, but not written to the table yet (the agent "
                   "writes it soon, or failed to)");
  }
  if (why.contains("desired") && why["desired"].is_boolean()) {
    return verdict("notDesired", "the agent's desired set does not have it");
  }
  return verdict("absent", "the table has no entry for it");
}

std::vector<std::string> explainLines(const Json &why) {
  std::vector<std::string> out;
  const Json verdict =
      why.contains("verdict") ? why["verdict"] : verdictOf(why);
  out.push_back(
      fmt::format("{} unit {} label {}/{}: {}: {}", why.value("table", "?"),
                  u64(why, "unit"), u64(why, "label"), u64(why, "qualifier"),
                  verdict.value("state", "?"), verdict.value("cause", "")));
  if (why.value("source", "") == "store") {
    out.push_back("  (the agent is not running: read from the stores; what "
                  "it would hold in memory is not known)");
  }
  if (why.contains("desired")) {
    const Json &d = why["desired"];
    out.push_back(d.is_object()    ? "  desired:    " + fieldsText(d)
                  : d.is_boolean() ? "  desired:    no"
                                   : "  desired:    not known");
  }
  if (isObject(why, "pending")) {
    const Json &p = why["pending"];
    out.push_back(fmt::format(
        "  pending:    {} {} (entry version {})", p.value("op", "?"),
        p.contains("entry") && p["entry"].is_object() ? fieldsText(p["entry"])
                                                      : "",
        p.contains("entryVersion") ? p["entryVersion"].dump() : "?"));
    for (const Json &c : p["changes"]) {
      out.push_back(fmt::format("    change {}: queued {} ms ago; {}",
                                u64(c, "queueSeq"), u64(c, "ageMs"),
                                waitText(c)));
    }
  } else if (why.contains("pending")) {
    out.push_back("  pending:    nothing");
  }
  if (isObject(why, "committed")) {
    const Json &c = why["committed"];
    out.push_back(fmt::format(
        "  committed:  at version {}{}: {}", u64(c, "logVersion"),
        c.value("inDeletion", false) ? " (removal, in deletion)" : "",
        c.contains("entry") ? fieldsText(c["entry"]) : ""));
  } else {
    out.push_back("  committed:  no");
  }
  const Json &hw = why.contains("hardware") ? why["hardware"] : Json();
  out.push_back(fmt::format(
      "  versions:   logged {}, confirmed by the hardware {}",
      why.contains("loggedVersion") && why["loggedVersion"].is_number()
          ? why["loggedVersion"].dump()
          : "-",
      why.contains("confirmedVersion") && why["confirmedVersion"].is_number()
          ? why["confirmedVersion"].dump()
      : hw.is_object() && hw["confirmedVersion"].is_number()
          ? hw["confirmedVersion"].dump()
          : "-"));
  if (hw.is_object()) {
    if (hw["present"].is_null()) {
      out.push_back("  hardware:   no hardware table to read");
    } else if (hw["present"].get<bool>()) {
      out.push_back("  hardware:   present: " + fieldsText(hw["entry"]));
    } else {
      out.push_back(fmt::format(
          "  hardware:   absent ({} of {} entries in use, {} full-table "
          "reports)",
          u64(hw, "entries"), u64(hw, "capacity"),
          u64(hw, "tableFullReports")));
    }
    if (hw.contains("refused") && hw["refused"].is_object()) {
      out.push_back(fmt::format("  refused:    at version {}: {}",
                                u64(hw["refused"], "logVersion"),
                                hw["refused"].value("reason", "")));
    }
  }
  return out;
}

} // namespace MicaMplsInspect
