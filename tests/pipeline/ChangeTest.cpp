// Write, remove and remove-all, and their commit: versions, transient
// collections, marking, readiness, failures and the entry log.
#include "PipelineFixture.h"
#include "support/ScratchTmpfs.h"

namespace {

using namespace PipelineTest;
using Asic::EntryVersion;
using Asic::MajorVersion;

template <typename F> class Change : public ::testing::Test {};
TYPED_TEST_SUITE(Change, Families);

TYPED_TEST(Change, EachChangeOfAKeySupersedesThePendingOneWithTheNextVersion) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  const Key k(10);
  auto w1 = t.entryWrite(k, F::entry(10, 1), nullptr);
  auto rm = t.entryRemove(k, nullptr);
  EXPECT_FALSE(t.transientAddEntry(k));
  EXPECT_EQ(t.transientRemoveEntry(k)->entryHandle(), rm);
  t.mark();
  auto w2 = t.entryWrite(k, F::entry(10, 2), nullptr);
  t.entryRemove(Key(11), nullptr);
  EXPECT_FALSE(t.transientRemoveEntry(k));
  EXPECT_EQ(t.transientAddEntry(k)->entryHandle(), w2);
  EXPECT_EQ(w1->version(), EntryVersion(0, 0));
  EXPECT_EQ(rm->version(), EntryVersion(1, 0));
  EXPECT_EQ(w2->version(), EntryVersion(2, 0));
  EXPECT_EQ(t.transientVersionForKey(k), EntryVersion(2, 0));
  // Writes while marking are marked, removes are not.
  EXPECT_EQ(t.markedKeys(), 1u);
  std::vector<Asic::EntryFlags> flags;
  for (std::size_t i = 0; i < env.resolver->resolverQueueSize(); ++i) {
    flags.push_back(env.resolver->resolverQueue(i)->flags());
  }
  EXPECT_EQ(flags, (std::vector<Asic::EntryFlags>{0, 1, 4, 1}));

  EXPECT_EQ(env.pass(), 4u);
  EXPECT_EQ(t.transientVersionForKeys() + t.transientAddEntrys(), 0u);
  EXPECT_EQ(t.entryWrite(k, F::entry(10, 3), nullptr)->version(),
            EntryVersion(0, 0));
}

TYPED_TEST(Change, ABatchOfWritesGivesEachChangeWhatWritingItAloneGives) {
  using F = TypeParam;
  using Key = typename F::Key;
  using Handle = Fwk::Ptr<const typename F::Table::EntryHandle>;
  // The same history on two tables: a committed key, a pending remove, then
  // writes one by one on the first and as one batch on the second. The
  // batch repeats a key (its second write goes behind its first), rewrites
  // the committed key, writes over the pending remove, and asks for a
  // resource that fails.
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> writes = {
      {1, 5}, {2, 6}, {1, 7}, {3, 9}, {4, 8}, {5, 5}, {2, 6}};
  std::vector<Key> keys;
  std::vector<typename F::Entry> entries;
  for (const auto &[label, r] : writes) {
    keys.emplace_back(label);
    entries.push_back(F::entry(label, r));
  }
  Env<F> one, batch;
  Responses rOne, rBatch;
  std::vector<Handle> hOne, hBatch;
  for (Env<F> *env : {&one, &batch}) {
    F::allocator(*env->res).failingKeyIs(F::resKey(9));
    env->commit({{4, 4}});
    env->table->entryRemove(Key(3), nullptr);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    hOne.push_back(one.table->entryWriteWithResponseHandler(
        keys[i], entries[i], nullptr, rOne.handler()));
  }
  batch.table->entriesWriteWithResponseHandler(keys, entries, nullptr,
                                               rBatch.handler(), &hBatch);
  ASSERT_EQ(hBatch.size(), hOne.size());
  const auto same = [&](const char *when) {
    SCOPED_TRACE(when);
    for (std::size_t i = 0; i < hOne.size(); ++i) {
      EXPECT_EQ(hBatch[i]->version(), hOne[i]->version()) << i;
      EXPECT_EQ(hBatch[i]->entryState(), hOne[i]->entryState()) << i;
    }
    EXPECT_EQ(batch.resolver->resolverQueueSize(),
              one.resolver->resolverQueueSize());
    EXPECT_EQ(batch.table->transientVersionForKeys(),
              one.table->transientVersionForKeys());
    EXPECT_EQ(batch.table->stats()->entryWriteCnt(),
              one.table->stats()->entryWriteCnt());
    for (std::uint32_t label = 1; label <= 5; ++label) {
      EXPECT_EQ(batch.table->transientVersionForKey(Key(label)),
                one.table->transientVersionForKey(Key(label)))
          << label;
      EXPECT_EQ(batch.committed(label), one.committed(label)) << label;
      EXPECT_EQ(batch.logged(label), one.logged(label)) << label;
    }
    // The handlers were called for the same changes in the same order.
    ASSERT_EQ(rBatch.calls.size(), rOne.calls.size());
    for (std::size_t i = 0; i < rOne.calls.size(); ++i) {
      const auto at = [](const std::vector<Handle> &hs, const auto &h) {
        return std::find_if(
                   hs.begin(), hs.end(),
                   [&](const Handle &x) { return x.ptr() == h.ptr(); }) -
               hs.begin();
      };
      EXPECT_EQ(at(hBatch, rBatch.calls[i]), at(hOne, rOne.calls[i])) << i;
    }
  };
  same("queued");
  EXPECT_EQ(batch.pass(), one.pass());
  same("after a pass");
  EXPECT_EQ(batch.pass(), one.pass());
  same("after a second pass");
  EXPECT_EQ(hBatch[3]->entryState(), EntryState::failed);
  EXPECT_EQ(hBatch[2]->version(), EntryVersion(1, 0));
  EXPECT_TRUE(static_cast<bool>(batch.committed(1)));
  EXPECT_FALSE(static_cast<bool>(batch.committed(3)));
}

