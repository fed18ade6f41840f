#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "EntryLogFixture.h"
#include "platform/agentlog/AgentLog.h"
#include "support/ScratchTmpfs.h"

namespace {

using namespace EntryLogTest;

template <typename F> class EntryLog : public ::testing::Test {};
TYPED_TEST_SUITE(EntryLog, Families);

TYPED_TEST(EntryLog, ARecordGoesLiveDeletedAndLiveAgain) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  const typename F::Key k(100);
  EXPECT_EQ(log.tableVersion(), 0u);

  EXPECT_EQ(log.entryIs(F::logEntry(100, 1), F::rsrcKeys(1), nullptr, 1,
                        env.stats, false),
            1u);
  EXPECT_TRUE(log.entryHas(k, 1));
  EXPECT_EQ(log.entry(k, 1), F::logEntry(100, 1));
  EXPECT_EQ(log.entryRsrcKeys(k, 1), F::rsrcKeys(1));
  EXPECT_EQ(log.entryLogVersion(k, 1), 1u);
  EXPECT_EQ(log.entrys(1), 1u);
  EXPECT_EQ(log.entrysInDeletion(1), 0u);
  EXPECT_EQ(log.entryLogRecords(), 1u);
  EXPECT_EQ(log.tableEntryLog()->entryLogConfig().control().scratchpad(), 1u);
  EXPECT_EQ(env.group->loggedVersion(Asic::SwTableId(F::kTypeId)), 1u);

  // Deleted: kept, marked, under the deletion's version.
  EXPECT_EQ(log.entryDel(k, nullptr, 1), 2u);
  EXPECT_FALSE(log.entryHas(k, 1));
  EXPECT_EQ(log.entry(k, 1), F::logEntry(100, 1)); // reads ignore the mark
  EXPECT_EQ(log.entryLogVersion(k, 1), 2u);
  EXPECT_EQ(log.entrys(1), 0u);
  EXPECT_EQ(log.entrysInDeletion(1), 1u);
  // Deleting a deleted record logs it again.
  EXPECT_EQ(log.entryDel(k, nullptr, 1), 3u);
  EXPECT_EQ(log.entrysInDeletion(1), 1u);
  // An unknown key: nothing logged, no version used.
  EXPECT_EQ(log.entryDel(typename F::Key(999), nullptr, 1), 0u);
  EXPECT_EQ(log.tableVersion(), 3u);

  // Written again after its deletion, then cleaned past both: the deletion's
  // retirement finds a newer version and leaves the record live.
  EXPECT_EQ(log.entryIs(F::logEntry(100, 2), F::rsrcKeys(2), nullptr, 1,
                        env.stats, false),
            4u);
  log.cleanupEntryLog(4);
  EXPECT_TRUE(log.entryHas(k, 1));
  EXPECT_EQ(log.entry(k, 1), F::logEntry(100, 2));
  EXPECT_EQ(log.entryLogRecords(), 0u);
  EXPECT_EQ(log.cleanupVersion(), 4u);

  // A deletion that the clean-up reaches removes the record.
  EXPECT_EQ(log.entryDel(k, nullptr, 1), 5u);
  log.cleanupEntryLog(5);
  EXPECT_EQ(log.entrys(1), 0u);
  EXPECT_EQ(log.entrysInDeletion(1), 0u);
  EXPECT_EQ(log.entryLogVersion(k, 1), 0u);
  EXPECT_EQ(env.group->logEntries(), 5u);
}

