// Shared set-up of the tools suite: an agent's store written the way the
// agent writes it, the built programs run as real processes, and reads of
// the hardware writer's instance.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "entrylog/EntryLogFixture.h"
#include "support/Fork.h"
#include "support/FreshInstance.h"
#include "tools/hw/HwStore.h"
#include "tools/hw/InstanceView.h"

namespace ToolsTest {

using EntryLogTest::Isem2;
using EntryLogTest::Lem;
using Version = Asic::LogVersion;

// What a finished program left.
struct Exit {
  int code = -1; // the exit status, or 128 + signal
  std::string out;
  std::string err;
};

// A program of tools/ running in the background, its output in files.
class Program {
public:
  Program(const std::string &name, const std::vector<std::string> &args)
      : outPath_(tempName("out")), errPath_(tempName("err")) {
    pid_ = TestSupport::forkTied();
    if (pid_ == 0) {
      const int out =
          ::open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err =
          ::open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(out, 1);
      ::dup2(err, 2);
      const std::string path = std::string(MICA_TOOLS_DIR) + "/" + name;
      std::vector<char *> argv{const_cast<char *>(path.c_str())};
      for (const std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
      }
      argv.push_back(nullptr);
      ::execv(path.c_str(), argv.data());
      ::_exit(127);
    }
  }
  ~Program() {
    if (pid_ > 0) {
      stop(SIGKILL);
    }
    std::remove(outPath_.c_str());
    std::remove(errPath_.c_str());
  }

  // Sends a signal and returns at once.
  void signal(int sig) { ::kill(pid_, sig); }
  // What the program has written to stderr so far.
  std::string errSoFar() const { return slurp(errPath_); }