TYPED_TEST(Change, RemoveAllCountsPendingClearsAndDropsPendingChangesFromView) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 1}, {2, 2}});
  t.entryWrite(Key(3), F::entry(3, 3), nullptr);
  t.entryRemove(Key(1), nullptr);
  EXPECT_FALSE(t.transientRemoveAllVersion().valid());
  t.entryRemoveAll(nullptr);
  EXPECT_EQ(t.transientRemoveAllVersion(), MajorVersion(0));
  auto blocked = dependency(EntryState::made);
  t.entryRemoveAll(blocked);
  EXPECT_EQ(t.transientRemoveAllVersion(), MajorVersion(1));
  EXPECT_EQ(t.transientAddEntrys() + t.transientRemoveEntrys(), 0u);
  EXPECT_EQ(t.transientVersionForKey(Key(3)), EntryVersion(0, 0));
  EXPECT_EQ(t.transientVersionForKey(Key(1)), EntryVersion(0, 0));

  // The dropped write and remove still commit, then the first remove-all.
  EXPECT_EQ(env.pass(), 3u);
  EXPECT_EQ(t.transientRemoveAllVersion(), MajorVersion(0));
  EXPECT_EQ(env.log->entrys(Env<F>::kUnit), 0u);
  blocked->entryStateIs(EntryState::finished);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_FALSE(t.transientRemoveAllVersion().valid());
  EXPECT_EQ(t.stats()->tableClearCnt(), 2u);
  EXPECT_EQ(env.group->logEntriesWithDependencies(), 1u);
  // The dropped changes' wrappers were no longer pending when they
  // committed, so their keys keep their versions: the next change of a key
  // continues from there, and its own commit clears the key.
  EXPECT_EQ(t.transientVersionForKeys(), 2u);
  EXPECT_EQ(t.entryWrite(Key(3), F::entry(3, 3), nullptr)->version(),
            EntryVersion(1, 0));
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(t.transientVersionForKeys(), 1u);
  EXPECT_FALSE(t.transientVersionForKey(Key(3)).valid());
}

