// The resource linkage: usage counted by the committed entries that use a
// resource, resolution states, and changes of a resource in use.
#include "pipeline/PipelineFixture.h"

namespace {

using namespace PipelineTest;

template <typename F> class Linkage : public ::testing::Test {};
TYPED_TEST_SUITE(Linkage, Families);
template <typename F> class LinkageDeathTest : public ::testing::Test {};
TYPED_TEST_SUITE(LinkageDeathTest, Families);

TYPED_TEST(Linkage, EntriesOfOneResourceShareOneMachineUntilTheLastGoes) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  auto a = t.entryWrite(Key(1), F::entry(1, 5), nullptr);
  t.entryWrite(Key(2), F::entry(2, 5), nullptr);
  EXPECT_EQ(env.client->requests(), 2u); // one each, at write time
  EXPECT_EQ(env.pass(), 2u);
  ASSERT_TRUE(env.sm(5));
  EXPECT_EQ(env.sm(5)->entryUsages(), 2u);
  EXPECT_EQ(env.client->acks(), 1u); // by the first commit
  EXPECT_EQ(env.client->lastAck().dependency, a);
  EXPECT_EQ(env.client->lastAck().handle, env.sm(5)->resPtr());
  EXPECT_EQ(env.client->lastAck().version, env.sm(5)->resPtr()->version());