TYPED_TEST(EntryLog, IdenticalWritesAreSuppressedOnlyWhenAsked) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  const auto le = F::logEntry(7, 70);
  const auto rk = F::rsrcKeys(3);
  EXPECT_EQ(log.entryIs(le, rk, nullptr, 1, env.stats, true), 1u);
  EXPECT_EQ(env.stats->suppressedWriteCnt(), 0u); // absent: nothing counted
  EXPECT_EQ(env.stats->suppressCheckDiffCnt(), 0u);
  EXPECT_EQ(log.entryIs(le, rk, nullptr, 1, env.stats, true), 1u);
  EXPECT_EQ(env.stats->suppressedWriteCnt(), 1u);
  EXPECT_EQ(log.tableVersion(), 1u);
  EXPECT_EQ(log.entryLogRecords(), 1u);
  // Without suppression every write takes a version.
  EXPECT_EQ(log.entryIs(le, rk, nullptr, 1, env.stats, false), 2u);
  // Other resource keys: not suppressed, and counted as different.
  EXPECT_EQ(log.entryIs(le, F::rsrcKeys(4), nullptr, 1, env.stats, true), 3u);
  EXPECT_EQ(env.stats->suppressCheckDiffCnt(), 1u);
  // A deleted record is not compared.
  log.entryDel(le.key, nullptr, 1);
  EXPECT_EQ(log.entryIs(le, F::rsrcKeys(4), nullptr, 1, env.stats, true), 5u);
  EXPECT_EQ(env.stats->suppressedWriteCnt(), 1u);
  EXPECT_EQ(env.stats->suppressCheckDiffCnt(), 1u);

  // A stored record of version 0 is counted as suppressed but written anew.
  typename F::B::EntryLog::ConfigEntry zero{};
  zero.rsrcKeys = rk;
  zero.logEntry = F::logEntry(8, 80);
  env.slate(1).swTableEntriesIs(zero);
  EXPECT_EQ(log.entryIs(zero.logEntry, rk, nullptr, 1, env.stats, true), 6u);
  EXPECT_EQ(env.stats->suppressedWriteCnt(), 2u);
  EXPECT_EQ(log.entryLogVersion(zero.logEntry.key, 1), 6u);
}

TYPED_TEST(EntryLog, CleanupFromAFreshLogAndIncrementally) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  for (std::uint32_t i = 1; i <= 7; ++i) {
    log.entryIs(F::logEntry(i, i), F::rsrcKeys(i), nullptr, 1, env.stats, false);
  }
  // Leave the change log with the records of versions 3, 4 and 7.
  for (Asic::LogVersion v : {1, 2, 5, 6}) {
    log.tableEntryLog()->entryLogConfigDel(v);
  }
  log.cleanupEntryLog(5);
  EXPECT_EQ(log.cleanupVersion(), 5u);
  EXPECT_EQ(log.entryLogRecords(), 1u);
  typename F::B::EntryLog::LogRecord r;
  EXPECT_TRUE(log.tableEntryLog()->entryLogConfig().find(7, r));
  log.cleanupEntryLog(7);
  EXPECT_EQ(log.entryLogRecords(), 0u);
  EXPECT_EQ(log.entrys(1), 7u); // writes retire without touching records

  for (std::uint32_t i = 8; i <= 10; ++i) {
    log.entryIs(F::logEntry(i, i), F::rsrcKeys(i), nullptr, 1, env.stats, false);
  }
  log.cleanupEntryLog(9);
  EXPECT_EQ(log.entryLogRecords(), 1u);
  EXPECT_TRUE(log.tableEntryLog()->entryLogConfig().find(10, r));
  // A lower version moves the mark back and retires nothing.
  log.cleanupEntryLog(3);
  EXPECT_EQ(log.cleanupVersion(), 3u);
  EXPECT_EQ(log.entryLogRecords(), 1u);
  log.cleanupEntryLog(10);
  EXPECT_EQ(log.entryLogRecords(), 0u);
}

TYPED_TEST(EntryLog, TableDeleteOverAPartlyDeletedUnit) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  log.mountSlateConfig(2, 0);
  for (std::uint32_t i = 1; i <= 10; ++i) {
    log.entryIs(F::logEntry(i, i), F::rsrcKeys(i), nullptr, 1, env.stats, false);
  }
  log.entryIs(F::logEntry(1, 1), F::rsrcKeys(1), nullptr, 2, env.stats, false);
  for (std::uint32_t i = 1; i <= 3; ++i) {
    log.entryDel(typename F::Key(i), nullptr, 1);
  }
  EXPECT_EQ(log.entrys(1), 7u);
  EXPECT_EQ(log.entrysInDeletion(1), 3u);

  const Asic::LogVersion t = log.tableDel(nullptr, 1);
  EXPECT_EQ(t, 15u);
  EXPECT_EQ(log.entrys(1), 0u);
  EXPECT_EQ(log.entrysInDeletion(1), 10u);
  EXPECT_EQ(log.entryLogVersion(typename F::Key(1), 1), 12u); // its own deletion
  EXPECT_EQ(log.entryLogVersion(typename F::Key(4), 1), t);
  EXPECT_EQ(log.entrys(2), 1u); // other units are untouched

  typename F::B::EntryLog::LogRecord r;
  ASSERT_TRUE(log.tableEntryLog()->entryLogConfig().find(t, r));
  EXPECT_TRUE(r.isTableDelete());
  EXPECT_FALSE(r.isEntryDelete());
  EXPECT_EQ(r.deleteBits, 2u);
  EXPECT_EQ(r.logEntry, typename F::LogEntry{});
  EXPECT_EQ(r.unitId, 1u);

  // The old deletions retire at their own versions, the rest with the table
  // delete.
  log.cleanupEntryLog(13);
  EXPECT_EQ(log.entrysInDeletion(1), 8u);
  log.cleanupEntryLog(t);
  EXPECT_EQ(log.entrysInDeletion(1), 0u);
  EXPECT_EQ(env.slate(1).swTableEntries().count(), 0u);
  EXPECT_EQ(log.entrys(2), 1u);

  // A table delete of an empty unit still takes and logs a version.
  EXPECT_EQ(log.tableDel(nullptr, 1), t + 1);
  EXPECT_EQ(log.entryLogRecords(), 1u);
}