TYPED_TEST(Change,
           AnUnprocessedDependencyHoldsItsChangeAndAFailedOneFailsTheCommit) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Traces tr({F::B::kSwTableClass});
  Responses r;
  F::allocator(*env.res).failingKeyIs(F::resKey(9));
  auto dep = dependency(EntryState::made);
  // Blocked whatever their resource: none, failed; and a remove.
  auto h1 =
      t.entryWriteWithResponseHandler(Key(1), F::entry(1, 0), dep, r.handler());
  auto h2 =
      t.entryWriteWithResponseHandler(Key(2), F::entry(2, 9), dep, r.handler());
  auto h3 = t.entryRemoveWithResponseHandler(Key(3), dep, r.handler());
  // Another key is not held back by them.
  auto h4 = t.entryWrite(Key(4), F::entry(4, 4), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(h4->entryState(), EntryState::logged);
  EXPECT_TRUE(tr.has(
      3, fmt::format("key: {} dependant entry not yet resolved", Key(1))));

  // The changes wait on the dependency's handle, whose change of state
  // hands them back.
  EXPECT_EQ(dep->parked(), 3u);
  EXPECT_EQ(env.resolver->offerable(), 0u);
  dep->entryStateIs(EntryState::rejected);
  EXPECT_EQ(dep->parked(), 0u);
  EXPECT_EQ(env.pass(), 3u);
  for (const auto &h : {h1, h2, h3}) {
    EXPECT_EQ(h->entryState(), EntryState::failed);
    EXPECT_EQ(r.count(h), 1u);
  }
  EXPECT_EQ(h4->entryState(), EntryState::logged);
  EXPECT_TRUE(
      tr.has(1, fmt::format("Failed dependent entry for key: {}", Key(2))));
  EXPECT_TRUE(tr.has(1, fmt::format("Failed to commit entry key: {}", Key(3))));

  for (const auto s : {EntryState::failed, EntryState::resolveFailed}) {
    t.entryRemoveAll(dependency(s));
    const MajorVersion before = t.transientRemoveAllVersion();
    EXPECT_EQ(env.pass(), 1u);
    EXPECT_EQ(t.transientRemoveAllVersion(), before);
  }
  EXPECT_TRUE(tr.has(1, "Failed dependent entry for remove all"));
  EXPECT_TRUE(tr.has(1, "Failed to commit entry remove all operation"));
  EXPECT_EQ(env.log->tableVersion(), 1u);
  EXPECT_EQ(t.stats()->commitCnt(), 6u);
}

// Keeps writes whose resource failed.
template <typename F> struct KeepingHelper : F::Helper {
  bool finalizeOnFailure(const Fwk::Ptr<typename F::Wrapper> &, bool,
                         const Fwk::Ptr<typename F::Table> &) override {
    return true;
  }
};

TYPED_TEST(Change, AWriteWhoseResourceFailedIsDroppedUnlessTheHelperKeepsIt) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Traces tr({F::B::kSwTableClass});
  Responses r;
  F::allocator(*env.res).failingKeyIs(F::resKey(9));
  auto h = t.entryWriteWithResponseHandler(Key(1), F::entry(1, 9), nullptr,
                                           r.handler());
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(t.stats()->resolveFailCnt(), 1u);
  EXPECT_EQ(t.stats()->commitCnt(), 1u);
  EXPECT_EQ(env.log->tableVersion(), 0u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 0u);
  EXPECT_FALSE(t.entryHas(Key(1))); // the failed write cleared its key
  EXPECT_TRUE(tr.has(
      3, fmt::format("SwTable key: {}, resourceKey: {} has failed resolution!",
                     Key(1), F::resKey(9))));
  // The failed write let go of its resource; once the allocation can
  // succeed, the next write of it gets it.
  EXPECT_EQ(env.res->entries(), 0u);
  F::allocator(*env.res).failingKeyDel(F::resKey(9));
  EXPECT_EQ(t.entryWrite(Key(1), F::entry(1, 9), nullptr)->entryState(),
            EntryState::made);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_TRUE(env.logged(1));

  F::allocator(*env.res).failingKeyIs(F::resKey(8));
  t.swTableHelperIs(Fwk::make<KeepingHelper<F>>());
  auto kept = t.entryWrite(Key(2), F::entry(2, 8), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(kept->entryState(), EntryState::logged);
  EXPECT_TRUE(env.logged(2));
  EXPECT_EQ(t.stats()->resolveFailCnt(), 2u);
}

