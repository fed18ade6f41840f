// mpls-soak: runs the whole system (mpls-agent --stay beside mpls-hw) round
// after round on a fresh store of its own, changing the desired set, killing
// the programs at random instants and damaging the agent's store now and
// then, and checks after every round that the hardware tables equal the
// desired set. Everything it chooses comes from --seed.
//
//   mpls-soak --minutes 5                  # 2000 labels per table and unit
//   mpls-soak --rounds 50 --labels 300 --seed 7 --keep-divergent
//
// Exit codes: 0 no divergence, 1 divergences found, 2 bad usage or a
// set-up that failed (programs not found, no temporary directory), 130
// interrupted (SIGINT, SIGTERM) before the end.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>

#include "platform/shm/Store.h"
#include "tools/hw/HwStore.h"
#include "tools/mpls-soak/Soak.h"

namespace {

volatile std::sig_atomic_t gInterrupted = 0;

void onSignal(int) {
  gInterrupted = 1;
}

// The directory of this program: the other programs are built beside it.
std::string ownDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) {
    return ".";
  }
  std::string path(buf, static_cast<std::size_t>(n));
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

bool writableDirectory(const std::string &path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
         ::access(path.c_str(), W_OK | X_OK) == 0;
}

// tmpfs, where the store usually lives, when it is there to use.
std::string defaultBase() {
  if (writableDirectory("/dev/shm")) {
    return "/dev/shm";
  }
  const char *tmp = std::getenv("TMPDIR");
  return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

} // namespace

int main(int argc, char **argv) {
  MplsSoak::Options opt;
  std::optional<std::uint64_t> seed;
  CLI::App app{
      "mpls-soak: a soak of the whole system. Runs mpls-hw and mpls-agent "
      "--stay on a fresh store in a temporary directory and, round after "
      "round, changes the desired set (SIGHUP), kills the agent, the "
      "hardware writer, both or neither with SIGKILL at a random instant, "
      "damages one record of the agent's store now and then while both are "
      "stopped, restarts what was killed, waits until the agent says every "
      "change finished, and checks with mpls-agent --verify that the "
      "hardware tables equal the desired set; whenever both are stopped it "
      "also checks that the hardware uses no resource the agent's store has "
      "freed. A round that does not come to rest, a program that ends by "
      "itself, a failed check or failures the agent reports are "
      "divergences, printed with the round's actions. Exit codes: 0 no "
      "divergence, 1 divergences, 2 bad usage or set-up, 130 interrupted."};
  app.add_option("--minutes", opt.minutes,
                 "run for this long (rounds started before the end finish; "
                 "default 3 when --rounds is not given)")
      ->check(CLI::PositiveNumber);
  app.add_option("--rounds", opt.rounds, "run this many rounds")
      ->check(CLI::PositiveNumber);
  app.add_option("--labels", opt.labels,
                 "labels per table and unit (units 1 and 2; rounds vary the "
                 "set between about half and a little more than this)")
      ->check(CLI::Range(10u, 20000u))
      ->capture_default_str();
  app.add_option("--seed", seed,
                 "seed of every choice the soak makes (default: a random "
                 "one, printed); the same seed makes the same rounds");
  app.add_option("--damage-every", opt.damageEvery,
                 "damage one record of the agent's store every N-th round "
                 "(0: never)")
      ->capture_default_str();
  app.add_option("--agent-rate", opt.agentRate,
                 "changes per second the agent writes (mpls-agent --rate; 0: "
                 "no limit); a limit spreads a change over time, so that "
                 "kills land in the middle of it")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--hw-rate", opt.hwRate,
                 "changes per second the hardware writer applies (mpls-hw "
                 "--rate; 0: no limit)")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--rest-timeout", opt.restTimeout,
                 "seconds a round may take to come to rest before it counts "
                 "as a divergence (only ends a hang: be generous)")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--tools", opt.tools,
                 "directory of mpls-agent, mpls-hw and mpls-show (default: "
                 "the directory of mpls-soak)");
  app.add_option("--dir", opt.baseDir,
                 "where the temporary directory is made (default: /dev/shm "
                 "when writable, else $TMPDIR or /tmp)");
  app.add_option("--agent", opt.agent, "the agent's name in the store")
      ->capture_default_str();
  app.add_flag("--keep", opt.keep,
               "keep the temporary directory (stores, desired file, the "
               "programs' output) and print its path");
  app.add_flag("--keep-divergent", opt.keepDivergent,
               "keep the store of the first divergence, with the desired "
               "file and the report, and print its path");
  app.add_flag("--verbose", opt.verbose,
               "print the programs' notable lines (corruption, rebuilds, "
               "skipped versions) after every round, not only with "
               "divergences");
  try {
    app.parse(argc, argv);
    Shm::validateComponent(opt.agent);
    Shm::validateComponent(MicaMplsHw::hwInstanceName(opt.agent));
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? MplsSoak::kExitClean : MplsSoak::kExitUsage;
  } catch (const Shm::PathError &e) {
    std::fprintf(stderr, "mpls-soak: bad agent name '%s': %s\n",
                 opt.agent.c_str(), e.what());
    return MplsSoak::kExitUsage;
  }
  if (opt.minutes == 0 && opt.rounds == 0) {
    opt.minutes = 3;
  }
  opt.seed = seed ? *seed : std::random_device{}() % 1000000;
  if (opt.tools.empty()) {
    opt.tools = ownDirectory();
  }
  for (const char *p : {"mpls-agent", "mpls-hw"}) {
    const std::string path = opt.tools + "/" + p;
    if (::access(path.c_str(), X_OK) != 0) {
      std::fprintf(stderr, "mpls-soak: no program %s (see --tools)\n",
                   path.c_str());
      return MplsSoak::kExitUsage;
    }
  }
  if (opt.baseDir.empty()) {
    opt.baseDir = defaultBase();
  }
  if (!writableDirectory(opt.baseDir)) {
    std::fprintf(stderr, "mpls-soak: %s is not a directory it can write\n",
                 opt.baseDir.c_str());
    return MplsSoak::kExitUsage;
  }

  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::sigaction(SIGHUP, &sa, nullptr);
  try {
    return MplsSoak::runSoak(opt, [] { return gInterrupted != 0; });
  } catch (const std::exception &e) {
    std::fprintf(stderr, "mpls-soak: %s\n", e.what());
    return MplsSoak::kExitUsage;
  }
}