TYPED_TEST(EntryLog, RestartRestoresVersionsAndDropsConfirmedDeletions) {
  using F = TypeParam;
  LogEnv<F> env;
  env.log->mountSlateConfig(1, 0);
  using Rec = typename F::B::EntryLog::ConfigEntry;
  auto put = [&](std::uint32_t label, Asic::LogVersion v, bool deleted) {
    Rec r{};
    r.logEntry = F::logEntry(label, label);
    r.rsrcKeys = F::rsrcKeys(label);
    r.logVersion = v;
    r.isDeleted = deleted;
    env.slate(1).swTableEntriesIs(r);
  };
  put(9, 9, true);
  put(10, 10, true);
  put(11, 11, true);
  put(5, 5, false);
  env.log->tableEntryLog()->entryLogConfig().control().scratchpadIs(1234);

  env.restart();
  EXPECT_EQ(env.log->tableVersion(), 1234u);
  env.log->mountSlateConfig(1, 0); // version 0: nothing dropped
  EXPECT_EQ(env.slate(1).swTableEntries().count(), 4u);

  env.restart();
  env.log->mountSlateConfig(1, 10);
  EXPECT_EQ(env.slate(1).swTableEntries().count(), 2u);
  EXPECT_EQ(env.log->entryLogVersion(typename F::Key(11), 1), 11u);
  EXPECT_EQ(env.log->entryLogVersion(typename F::Key(5), 1), 5u);
  EXPECT_EQ(env.log->entryLogVersion(typename F::Key(9), 1), 0u);
  EXPECT_EQ(env.log->entryIs(F::logEntry(1, 1), F::rsrcKeys(1), nullptr, 1,
                             env.stats, false),
            1235u);
}

TYPED_TEST(EntryLog, AnyNonZeroDeletedByteReadsAsDeleted) {
  // The byte may hold anything after damage; it is never read as a bool.
  using F = TypeParam;
  LogEnv<F> env;
  env.log->mountSlateConfig(1, 0);
  typename F::B::EntryLog::ConfigEntry r{};
  r.logEntry = F::logEntry(7, 7);
  r.rsrcKeys = F::rsrcKeys(7);
  r.logVersion = 3;
  r.isDeleted = 9;
  env.slate(1).swTableEntriesIs(r);
  auto &control = env.log->tableEntryLog()->entryLogConfig().control();
  control.scratchpadIs(3);
  control.auxiliaryIs(3); // a complete change: nothing to finish at mount

  env.restart();
  env.log->mountSlateConfig(1, 0);
  EXPECT_FALSE(env.log->entryHas(typename F::Key(7), 1));
  EXPECT_EQ(env.log->entrys(1), 0u);
  EXPECT_EQ(env.log->entrysInDeletion(1), 1u);
  // A confirmed deletion is dropped like any other.
  env.restart();
  env.log->mountSlateConfig(1, 3);
  EXPECT_EQ(env.slate(1).swTableEntries().count(), 0u);
}

