// mpls-agent: a simulated switch agent. It hosts the MPLS table library on
// one event loop, drives a desired label set (a file, or generated) to
// hardware confirmation through the hardware writer (mpls-hw), and prints
// what it did. Restarted over a store that holds state, it restores, marks,
// replays, sweeps and reconciles.
//
//   mpls-agent labels.conf                     # drive the units the file names
//   mpls-agent labels.conf --units 1,2 --stay  # keep running; SIGHUP re-reads
//   mpls-agent --generate 5000 --seed 7 --emit labels.conf   # write a set
//   mpls-agent --verify labels.conf            # hardware == desired set?
//
// Everything given is checked before the store is opened: bad input is
// reported with its file, line and field, exit code 2, and the store is left
// as it was (not even created). Exit codes: 0 every change confirmed (or
// --verify: equal), 1 failures, a timeout or a stop with changes
// unconfirmed (--verify: differences), 2 bad input or usage, 3 the store is
// held by another running agent, 4 (--verify) no hardware tables.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "platform/shm/Store.h"
#include "platform/trace/Trace.h"
#include "tools/hw/HwStore.h"
#include "tools/mpls-agent/Agent.h"
#include "tools/mpls-agent/Verify.h"

namespace {

using namespace MplsAgent;

void sayLines(const std::string &text) {
  std::size_t at = 0;
  while (at <= text.size()) {
    const auto nl = text.find('\n', at);
    const std::string line =
        text.substr(at, nl == std::string::npos ? std::string::npos : nl - at);
    std::fprintf(stderr, "mpls-agent: %s\n", line.c_str());
    if (nl == std::string::npos) {
      break;
    }
    at = nl + 1;
  }
}

} // namespace