  // Rewritten with the same resource: nothing changes, nothing is sent.
  t.entryWrite(Key(1), F::entry(1, 5, 3), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(env.client->acks(), 1u);
  EXPECT_EQ(env.sm(5)->entryUsages(), 2u);
  t.entryRemove(Key(1), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(env.client->releases(), 0u);
  EXPECT_EQ(env.sm(5)->entryUsages(), 1u);
  EXPECT_TRUE(env.sm(5)->entryUsage(Key(2)));
  EXPECT_FALSE(env.sm(5)->entryUsage(Key(1)));
  auto last = t.entryRemove(Key(2), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(env.client->releases(), 1u);
  EXPECT_FALSE(env.sm(5));
  // Held until the hardware has the removal.
  EXPECT_EQ(env.res->entries(), 1u);
  t.tableStatusVersion(last->logVersion());
  EXPECT_EQ(env.res->entries(), 0u);
}

TYPED_TEST(Linkage, AResourceLetGoIsFreedOnlyOnceTheHardwareHasTheChange) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 5}});
  const auto old = env.sm(5)->resPtr();
  const auto oldIndex = F::result(old->data());
  auto h = t.entryWrite(Key(1), F::entry(1, 6), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  // The old resource is let go before the new one is mapped and
  // acknowledged...
  EXPECT_EQ(env.client->releases(), 1u);
  EXPECT_FALSE(env.sm(5));
  EXPECT_EQ(env.client->acks(), 2u);
  EXPECT_EQ(env.client->lastAck().handle, env.sm(6)->resPtr());
  EXPECT_EQ(env.client->lastAck().dependency, h);
  // ...but the hardware may still forward through it until it has taken
  // the rewrite: it is not freed, and a new resource does not get it.
  EXPECT_FALSE(old->isPostReleaseProtoState());
  env.commit({{2, 7}});
  EXPECT_NE(F::result(env.committed(2)), oldIndex);
  t.tableStatusVersion(h->logVersion());
  EXPECT_TRUE(old->isPostReleaseProtoState());
  env.commit({{3, 8}});
  EXPECT_EQ(F::result(env.committed(3)), oldIndex);

  // Used again before the hardware confirmed: kept.
  t.entryRemove(Key(3), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  env.commit({{4, 8}});
  t.tableStatusVersion(env.log->tableVersion());
  EXPECT_TRUE(env.sm(8));
  EXPECT_FALSE(env.sm(8)->resPtr()->isPostReleaseProtoState());

  // With another user left, the old resource stays.
  env.commit({{5, 6}});
  t.entryWrite(Key(5), F::entry(5, 9), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(env.client->releases(), 2u);
  EXPECT_EQ(env.sm(6)->entryUsages(), 1u);
  EXPECT_EQ(env.sm(9)->entryUsages(), 1u);
}

TYPED_TEST(Linkage, EntriesWithoutAResourceAreResolvedAndHoldNothing) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  Traces tr({F::kLinkageClass});
  auto w = Fwk::make<typename F::Wrapper>(F::entry(1, 0), nullptr);
  env.linkage->resolveEntry(w);
  EXPECT_FALSE(w->resourcePtr());
  EXPECT_EQ(env.linkage->entryResolutionState(w), EntryState::finished);
  EXPECT_TRUE(env.linkage->getNeededEntrySet(w)->empty());

  auto h = t.entryWrite(Key(1), F::entry(1, 0), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::logged);
  // Traced under the linkage's name, without a class, from the generic
  // source unit and from each call's own line.
  const auto *null = tr.find(3, fmt::format("Null resKey: {}", F::resKey(0)));
  const auto *entry =
      tr.find(8, fmt::format("resKey: {}, swKey: {}", F::resKey(0), Key(1)));
  ASSERT_TRUE(null && entry);
  EXPECT_EQ(null->handle, F::kLinkageClass);
  EXPECT_EQ(null->sourceUnit, "OrderedTable/OrderedTableResourceAccessor");
  EXPECT_EQ(null->function, "addResKeyMapping");
  EXPECT_EQ(null->className, "");
  EXPECT_LT(entry->line, null->line);

  t.entryRemove(Key(1), nullptr); // held no resource
  t.entryRemove(Key(2), nullptr); // never committed
  EXPECT_EQ(env.pass(), 2u);
  EXPECT_EQ(
      env.client->requests() + env.client->releases() + env.client->acks(), 0u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 0u);
}

TYPED_TEST(Linkage, TheResolutionStateFollowsTheResourceHandle) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto handle = Fwk::make<typename F::ResTable::ResourceHandle>(F::resKey(3));
  const Asic::TableVersion needed{Asic::SwTableId(0x0A080403), 12};
  handle->neededVersionsIs({needed});
  auto w = Fwk::make<typename F::Wrapper>(F::entry(1, 3), nullptr);
  w->resourcePtrIs(handle);
  const std::pair<int, EntryState> mapping[] = {
      {0, EntryState::made},          {1, EntryState::logged},
      {3, EntryState::resolveFailed}, {4, EntryState::finished},
      {5, EntryState::resolveFailed}, {6, EntryState::resolveFailed}};
  for (const auto &[in, out] : mapping) {
    handle->entryStateIs(static_cast<std::uint8_t>(in));
    EXPECT_EQ(env.linkage->entryResolutionState(w), out) << in;
  }
  EXPECT_EQ(env.linkage->getNeededEntrySet(w)->versions(), std::vector{needed});

  // Through the table: a pending resource holds its change back.
  Traces tr({F::B::kSwTableClass});
  std::vector<std::function<void()>> tasks;
  env.res->schedulerIs(
      [&](std::function<void()> task) { tasks.push_back(std::move(task)); });
  auto h = env.table->entryWrite(Key(1), F::entry(1, 3), nullptr);
  EXPECT_EQ(env.pass(), 0u);
  EXPECT_TRUE(tr.has(
      3, fmt::format("SwTable key: {}, resourceKey: {} is still unresolved!",
                     Key(1), F::resKey(3))));
  ASSERT_EQ(tasks.size(), 1u);
  tasks.front()();
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::logged);
  EXPECT_EQ(F::result(env.committed(1)),
            F::result(env.sm(3)->resPtr()->data()));
}

TYPED_TEST(LinkageDeathTest, AResourceStateWithoutMeaningStopsTheProcess) {
  using F = TypeParam;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto res = Fwk::make<typename F::ResTable>(
      Asic::CanonicalTableName::canonicalTableNameIs(
          Asic::CanonicalTableName::resourceTable, F::kResourceNs, F::kClient));
  auto linkage = F::linkage(nullptr, res->clientInstanceIs(F::kClient));
  auto handle = Fwk::make<typename F::ResTable::ResourceHandle>(F::resKey(3));
  auto w = Fwk::make<typename F::Wrapper>(F::entry(1, 3), nullptr);
  w->resourcePtrIs(handle);
  for (const std::uint8_t s : {2, 7, 255}) {
    handle->entryStateIs(s);
    EXPECT_DEATH(
        linkage->entryResolutionState(w),
        "assertion failed: false && \"Unhandled resHandle entryState\" \\(")
        << int(s);
  }
}