TYPED_TEST(EntryLog, NoVersionIsHandedOutTwiceWhenTheScratchpadFallsBehind) {
  using F = TypeParam;
  LogEnv<F> env;
  env.log->mountSlateConfig(1, 0);
  env.log->mountSlateConfig(2, 0);
  for (std::uint32_t i = 1; i <= 5; ++i) {
    env.log->entryIs(F::logEntry(i, i), F::rsrcKeys(i), nullptr, i <= 3 ? 1 : 2,
                     env.stats, false);
  }
  // The scratchpad word is damaged (here: reset).
  auto damageScratchpad = [&](Asic::LogVersion v = 0) {
    env.log->tableEntryLog()->entryLogConfig().control().scratchpadIs(v);
  };
  env.log->cleanupEntryLog(3); // versions 4 and 5 stay in the change log
  damageScratchpad();
  env.restart();
  EXPECT_EQ(env.log->tableVersion(), 5u);
  // With the change log empty too, unit 2 still holds 4 and 5, and it may
  // be mounted after unit 1 has changed.
  env.log->cleanupEntryLog(5);
  damageScratchpad();
  env.restart();
  EXPECT_EQ(env.log->tableVersion(), 5u);
  env.log->mountSlateConfig(1, 0);
  EXPECT_EQ(env.log->entryIs(F::logEntry(9, 9), F::rsrcKeys(9), nullptr, 1,
                             env.stats, false),
            6u);
  env.log->mountSlateConfig(2, 0);
  EXPECT_EQ(env.log->entryLogVersion(typename F::Key(5), 2), 5u);
  // A new entry log over the open store reads its units through their
  // mounts.
  env.log->cleanupEntryLog(6);
  damageScratchpad();
  env.log = F::make(env.stateDb, env.group);
  EXPECT_EQ(env.log->tableVersion(), 6u);
  // A version found only in records outlives their clean-up.
  env.restart();
  env.log->mountSlateConfig(1, 0);
  const auto deleted = env.log->entryDel(typename F::Key(9), nullptr, 1);
  damageScratchpad();
  env.restart();
  env.log->mountSlateConfig(1, 0);
  env.log->cleanupEntryLog(deleted); // retires the version's only records
  env.restart();
  EXPECT_EQ(env.log->tableVersion(), deleted);

  // Damaged to the end of the version space: changes fail, and write
  // nothing, rather than wrap to version 0.
  damageScratchpad(~Asic::LogVersion{0});
  env.restart();
  env.log->mountSlateConfig(1, 0);
  EXPECT_THROW(env.log->entryIs(F::logEntry(1, 2), F::rsrcKeys(2), nullptr, 1,
                                env.stats, false),
               Shm::Error);
  EXPECT_THROW(env.log->entryDel(typename F::Key(1), nullptr, 1), Shm::Error);
  EXPECT_THROW(env.log->tableDel(nullptr, 1), Shm::Error);
  // So does a rebuild asked of the hardware writer, which takes a version.
  EXPECT_THROW(env.log->requestHardwareResync("damaged"), Shm::Error);
  EXPECT_EQ(env.log->tableVersion(), ~Asic::LogVersion{0});
  EXPECT_EQ(env.log->entryLogRecords(), 0u);
  EXPECT_EQ(env.log->entryLogVersion(typename F::Key(1), 1), 1u);
}

