#include "tools/mpls-agent/Summary.h"

#include <fmt/format.h>

#include <string>

namespace MplsAgent {

namespace {

using MplsShow::Json;

std::string ms(const Json &v) {
  return v.is_null() ? "-" : fmt::format("{:.2f} ms", v.get<double>());
}

} // namespace

void printSummary(const Json &doc, std::FILE *out) {
  std::fprintf(
      out, "summary: %s (agent %s, units %s, %s)\n\n",
      doc["outcome"].get<std::string>().c_str(),
      doc["agent"].get<std::string>().c_str(),
      doc["units"].empty()
          ? "none"
          : fmt::format("{}",
                        fmt::join(doc["units"].get<std::vector<int>>(), ","))
                .c_str(),
      doc["store"].get<std::string>().c_str());
  MplsShow::printColumns(out, doc["tables"],
                         {{"table", "/table"},
                          {"unit", "/unit"},
                          {"entries", "/entries"},
                          {"desired", "/desired"},
                          {"restored", "/restored"},
                          {"written", "/written"},
                          {"confirmed", "/confirmed"},
                          {"unchanged", "/unchanged"},
                          {"removed", "/removed"},
                          {"swept", "/swept"},
                          {"reconciled", "/reconciled"},
                          {"failed", "/failed"}});
  const Json &r = doc["restore"];
  const Json &c = doc["changes"];
  const Json &l = doc["latencyMs"];
  const Json &res = doc["resources"];
  std::fprintf(
      out, "\nrestart    %s\n",
      fmt::format("{} entries restored, {} swept (not replayed), {} cleared "
                  "with units no longer driven; {} resource allocations "
                  "restored, {} released unclaimed",
                  r["entriesRestored"].get<std::uint64_t>(),
                  r["swept"].get<std::uint64_t>(),
                  r["reconciled"].get<std::uint64_t>(),
                  r["resourcesRestored"].get<std::uint64_t>(),
                  r["resourcesReleased"].get<std::uint64_t>())
          .c_str());
  const std::uint64_t total = c["writes"].get<std::uint64_t>() +
                              c["removes"].get<std::uint64_t>() +
                              c["swept"].get<std::uint64_t>();
  std::fprintf(
      out, "changes    %s\n",
      fmt::format("{} ({} writes, {} removes, {} swept) in {:.2f} s: {} "
                  "changes/s; {} confirmed by the hardware, {} unchanged, {} "
                  "failed",
                  total, c["writes"].get<std::uint64_t>(),
                  c["removes"].get<std::uint64_t>(),
                  c["swept"].get<std::uint64_t>(), c["seconds"].get<double>(),
                  c["perSecond"].is_null()
                      ? std::string("-")
                      : fmt::format("{:.0f}", c["perSecond"].get<double>()),
                  c["confirmed"].get<std::uint64_t>(),
                  c["unchanged"].get<std::uint64_t>(),
                  c["failed"].get<std::uint64_t>())
          .c_str());
  std::fprintf(out, "latency    %s\n",
               fmt::format("write to hardware confirmation over {} changes: "
                           "p50 {}, p99 {}, max {}",
                           l["samples"].get<std::uint64_t>(), ms(l["p50"]),
                           ms(l["p99"]), ms(l["max"]))
                   .c_str());
  std::fprintf(out, "resources  %s\n",
               fmt::format("in-LIFs {} of {} in use, FECs {} of {} in use",
                           res["inLifs"]["inUse"].get<std::uint64_t>(),
                           res["inLifs"]["capacity"].get<std::uint64_t>(),
                           res["fecs"]["inUse"].get<std::uint64_t>(),
                           res["fecs"]["capacity"].get<std::uint64_t>())
                   .c_str());
  if (doc["failureReasons"].empty()) {
    std::fprintf(out, "failures   none\n");
    return;
  }
  for (const auto &[reason, n] : doc["failureReasons"].items()) {
    std::fprintf(out, "failures   %llu: %s\n",
                 static_cast<unsigned long long>(n.get<std::uint64_t>()),
                 reason.c_str());
  }
  for (const Json &f : doc["failures"]) {
    std::fprintf(
        out, "  %s\n",
        fmt::format("{} {} unit {} label {}/{}: {}", f["op"].get<std::string>(),
                    f["table"].get<std::string>(), f["unit"].get<unsigned>(),
                    f["label"].get<unsigned>(), f["qualifier"].get<unsigned>(),
                    f["reason"].get<std::string>())
            .c_str());
  }
  const std::uint64_t failed = c["failed"].get<std::uint64_t>();
  if (failed > doc["failures"].size()) {
    std::fprintf(
        out, "  ... and %llu more\n",
        static_cast<unsigned long long>(failed - doc["failures"].size()));
  }
}

} // namespace MplsAgent
