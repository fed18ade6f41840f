// The simulated agent: hosts the library on one event loop the way a switch
// agent does, and drives a desired label set to hardware confirmation.
//
//   MplsAgent::Options opt;
//   opt.units = {1, 2};
//   opt.file = "labels.conf";                     // re-read on SIGHUP
//   int rc = MplsAgent::runAgent(opt, MplsAgent::readFile(opt.file,
//   opt.units));
//
// What a run does, all on the loop:
//   1. boot: takes the store's writer lock (exit 3 when another agent holds
//      it), makes the ordered-table interface, the MicaMpls group with its
//      two resource tables (their allocations kept in the store), the ISEM2
//      and LEM interfaces, and the table of every driven unit (which
//      restores what the store holds and starts marking); reconciles the
//      units the agent no longer drives;
//   2. replay: writes every desired entry in batches, each with a response
//      handler, honouring the resolver's back-pressure; then ends the first
//      replay (sweeps what was not replayed, frees unclaimed resources);
//   3. confirm: follows the hardware writer's progress through the FIFO
//      <store>/<agent>.0/.hw-progress (no polling) until every change it
//      logged is confirmed; then prints the summary and exits, or with
//      `stay` keeps running: SIGHUP re-reads the file and applies the
//      difference, SIGINT/SIGTERM stop with the summary.
// Signals arrive through a signalfd watched by the loop; no work is done in
// a signal handler.
//
// While it runs, the agent answers read-only questions on the Unix socket
// <store>/<agent>.0/.inspect (Endpoint.h, Inspect.h): what mpls-show why,
// mpls-show top and the Python module ask.
//
// Exit codes (runAgent's result): 0 every change confirmed, 1 some failed,
// the hardware writer confirmed nothing for `confirmTimeout` seconds, or the
// run was stopped with changes unconfirmed; 3 the store is held by another
// agent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/asic/Types.h"
#include "tools/mpls-agent/DesiredSet.h"

namespace MplsAgent {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitLocked = 3;
inline constexpr int kExitMissing = 4; // --verify: no hardware tables

struct Options {
  std::string agent = "mpls-agent";
  std::vector<Asic::UnitId> units; // the units driven
  std::string file;                // the desired-state file; empty: generated
  bool stay = false;               // keep running after confirmation
  bool json = false;               // the summary as JSON on stdout
  double confirmTimeout = 60;      // seconds without confirmation
  std::uint32_t batch = 1000;      // changes written per loop turn
  double rate = 0;                 // changes written per second; 0: no limit
  // Resources the simulated resource tables do not resolve, as if they did
  // not exist yet: the changes that need them wait in the resolver.
  std::vector<std::uint32_t> holdAdjacencies;
  std::vector<std::uint32_t> holdInLifs;
  bool inspect = true; // the inspection endpoint <instance>/.inspect
};

// Runs the agent over the store of `opt.agent` (under $MICA_SHM_ROOT).
// REQUIRES: `desired` was checked against opt.units. Returns the exit code.
int runAgent(const Options &opt, DesiredSet desired);

} // namespace MplsAgent