int main(int argc, char **argv) {
  Options opt;
  std::optional<std::uint32_t> generateN;
  std::uint64_t seed = 1;
  std::uint32_t churn = 0;
  std::vector<unsigned> units;
  std::string store;
  std::string trace;
  std::string emit;
  bool check = false;

  CLI::App app{
      "mpls-agent: a simulated switch agent. Hosts the MPLS table library on "
      "one event loop, drives a desired label set to hardware confirmation "
      "through the hardware writer (mpls-hw) and prints a summary. Over a "
      "store that holds state it restores, marks, replays, sweeps what was "
      "not replayed and reconciles units it no longer drives."};
  app.add_option(
      "file", opt.file,
      fmt::format("desired-state file: one entry per line, 'lem <unit> "
                  "<label>[/<qualifier>] adj=<id>' or 'isem2 <unit> "
                  "<label>[/<qualifier>] inlif=<id> [data=<u32>]'; '#' starts "
                  "a comment; a regular file of at most {} lines of {} bytes "
                  "(see README.md)",
                  kMaxLines, kMaxLineBytes));
  auto *gen = app.add_option("--generate", generateN,
                             "generate N entries per table and unit instead "
                             "of reading a file (deterministic in --seed)")
                  ->check(CLI::Range(1u, 65536u));
  app.add_option("--seed", seed, "seed of the generated set")
      ->capture_default_str()
      ->needs(gen);
  app.add_option("--churn", churn,
                 "with --generate: P% of the entries changed, P% dropped and "
                 "P% added, as a reconfiguration would")
      ->check(CLI::Range(0u, 33u))
      ->needs(gen);
  app.add_option("--units", units,
                 "the units driven, e.g. 1,2 (default: the units the file "
                 "names; 1,2 with --generate)")
      ->delimiter(',')
      ->allow_extra_args(false) // the file after it is not a unit
      ->check(CLI::Range(0u, 65535u));
  app.add_option("--agent", opt.agent, "the agent's name (its store instance)")
      ->capture_default_str();
  app.add_option("--store", store,
                 "root directory of the store (default: $MICA_SHM_ROOT or "
                 "/dev/shm/mica-mpls)");
  app.add_option("--trace", trace,
                 "trace levels, as MICA_TRACE: e.g. 'MplsIsem2SwTable/1-3'");
  app.add_flag("--stay", opt.stay,
               "keep running after every change is confirmed: SIGHUP "
               "re-reads the file and applies the difference, SIGINT or "
               "SIGTERM stops with the summary");
  app.add_flag("--json", opt.json, "print the summary as JSON on stdout");
  app.add_option("--confirm-timeout", opt.confirmTimeout,
                 "give up (exit 1) when the hardware writer confirms nothing "
                 "for this many seconds while changes wait")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--batch", opt.batch,
                 "changes written per turn of the event loop")
      ->check(CLI::Range(1u, 1u << 20))
      ->capture_default_str();
  app.add_option("--rate", opt.rate,
                 "at most this many changes written per second (default: as "
                 "fast as the library takes them)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--hold-adj", opt.holdAdjacencies,
                 "L2 adjacencies the simulated adjacency table leaves "
                 "unresolved, as if their neighbours were not learnt: the "
                 "LEM entries that use them wait (see mpls-show why)")
      ->delimiter(',');
  app.add_option("--hold-inlif", opt.holdInLifs,
                 "in-LIFs the simulated in-LIF table does not allocate: the "
                 "ISEM2 entries that use them wait")
      ->delimiter(',');
  app.add_flag("!--no-inspect", opt.inspect,
               "no inspection endpoint (<store>/<agent>.0/.inspect)");
  app.add_option("--emit", emit,
                 "write the desired set to this file in the file format ('-': "
                 "stdout) and exit; the store is not touched");
  app.add_flag("--verify", check,
               "compare the hardware writer's tables with the desired set, "
               "entry for entry, and exit: 0 equal, 1 different, 4 no "
               "hardware tables; read-only");
  try {
    app.parse(argc, argv);
    if (opt.file.empty() == !generateN) {
      throw CLI::ValidationError(
          "give a desired-state file or --generate N (one of them)");
    }
    if (check && !emit.empty()) {
      throw CLI::ValidationError("--verify and --emit exclude each other");
    }
    Shm::validateComponent(opt.agent);
    Shm::validateComponent(MicaMplsHw::hwInstanceName(opt.agent));
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  } catch (const Shm::PathError &e) {
    std::fprintf(stderr, "mpls-agent: bad agent name '%s': %s\n",
                 opt.agent.c_str(), e.what());
    return kExitUsage;
  }
  if (!store.empty()) {
    ::setenv("MICA_SHM_ROOT", store.c_str(), 1);
  }
  if (!trace.empty()) {
    ::setenv("MICA_TRACE", trace.c_str(), 1);
    Trace::configureFromEnvironment();
  }

  // The whole input is read and checked before anything else happens.
  std::optional<std::vector<Asic::UnitId>> driven;
  if (!units.empty()) {
    std::sort(units.begin(), units.end());
    units.erase(std::unique(units.begin(), units.end()), units.end());
    driven.emplace(units.begin(), units.end());
  }
  DesiredSet desired;
  try {
    if (generateN) {
      if (!driven) {
        driven = std::vector<Asic::UnitId>{1, 2};
      }
      desired = generate(Generator{*generateN, seed, churn, *driven});
    } else {
      desired = readFile(opt.file, driven);
      if (!driven) {
        driven = desired.units();
      }
    }
  } catch (const InputError &e) {
    sayLines(e.what());
    return kExitUsage;
  }
  opt.units = *driven;

  try {
    if (!emit.empty()) {
      const std::string text = formatFile(
          desired,
          generateN
              ? fmt::format("mpls-agent --generate {} --seed {} --churn {} "
                            "--units {}",
                            *generateN, seed, churn, fmt::join(opt.units, ","))
              : fmt::format("from {}", opt.file));
      if (emit == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return kExitOk;
      }
      std::ofstream f(emit, std::ios::trunc);
      f << text;
      f.close();
      if (!f) {
        std::fprintf(stderr, "mpls-agent: cannot write %s\n", emit.c_str());
        return kExitFailed;
      }
      std::fprintf(stderr, "mpls-agent: wrote %zu entries to %s\n",
                   desired.size(), emit.c_str());
      return kExitOk;
    }
    if (check) {
      return verify(opt.agent, desired, opt.units, stdout);
    }
    if (generateN) {
      opt.file.clear();
    }
    return runAgent(opt, std::move(desired));
  } catch (const std::exception &e) {
    std::fprintf(stderr, "mpls-agent: failed: %s\n", e.what());
    return kExitFailed;
  }
}