TYPED_TEST(Linkage, AResourceKeyHasOneMachineOverOneHandle) {
  using F = TypeParam;
  Env<F> env;
  auto &l = *env.linkage;
  EXPECT_THROW(l.entryUsageSmIs(nullptr), Fwk::NullPointerException);
  auto handle = env.client->request(F::resKey(4),
                                    F::B::requestData(F::entry(1, 4)), nullptr);
  auto sm = l.entryUsageSmIs(handle);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(l.entryUsageSmIs(handle), sm);
  auto other = Fwk::make<typename F::ResTable::ResourceHandle>(F::resKey(4));
  EXPECT_THROW(l.entryUsageSmIs(other), Fwk::ReinstantiationException);
  EXPECT_EQ(l.entryUsageSm(F::resKey(4)), sm);
  EXPECT_EQ(l.entryUsageSms(), 1u);
}

TYPED_TEST(Linkage, UsageGoesByTheResourcesSlotUntilItsKeyLeavesTheTable) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 5}, {2, 5}, {3, 6}});
  auto h5 = env.sm(5)->resPtr();
  const auto slot5 = h5->index();
  EXPECT_NE(slot5, env.sm(6)->resPtr()->index());
  EXPECT_LT(slot5, env.res->slots());
  // Asked again through the handle it holds, a key is the same resource
  // (and counted as a request).
  const auto requests = env.client->requests();
  EXPECT_EQ(env.client->requestAgain(*h5, F::resKey(5),
                                     F::B::requestData(F::entry(1, 5))),
            h5);
  EXPECT_EQ(env.client->requests(), requests + 1);

  // A key moves from one resource's users to another's; the last user of
  // a resource releases it, and once the hardware has the change its slot
  // goes to the next new key.
  t.entryWrite(Key(3), F::entry(3, 5), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_FALSE(env.sm(6));
  EXPECT_EQ(env.sm(5)->entryUsages(), 3u);
  t.tableStatusVersion(env.log->tableVersion());
  std::vector<Key> users;
  env.sm(5)->forEachEntryUsage([&](const Key &k) { users.push_back(k); });
  EXPECT_EQ(users, (std::vector<Key>{Key(1), Key(2), Key(3)}));
  env.commit({{4, 7}});
  EXPECT_LT(env.sm(7)->resPtr()->index(), env.res->slots());

  // A resource released by hand while its users stay: the request of its
  // key finds a new handle, and the old machine keeps its users aside of
  // the new key that takes its slot.
  env.client->release(h5, nullptr);
  EXPECT_TRUE(h5->isPostReleaseProtoState());
  EXPECT_NE(env.client->requestAgain(*h5, F::resKey(5),
                                     F::B::requestData(F::entry(1, 5))),
            h5);
  env.client->release(env.res->entry(F::resKey(5)), nullptr);
  env.commit({{9, 8}});
  EXPECT_EQ(env.sm(8)->resPtr()->index(), slot5);
  EXPECT_EQ(env.linkage->entryUsageSmAside().size(), 1u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 3u);
  ASSERT_TRUE(env.sm(5));
  EXPECT_EQ(env.sm(5)->resPtr(), h5);
  EXPECT_EQ(env.sm(5)->entryUsages(), 3u);
  EXPECT_TRUE(env.sm(8)->entryUsage(Key(9)));
  EXPECT_FALSE(env.sm(8)->entryUsage(Key(1)));
  // Its last user leaving drops it.
  for (const std::uint32_t label : {1u, 2u, 3u}) {
    t.entryRemove(Key(label), nullptr);
  }
  EXPECT_EQ(env.pass(), 3u);
  EXPECT_FALSE(env.sm(5));
  EXPECT_TRUE(env.linkage->entryUsageSmAside().empty());
  EXPECT_EQ(env.linkage->entryUsageSms(), 2u);
}

