// mpls-hw as a real process: it applies the agent's change logs to the
// hardware tables in version order, skips only abandoned versions (never a
// damaged record's), resumes where it published, reports full tables,
// follows an agent whose store is deleted and made anew, and never rebuilds
// a table from a configuration it could not read.
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "ToolsFixture.h"
#include "platform/shm/Format.h"
#include "tools/hw/AgentNotify.h"

namespace {

using namespace ToolsTest;
using Table = std::map<std::uint32_t, std::uint32_t>;

bool contains(const std::string &text, const std::string &what) {
  return text.find(what) != std::string::npos;
}

// Damages the checksums of the first `n` slots of a one-collection file.
void damageRecords(const std::string &file, std::uint32_t n) {
  const std::string bytes = fileBytes(file);
  Shm::format::FileHeader h{};
  ASSERT_GE(bytes.size(), sizeof h);
  std::memcpy(&h, bytes.data(), sizeof h);
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  for (std::uint32_t i = 0; i < n; ++i) {
    const std::uint64_t at = h.collections[0].slotsOffset +
                             std::uint64_t{i} * h.collections[0].slotSize + 8;
    f.seekp(static_cast<std::streamoff>(at));
    f.put(static_cast<char>(bytes[at] ^ 0x5a));
  }
}

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

// A record that fails its checks reads as absent once a scan dropped it:
// its version is never skipped as unused; the writer rebuilds from the
// agent's configuration instead, also when the version turns up missing
// only later, below a record written after the scan.
TEST(HwFollow, ADamagedChangeLogRecordIsRebuiltFromNeverSkipped) {
  Agent agent(freshAgent());
  agent.lem->mountSlateConfig(1, 0);
  agent.write<Lem>(1, 1, 1);
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  agent.write<Lem>(1, 2, 2);
  agent.del<Lem>(1, 1);
  agent.write<Lem>(1, 0xd4d4d, 4);
  // The change of version 4 is still on its way (not marked complete), and
  // its record is damaged.
  agent.lem->tableEntryLog()->entryLogConfig().control().auxiliaryIs(3);
  damage(changeLogFile<Lem>(agent), Lem::logEntry(0xd4d4d, 4), 0);

  Program hw("mpls-hw", {"--agent", agent.name()});
  HwView view(agent.name());
  ASSERT_TRUE(eventually([&] { return view.published<Lem>() == 3; }));
  agent.write<Lem>(1, 5, 5); // version 4 is now missing below version 5
  ASSERT_TRUE(eventually([&] { return view.published<Lem>() == 5; }));
  const Exit e = hw.stop(SIGTERM);
  EXPECT_EQ(e.code, 0) << e.err;
  EXPECT_FALSE(contains(e.err, "never used")) << e.err;
  EXPECT_TRUE(contains(e.err, "MplsLem: a damaged change-log record may hold "
                              "a version above 1; 1 unit table(s) rebuilt "
                              "from the agent's configuration, following "
                              "from version 3"))
      << e.err;
  EXPECT_TRUE(contains(e.err, "MplsLem: a damaged change-log record may hold "
                              "a version above 3; 1 unit table(s) rebuilt"))
      << e.err;
  EXPECT_EQ(view.table<Lem>(1), (Table{{2, 2}, {0xd4d4d, 4}, {5, 5}}));
  EXPECT_EQ(view.followRecord<Lem>().gapsSkipped, 0u);
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

// A writer stopped in a step, after it applied changes and before it
// published them: its successor takes none of them twice (the hardware
// never goes back through them), unless the log is no longer the one they
// came from; then it rebuilds from the configuration.
TEST(HwFollow, ARestartTakesNoChangeTwiceUnlessTheLogIsAnother) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  agent.isem2->mountSlateConfig(2, 0);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    agent.write<Isem2>(1, l, l);
  }
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  const std::string older = ::testing::TempDir() + agent.name() + ".older";
  std::filesystem::remove_all(older);
  std::filesystem::copy(agent.directory(), older,
                        std::filesystem::copy_options::recursive);
  agent.isem2->tableDel(nullptr, 1); // 4
  agent.write<Isem2>(1, 10, 10);
  agent.write<Isem2>(1, 11, 11);
  agent.del<Isem2>(1, 10);
  agent.write<Isem2>(2, 20, 20); // 8
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  // One view of the writer's instance at a time: views share its handle.
  const auto table = [&](Asic::UnitId u) {
    return HwView(agent.name()).table<Isem2>(u);
  };
  const auto published = [&] {
    return HwView(agent.name()).published<Isem2>();
  };
  const MicaMplsHw::FollowRecord record =
      HwView(agent.name()).followRecord<Isem2>();