// A crash can cut a change between its records; the restart finishes it from
// the record written first, whichever unit is mounted first and changed
// before the cut change's unit is mounted, and leaves finished changes alone.
TYPED_TEST(EntryLog, AChangeCutBetweenItsRecordsIsCompletedAtTheRestart) {
  using F = TypeParam;
  using Key = typename F::Key;
  using Rec = typename F::B::EntryLog::ConfigEntry;
  using LogRec = typename F::B::EntryLog::LogRecord;
  LogEnv<F> env;
  for (const Asic::UnitId u : {1, 2}) {
    env.log->mountSlateConfig(u, 0);
    for (std::uint32_t i = 1; i <= 3; ++i) {
      env.log->entryIs(F::logEntry(i, i), F::rsrcKeys(i), nullptr, u, env.stats,
                       false);
    }
  }
  env.log->cleanupEntryLog(6);
  auto changeLog = [&]() -> auto & {
    return env.log->tableEntryLog()->entryLogConfig();
  };
  // Unit 1 is mounted and written first (key 7, a new value each time).
  std::uint32_t unit1Writes = 0;
  auto restartUnit1First = [&] {
    env.restart();
    env.log->mountSlateConfig(1, 0);
    env.log->entryIs(F::logEntry(7, ++unit1Writes), F::rsrcKeys(7), nullptr, 1,
                     env.stats, false);
    env.log->mountSlateConfig(2, 0);
  };
  // Whole and retired: a restart logs nothing again.
  restartUnit1First();
  EXPECT_EQ(changeLog().count(), 1u); // unit 1's write
  env.log->cleanupEntryLog(env.log->tableVersion());

  // A write of key 4 and then a deletion of key 2 in unit 2, each cut after
  // its configuration record.
  auto cutAfterConfigRecord = [&](Rec r) {
    r.logVersion = env.log->tableVersion() + 1;
    changeLog().control().scratchpadIs(r.logVersion);
    env.slate(2).swTableEntriesIs(r);
    restartUnit1First();
    return r.logVersion;
  };
  Rec write{};
  write.logEntry = F::logEntry(4, 4);
  write.rsrcKeys = F::rsrcKeys(4);
  const Asic::LogVersion w = cutAfterConfigRecord(write);
  LogRec logged;
  ASSERT_TRUE(changeLog().find(w, logged));
  EXPECT_EQ(logged.logEntry, write.logEntry);
  EXPECT_EQ(logged.unitId, 2u);
  EXPECT_EQ(logged.deleteBits, 0u);
  EXPECT_EQ(env.log->entryLogVersion(Key(4), 2), w);

  Rec deletion{};
  ASSERT_TRUE(env.slate(2).swTableEntries().find(Key(2), deletion));
  deletion.isDeleted = true;
  const Asic::LogVersion d = cutAfterConfigRecord(deletion);
  ASSERT_TRUE(changeLog().find(d, logged));
  EXPECT_TRUE(logged.isEntryDelete());
  EXPECT_EQ(logged.unitId, 2u);
  EXPECT_EQ(env.log->entrysInDeletion(2), 1u);

  // A table deletion of unit 2 cut after its change-log record and one
  // marking.
  const Asic::LogVersion t = env.log->tableVersion() + 1;
  LogRec tableDelete{};
  tableDelete.logVersion = t;
  tableDelete.unitId = 2;
  tableDelete.deleteBits = LogRec::kTableDelete;
  changeLog().control().scratchpadIs(t);
  env.log->tableEntryLog()->entryLogConfigIs(tableDelete);
  Rec first{};
  ASSERT_TRUE(env.slate(2).swTableEntries().find(Key(1), first));
  first.logVersion = t;
  first.isDeleted = true;
  env.slate(2).swTableEntriesIs(first);
  restartUnit1First();
  EXPECT_EQ(env.log->entrys(2), 0u);
  EXPECT_EQ(env.log->entrysInDeletion(2), 4u);
  EXPECT_EQ(env.log->entryLogVersion(Key(3), 2), t);
  EXPECT_EQ(env.log->entryLogVersion(Key(2), 2), d); // its own
  // Unit 1 kept its records, and its writes got versions of their own.
  EXPECT_EQ(env.log->entrys(1), 4u);
  EXPECT_EQ(env.log->entrysInDeletion(1), 0u);
  EXPECT_EQ(env.log->entryLogVersion(Key(7), 1), t + 1);
}

TYPED_TEST(EntryLog, AWipedCollectionIsReportedOnceAndAsksForARelaunch) {
  using F = TypeParam;
  LogEnv<F> env;
  env.log->mountSlateConfig(3, 0);
  env.log->entryIs(F::logEntry(1, 1), F::rsrcKeys(1), nullptr, 3, env.stats,
                   false);
  auto gen = Asic::genIdIs(*env.stateDb);
  env.stop();
  AgentLog::raisedDelAll();

  // The change log's file is lost while the agent is down.
  const std::string logFile =
      env.dir() + "/" + F::B::Constants::tableEntryLogSlatePath();
  ASSERT_EQ(::unlink(logFile.c_str()), 0) << logFile;
  env.start();
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 1u);
  const auto raised = AgentLog::raised();
  ASSERT_EQ(raised.size(), 1u);
  EXPECT_EQ(raised[0].text,
            std::string("Hardware abstraction error: unable to load item: "
                        "entryLog::") +
                F::kItem);
  EXPECT_EQ(gen->majorId(), 1u);
  EXPECT_FALSE(env.log->tableEntryLog()->entryLogConfig().control().wiped());
  EXPECT_EQ(env.log->tableVersion(), 1u); // the unit's record holds 1

  // The unit's configuration table: same report with its own item, and
  // without a relaunch record it is no error.
  env.stop();
  env.stateDb->entityDel(Asic::GenId::path(env.stateDb->name()));
  const std::string cfgFile =
      env.dir() + "/" + F::B::Constants::configSlatePath(3);
  ASSERT_EQ(::unlink(cfgFile.c_str()), 0);
  env.start();
  const Asic::LogVersion before = env.log->tableVersion();
  env.log->mountSlateConfig(3, 0);
  // The hardware may hold what the unit's configuration held: it is asked
  // to rebuild the table type, at a version of its own.
  EXPECT_EQ(env.log->tableVersion(), before + 1);
  EXPECT_EQ(env.log->hwResyncVersion(), before + 1);
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 2u);
  EXPECT_EQ(AgentLog::raised().back().text,
            std::string("Hardware abstraction error: unable to load item: "
                        "entryCfg::") +
                F::kItem);
  EXPECT_EQ(env.log->entrys(3), 0u);

  // Cleared: the next start reports nothing.
  env.restart();
  env.log->mountSlateConfig(3, 0);
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 2u);
  EXPECT_EQ(gen->majorId(), 1u);
}