TYPED_TEST(Linkage, AChangedResourceUpdatesItsUsersAndIsAcknowledgedOnce) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  Traces tr({F::kLinkageClass});
  env.commit({{1, 5}, {2, 5}, {3, 5}});
  auto sm = env.sm(5);
  std::vector<Key> users;
  sm->forEachEntryUsage([&](const Key &k) { users.push_back(k); });
  ASSERT_EQ(users.size(), 3u);
  const auto ackedFor = [&] {
    auto h = Fwk::ptrCast<const typename F::Table::EntryHandle>(
        env.client->lastAck().dependency);
    return h ? h->key() : Key();
  };
  // The second user's entry is gone: its update returns no handle.
  env.log->entryDel(users[1], nullptr, Env<F>::kUnit);
  env.res->updateIs(F::resKey(5), F::data(0x500));
  EXPECT_EQ(env.client->acks(), 2u);
  EXPECT_EQ(ackedFor(), users[2]);
  EXPECT_EQ(env.client->lastAck().version, sm->resPtr()->version());
  EXPECT_EQ(F::result(env.committed(users[0].label)), 0x500u);
  EXPECT_EQ(env.table->stats()->updateCnt(), 2u);
  EXPECT_TRUE(
      tr.has(3, fmt::format("Updating sw table entry for key: {}", users[1])));
  env.log->entryDel(users[2], nullptr, Env<F>::kUnit);
  env.res->updateIs(F::resKey(5), F::data(0x501));
  EXPECT_EQ(env.client->acks(), 3u);
  EXPECT_EQ(ackedFor(), users[0]);

  // Any other change of the handle does nothing.
  env.res->failIs(F::resKey(5));
  EXPECT_EQ(env.client->acks(), 3u);
  EXPECT_EQ(env.table->stats()->updateCnt(), 3u);
  // Without users a change is still acknowledged, with no dependency.
  sm->entryUsageDelAll();
  env.res->updateIs(F::resKey(5), F::data(0x502));
  EXPECT_EQ(env.client->acks(), 4u);
  EXPECT_FALSE(env.client->lastAck().dependency);
  // A resource on its way out is left alone.
  sm->entryUsageIs(users[0]);
  env.client->release(sm->resPtr(), nullptr);
  sm->handleResourceChange();
  EXPECT_EQ(env.client->acks(), 4u);
  EXPECT_EQ(env.table->stats()->updateCnt(), 3u);
  EXPECT_TRUE(tr.has(
      3, fmt::format("Ignoring change for resourceKey: {} ", F::resKey(5))));
}

TYPED_TEST(Linkage, ARestartRebuildsUsageAndAcknowledgesEachResourceOnce) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  env.commit({{1, 5}, {2, 5}, {3, 6}, {4, 0}});
  const auto version = env.log->tableVersion();
  const auto acks = env.client->acks();
  env.restart();
  EXPECT_EQ(env.client->acks(), acks + 2);
  EXPECT_EQ(env.log->tableVersion(), version); // nothing changed meanwhile
  EXPECT_EQ(env.table->entrys(), 4u);
  EXPECT_EQ(env.linkage->entryUsageSms(), 2u);
  EXPECT_TRUE(env.sm(5)->entryUsage(Key(1)) && env.sm(5)->entryUsage(Key(2)));
  EXPECT_TRUE(env.sm(6)->entryUsage(Key(3)));
  // Restored usage releases a resource with its last user.
  env.table->entryRemove(Key(3), nullptr);
  EXPECT_EQ(env.pass(), 1u);
  EXPECT_EQ(env.client->releases(), 1u);

  // Resources in post-release are skipped.
  env.client->release(env.sm(5)->resPtr(), nullptr);
  env.commit({{3, 6}});
  env.linkage->handleResourceChangeAtInit();
  EXPECT_EQ(env.client->acks(), acks + 4); // the commit's and the one for 6
}

} // namespace