TYPED_TEST(Change, ChangesTheHardwareNeedNotWaitForFinishInsideTheCommit) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Responses r;
  // A remove of a key the log does not hold.
  auto rm = t.entryRemoveWithResponseHandler(Key(7), nullptr, r.handler());
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(rm->entryState(), EntryState::finished);
  EXPECT_EQ(rm->logVersion(), 0u);
  EXPECT_EQ(r.count(rm), 1u);

  // Replayed identically, an entry is logged again, unless the table is
  // marking: then its confirmed version is reused.
  env.commit({{1, 1}});
  auto again = t.entryWrite(Key(1), F::entry(1, 1), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(again->logVersion(), 2u);
  t.tableStatusVersion(2);
  t.mark();
  auto marked = t.entryWriteWithResponseHandler(Key(1), F::entry(1, 1), nullptr,
                                                r.handler());
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(marked->entryState(), EntryState::finished);
  EXPECT_EQ(marked->logVersion(), 2u);
  EXPECT_EQ(r.count(marked), 1u);
  EXPECT_EQ(env.log->tableVersion(), 2u);
  EXPECT_EQ(t.stats()->suppressedWriteCnt(), 1u);
  EXPECT_EQ(t.entryHandleInLogSize(), 0u);
}

TYPED_TEST(Change, ChangesOfAKeyCommitInOrderAndOnlyTheNewestClearsIt) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  const Key k(5);
  auto dep = dependency(EntryState::made);
  t.entryWrite(k, F::entry(5, 1), nullptr);
  t.entryWrite(k, F::entry(5, 2), dep);
  t.entryWrite(Key(6), F::entry(6, 1), nullptr);
  EXPECT_EQ(env.pass(), 2u); // the first of key 5, and key 6
  EXPECT_TRUE(env.logged(6));
  EXPECT_TRUE(t.transientAddEntry(k));
  EXPECT_EQ(t.transientVersionForKey(k), EntryVersion(1, 0));
  EXPECT_EQ(F::B::resourceKey(env.committed(5)), F::resKey(1));
  dep->entryStateIs(EntryState::finished);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_FALSE(t.transientAddEntry(k));
  EXPECT_FALSE(t.transientVersionForKey(k).valid());
  EXPECT_EQ(F::B::resourceKey(env.committed(5)), F::resKey(2));
  EXPECT_EQ(env.group->logEntriesWithDependencies(), 1u);

  // A change whose dependency failed holds back the next change of its key
  // until it fails; a failed newest change leaves the key pending, and the
  // next change of the key still commits.
  auto failing = dependency(EntryState::made);
  auto a = t.entryWrite(k, F::entry(5, 3), failing);
  t.entryWrite(k, F::entry(5, 4), nullptr);
  EXPECT_EQ(env.pass(), 0u);
  failing->entryStateIs(EntryState::failed);
  EXPECT_EQ(env.pass(), 2u);
  EXPECT_EQ(a->entryState(), EntryState::failed);
  EXPECT_EQ(F::B::resourceKey(env.committed(5)), F::resKey(4));
  failing = dependency(EntryState::failed);
  t.entryWrite(k, F::entry(5, 5), failing);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_TRUE(t.transientAddEntry(k));
  t.entryWrite(k, F::entry(5, 6), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_FALSE(t.transientAddEntry(k));
  EXPECT_EQ(F::B::resourceKey(env.committed(5)), F::resKey(6));

  // Across a remove-all: the change before it commits first, the one after
  // it last.
  auto later = dependency(EntryState::made);
  t.entryWrite(k, F::entry(5, 7), later);
  t.entryRemoveAll(nullptr);
  auto last = t.entryWrite(k, F::entry(5, 8), nullptr);
  EXPECT_EQ(env.pass(), 0u);
  later->entryStateIs(EntryState::finished);
  EXPECT_EQ(env.pass(), 3u);
  EXPECT_EQ(last->entryState(), EntryState::logged);
  EXPECT_EQ(F::B::resourceKey(env.committed(5)), F::resKey(8));
  EXPECT_EQ(env.resolver->resolverQueueSize(), 0u);
}