TYPED_TEST(EntryLog, NotLocalEmUsesInstanceZero) {
  using F = TypeParam;
  {
    LogEnv<F> env("local", 5);
    struct stat st;
    EXPECT_EQ(::stat(env.dir().c_str(), &st), 0) << env.dir();
  }
  ::setenv("NOT_LOCAL_EM", "1", 1);
  {
    LogEnv<F> env("shared", 5);
    const std::string zero =
        Shm::rootDirectory() + "/" + env.stateDb->name() + ".0";
    struct stat st;
    EXPECT_EQ(::stat(zero.c_str(), &st), 0) << zero;
    EXPECT_NE(::stat(env.dir().c_str(), &st), 0);
  }
  ::unsetenv("NOT_LOCAL_EM");
}

TYPED_TEST(EntryLog, AFullConfigurationTableRefusesNewKeysAndChangesNothing) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  for (std::uint32_t i = 0; i < 65536; ++i) {
    log.entryIs(F::logEntry(i, 1), F::rsrcKeys(1), nullptr, 1, env.stats, false);
    if (i % 4096 == 4095) {
      log.cleanupEntryLog(log.tableVersion());
    }
  }
  EXPECT_EQ(log.entrys(1), 65536u);
  const auto version = log.tableVersion();
  const auto records = log.entryLogRecords();
  EXPECT_THROW(log.entryIs(F::logEntry(70000, 1), F::rsrcKeys(1), nullptr, 1,
                           env.stats, false),
               Shm::CollectionFullError);
  EXPECT_EQ(log.tableVersion(), version);
  EXPECT_EQ(log.tableEntryLog()->entryLogConfig().control().scratchpad(), version);
  EXPECT_EQ(log.entryLogRecords(), records);
  EXPECT_EQ(log.entrys(1), 65536u);
  // Existing keys can still be rewritten, deleted and deleted as a table.
  EXPECT_EQ(log.entryIs(F::logEntry(5, 2), F::rsrcKeys(2), nullptr, 1, env.stats,
                        false),
            version + 1);
  EXPECT_EQ(log.entryDel(typename F::Key(6), nullptr, 1), version + 2);
  EXPECT_EQ(log.tableDel(nullptr, 1), version + 3);
}

