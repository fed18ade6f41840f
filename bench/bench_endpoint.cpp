// What the agent's inspection endpoint costs the change path. One event
// loop runs what mpls-agent runs: the LEM table of two units takes batches
// of 1,000 changes (a write with a response handler each, a resolver pass
// per batch, the hardware's confirmation of everything logged), one batch
// per loop task, and, as in the agent, the inspection endpoint
// (tools/mpls-agent/Endpoint.h) answers on the same loop. Three ways,
// alternated round by round:
//
//   off      no endpoint
//   idle     the endpoint open, nobody asking
//   ask      a client thread at full speed all along asks for pages of
//            1,000 of a table's entries, where a label stands and "top",
//            reading every answer
//   garbage  a client thread sends lines of garbage as fast as it can,
//            never reads, and connects again whenever it is dropped
//   flood    both
//   burn     no endpoint, and a thread that only spins: what any process
//            that keeps the machine's other core busy costs the loop's
//            thread (two cores, which may share a physical one), the
//            baseline to compare the clients with
//
// Each row: changes per second through the loop (rewrites of every key onto
// one of 4,096 adjacencies, after a first load) and the loop thread's CPU
// time per change, each against "off", and the answers the asking client
// got per second, and the share of the run's time the endpoint spent
// answering (its own clock). The CPU time is what the endpoint takes from the
// change path; the wall rate also counts the CPU the flooding clients
// themselves take from the loop's thread on a machine with few cores.
//
//   bench_endpoint [--keys N] [--rounds R]   (default 65,536 keys per unit,
//                                            5 rounds)
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "MicaMpls/MplsLemInterface.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/eventloop/Loop.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "platform/statedb/EntityManager.h"
#include "tools/mpls-agent/Endpoint.h"
#include "tools/mpls-agent/Inspect.h"

