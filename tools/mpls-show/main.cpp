// mpls-show: the read-only inspector of a live store. It never takes the
// writer lock, never writes, and survives whatever bytes it finds.
//
//   mpls-show summary
//   mpls-show entries isem2 1 --label 1000
//   mpls-show log lem --from 120 --limit 20 --json
//   mpls-show hw isem2 1
//   mpls-show stats --prometheus > /var/lib/node_exporter/mica_mpls.prom
//   mpls-show why lem 1 1234            # where label 1234 stands, and why
//   mpls-show top                       # live view of the running agent
//
// Exit codes: 0 shown (corrupt records are reported and skipped), 1 a
// failure, 2 bad usage, 4 no store, instance or entity (the agent may not
// have started).
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "tools/mpls-show/Show.h"

int main(int argc, char **argv) {
  CLI::App app{"mpls-show: inspect an MPLS agent's tables, change logs, "
               "hardware tables and counters in shared memory, read-only."};
  std::string agent = "mpls-agent";
  std::string store;
  bool json = false;
  app.add_option("--agent", agent, "the agent whose store to read")
      ->capture_default_str();
  app.add_option("--store", store,
                 "root directory of the store (default: $MICA_SHM_ROOT or "
                 "/dev/shm/mica-mpls)");
  app.add_flag("--json", json, "print JSON instead of aligned text");
  app.require_subcommand(1);
  // The common options are accepted after the command too.
  app.fallthrough();

  std::string table;
  unsigned unit = 0;
  std::optional<std::uint32_t> label;
  std::uint64_t from = 0;
  std::uint64_t limit = 0;
  bool prometheus = false;
  const auto addTable = [&](CLI::App *cmd) {
    cmd->add_option("table", table, "isem2 (MplsIsem2) or lem (MplsLem)")
        ->required();
  };
  const auto addUnit = [&](CLI::App *cmd) {
    cmd->add_option("unit", unit, "the unit (chip) number")
        ->required()
        ->check(CLI::Range(0u, 65535u));
  };

  auto *summary = app.add_subcommand(
      "summary", "versions, pending changes and entry counts per table type "
                 "and unit");
  auto *entries =
      app.add_subcommand("entries", "a unit's committed entries, by label");
  addTable(entries);
  addUnit(entries);
  entries->add_option("--label", label, "only this label");
  auto *log = app.add_subcommand(
      "log", "a table type's change-log records, by version");
  addTable(log);
  log->add_option("--from", from, "the first version shown");
  log->add_option("--limit", limit, "at most this many records (0: all)");
  auto *hw = app.add_subcommand(
      "hw", "a unit's simulated hardware table (from the hardware writer)");
  addTable(hw);
  addUnit(hw);
  std::string whyLabel;
  bool storesOnly = false;
  auto *why = app.add_subcommand(
      "why", "where a label stands (desired, waiting on what, committed, "
             "confirmed, in the hardware or refused), from the running "
             "agent, else from the stores");
  addTable(why);
  addUnit(why);
  why->add_option("label", whyLabel, "the label, LABEL or LABEL/QUALIFIER")
      ->required();
  why->add_flag("--stores", storesOnly,
                "read the stores even when the agent runs");
  std::uint64_t topCount = 0;
  double topInterval = 1.0;
  auto *top = app.add_subcommand(
      "top", "a live view of the running agent: rates, queue depths, waits "
             "by cause, the oldest waiting change; refreshed every second");
  top->add_flag_function(
      "--once", [&](std::int64_t) { topCount = 1; }, "one screen, then exit");
  top->add_option("--count", topCount, "this many screens, then exit");
  top->add_option("--interval", topInterval, "seconds between screens")
      ->check(CLI::Range(0.05, 3600.0))
      ->capture_default_str();
  auto *stats =
      app.add_subcommand("stats", "the agent's published table counters");
  stats->add_flag("--prometheus", prometheus,
                  "print in the Prometheus text exposition format");

  try {
    app.parse(argc, argv);
    Shm::validateComponent(agent);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : MplsShow::kExitUsage;
  } catch (const Shm::PathError &e) {
    std::fprintf(stderr, "mpls-show: bad agent name '%s': %s\n", agent.c_str(),
                 e.what());
    return MplsShow::kExitUsage;
  }
  if (!store.empty()) {
    ::setenv("MICA_SHM_ROOT", store.c_str(), 1);
  }
  try {
    MplsShow::Show show(agent, json);
    if (*summary) {
      show.summary();
    } else if (*entries) {
      show.entries(table, static_cast<Asic::UnitId>(unit), label);
    } else if (*log) {
      show.log(table, from, limit);
    } else if (*hw) {
      show.hw(table, static_cast<Asic::UnitId>(unit));
    } else if (*stats) {
      show.stats(prometheus);
    } else if (*why) {
      unsigned long l = 0, q = 0;
      char *end = nullptr;
      l = std::strtoul(whyLabel.c_str(), &end, 0);
      if (end != whyLabel.c_str() && *end == '/') {
        const char *qs = end + 1;
        q = std::strtoul(qs, &end, 0);
        if (end == qs) {
          end = nullptr;
        }
      }
      if (whyLabel.empty() || !end || *end != '\0' || l > 0xFFFFF || q > 255 ||
          whyLabel[0] == '-') {
        std::fprintf(stderr,
                     "mpls-show: label '%s': want LABEL (0 to 1048575) or "
                     "LABEL/QUALIFIER (0 to 255)\n",
                     whyLabel.c_str());
        return MplsShow::kExitUsage;
      }
      show.why(table, static_cast<Asic::UnitId>(unit),
               static_cast<std::uint32_t>(l), static_cast<std::uint8_t>(q),
               storesOnly);
    } else if (*top) {
      show.top(topCount, std::chrono::milliseconds(
                             static_cast<long>(topInterval * 1000)));
    }
  } catch (const MplsShow::ShowError &e) {
    std::fprintf(stderr, "mpls-show: %s\n", e.what());
    return e.code();
  } catch (const std::exception &e) {
    std::fprintf(stderr, "mpls-show: failed: %s\n", e.what());
    return MplsShow::kExitFailure;
  }
  std::fflush(stdout);
  return 0;
}
