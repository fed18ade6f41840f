// mpls-hw as a real process: it applies the agent's change logs to the
// hardware tables in version order, skips only abandoned versions, resumes
// where it published, reports full tables, and follows an agent whose store
// is deleted and made anew.
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "ToolsFixture.h"
#include "tools/hw/AgentNotify.h"

namespace {

using namespace ToolsTest;
using Table = std::map<std::uint32_t, std::uint32_t>;

template <typename F> class HwApply : public ::testing::Test {};
TYPED_TEST_SUITE(HwApply, EntryLogTest::Families);

TYPED_TEST(HwApply, WritesDeletesAndTableDeletesReachTheHardwareTables) {
  using F = TypeParam;
  Agent agent(freshAgent());
  auto &log = agent.log<F>();
  log.mountSlateConfig(1, 0);
  log.mountSlateConfig(2, 0);
  agent.write<F>(1, 100, 10);
  agent.write<F>(1, 101, 11);
  agent.write<F>(2, 200, 20);
  // First start: the tables are built from the agent's committed entries.
  Exit e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  HwView hw(agent.name());
  EXPECT_EQ(hw.published<F>(), 3u);
  EXPECT_EQ(hw.table<F>(1), (Table{{100, 10}, {101, 11}}));
  EXPECT_EQ(hw.table<F>(2), (Table{{200, 20}}));

  // Then every change is applied from the log, in version order.
  agent.write<F>(1, 101, 12); // replaced
  agent.del<F>(1, 100);
  agent.write<F>(1, 102, 13);
  log.tableDel(nullptr, 2);
  agent.write<F>(2, 201, 21);
  e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_NE(
      e.err.find(std::string(F::kItem) + " 5 changes applied (version 8)"),
      std::string::npos)
      << e.err;
  EXPECT_EQ(hw.published<F>(), 8u);
  EXPECT_EQ(hw.table<F>(1), (Table{{101, 12}, {102, 13}}));
  EXPECT_EQ(hw.table<F>(2), (Table{{201, 21}}));
}

TEST(HwFollow, AnAbandonedVersionIsSkippedOnlyBelowALaterRecord) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  agent.write<Isem2>(1, 1, 1);
  ASSERT_EQ(hwOnce(agent.name()).code, 0);

  // An agent killed after reserving version 2 and before writing it.
  agent.isem2->tableEntryLog()->entryLogConfig().control().scratchpadIs(2);
  agent.stop();
  agent.start();
  agent.isem2->mountSlateConfig(1, 0);
  EXPECT_EQ(agent.write<Isem2>(1, 7, 70), 3u);
  // Version 4 reserved by a change still on its way: never skipped.
  agent.isem2->tableEntryLog()->entryLogConfig().control().scratchpadIs(4);

  const Exit e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_NE(e.err.find("version 2 was reserved and never used"),
            std::string::npos)
      << e.err;
  HwView hw(agent.name());
  EXPECT_EQ(hw.published<Isem2>(), 3u);
  EXPECT_EQ(hw.table<Isem2>(1), (Table{{1, 1}, {7, 70}}));
}

TEST(HwFollow, ARestartResumesFromThePublishedVersion) {
  Agent agent(freshAgent());
  agent.lem->mountSlateConfig(1, 0);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    agent.write<Lem>(1, l, l);
  }
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  HwView hw(agent.name());
  // The agent retires what the hardware confirmed, then changes more.
  agent.lem->cleanupEntryLog(hw.published<Lem>());
  agent.write<Lem>(1, 4, 4);
  agent.del<Lem>(1, 1);

  const Exit e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_NE(e.err.find("MplsLem 2 changes applied (version 5)"),
            std::string::npos)
      << e.err;
  EXPECT_EQ(hw.table<Lem>(1), (Table{{2, 2}, {3, 3}, {4, 4}}));
  // Built from the configuration once (the first start), not again.
  const Exit s =
      run("mpls-show", {"--agent", agent.name(), "summary", "--json"});
  EXPECT_NE(s.out.find("\"resyncs\": 1"), std::string::npos) << s.out;
}

