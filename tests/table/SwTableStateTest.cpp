#include "TableFixture.h"

namespace {

using namespace TableTest;

template <typename F> class SwTableState : public ::testing::Test {};
TYPED_TEST_SUITE(SwTableState, Families);

// A helper that counts how many of its kind are alive and what it was asked.
template <typename F> struct CountingHelper : F::Helper {
  CountingHelper() { ++alive; }
  ~CountingHelper() override { --alive; }
  void finalizeOnSuccess(const Fwk::Ptr<typename F::Wrapper> &w, bool isDeleted,
                         const Fwk::Ptr<typename F::Table> &t) override {
    successCalls.push_back({w.ptr(), isDeleted, t.ptr()});
  }
  bool finalizeOnFailure(const Fwk::Ptr<typename F::Wrapper> &, bool,
                         const Fwk::Ptr<typename F::Table> &) override {
    return keep;
  }
  struct Call {
    void *wrapper;
    bool isDeleted;
    void *table;
  };
  std::vector<Call> successCalls;
  bool keep = true;
  static inline int alive = 0;
};

TYPED_TEST(SwTableState, ANewTableIsEmptyWithTheDefaultHelper) {
  using F = TypeParam;
  RecordingSink sink;
  Trace::maskIs(F::B::kSwTableClass, 0xffff);
  TableEnv<F> env;
  Trace::maskIs(F::B::kSwTableClass, 0);
  auto &t = *env.table;

  EXPECT_FALSE(t.transientRemoveAllVersion().valid());
  EXPECT_EQ(t.transientAddEntrys(), 0u);
  EXPECT_EQ(t.transientRemoveEntrys(), 0u);
  EXPECT_EQ(t.transientVersionForKeys(), 0u);
  EXPECT_EQ(t.markedKeys(), 0u);
  EXPECT_FALSE(t.inMarkingState());
  EXPECT_EQ(t.entryHandleInLogSize(), 0u);
  EXPECT_FALSE(t.entryHandleInLogFront());
  EXPECT_FALSE(t.entryHandleInLogBack());
  EXPECT_FALSE(t.entryHandleInLogHas(1));
  EXPECT_FALSE(t.transientVersionForKey(typename F::Key(5)).valid());
  EXPECT_FALSE(t.transientAddEntry(typename F::Key(5)));
  ASSERT_TRUE(t.swTableHelper());
  EXPECT_EQ(typeid(*t.swTableHelper()), typeid(typename F::Helper));
  EXPECT_TRUE(t.stats());
  EXPECT_FALSE(F::linkageOf(t));
  EXPECT_EQ(t.unitId(), 1);
  EXPECT_EQ(t.swTableId(), Asic::SwTableId(F::kTypeId));
  EXPECT_EQ(t.swTableSet(), env.set.ptr());
  EXPECT_FALSE(t.hasPendingHwWrites());

  // Initialisation printed the table's constants, as the table's class.
  ASSERT_EQ(sink.lines.size(), 1u);
  const auto &l = sink.lines[0];
  EXPECT_EQ(l.handle, F::B::kSwTableClass);
  EXPECT_EQ(l.level, 8);
  EXPECT_EQ(l.sourceUnit, F::B::kTableSourceUnit);
  EXPECT_EQ(l.className, F::B::kSwTableClass);
  EXPECT_EQ(l.function, "handleInitialized");
  EXPECT_EQ(l.message, "doesMarkSweep: True hwErrorHandling: False");
}

TYPED_TEST(SwTableState, CollectionMutatorsAnnounceEachChange) {
  using F = TypeParam;
  using Key = typename F::Key;
  TableEnv<F> env;
  auto &t = *env.table;
  ChangeLog log;
  t.observerIs(&log);

  auto handle = t.entryHandleFactory(Asic::EntryVersion(0, 0), Key(10), &t);
  typename F::Entry e;
  e.key = Key(10);
  auto w = Fwk::make<typename F::Wrapper>(e, handle);
  t.transientAddEntryIs(w);
  t.transientVersionForKeyIs(Key(10), Asic::EntryVersion(0, 0));
  t.transientRemoveEntryIs(w);
  t.markedKeyIs(Key(10));
  t.markedKeyIs(Key(10)); // already there: no change, no announcement
  EXPECT_EQ(t.transientAddEntry(Key(10)), w);
  EXPECT_EQ(t.transientVersionForKey(Key(10)), Asic::EntryVersion(0, 0));
  EXPECT_TRUE(t.markedKey(Key(10)));
  EXPECT_EQ(log.count("transientAddEntry"), 1u);
  EXPECT_EQ(log.count("transientVersionForKey"), 1u);
  EXPECT_EQ(log.count("transientRemoveEntry"), 1u);
  EXPECT_EQ(log.count("markedKey"), 1u);

  t.transientAddEntryDel(Key(11)); // absent: nothing announced
  t.transientAddEntryDel(Key(10));
  EXPECT_FALSE(t.transientAddEntry(Key(10)));
  EXPECT_EQ(log.count("transientAddEntry"), 2u);

  t.transientRemoveAllVersionIs(Asic::MajorVersion(0));
  t.transientRemoveAllVersionIs(Asic::MajorVersion(0)); // same value
  t.transientRemoveAllVersionIs(Asic::MajorVersion());
  EXPECT_EQ(log.count("transientRemoveAllVersion"), 2u);

  t.inMarkingStateIs(true);
  t.inMarkingStateIs(true);
  EXPECT_EQ(log.count("inMarkingState"), 1u);
  t.observerDel(&log);
}

TYPED_TEST(SwTableState, BulkClearsAnnounceElementsOnlyWhenObserved) {
  using F = TypeParam;
  using Key = typename F::Key;
  TableEnv<F> env;
  auto &t = *env.table;
  for (std::uint32_t i = 0; i < 50; ++i) {
    t.transientVersionForKeyIs(Key(i), Asic::EntryVersion(i, 0));
    t.markedKeyIs(Key(i));
  }
  // Nobody observes: cleared at once.
  t.transientVersionForKeyDelAll();
  EXPECT_EQ(t.transientVersionForKeys(), 0u);

  ChangeLog log;
  t.observerIs(&log);
  t.markedKeyDelAll();
  EXPECT_EQ(t.markedKeys(), 0u);
  EXPECT_EQ(log.count("markedKey"), 50u); // one announcement per key
  t.observerDel(&log);
}

TYPED_TEST(SwTableState, ReplacingTheHelperReleasesTheOldOneOnce) {
  using F = TypeParam;
  TableEnv<F> env;
  auto &t = *env.table;
  ChangeLog log;
  t.observerIs(&log);
  {
    auto h1 = Fwk::make<CountingHelper<F>>();
    t.swTableHelperIs(h1);
    EXPECT_EQ(h1->references(), 2u);
    t.swTableHelperIs(h1); // the same: stays, not released twice
    EXPECT_EQ(h1->references(), 2u);
    EXPECT_EQ(log.count("swTableHelper"), 1u);
    t.swTableHelperIs(Fwk::make<CountingHelper<F>>());
    EXPECT_EQ(h1->references(), 1u);
    EXPECT_EQ(CountingHelper<F>::alive, 2);
  }
  EXPECT_EQ(CountingHelper<F>::alive, 1);
  t.swTableHelperIs(nullptr);
  EXPECT_EQ(CountingHelper<F>::alive, 0);
  t.observerDel(&log);
}

TYPED_TEST(SwTableState, ReplacingTheLinkageWithItselfKeepsIt) {
  using F = TypeParam;
  TableEnv<F> env;
  auto &t = *env.table;
  auto resTable = Fwk::make<typename F::B::ResourceTable>(
      Asic::CanonicalTableName::canonicalTableNameIs(
          Asic::CanonicalTableName::resourceTable, F::kResourceNs, F::kClient));
  auto client = resTable->clientInstanceIs(F::kClient);
  EXPECT_EQ(resTable->clientInstanceIs(F::kClient), client);
  auto linkage = F::linkage(&t, client);
  EXPECT_EQ(linkage->swTable(), &t);
  EXPECT_EQ(linkage->resTblClient(), client);
  F::linkageIs(t, linkage);
  EXPECT_EQ(linkage->references(), 2u);
  F::linkageIs(t, linkage);
  EXPECT_EQ(F::linkageOf(t), linkage);
  EXPECT_EQ(linkage->references(), 2u);
  F::linkageIs(t, nullptr);
  EXPECT_EQ(linkage->references(), 1u);
}

TYPED_TEST(SwTableState, EntryHandleLogNumbersAndAnnouncesItsChanges) {
  using F = TypeParam;
  using Key = typename F::Key;
  TableEnv<F> env;
  auto &t = *env.table;
  struct SeqLog : Fwk::Observer {
    void onChange(const Fwk::Notifier &, const Fwk::Change &c) override {
      if (const auto *seq = c.key<std::uint32_t>()) {
        seqs.push_back(*seq);
      }
    }
    std::vector<std::uint32_t> seqs;
  } seqLog;
  t.observerIs(&seqLog);

  std::vector<Fwk::Ptr<typename F::Table::EntryHandle>> handles;
  for (std::uint32_t i = 0; i < 5; ++i) {
    handles.push_back(t.entryHandleFactory(Asic::EntryVersion(i, 0), Key(i), &t));
    t.entryHandleInLogEnq(handles.back());
  }
  EXPECT_EQ(seqLog.seqs, (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
  EXPECT_TRUE(t.entryHandleInLogHas(1));
  EXPECT_TRUE(t.entryHandleInLogHas(5));
  EXPECT_FALSE(t.entryHandleInLogHas(0));
  EXPECT_FALSE(t.entryHandleInLogHas(6));
  EXPECT_EQ(t.entryHandleInLog(3), handles[2]);
  EXPECT_EQ(t.entryHandleInLogFront(), handles[0]);
  EXPECT_EQ(t.entryHandleInLogBack(), handles[4]);
  EXPECT_EQ(handles[0]->references(), 2u); // ours and the log's

  seqLog.seqs.clear();
  EXPECT_EQ(t.entryHandleInLogDeq(), handles[0]);
  EXPECT_EQ(handles[0]->references(), 1u); // the log's reference moved out
  EXPECT_EQ(seqLog.seqs, (std::vector<std::uint32_t>{1}));

  // Observed: every removal is announced.
  t.entryHandleInLogDelAll();
  EXPECT_EQ(seqLog.seqs, (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
  t.observerDel(&seqLog);
  // Numbering goes on after a clear.
  t.entryHandleInLogEnq(handles[0]);
  EXPECT_TRUE(t.entryHandleInLogHas(6));
  t.entryHandleInLogDelAll(); // unobserved: at once
  EXPECT_EQ(t.entryHandleInLogSize(), 0u);
  for (auto &h : handles) {
    EXPECT_EQ(h->references(), 1u);
  }
}

TYPED_TEST(SwTableState, TheTableSetKeepsATablePerUnitInUnitOrder) {
  using F = TypeParam;
  TableEnv<F> env; // its table is unit 1
  auto &set = *env.set;
  auto make = [&](Asic::UnitId unit) {
    auto t = F::make(env.set.ptr(), env.resolver, env.name, unit);
    set.swTableIs(t);
    return t;
  };
  const auto t3 = make(3);
  set.swTableIs(env.table);
  make(2);
  const auto again2 = make(2); // replaces the table of unit 2
  auto units = [&] {
    std::vector<Asic::UnitId> out;
    for (const auto &t : set.swTableList()) {
      out.push_back(t->unitId());
    }
    return out;
  };
  EXPECT_EQ(units(), (std::vector<Asic::UnitId>{1, 2, 3}));
  EXPECT_EQ(set.swTable(2), again2);
  EXPECT_FALSE(set.swTable(4));

  // The pending flag comes from every table, the last one too.
  set.maybeUpdatePendingHwWrites();
  EXPECT_FALSE(set.pendingHwWrites());
  typename F::Entry e;
  e.key = typename F::Key(7);
  t3->transientAddEntryIs(Fwk::make<typename F::Wrapper>(
      e, t3->entryHandleFactory(Asic::EntryVersion(0, 0), e.key, t3.ptr())));
  set.maybeUpdatePendingHwWrites();
  EXPECT_TRUE(set.pendingHwWrites());
  EXPECT_TRUE(env.status->pendingHwWrites());
  set.swTableDel(3);
  set.swTableDel(3); // no longer there: nothing happens
  set.maybeUpdatePendingHwWrites();
  EXPECT_FALSE(set.pendingHwWrites());
  EXPECT_EQ(units(), (std::vector<Asic::UnitId>{1, 2}));
  t3->transientAddEntryDelAll();
}

TYPED_TEST(SwTableState, EntryHandlesKnowTheirTable) {
  using F = TypeParam;
  TableEnv<F> env;
  auto &t = *env.table;
  auto h = F::Table::EntryHandle::EntryHandleIs(Asic::EntryVersion(3, 1),
                                                typename F::Key(42), &t);
  EXPECT_EQ(h->version(), Asic::EntryVersion(3, 1));
  EXPECT_EQ(h->key(), typename F::Key(42));
  EXPECT_EQ(h->entryState(), Asic::EntryState::made);
  EXPECT_EQ(h->logVersion(), 0u);
  EXPECT_EQ(h->tableName(), std::string("MicaMpls::") + F::kName);
  EXPECT_EQ(h->tableId(), Asic::SwTableId(F::kTypeId));
  TableEnv<F> other;
  h->swTableIs(other.table.ptr());
  EXPECT_EQ(h->swTable(), other.table.ptr());
}

TYPED_TEST(SwTableState, DestructionEmptiesEverything) {
  using F = TypeParam;
  using Key = typename F::Key;
  auto helper = Fwk::make<CountingHelper<F>>();
  Fwk::Ptr<typename F::Table::EntryHandle> handle;
  Fwk::Ptr<typename F::Wrapper> wrapper;
  {
    TableEnv<F> env;
    auto &t = *env.table;
    handle = t.entryHandleFactory(Asic::EntryVersion(0, 0), Key(1), &t);
    typename F::Entry e;
    e.key = Key(1);
    wrapper = Fwk::make<typename F::Wrapper>(e, handle);
    t.transientAddEntryIs(wrapper);
    t.transientRemoveEntryIs(wrapper);
    t.entryHandleInLogEnq(handle);
    t.swTableHelperIs(helper);
    EXPECT_EQ(wrapper->references(), 3u);
  }
  EXPECT_EQ(wrapper->references(), 1u);
  EXPECT_EQ(handle->references(), 2u); // ours and the wrapper's
  EXPECT_EQ(helper->references(), 1u);
}

TYPED_TEST(SwTableState, WrappersTakeTheirResultsFromTheirResource) {
  using F = TypeParam;
  using Key = typename F::Key;
  TableEnv<F> env;
  auto &t = *env.table;
  typename F::Entry e;
  e.key = Key(7);
  auto w = Fwk::make<typename F::Wrapper>(e, nullptr);

  // Without a resource: resolved fields are 0 and client data stays.
  w->entry() = e;
  w->setResolvedFields();
  EXPECT_EQ(F::resolved(w->entry()), std::make_pair(0u, 0u));
  w->retrieveClientData();
  EXPECT_EQ(w->entry(), e);

  auto res = Fwk::make<typename F::B::ResourceHandle>(typename F::B::ResourceKey{});
  res->dataIs(F::resourceData());
  w->resourcePtrIs(res);

  // A deleted entry keeps its resolved fields; a written one takes them.
  auto helper = Fwk::make<CountingHelper<F>>();
  t.swTableHelperIs(helper);
  w->finalizeOnSuccess(env.table, true);
  EXPECT_EQ(F::resolved(w->entry()), std::make_pair(0u, 0u));
  w->finalizeOnSuccess(env.table, false);
  EXPECT_EQ(F::resolved(w->entry()), std::make_pair(100u, 200u));
  ASSERT_EQ(helper->successCalls.size(), 2u);
  EXPECT_EQ(helper->successCalls[0].wrapper, w.ptr());
  EXPECT_TRUE(helper->successCalls[0].isDeleted);
  EXPECT_FALSE(helper->successCalls[1].isDeleted);
  EXPECT_EQ(helper->successCalls[1].table, env.table.ptr());

  // The helper's answer on failure is the wrapper's.
  EXPECT_TRUE(w->finalizeOnFailure(env.table, false));
  helper->keep = false;
  EXPECT_FALSE(w->finalizeOnFailure(env.table, false));
}

TYPED_TEST(SwTableState, TheDefaultHelperDeclinesFailuresAndLogsUpdates) {
  using F = TypeParam;
  TableEnv<F> env;
  auto w = Fwk::make<typename F::Wrapper>(typename F::Entry{}, nullptr);
  RecordingSink sink;
  Trace::maskIs(F::B::kWrapperClass, 0xffff);
  EXPECT_FALSE(w->finalizeOnFailure(env.table, false));
  Trace::maskIs(F::B::kWrapperClass, 0);
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0].message,
            fmt::format(" key: {} isDeleted: false", typename F::Key()));
  EXPECT_EQ(sink.lines[0].level, 8);
  EXPECT_EQ(sink.lines[1].message, " retVal: false");
  EXPECT_EQ(sink.lines[1].level, 3);
  EXPECT_EQ(sink.lines[1].className, F::B::kWrapperClass);
  EXPECT_EQ(sink.lines[1].sourceUnit, F::B::kInfraSourceUnit);
  EXPECT_TRUE(env.table->swTableHelper()->finalizeOnResourceUpdate(w, env.table, true));
}

TYPED_TEST(SwTableState, ResolverEntriesCarryFlagsTableAndWrapper) {
  using F = TypeParam;
  TableEnv<F> env;
  auto w = Fwk::make<typename F::Wrapper>(typename F::Entry{}, nullptr);
  auto remove = Fwk::make<typename F::Resolver>(nullptr, Asic::entryFlagRemove,
                                                env.table.ptr(), w);
  EXPECT_TRUE(remove->isEntryDeleted());
  EXPECT_FALSE(remove->isTableDeleted());
  EXPECT_EQ(remove->swTable(), env.table.ptr());
  EXPECT_EQ(remove->entryWrapper(), w);
  auto all = Fwk::make<typename F::Resolver>(nullptr, Asic::entryFlagRemoveAll,
                                             env.table.ptr(), w);
  EXPECT_TRUE(all->isTableDeleted());
  EXPECT_FALSE(all->isEntryDeleted());
  auto marked = Fwk::make<typename F::Resolver>(nullptr, Asic::entryFlagMarked,
                                                env.table.ptr(), w);
  EXPECT_TRUE(marked->isMarked());
  EXPECT_FALSE(marked->isEntryDeleted() || marked->isTableDeleted());
}

TEST(SwTableStateIsem2, InLifWrapperNamesAndClientData) {
  MicaMpls::MplsIsem2Entry e;
  auto w = MicaMpls::mplsIsem2EntryWrapperFactory(e, nullptr);
  EXPECT_EQ(w->inLif0Index(), 0u);
  EXPECT_EQ(w->inLif23Index(), 0u);
  auto res = Fwk::make<MicaTunnelNiLib::InLifResourceTable::ResourceHandle>(
      MicaTunnelNiLib::InLifEntryKey{});
  res->dataIs(Isem2::resourceData());
  w->inLifKeyResPtrIs(res);
  EXPECT_EQ(w->inLifKeyResPtr(), res);
  EXPECT_EQ(w->inLif0Index(), 100u);
  EXPECT_EQ(w->inLif23Index(), 200u);
  RecordingSink sink;
  Trace::maskIs("MplsIsem2EntryWrapper", 1u << 3);
  // A resource not resolved has no client data to give.
  w->retrieveClientData();
  EXPECT_EQ(w->entry().clientData().qosProfile, 0u);
  res->entryStateIs(static_cast<std::uint8_t>(Asic::EntryState::finished));
  w->retrieveClientData();
  Trace::maskIs("MplsIsem2EntryWrapper", 0);
  EXPECT_EQ(w->entry().clientData().qosProfile, 7u);
  ASSERT_EQ(sink.lines.size(), 1u);
  EXPECT_EQ(sink.lines[0].message,
            fmt::format(" Setting clientData to: {} ", res->data().clientData));
}

TEST(SwTableStateLem, FecWrapperNamesAndNoClientData) {
  MicaMpls::MplsLemEntry e;
  e.l2AdjId = 9;
  auto w = MicaMpls::mplsLemEntryWrapperFactory(e, nullptr);
  auto res = Fwk::make<MicaAdjLib::L2AdjToFecResourceTableResourceTable::ResourceHandle>(
      MicaAdjLib::L2AdjToFecResourceTableEntryKey{9});
  res->dataIs(Lem::resourceData());
  w->l2AdjIdResPtrIs(res);
  EXPECT_EQ(w->fecId(), 100u);
  EXPECT_EQ(w->errorCode(), 200u);
  w->retrieveClientData();
  EXPECT_EQ(w->entry(), e); // LEM entries carry no client data
}

} // namespace