  // What a writer stopped before it published leaves: the tables at 8, the
  // version published 3.
  const auto unpublish = [&] {
    MicaMplsHw::HwStore store(agent.name(), 65536);
    store.publish(Asic::SwTableId(Isem2::kTypeId), 3, record);
  };
  const auto commits = [&](Asic::UnitId u) {
    MicaMplsHw::InstanceView view(MicaMplsHw::hwInstanceName(agent.name()));
    return view
        .entity<MicaMplsHw::HwTable<Isem2::B>>(
            MicaMplsHw::hwTablePath<Isem2::B>(u))
        ->hwEntries()
        .control()
        .commitSequence();
  };
  unpublish();
  const std::uint64_t unit1 = commits(1), unit2 = commits(2);
  Exit e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_EQ(published(), 8u);
  EXPECT_EQ(table(1), (Table{{11, 11}}));
  EXPECT_EQ(table(2), (Table{{20, 20}}));
  EXPECT_EQ(commits(1), unit1); // nothing written again
  EXPECT_EQ(commits(2), unit2);
  EXPECT_EQ(HwView(agent.name()).followRecord<Isem2>().resyncs, record.resyncs);

  // The agent's store is put back to its copy at version 3 and goes on
  // with other changes at the versions the tables took.
  unpublish();
  agent.stop();
  std::filesystem::remove_all(agent.directory());
  std::filesystem::copy(older, agent.directory(),
                        std::filesystem::copy_options::recursive);
  std::filesystem::remove_all(older);
  agent.start();
  agent.isem2->mountSlateConfig(1, 0);
  agent.isem2->mountSlateConfig(2, 0);
  for (std::uint32_t l = 30; l <= 34; ++l) {
    agent.write<Isem2>(l == 34 ? 2 : 1, l, l); // 4 to 8
  }
  e = hwOnce(agent.name());
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "MplsIsem2: the hardware tables took a change "
                              "of version 8 that is not the log's; 2 unit "
                              "table(s) rebuilt"))
      << e.err;
  EXPECT_EQ(published(), 8u);
  EXPECT_EQ(
      table(1),
      (Table{{1, 1}, {2, 2}, {3, 3}, {30, 30}, {31, 31}, {32, 32}, {33, 33}}));
  EXPECT_EQ(table(2), (Table{{34, 34}}));
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

