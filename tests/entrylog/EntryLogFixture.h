// Shared set-up of the entry-log suites: the two families as test
// parameters, a fresh shared-memory instance per test, and restarts.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/statedb/GenId.h"
#include "support/EntryLogFamilies.h"
#include "support/FreshInstance.h"

namespace EntryLogTest {

using EntryLogFamilies::Isem2;
using EntryLogFamilies::Lem;

using Families = ::testing::Types<Isem2, Lem>;

// A unique agent (so a unique store instance) per test.
inline std::string uniqueAgent(const char *what) {
  return TestSupport::freshInstanceName(std::string("elog-") + what);
}

template <typename F> struct LogEnv {
  explicit LogEnv(const char *what = "t", std::uint32_t instance = 0)
      : stateDb(StateDb::entityManagerIs(uniqueAgent(what), instance)),
        group(Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls")),
        stats(Fwk::make<Asic::SwTableStats>()) {
    start();
  }
  ~LogEnv() { stop(); }

  void start() {
    shmInstance = std::getenv("NOT_LOCAL_EM") ? 0 : stateDb->instanceId();
    log = F::make(stateDb, group);
  }
  // Drops the entry log and closes the store instance, as an agent exit.
  void stop() {
    if (!log) {
      return;
    }
    log = nullptr;
    Shm::entityManager(stateDb->name(), shmInstance)->close();
  }
  void restart() {
    stop();
    start();
  }
  typename F::B::EntryLog::ConfigSlateT &slate(Asic::UnitId u) {
    return *log->tableConfigSlate(u);
  }
  std::string dir() const {
    return Shm::rootDirectory() + "/" + stateDb->name() + "." +
           std::to_string(stateDb->instanceId());
  }

  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<Asic::SwTableStats> stats;
  Fwk::Ptr<typename F::Log> log;
  std::uint32_t shmInstance = 0;
};

} // namespace EntryLogTest