TYPED_TEST(Change,
           AWriteOfANewKeyIntoAFullConfigurationTableFailsAndChangesNothing) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Responses r;
  auto &slate = *env.log->tableConfigSlate(Env<F>::kUnit);
  for (std::uint32_t i = 0; i < 65536; ++i) {
    Asic::ConfigSlateEntry<typename F::B> rec{};
    rec.logEntry.key = Key(i);
    slate.swTableEntriesIs(rec);
  }
  // The helper never hears of a success that the entry log then refuses.
  struct CountingHelper : F::Helper {
    void finalizeOnSuccess(const Fwk::Ptr<typename F::Wrapper> &, bool,
                           const Fwk::Ptr<typename F::Table> &) override {
      ++successes;
    }
    int successes = 0;
  };
  auto helper = Fwk::make<CountingHelper>();
  t.swTableHelperIs(helper);
  auto h = t.entryWriteWithResponseHandler(Key(70000), F::entry(70000, 3),
                                           nullptr, r.handler());
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(helper->successes, 0);
  EXPECT_EQ(t.stats()->logRefusedCnt(), 1u);
  EXPECT_EQ(t.transientAddEntrys() + t.transientVersionForKeys(), 0u);
  EXPECT_EQ(env.log->tableVersion(), 0u);
  EXPECT_EQ(env.log->entryLogRecords(), 0u);
  EXPECT_EQ(env.log->entrys(Env<F>::kUnit), 65536u);
  EXPECT_FALSE(t.entryHas(Key(70000)));
  EXPECT_EQ(env.linkage->entryUsageSms(), 0u);
  // A key the table holds can still be rewritten.
  auto ok = t.entryWrite(Key(5), F::entry(5, 3), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(ok->entryState(), EntryState::logged);
  EXPECT_EQ(helper->successes, 1);
}

// The same when the file system under the store has no space for the write
// (in a child: without the store's reservations it dies of SIGBUS).
TYPED_TEST(Change, AWriteTheFileSystemHasNoSpaceForFailsAndChangesNothing) {
  using F = TypeParam;
  using Key = typename F::Key;
  TestSupport::ScratchTmpfs fs(4u << 20);
  if (!fs.ok()) {
    GTEST_SKIP() << fs.why();
  }
  auto writes = [&] {
    ::setenv("MICA_SHM_ROOT", fs.path().c_str(), 1);
    Env<F> env;
    auto &t = *env.table;
    fs.fill("filler");
    auto write = [&](std::uint32_t label) {
      auto h = t.entryWrite(Key(label), F::entry(label, 0), nullptr);
      env.pass();
      return h->entryState();
    };
    std::uint32_t n = 0;
    EntryState last;
    while ((last = write(n)) == EntryState::logged) {
      ++n;
    }
    TestSupport::require(
        n > 0 && last == EntryState::failed &&
            t.stats()->logRefusedCnt() == 1 && !t.entryHas(Key(n)) &&
            env.log->tableVersion() == n &&
            env.log->entrys(Env<F>::kUnit) == n &&
            t.transientAddEntrys() + t.transientVersionForKeys() == 0,
        "the refused write");
    // A deletion and a remove-all need a change-log record too: refused,
    // they fail and change nothing; taken, they do their whole job. Either
    // way nothing is thrown out of the pass.
    auto del = t.entryRemove(Key(0), nullptr);
    env.pass();
    TestSupport::require(del->entryState() == EntryState::failed
                             ? t.entryHas(Key(0))
                             : !t.entryHas(Key(0)),
                         "the deletion");
    const auto refused = t.stats()->logRefusedCnt();
    t.entryRemoveAll(nullptr);
    env.pass();
    TestSupport::require(t.stats()->logRefusedCnt() > refused
                             ? t.entryHas(Key(1))
                             : !t.entryHas(Key(1)),
                         "the remove-all");
    fs.remove("filler");
    TestSupport::require(write(n + 1) == EntryState::logged &&
                             t.entryHas(Key(n + 1)),
                         "a write with space");
  };
  EXPECT_EQ(TestSupport::runInChild(writes), 0);
}

} // namespace
