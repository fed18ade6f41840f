// Shared set-up of the entry-log suites: the two families as test
// parameters, a fresh shared-memory instance per test, and restarts.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"
#include "platform/statedb/GenId.h"
#include "support/FreshInstance.h"

namespace EntryLogTest {

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Log = MicaMpls::MplsIsem2EntryLog;
  using Key = MicaMpls::MplsIsem2EntryKey;
  using LogEntry = MicaMpls::MplsIsem2LogEntry;
  using RsrcKeys = MicaMpls::MplsIsem2ResourceKeys;
  static constexpr std::uint32_t kTypeId = 0x0A080401;
  static constexpr const char *kItem = "MplsIsem2";
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em,
                            const Fwk::Ptr<Asic::GroupInterface> &g) {
    return MicaMpls::mplsIsem2EntryLogFactory(Asic::SwTableId(kTypeId), em, g,
                                              em->name());
  }
  static LogEntry logEntry(std::uint32_t label, std::uint32_t result) {
    return LogEntry{Key(label), result, result + 1};
  }
  static RsrcKeys rsrcKeys(std::uint32_t v) {
    RsrcKeys r;
    r.inLifKey.label = v;
    r.inLifClientData.opaque[0] = static_cast<std::uint8_t>(v);
    return r;
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Log = MicaMpls::MplsLemEntryLog;
  using Key = MicaMpls::MplsLemEntryKey;
  using LogEntry = MicaMpls::MplsLemLogEntry;
  using RsrcKeys = MicaMpls::MplsLemResourceKeys;
  static constexpr std::uint32_t kTypeId = 0x0A080402;
  static constexpr const char *kItem = "MplsLem";
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em,
                            const Fwk::Ptr<Asic::GroupInterface> &g) {
    return MicaMpls::mplsLemEntryLogFactory(Asic::SwTableId(kTypeId), em, g,
                                            em->name());
  }
  static LogEntry logEntry(std::uint32_t label, std::uint32_t result) {
    LogEntry e;
    e.key = Key(label);
    e.fecId = result;
    e.errorCode = 0;
    return e;
  }
  static RsrcKeys rsrcKeys(std::uint32_t v) { return RsrcKeys{v}; }
};

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