// Killed at any instant, a writer restarts into the tables the agent has:
// it re-applies whatever came after the version it published.
TEST(HwFollow, AWriterKilledAnywhereRestartsIntoTheAgentsTables) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  const unsigned seed = std::random_device{}();
  std::mt19937 rng(seed);
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  for (int round = 0; round < 5; ++round) {
    for (std::uint32_t i = 1; i <= 3000; ++i) {
      const std::uint32_t label = rng() % 500;
      if (rng() % 4 == 0) {
        agent.del<Isem2>(1, label);
      } else {
        agent.write<Isem2>(1, label, i);
      }
    }
    Program hw("mpls-hw", {"--agent", agent.name()});
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
    hw.stop(SIGKILL);
    // The agent retires what was confirmed, as it does.
    agent.isem2->cleanupEntryLog(HwView(agent.name()).published<Isem2>());
  }
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  Table want;
  agent.isem2->tableConfigSlate(1)->swTableEntries().forEach(
      [&](const MicaMpls::MplsIsem2ConfigSlateEntry &r) {
        if (!r.isDeleted) {
          want[r.logEntry.key.label] = r.logEntry.inLif0Index;
        }
      });
  EXPECT_EQ(HwView(agent.name()).table<Isem2>(1), want);
  EXPECT_EQ(HwView(agent.name()).published<Isem2>(),
            agent.isem2->tableVersion());
}

TEST(HwFollow, AWriteIntoAFullTableIsReportedAndTheVersionAdvances) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  ASSERT_EQ(hwOnce(agent.name(), {"--capacity", "2"}).code, 0);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    agent.write<Isem2>(1, l, l);
  }
  const Exit e = hwOnce(agent.name(), {"--capacity", "2"});
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_NE(e.err.find("hardware table full (2 entries); write of label 3 "
                       "qualifier 0 (version 3) not applied"),
            std::string::npos)
      << e.err;
  EXPECT_NE(e.err.find("; 1 full-table reports"), std::string::npos) << e.err;
  HwView hw(agent.name());
  EXPECT_EQ(hw.published<Isem2>(), 3u);
  EXPECT_EQ(hw.table<Isem2>(1), (Table{{1, 1}, {2, 2}}));
}

TEST(HwFollow, OneWriterPerInstanceAndBadOptionsAreUsageErrors) {
  const std::string agent = freshAgent();
  auto holder = Shm::entityManager(MicaMplsHw::hwInstanceName(agent), 0);
  const Exit locked = hwOnce(agent);
  EXPECT_EQ(locked.code, 3);
  EXPECT_NE(locked.err.find("another mpls-hw is running"), std::string::npos)
      << locked.err;
  holder->close();
  EXPECT_EQ(run("mpls-hw", {"--rate", "-1"}).code, 2);
  EXPECT_EQ(run("mpls-hw", {"--no-such-option"}).code, 2);
  EXPECT_EQ(run("mpls-hw", {"--agent", "../x"}).code, 2);
  EXPECT_EQ(run("mpls-hw", {"--help"}).code, 0);
}

// A hardware writer left running: the agent does not exist yet, writes,
// then its store is deleted and made anew with versions starting over.
TEST(HwFollow, ALiveWriterFollowsAnAgentWhoseStoreIsMadeAnew) {
  const std::string name = freshAgent();
  Program hw("mpls-hw", {"--agent", name});
  HwView view(name);

  auto agent = std::make_unique<Agent>(name);
  ASSERT_EQ(::mkfifo(MicaMplsHw::progressFifoPath(name).c_str(), 0600), 0);
  const int fifo =
      ::open(MicaMplsHw::progressFifoPath(name).c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(fifo, 0);
  agent->isem2->mountSlateConfig(1, 0);
  for (std::uint32_t l = 1; l <= 50; ++l) {
    agent->write<Isem2>(1, l, l);
  }
  ASSERT_TRUE(eventually([&] { return view.published<Isem2>() == 50; }));
  char byte = 0; // the agent is told, just after the publication
  EXPECT_TRUE(eventually([&] { return ::read(fifo, &byte, 1) == 1; }));
  ::close(fifo);

  agent.reset();
  std::filesystem::remove_all(Shm::rootDirectory() + "/" + name + ".0");
  agent = std::make_unique<Agent>(name);
  agent->isem2->mountSlateConfig(1, 0);
  agent->write<Isem2>(1, 500, 5);
  agent->write<Isem2>(1, 501, 6);
  ASSERT_TRUE(eventually([&] {
    return view.table<Isem2>(1) == Table{{500, 5}, {501, 6}} &&
           view.published<Isem2>() == 2;
  }));

  const Exit e = hw.stop(SIGTERM);
  EXPECT_EQ(e.code, 0) << e.err;
  EXPECT_NE(e.err.find("stopped: MplsIsem2"), std::string::npos) << e.err;
  EXPECT_NE(e.err.find("the change log is a new one"), std::string::npos)
      << e.err;
}

} // namespace
