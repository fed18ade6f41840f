// What the agent's inspection endpoint costs the change path: the whole
// system (mpls-hw and mpls-agent as processes, on a fresh store under
// /dev/shm) loads a generated set three ways, alternated round by round:
//
//   off      mpls-agent --no-inspect: no endpoint at all
//   idle     the endpoint open, nobody asking
//   flood    two clients at full speed all along: one asks for pages of
//            1000 of a table's entries, why and top, reading every answer;
//            the other sends lines of garbage and never reads
//
// Each row prints the agent's own figures (its summary): changes per second
// from the first write until every change is confirmed, and the write to
// confirmation latency; and the requests the flooding client got answered.
//
//   bench_inspect [--labels N] [--rounds R]   (default 20000 per table and
//                                              unit on units 1,2; 5 rounds)
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

pid_t spawn(const std::vector<std::string> &args, const std::string &out) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    std::FILE *f = std::fopen(out.c_str(), "w");
    if (f) {
      ::dup2(::fileno(f), 1);
    }
    std::freopen("/dev/null", "w", stderr);
    std::vector<char *> argv;
    for (const auto &a : args) {
      argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  return pid;
}

int connectTo(const std::string &path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// A client that asks as fast as the agent answers, until `stop`.
void askLoop(const std::string &path, std::atomic<bool> &stop,
             std::atomic<std::uint64_t> &answered) {
  int fd = -1;
  while (!stop && (fd = connectTo(path)) < 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const std::string requests[] = {
      R"({"op":"walk","object":"table","table":"lem","unit":1,"collection":"entries","limit":1000})"
      "\n",
      R"({"op":"why","table":"isem2","unit":2,"label":1000})"
      "\n",
      R"({"op":"top"})"
      "\n"};
  std::string in;
  char buf[65536];
  for (std::size_t i = 0; !stop && fd >= 0; ++i) {
    const std::string &r = requests[i % 3];
    if (::send(fd, r.data(), r.size(), MSG_NOSIGNAL) <= 0) {
      break;
    }
    while (in.find('\n') == std::string::npos) {
      const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) {
        ::close(fd);
        return;
      }
      in.append(buf, static_cast<std::size_t>(n));
    }
    in.erase(0, in.find('\n') + 1);
    ++answered;
  }
  if (fd >= 0) {
    ::close(fd);
  }
}

// A client that sends garbage and never reads.
void garbageLoop(const std::string &path, std::atomic<bool> &stop) {
  int fd = -1;
  while (!stop && (fd = connectTo(path)) < 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const std::string junk(200, 'z');
  while (!stop && fd >= 0) {
    const std::string line = junk + "\n";
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) <=
        0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  if (fd >= 0) {
    ::close(fd);
  }
}

struct Result {
  double perSecond = 0;
  double p50 = 0;
  double p99 = 0;
  std::uint64_t answered = 0;
};

Result runOnce(const std::string &tools, const std::string &mode,
               unsigned labels) {
  const std::string root =
      fs::path("/dev/shm") / ("bench-inspect-" + std::to_string(::getpid()));
  fs::remove_all(root);
  fs::create_directories(root);
  const pid_t hw = spawn({tools + "/mpls-hw", "--store", root}, "/dev/null");
  const std::string out = root + "/agent.json";
  std::vector<std::string> args = {
      tools + "/mpls-agent",  "--store", root, "--generate",
      std::to_string(labels), "--json"};
  if (mode == "off") {
    args.push_back("--no-inspect");
  }
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> answered{0};
  std::vector<std::thread> clients;
  const pid_t agent = spawn(args, out);
  if (mode == "flood") {
    const std::string path = root + "/mpls-agent.0/.inspect";
    clients.emplace_back(askLoop, path, std::ref(stop), std::ref(answered));
    clients.emplace_back(garbageLoop, path, std::ref(stop));
  }
  int status = 0;
  ::waitpid(agent, &status, 0);
  stop = true;
  for (auto &t : clients) {
    t.join();
  }
  ::kill(hw, SIGTERM);
  ::waitpid(hw, nullptr, 0);
  Result r;
  std::ifstream f(out);
  const Json doc = Json::parse(f, nullptr, false);
  if (!doc.is_discarded() && doc["changes"]["perSecond"].is_number()) {
    r.perSecond = doc["changes"]["perSecond"].get<double>();
    r.p50 = doc["latencyMs"]["p50"].is_number()
                ? doc["latencyMs"]["p50"].get<double>()
                : 0;
    r.p99 = doc["latencyMs"]["p99"].is_number()
                ? doc["latencyMs"]["p99"].get<double>()
                : 0;
  }
  r.answered = answered;
  fs::remove_all(root);
  return r;
}

} // namespace

int main(int argc, char **argv) {
  unsigned labels = 20000;
  unsigned rounds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--labels") == 0) {
      labels = static_cast<unsigned>(std::atoi(argv[i + 1]));
    } else if (std::strcmp(argv[i], "--rounds") == 0) {
      rounds = static_cast<unsigned>(std::atoi(argv[i + 1]));
    }
  }
  const std::string tools = MICA_TOOLS_DIR;
  std::map<std::string, std::vector<Result>> results;
  const std::vector<std::string> modes = {"off", "idle", "flood"};
  for (unsigned r = 0; r < rounds; ++r) {
    for (const auto &m : modes) {
      results[m].push_back(runOnce(tools, m, labels));
      std::fprintf(stderr, "round %u %s: %.0f changes/s\n", r + 1, m.c_str(),
                   results[m].back().perSecond);
    }
  }
  const auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
  };
  const double base = [&] {
    std::vector<double> v;
    for (const auto &x : results["off"]) {
      v.push_back(x.perSecond);
    }
    return median(v);
  }();
  std::printf("%u labels per table and unit, units 1,2 (%u changes), %u "
              "rounds, medians\n\n",
              labels, labels * 4, rounds);
  std::printf("%-6s %12s %8s %10s %10s %16s\n", "mode", "changes/s", "vs off",
              "p50 ms", "p99 ms", "answers/run");
  for (const auto &m : modes) {
    std::vector<double> ps, p50, p99, ans;
    for (const auto &x : results[m]) {
      ps.push_back(x.perSecond);
      p50.push_back(x.p50);
      p99.push_back(x.p99);
      ans.push_back(static_cast<double>(x.answered));
    }
    const double v = median(ps);
    std::printf("%-6s %12.0f %7.1f%% %10.2f %10.2f %16.0f\n", m.c_str(), v,
                base > 0 ? 100.0 * (v - base) / base : 0.0, median(p50),
                median(p99), median(ans));
  }
  return 0;
}