namespace {

using Clock = std::chrono::steady_clock;
using B = MicaMpls::MplsLemBinding;
constexpr std::uint32_t kUnits = 2;
constexpr std::uint32_t kShared = 4096;
constexpr std::uint32_t kBatch = 1000;

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

// Asks as fast as the loop answers, until `stop`.
void askLoop(const std::string &path, const std::atomic<bool> &stop,
             std::atomic<std::uint64_t> &answered) {
  const std::string requests[] = {
      R"({"op":"walk","object":"table","table":"lem","unit":1,"collection":"entries","limit":1000})"
      "\n",
      R"({"op":"why","table":"lem","unit":2,"label":1000})"
      "\n",
      R"({"op":"top"})"
      "\n"};
  const int fd = connectTo(path);
  std::string in;
  char buf[65536];
  for (std::size_t i = 0; fd >= 0 && !stop; ++i) {
    const std::string &r = requests[i % 3];
    if (::send(fd, r.data(), r.size(), MSG_NOSIGNAL) <= 0) {
      break;
    }
    while (!stop && in.find('\n') == std::string::npos) {
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

// Sends garbage and never reads; connects again when dropped.
void garbageLoop(const std::string &path, const std::atomic<bool> &stop) {
  const std::string line = std::string(200, 'z') + "\n";
  int fd = -1;
  while (!stop) {
    if (fd < 0 && (fd = connectTo(path)) < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      } else {
        ::close(fd); // dropped for not reading
        fd = -1;
      }
    }
  }
  if (fd >= 0) {
    ::close(fd);
  }
}

double threadCpu() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The host: the LEM interface with the tables of two units and the
// adjacency table, on one loop.
struct Host {
  explicit Host(const std::string &name, std::uint32_t keys) {
    loop = Evt::Loop::create();
    stateDb = StateDb::entityManagerIs(name, 0);
    otIntf = Fwk::make<Asic::OrderedTableInterface>(stateDb);
    group = otIntf->makeGroupIntf(0x0a08, "MicaMpls");
    adj = Fwk::make<MicaAdjLib::L2AdjToFecResourceTableResourceTable>(
        Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::resourceTable, B::kResourceNamespace,
            B::kResourceName),
        kUnits * keys + kShared + 1);
    adj->storeIs(Shm::entityManager(name, 0));
    group->namedTableIs(adj);
    intf = MicaMpls::MplsLemInterface::getIntf(otIntf);
    for (Asic::UnitId u = 1; u <= kUnits; ++u) {
      tables.push_back(intf->makeSwTable(u, nullptr, false));
    }
    otIntf->finishInitialReplay();
    MplsAgent::InspectTargets t;
    t.agent = name;
    t.group = group.ptr();
    t.lem = intf.ptr();
    t.adjacencies = adj.ptr();
    inspector = std::make_unique<MplsAgent::Inspector>(std::move(t));
  }
  ~Host() {
    endpoint.reset();
    intf->onDelete();
    intf = nullptr;
    tables.clear();
    adj = nullptr;
    group = nullptr;
    otIntf = nullptr;
    inspector.reset();
    auto em = Shm::entityManager(stateDb->name(), 0);
    const std::string dir = em->directory();
    em->close();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }

  void open(const std::string &path) {
    endpoint = std::make_unique<MplsAgent::Endpoint>(
        *loop, path, [this](const MplsAgent::Endpoint::Json &r) {
          return inspector->answer(r);
        });
  }

  // Every key of every unit written once more, onto adjacency `shift` and
  // on, a batch per loop task; returns the seconds it took, and the loop
  // thread's CPU seconds in `cpu`.
  double rewrite(std::uint32_t keys, std::uint32_t shift, double &cpu) {
    std::uint64_t finished = 0, next = 0;
    const std::uint64_t total = std::uint64_t{keys} * kUnits;
    const Asic::OrderedSwTable::ResponseHandler counter =
        [&finished](const Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle> &) {
          ++finished;
        };
    std::function<void()> batch = [&] {
      for (std::uint32_t n = 0; n < kBatch && next < total; ++n, ++next) {
        const auto k = static_cast<std::uint32_t>(next / kUnits);
        auto &t = *tables[next % kUnits];
        B::Entry e;
        e.key = B::Key(k);
        e.l2AdjId = 1 + (k * 7 + shift) % kShared;
        t.entryWriteWithResponseHandler(e.key, e, nullptr, counter);
      }
      group->groupResolver()->runPass();
      const Asic::LogVersion v = intf->entryLog()->tableVersion();
      for (const auto &t : tables) {
        t->tableStatusVersion(v);
      }
      if (next < total) {
        loop->defer(batch);
      } else {
        loop->stop();
      }
    };
    const auto t0 = Clock::now();
    const double c0 = threadCpu();
    loop->defer(batch);
    loop->run();
    cpu = threadCpu() - c0;
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    if (finished != total) {
      std::fprintf(stderr, "bench_endpoint: %lu of %lu changes finished\n",
                   static_cast<unsigned long>(finished),
                   static_cast<unsigned long>(total));
      std::exit(1);
    }
    return s;
  }

  Evt::Loop::Ptr loop;
  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::OrderedTableInterface> otIntf;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<MicaAdjLib::L2AdjToFecResourceTableResourceTable> adj;
  Fwk::Ptr<MicaMpls::MplsLemInterface> intf;
  std::vector<Fwk::Ptr<B::SwTable>> tables;
  std::unique_ptr<MplsAgent::Inspector> inspector;
  std::unique_ptr<MplsAgent::Endpoint> endpoint;
};

struct Result {
  double endpointShare = 0; // of the run's time, answering
  double perSecond = 0;
  double cpuNsPerChange = 0;
  double answersPerSecond = 0;
};

} // namespace

int main(int argc, char **argv) {
  std::uint32_t keys = 65536;
  unsigned rounds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--keys") == 0) {
      keys = static_cast<std::uint32_t>(std::atoi(argv[i + 1]));
    } else if (std::strcmp(argv[i], "--rounds") == 0) {
      rounds = static_cast<unsigned>(std::atoi(argv[i + 1]));
    }
  }
  const std::string name = "bench-endpoint-" + std::to_string(::getpid());
  Host host(name, keys);
  const std::string path =
      Shm::entityManager(name, 0)->directory() + "/.inspect";
  double cpu = 0;
  host.rewrite(keys, 0, cpu); // the first load
  std::map<std::string, std::vector<Result>> results;
  const std::vector<std::string> modes = {"off", "burn",    "idle",
                                          "ask", "garbage", "flood"};
  std::uint32_t shift = 1;
  for (unsigned r = 0; r < rounds; ++r) {
    for (const auto &m : modes) {
      if (m != "off" && m != "burn") {
        host.open(path);
      }
      std::atomic<bool> stop{false};
      std::atomic<std::uint64_t> answered{0};
      std::vector<std::thread> clients;
      if (m == "flood" || m == "ask") {
        clients.emplace_back(askLoop, path, std::cref(stop),
                             std::ref(answered));
      }
      if (m == "flood" || m == "garbage") {
        clients.emplace_back(garbageLoop, path, std::cref(stop));
      }
      if (m == "burn") {
        clients.emplace_back([&stop] {
          std::uint64_t n = 0;
          while (!stop.load(std::memory_order_relaxed)) {
            asm volatile("" : "+r"(n));
            ++n;
          }
        });
      }
      const double s = host.rewrite(keys, shift++, cpu);
      const double answering =
          host.endpoint
              ? std::chrono::duration<double>(host.endpoint->busy()).count()
              : 0.0;
      stop = true;
      host.endpoint.reset(); // ends the clients' connections
      for (auto &t : clients) {
        t.join();
      }
      Result res;
      res.perSecond = static_cast<double>(keys) * kUnits / s;
      res.endpointShare = answering / s;
      res.cpuNsPerChange = cpu * 1e9 / (static_cast<double>(keys) * kUnits);
      res.answersPerSecond = static_cast<double>(answered) / s;
      results[m].push_back(res);
      std::fprintf(stderr, "round %u %-5s: %.0f changes/s\n", r + 1, m.c_str(),
                   res.perSecond);
    }
  }
  const auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
  };
  std::map<std::string, double> rate, cpuNs, share;
  for (const auto &m : modes) {
    std::vector<double> v, c, e;
    for (const auto &x : results[m]) {
      v.push_back(x.perSecond);
      c.push_back(x.cpuNsPerChange);
      e.push_back(x.endpointShare);
    }
    rate[m] = median(v);
    cpuNs[m] = median(c);
    share[m] = median(e);
  }
  std::printf("LEM, %u units of %u keys, batches of %u, %u rounds "
              "(medians)\n\n",
              kUnits, keys, kBatch, rounds);
  std::printf("%-7s %10s %8s %14s %8s %10s %10s\n", "mode", "changes/s",
              "vs off", "loop ns/change", "vs off", "answers/s", "answering");
  for (const auto &m : modes) {
    std::vector<double> ans;
    for (const auto &x : results[m]) {
      ans.push_back(x.answersPerSecond);
    }
    std::printf("%-7s %10.0f %7.1f%% %14.0f %7.1f%% %10.0f %9.2f%%\n",
                m.c_str(), rate[m],
                100.0 * (rate[m] - rate["off"]) / rate["off"], cpuNs[m],
                100.0 * (cpuNs[m] - cpuNs["off"]) / cpuNs["off"], median(ans),
                100.0 * share[m]);
  }
  return 0;
}