// A unit's configuration that cannot be read (a damaged header, too many
// damaged records) never becomes an empty table: a rebuild publishes
// nothing and leaves the follow record as it was, so the next run rebuilds
// again; a table found wiped takes no change until it is rebuilt.
TEST(HwRebase, AConfigurationThatCannotBeReadHoldsTheRebuildBack) {
  const std::string name = freshAgent();
  auto agent = std::make_unique<Agent>(name);
  agent->isem2->mountSlateConfig(1, 0);
  agent->isem2->mountSlateConfig(2, 0);
  agent->write<Isem2>(1, 1, 1);
  agent->write<Isem2>(2, 2, 2);
  ASSERT_EQ(hwOnce(name).code, 0);
  const MicaMplsHw::FollowRecord before = HwView(name).followRecord<Isem2>();
  ASSERT_EQ(HwView(name).published<Isem2>(), 2u);

  // The agent's store is made anew, unit 2 with 1002 entries.
  agent.reset();
  std::filesystem::remove_all(Shm::rootDirectory() + "/" + name + ".0");
  agent = std::make_unique<Agent>(name);
  agent->isem2->mountSlateConfig(1, 0);
  agent->isem2->mountSlateConfig(2, 0);
  agent->write<Isem2>(1, 10, 10);
  Table unit2;
  for (std::uint32_t l = 100; l < 1102; ++l) {
    agent->write<Isem2>(2, l, l);
    unit2[l] = l;
  }
  const std::string cfg = configFile<Isem2>(*agent, 2);
  const std::string good = fileBytes(cfg);
  const auto heldBack = [&](const char *why) {
    SCOPED_TRACE(why);
    const Exit e = hwOnce(name);
    EXPECT_EQ(e.code, 1) << e.err;
    EXPECT_TRUE(contains(e.err, "MplsIsem2 unit 2: configuration not read, "
                                "hardware table left as it is"))
        << e.err;
    HwView hw(name);
    EXPECT_EQ(hw.published<Isem2>(), 2u);
    EXPECT_EQ(hw.followRecord<Isem2>().sourceId, before.sourceId);
    EXPECT_EQ(hw.followRecord<Isem2>().resyncs, 1u);
    EXPECT_EQ(hw.table<Isem2>(2), (Table{{2, 2}}));
  };
  damageRecords(cfg, 1002);
  heldBack("too many damaged records");
  putBytes(cfg, good);
  damage(cfg, Shm::format::kMagic, 0);
  heldBack("a damaged header");
  putBytes(cfg, good);
  Exit e = hwOnce(name);
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "the change log is a new one; 2 unit table(s) "
                              "rebuilt"))
      << e.err;
  EXPECT_EQ(HwView(name).published<Isem2>(), 1003u);
  EXPECT_EQ(HwView(name).table<Isem2>(1), (Table{{10, 10}}));
  EXPECT_EQ(HwView(name).table<Isem2>(2), unit2);

  // Unit 1's hardware table is lost, the agent changes the unit, and its
  // configuration cannot be read.
  std::filesystem::remove(Shm::rootDirectory() + "/" +
                          MicaMplsHw::hwInstanceName(name) + ".0/" +
                          MicaMplsHw::hwTablePath<Isem2::B>(1));
  agent->write<Isem2>(1, 11, 11);
  const std::string cfg1 = configFile<Isem2>(*agent, 1);
  const std::string good1 = fileBytes(cfg1);
  damage(cfg1, Shm::format::kMagic, 0);
  e = hwOnce(name);
  EXPECT_EQ(e.code, 1) << e.err;
  EXPECT_TRUE(contains(e.err, "MplsIsem2 unit 1: configuration not read"))
      << e.err;
  EXPECT_EQ(HwView(name).published<Isem2>(), 1003u);
  EXPECT_EQ(HwView(name).table<Isem2>(1), Table{});
  putBytes(cfg1, good1);
  e = hwOnce(name);
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "MplsIsem2 unit 1: the hardware table was lost; "
                              "rebuilt"))
      << e.err;
  EXPECT_EQ(HwView(name).published<Isem2>(), 1004u);
  EXPECT_EQ(HwView(name).table<Isem2>(1), (Table{{10, 10}, {11, 11}}));
}

TEST(HwFollow, WhatAFullTableRefusesIsRecordedUntilTheKeyIsTaken) {
  using Refused = std::map<std::uint32_t, std::pair<Version, bool>>;
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  const std::vector<std::string> small{"--capacity", "2"};
  ASSERT_EQ(hwOnce(agent.name(), small).code, 0);
  for (std::uint32_t l = 1; l <= 4; ++l) {
    agent.write<Isem2>(1, l, l);
  }
  Exit e = hwOnce(agent.name(), small);
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "hardware table full (2 entries); write of "
                              "label 3 qualifier 0 refused (version 3)"))
      << e.err;
  EXPECT_TRUE(contains(e.err, "; 2 full-table reports")) << e.err;
  HwView hw(agent.name());
  EXPECT_EQ(hw.published<Isem2>(), 4u);
  EXPECT_EQ(hw.table<Isem2>(1), (Table{{1, 1}, {2, 2}}));
  EXPECT_EQ(hw.refused<Isem2>(1), (Refused{{3, {3, false}}, {4, {4, false}}}));

  // A deletion makes room, but a refusal stays until a change of its key
  // is taken: the write of 3 again goes in, its deletion forgets 4's.
  agent.del<Isem2>(1, 1);
  agent.write<Isem2>(1, 3, 3);
  agent.del<Isem2>(1, 4);
  ASSERT_EQ(hwOnce(agent.name(), small).code, 0);
  EXPECT_EQ(hw.table<Isem2>(1), (Table{{2, 2}, {3, 3}}));
  EXPECT_EQ(hw.refused<Isem2>(1), Refused{});

  // A rebuild refuses what does not fit, for every change it takes.
  agent.write<Isem2>(1, 5, 5);
  ::unlink((Shm::rootDirectory() + "/" +
            MicaMplsHw::hwInstanceName(agent.name()) + ".0/" +
            MicaMplsHw::FollowSlate::path())
               .c_str());
  e = hwOnce(agent.name(), small);
  ASSERT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "write of label 5 qualifier 0 refused (rebuild "
                              "at version 8)"))
      << e.err;
  EXPECT_EQ(hw.refused<Isem2>(1), (Refused{{5, {8, true}}}));
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