  // Sends `sig` (0: none) and waits for the end; a program still running
  // after two minutes hangs, and is killed (exit 128 + SIGKILL).
  Exit stop(int sig = 0) {
    if (sig != 0) {
      ::kill(pid_, sig);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    int status = 0;
    for (;;) {
      const pid_t got = ::waitpid(pid_, &status, WNOHANG);
      if (got == pid_ || (got < 0 && errno != EINTR)) {
        break;
      }
      if (got == 0 && std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        deadline = std::chrono::steady_clock::time_point::max();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid_ = -1;
    Exit e;
    e.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    e.out = slurp(outPath_);
    e.err = slurp(errPath_);
    return e;
  }

private:
  static std::string tempName(const char *what) {
    static int n = 0;
    return ::testing::TempDir() + "tools-" + std::to_string(::getpid()) + "-" +
           std::to_string(n++) + "." + what;
  }
  static std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  std::string outPath_;
  std::string errPath_;
  pid_t pid_ = -1;
};

inline Exit run(const std::string &name, const std::vector<std::string> &args) {
  return Program(name, args).stop();
}

// The agent's instance, written through the entry logs of both table types
// as the agent writes it.
class Agent {
public:
  explicit Agent(const std::string &name) : name_(name) { start(); }
  ~Agent() { stop(); }

  const std::string &name() const { return name_; }
  std::string directory() const {
    return Shm::rootDirectory() + "/" + name_ + ".0";
  }
  void start() {
    stateDb_ = StateDb::entityManagerIs(name_, 0);
    group_ = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
    isem2 = Isem2::make(stateDb_, group_);
    lem = Lem::make(stateDb_, group_);
  }
  // Drops the entry logs and closes the instance, as an agent's exit.
  void stop() {
    if (isem2) {
      isem2 = nullptr;
      lem = nullptr;
      Shm::entityManager(name_, 0)->close();
    }
  }
  template <typename F> auto &log() {
    if constexpr (std::is_same_v<F, Isem2>) {
      return *isem2;
    } else {
      return *lem;
    }
  }
  template <typename F>
  Version write(Asic::UnitId unit, std::uint32_t label, std::uint32_t result) {
    return log<F>().entryIs(F::logEntry(label, result), F::rsrcKeys(label),
                            nullptr, unit, nullptr, false);
  }
  template <typename F> Version del(Asic::UnitId unit, std::uint32_t label) {
    return log<F>().entryDel(typename F::Key(label), nullptr, unit);
  }

  Fwk::Ptr<Isem2::Log> isem2;
  Fwk::Ptr<Lem::Log> lem;

private:
  std::string name_;
  Fwk::Ptr<StateDb::EntityManager> stateDb_;
  Fwk::Ptr<Asic::GroupInterface> group_;
};

// The store instances of an agent name: the agent's and its hardware
// writer's.
inline void removeAgentInstances(const std::string &name) {
  TestSupport::removeInstances(name);
  TestSupport::removeInstances(MicaMplsHw::hwInstanceName(name));
}

// The agent names this process made; their instances are removed when it
// exits. A forked child exits without removing them.
inline void removeAtExit(const std::string &name) {
  static std::vector<std::string> names;
  static const pid_t owner = ::getpid();
  if (names.empty()) {
    std::atexit([] {
      if (::getpid() == owner) {
        for (const auto &n : names) {
          removeAgentInstances(n);
        }
      }
    });
  }
  names.push_back(name);
}

inline std::string freshAgent() {
  std::string name = TestSupport::freshInstanceName("tools");
  // The hardware writer's instance of an earlier agent of the same name
  // would tell a new agent that the hardware took versions it never logged.
  removeAgentInstances(name);
  removeAtExit(name);
  return name;
}

// mpls-hw --once for an agent, in the suite's store.
inline Exit hwOnce(const std::string &agent,
                   std::vector<std::string> more = {}) {
  std::vector<std::string> args = {"--agent", agent, "--store",
                                   Shm::rootDirectory(), "--once"};
  args.insert(args.end(), more.begin(), more.end());
  return run("mpls-hw", args);
}

// The bytes of a file, and the same bytes written back in place (the file
// keeps its identity, as the store's files must).
inline std::string fileBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
inline void putBytes(const std::string &path, const std::string &bytes) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(f.good()) << path;
}

// Flips one byte of `file` at the first place holding `pattern`, plus `at`.
template <typename T>
void damage(const std::string &file, const T &pattern, std::size_t at) {
  std::string bytes = fileBytes(file);
  const auto pos = bytes.find(
      std::string(reinterpret_cast<const char *>(&pattern), sizeof(T)));
  ASSERT_NE(pos, std::string::npos);
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(static_cast<std::streamoff>(pos + at));
  f.put(static_cast<char>(bytes[pos + at] ^ 0x5a));
}

// The files of the agent's entry logs of a table type.
template <typename F> std::string configFile(const Agent &agent, unsigned u) {
  return agent.directory() + "/" + F::B::Constants::configSlatePath(u);
}
template <typename F> std::string changeLogFile(const std::string &dir) {
  return dir + "/" + F::B::Constants::tableEntryLogSlatePath();
}
template <typename F> std::string changeLogFile(const Agent &agent) {
  return changeLogFile<F>(agent.directory());
}

// What the hardware writer of `agent` published and holds.
class HwView {
public:
  explicit HwView(const std::string &agent)
      : view_(MicaMplsHw::hwInstanceName(agent)) {}

  // The published version of a table type; 0 when none.
  template <typename F> Version published() {
    auto v = view_.entity<Asic::TableVersionSlate>(
        Asic::TableVersionSlate::path("MicaMpls"));
    Asic::TableVersionRecord r;
    return v && v->tableVersion().find(F::kTypeId, r) ? r.version : 0;
  }
  // The follow record of a table type (all zero when there is none).
  template <typename F> MicaMplsHw::FollowRecord followRecord() {
    auto f =
        view_.entity<MicaMplsHw::FollowSlate>(MicaMplsHw::FollowSlate::path());
    MicaMplsHw::FollowRecord r{};
    if (!f || !f->follow().find(F::kTypeId, r)) {
      r = MicaMplsHw::FollowRecord{};
    }
    return r;
  }
  // label -> the entry's first resolved field, of a unit's table.
  template <typename F>
  std::map<std::uint32_t, std::uint32_t> table(Asic::UnitId unit) {
    std::map<std::uint32_t, std::uint32_t> out;
    auto t = view_.entity<MicaMplsHw::HwTable<typename F::B>>(
        MicaMplsHw::hwTablePath<typename F::B>(unit));
    if (t) {
      t->hwEntries().forEach([&](const typename F::LogEntry &e) {
        out[e.key.label] = firstField(e);
      });
    }
    return out;
  }

  // label -> (version, byRebuild) of the changes the hardware refused, of
  // a unit's table.
  template <typename F>
  std::map<std::uint32_t, std::pair<Version, bool>> refused(Asic::UnitId unit) {
    std::map<std::uint32_t, std::pair<Version, bool>> out;
    for (const auto &[at, r] : MicaMplsHw::hwRefusals(view_)) {
      if (std::get<0>(at) == F::kTypeId && std::get<1>(at) == unit) {
        out[static_cast<std::uint32_t>(std::get<2>(at) >> 8)] = {
            r.logVersion, r.byRebuild != 0};
      }
    }
    return out;
  }

private:
  static std::uint32_t firstField(const MicaMpls::MplsIsem2LogEntry &e) {
    return e.inLif0Index;
  }
  static std::uint32_t firstField(const MicaMpls::MplsLemLogEntry &e) {
    return e.fecId;
  }
  MicaMplsHw::InstanceView view_;
};

// Waits (without a time limit that could fail a slow run, but with one that
// ends a hang) until `done()` holds.
template <typename Done> bool eventually(Done &&done) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

} // namespace ToolsTest