// A change the file system has no space for is refused like one into a full
// table, whichever of the two collections runs out: nothing written, no
// version used. (In a child: without the store's reservations it dies of
// SIGBUS.)
TYPED_TEST(EntryLog, AChangeWithoutFileSpaceIsRefusedWithNothingWritten) {
  using F = TypeParam;
  using Key = typename F::Key;
  TestSupport::ScratchTmpfs fs(4u << 20);
  if (!fs.ok()) {
    GTEST_SKIP() << fs.why();
  }
  auto changes = [&] {
    ::setenv("MICA_SHM_ROOT", fs.path().c_str(), 1);
    LogEnv<F> env;
    auto &log = *env.log;
    log.mountSlateConfig(1, 0);
    fs.fill("filler");
    auto write = [&](std::uint32_t label, std::uint32_t result) {
      return log.entryIs(F::logEntry(label, result), F::rsrcKeys(1), nullptr, 1,
                         env.stats, false);
    };
    auto refused = [](auto &&change) {
      try {
        change();
      } catch (const Shm::NoSpaceError &) {
        return true;
      }
      return false;
    };
    auto unchanged = [&](Asic::LogVersion v, std::uint32_t entries,
                         const char *what) {
      const auto &control = log.tableEntryLog()->entryLogConfig().control();
      TestSupport::require(
          log.tableVersion() == v && control.scratchpad() == v &&
              control.auxiliary() == v && log.entryLogRecords() == v &&
              log.entrys(1) == entries,
          what);
    };
    // New keys go in until the space reserved ahead of the
    // configuration records runs out.
    std::uint32_t n = 0;
    while (!refused([&] { write(n, n + 1); })) {
      ++n;
    }
    unchanged(n, n, "a new key");
    TestSupport::require(n > 0 && !log.entryHas(Key(n), 1) &&
                             !log.canLog(Key(n), 1),
                         "the refused key");
    // Rewrites need a change-log record only, until that runs out
    // too; the refused one leaves its configuration record alone.
    Asic::LogVersion v = n;
    while (!refused([&] { write(0, v + 1); })) {
      ++v;
    }
    unchanged(v, n, "a rewrite");
    TestSupport::require(v > n && log.entryLogVersion(Key(0), 1) == v &&
                             log.entry(Key(0), 1) == F::logEntry(0, v),
                         "the rewritten key");
    TestSupport::require(refused([&] { log.entryDel(Key(1), nullptr, 1); }) &&
                             refused([&] { log.tableDel(nullptr, 1); }) &&
                             log.entryHas(Key(1), 1),
                         "deletions");
    unchanged(v, n, "a deletion");
    // With space again the next change takes the next version, and
    // a restart finds every change.
    fs.remove("filler");
    TestSupport::require(write(n, 1) == v + 1, "a write with space");
    env.restart();
    env.log->mountSlateConfig(1, 0);
    TestSupport::require(env.log->tableVersion() == v + 1 &&
                             env.log->entrys(1) == n + 1 &&
                             env.log->entryLogVersion(Key(0), 1) == v,
                         "after the restart");
  };
  EXPECT_EQ(TestSupport::runInChild(changes), 0);
}

TYPED_TEST(EntryLog, ACorruptRecordReadsAsAbsent) {
  using F = TypeParam;
  LogEnv<F> env;
  auto &log = *env.log;
  log.mountSlateConfig(1, 0);
  log.entryIs(F::logEntry(1, 1), F::rsrcKeys(1), nullptr, 1, env.stats, false);
  log.entryIs(F::logEntry(2, 2), F::rsrcKeys(2), nullptr, 1, env.stats, false);
  auto &coll = env.slate(1).swTableEntries();
  // Damage the record of key 1 in place, as a stray writer would.
  const auto *rec = coll.findRef(typename F::Key(1));
  ASSERT_NE(rec, nullptr);
  auto *bytes = const_cast<unsigned char *>(
      reinterpret_cast<const unsigned char *>(rec));
  bytes[sizeof(typename F::RsrcKeys) + sizeof(typename F::LogEntry) - 1] ^= 0x5a;

  EXPECT_FALSE(log.entryHas(typename F::Key(1), 1));
  EXPECT_EQ(coll.corruptionCount(), 1u);
  EXPECT_EQ(log.entryLogVersion(typename F::Key(1), 1), 0u);
  EXPECT_TRUE(log.entryHas(typename F::Key(2), 1));
  EXPECT_EQ(log.entrys(1), 1u);
  EXPECT_EQ(log.entryDel(typename F::Key(1), nullptr, 1), 0u);
  // The hardware may hold the entry nothing here remembers: the next
  // clean-up asks the writer to rebuild from the configuration.
  EXPECT_EQ(log.hwResyncVersion(), 0u);
  log.cleanupEntryLog(0);
  EXPECT_EQ(log.hwResyncVersion(), 3u);
  EXPECT_EQ(log.tableVersion(), 3u);

  // A damaged key byte: a walk meets the record under a key that is not the
  // one it is indexed under. It is dropped by its slot, once, and the walk
  // ends, when the unit is mounted again in the same process, and when a
  // new entry log is made over the open store (its change-log record).
  struct Reports : Shm::Reporter {
    Reports() { Shm::reporterIs(this); }
    ~Reports() override { Shm::reporterIs(nullptr); }
    void corruption(const std::string &) override {
      if (++count > 2) {
        throw std::runtime_error("one corruption reported again and again");
      }
    }
    int count = 0;
  } reports;
  auto damage = [](const void *record, std::size_t at) {
    const_cast<unsigned char *>(
        static_cast<const unsigned char *>(record))[at] ^= 0x5a;
  };
  damage(coll.findRef(typename F::Key(2)), sizeof(typename F::RsrcKeys));
  EXPECT_NO_THROW(log.mountSlateConfig(1, 1));
  EXPECT_EQ(log.entrys(1), 0u);
  auto &changes = log.tableEntryLog()->entryLogConfig();
  damage(changes.findRef(2), 0);
  EXPECT_NO_THROW(env.log = F::make(env.stateDb, env.group));
  EXPECT_EQ(reports.count, 2);
  EXPECT_EQ(changes.count(), 1u);
  EXPECT_EQ(coll.corruptionCount(), 2u);
  // A change the writer may now miss (a dropped change-log record): a
  // rebuild at a version of its own.
  EXPECT_EQ(env.log->hwResyncVersion(), 4u);
}

