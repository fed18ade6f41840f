// Mark and sweep, clearing a table, and the update of a committed entry.
#include "PipelineFixture.h"

namespace {

using namespace PipelineTest;

template <typename F> class Restore : public ::testing::Test {};
TYPED_TEST_SUITE(Restore, Families);

TYPED_TEST(Restore, ASweepRemovesOnlyWhatWasNotWrittenWhileMarking) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Traces tr({F::B::kSwTableClass});
  env.commit({{1, 1}, {2, 2}, {3, 3}});
  EXPECT_EQ(t.sweep(), 0u); // not marking: nothing to reconcile
  EXPECT_TRUE(tr.has(6, "Swept 0 entries"));
  EXPECT_EQ(t.transientRemoveEntrys(), 0u);

  TableTest::ChangeLog changes;
  t.observerIs(&changes);
  t.mark();
  t.mark();
  EXPECT_EQ(changes.count("inMarkingState"), 1u);
  t.entryWrite(Key(1), F::entry(1, 1), nullptr);
  t.entryWrite(Key(2), F::entry(2, 5), nullptr);
  EXPECT_EQ(t.sweep(), 1u);
  t.observerDel(&changes);
  EXPECT_TRUE(tr.has(6, "Swept 1 entries"));
  EXPECT_FALSE(t.inMarkingState());
  EXPECT_EQ(t.markedKeys(), 0u);
  EXPECT_EQ(t.transientRemoveEntrys(), 1u);
  EXPECT_EQ(env.pass(), 3u);
  EXPECT_FALSE(env.logged(3));
  EXPECT_TRUE(env.logged(1));
  EXPECT_EQ(F::B::resourceKey(env.committed(2)), F::resKey(5));
}

TYPED_TEST(Restore, ClearingLogsATableDeleteAndReleasesUsageOnlyWhenAsked) {
  using F = TypeParam;
  Env<F> env;
  auto &t = *env.table;
  auto &log = *env.log;
  env.commit({{1, 1}, {2, 2}});
  t.clearTable(false);
  EXPECT_EQ(log.tableVersion(), 3u);
  EXPECT_EQ(log.entrys(Env<F>::kUnit), 0u);
  EXPECT_EQ(log.entrysInDeletion(Env<F>::kUnit), 2u);
  EXPECT_EQ(t.stats()->tableClearCnt(), 1u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 2u);
  EXPECT_EQ(env.client->releases(), 0u);

  env.commit({{1, 1}, {2, 2}});
  t.clearTable(true);
  EXPECT_EQ(log.tableVersion(), 6u);
  EXPECT_EQ(t.stats()->tableClearCnt(), 2u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 0u);
  EXPECT_EQ(env.client->releases(), 2u);
  EXPECT_EQ(env.res->entries(), 2u); // until the hardware has the clear
  t.tableStatusVersion(6);
  EXPECT_EQ(env.res->entries(), 0u);

  // A unit that never committed anything: nothing logged, nothing counted.
  auto other = F::tableFactory(env.name, Asic::SwTableId(F::kTypeId), 2,
                               env.set.ptr(), env.log, env.resolver);
  other->clearTable(true);
  other->restoreEntries();
  EXPECT_EQ(log.tableVersion(), 6u);
  EXPECT_EQ(other->stats()->tableClearCnt(), 0u);
}

TYPED_TEST(Restore, AnUpdateLogsOnlyWhatTheResourceChanged) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Traces tr({F::B::kSwTableClass});
  env.commit({{1, 1}});
  EXPECT_FALSE(t.updateEntry(Key(9)));
  EXPECT_TRUE(tr.has(3, fmt::format(" key: {} entry does not exist ", Key(9))));

  auto same = t.updateEntry(Key(1));
  ASSERT_TRUE(same);
  EXPECT_EQ(same->entryState(), EntryState::logged);
  EXPECT_EQ(same->logVersion(), 1u);
  EXPECT_EQ(env.log->tableVersion(), 1u);
  EXPECT_EQ(t.stats()->updateCnt(), 0u);
  EXPECT_TRUE(tr.has(
      3, fmt::format(" key: {}, commitToLog: true, no change in logEntry or "
                     "don't commit to log",
                     Key(1))));

  // New data of the resource reaches the entry log by itself, and only there.
  env.res->updateIs(F::resKey(1), F::data(0x777));
  EXPECT_EQ(env.log->tableVersion(), 2u);
  EXPECT_EQ(F::result(env.committed(1)), 0x777u);
  EXPECT_EQ(t.stats()->updateCnt(), 1u);
  EXPECT_EQ(t.transientVersionForKeys(), 0u);
  EXPECT_EQ(t.entryHandleInLogSize(), 1u); // the write's own handle only
}

} // namespace
