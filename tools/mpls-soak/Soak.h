// The soak: the whole system (mpls-agent --stay beside mpls-hw) run round
// after round on a store of its own, with the desired set changing, the
// processes killed at random instants and the agent's store damaged now and
// then, and the hardware tables checked against the desired set after
// every round.
//
//   MplsSoak::Options opt;
//   opt.tools = "/opt/mica/bin";
//   opt.minutes = 5;
//   opt.seed = 7;
//   const int rc = MplsSoak::runSoak(opt, [] { return gInterrupted != 0; });
//
// A round, with every choice drawn from the round's seed (derived from the
// run's seed and the round's number, so --seed replays the same rounds):
//   1. the desired set changes (a new generated set, or an edit of the
//      current one), and the file is replaced atomically;
//   2. the agent takes it by SIGHUP, or, when it was killed at rest just
//      before, by starting on it;
//   3. at a random instant (a fraction of the time the change should take)
//      the agent, the hardware writer, both or neither get SIGKILL;
//   4. every `damageEvery`th round both are killed, and one live record of
//      the agent's store (a configuration table's or a change log's) is
//      damaged while neither runs; whenever both are stopped, the store is
//      checked for hardware entries that use resources the agent has
//      freed (Holdings.h);
//   5. what was killed is restarted (in a drawn order, with a drawn gap);
//      sometimes the restarted agent is killed once more while it recovers
//      and started again;
//   6. the round comes to rest: both running, and the agent says every
//      change finished, within `restTimeout`;
//   7. mpls-agent --verify compares the hardware tables with the file; the
//      writer must not have found the agent's log versions gone back.
// A round that does not come to rest, a process that ends by itself, a
// failed verify or check, or failures the agent reports is a divergence:
// it is printed with the round's actions, what the programs said and what
// mpls-show says of the store, and the next round starts on a fresh store
// (the first divergent one kept with `keepDivergent`). A verify that
// differs is made again once the store has stayed still for a second, and
// only a difference that lasts counts.
//
// Output: one status line per round on stderr (redrawn in place while the
// round runs when stderr is a terminal); divergences and the final summary
// on stdout.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace MplsSoak {

inline constexpr int kExitClean = 0;         // no divergence
inline constexpr int kExitDiverged = 1;      // divergences found
inline constexpr int kExitUsage = 2;         // bad usage or set-up
inline constexpr int kExitInterrupted = 130; // SIGINT or SIGTERM

struct Options {
  std::string tools;   // where mpls-agent, mpls-hw (and mpls-show) are
  std::string baseDir; // where the run's temporary directory is made
  std::string agent = "mpls-agent";
  double minutes = 0;          // 0: no time limit
  std::uint64_t rounds = 0;    // 0: no round limit
  std::uint32_t labels = 2000; // per table and unit
  std::uint64_t seed = 1;
  std::uint32_t damageEvery = 5; // 0: never
  double agentRate = 10000;      // changes/s the agent writes (0: no limit)
  double hwRate = 8000;          // changes/s the writer applies (0: no limit)
  double restTimeout = 120;      // seconds a round may take to come to rest
  bool keep = false;             // keep the temporary directory
  bool keepDivergent = false;    // keep the store of the first divergence
  bool verbose = false;          // the programs' notable lines with every round
};

// Runs the soak; returns its exit code. `interrupted` is looked at often;
// when it says so the soak stops its programs, cleans up and returns
// kExitInterrupted.
int runSoak(const Options &opt, const std::function<bool()> &interrupted);

} // namespace MplsSoak