TYPED_TEST(EntryLog, TracesItsMilestonesWithTheirTexts) {
  using F = TypeParam;
  struct Sink : Trace::Sink {
    Sink() { Trace::sinkIs(this); }
    ~Sink() override { Trace::sinkIs(nullptr); }
    void write(const Trace::Record &r) override {
      lines.emplace_back(r.message);
      units.emplace_back(r.sourceUnit);
      functions.emplace_back(r.function);
    }
    std::vector<std::string> lines, units, functions;
  } sink;
  Trace::maskIs(F::B::kEntryLogClass, (1u << 2) | (1u << 3));
  LogEnv<F> env;
  env.log->mountSlateConfig(4, 0);
  const auto le = F::logEntry(1, 1);
  env.log->entryIs(le, F::rsrcKeys(1), nullptr, 4, env.stats, true);
  env.log->entryIs(le, F::rsrcKeys(1), nullptr, 4, env.stats, true);
  env.log->entryIs(le, F::rsrcKeys(2), nullptr, 4, env.stats, true);
  env.log->entryDel(typename F::Key(9), nullptr, 4);
  Trace::maskIs(F::B::kEntryLogClass, 0);
  const std::vector<std::string> want = {
      fmt::format(" Mounted entryLog: {}, tableVersion: 0",
                  F::B::Constants::tableEntryLogSlatePath()),
      fmt::format(" Mounted config for unitId: 4 at {}",
                  F::B::Constants::configSlatePath(4)),
      fmt::format("Suppressing identical write for key: {}", le.key),
      fmt::format("Not Suppressing write because entry or resource key is "
                  "different  for key: {}",
                  le.key),
      fmt::format(" key: {} entry does not exist. So ignoring delete",
                  typename F::Key(9)),
  };
  EXPECT_EQ(sink.lines, want);
  EXPECT_EQ(sink.functions,
            (std::vector<std::string>{"mountSlateChangeLog", "mountSlateConfig",
                                      "entryIs", "entryIs", "entryDel"}));
  for (const auto &u : sink.units) {
    EXPECT_EQ(u, F::B::kEntryLogSourceUnit);
  }
}

TEST(EntryLogDeathTest, WritingForAUnitWithoutConfigurationStops) {
  LogEnv<Isem2> env;
  EXPECT_DEATH(env.log->entryIs(Isem2::logEntry(1, 1), Isem2::rsrcKeys(1),
                                nullptr, 9, env.stats, false),
               "tableConfigSlateHas\\( unitId \\): Config slate for unitId:9 "
               "is not created yet!");
}

TEST(EntryLogMessages, AreRegisteredByBothUnitsWithTheirRecords) {
  for (const char *name : {"HW_ABSTRACTION_EXCEPTION",
                           "HW_ABSTRACTION_RELAUNCH_ERROR",
                           "HW_ABSTRACTION_ERROR"}) {
    const auto regs = AgentLog::registered(name);
    ASSERT_EQ(regs.size(), 2u) << name; // the ISEM2 and the LEM unit
    for (const auto &m : regs) {
      EXPECT_EQ(m.flag, 1u);
      EXPECT_EQ(m.severity, 3);
    }
  }
  const auto err = AgentLog::registered("HW_ABSTRACTION_ERROR")[0];
  EXPECT_EQ(err.format, "Hardware abstraction error: unable to load item: %s");
  EXPECT_EQ(err.explanation,
            "Hardware abstraction error: unable to load some persistent "
            "items. Some agents will be restarted");
  const auto relaunch = AgentLog::registered("HW_ABSTRACTION_RELAUNCH_ERROR")[0];
  EXPECT_EQ(relaunch.format, "%s");
  EXPECT_EQ(relaunch.explanation,
            "Duplicate Writer Detected, slate path not cleaned up");
  EXPECT_EQ(AgentLog::registered("HW_ABSTRACTION_EXCEPTION")[0].explanation,
            "Exception");
}

} // namespace
