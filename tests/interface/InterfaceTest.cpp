// The table interfaces: boot, clean-up to the hardware's version, making and
// reconciling units, restart with unchanged and changed resources, deletion
// and the resolver's ordering across units and keys.
#include <filesystem>

#include "AgentFixture.h"
#include "platform/agentlog/AgentLog.h"
#include "platform/statedb/GenId.h"

namespace {

using namespace InterfaceTest;
using Asic::EntryState;
using PipelineTest::Traces;

template <typename F> class Interface : public ::testing::Test {};
using Families = ::testing::Types<Isem2, Lem>;
TYPED_TEST_SUITE(Interface, Families);

TYPED_TEST(Interface, IsMadeOnceAndRegisteredUntilDeleted) {
  using F = TypeParam;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  auto intf = a.intf<F>();
  EXPECT_EQ(decltype(intf)::element_type::getIntf(a.otIntf), intf);
  const std::string key = F::B::kInterfaceKey;
  EXPECT_EQ(a.otIntf->swTableIntf(key), intf);
  EXPECT_TRUE(Asic::SwTableInterfacesSingleton::swTableInterfacesSingleton()
                  ->swTableIntfHas(key));
  EXPECT_EQ(a.group->swTableSet(intf->swTableId()), intf->swTableSet());
  EXPECT_EQ(intf->tableName(), F::kName);
  EXPECT_EQ(intf->groupName(), "MicaMpls");

  // A second interface of the type stops the process.
  EXPECT_DEATH(Fwk::make<typename decltype(intf)::element_type>(a.otIntf),
               "Interface already created");

  // Deleted, it can be made again in the same process, over the same store.
  auto table = intf->makeSwTable(1, nullptr, false);
  table->entryWrite(typename F::Key(7), F::entry(7, 0), nullptr);
  EXPECT_EQ(a.pass(), 1u);
  intf->onDelete();
  EXPECT_FALSE(a.otIntf->swTableIntf(key));
  EXPECT_FALSE(a.group->swTableSet(intf->swTableId()));
  EXPECT_EQ(a.group->sweepableSwTables(), 0u);
  // Tables are made in the group's set, which has none for the type now.
  EXPECT_DEATH(intf->makeSwTable(2, nullptr, false), "swTableSet");
  auto again = decltype(intf)::element_type::getIntf(a.otIntf);
  EXPECT_NE(again, intf);
  EXPECT_EQ(again->entryLog()->tableVersion(), 1u);
  auto table1 = again->makeSwTable(1, nullptr, false);
  EXPECT_EQ(table1->entrys(), 1u);
  // The deleted interface finds the group's tables, not its own old ones,
  // and reconciles nothing the group has.
  EXPECT_EQ(intf->makeSwTable(1, nullptr, false), table1);
  intf->reconcile();
  EXPECT_EQ(again->entryLog()->tableVersion(), 1u);
  EXPECT_EQ(a.group->swTableSet(intf->swTableId())->swTables(), 1u);
  if constexpr (std::is_same_v<F, Isem2>) {
    a.isem2 = again;
  } else {
    a.lem = again;
  }
}

TYPED_TEST(Interface, CleansTheLogToTheConfirmedVersionAndSaysWhenItIsAhead) {
  using F = TypeParam;
  Fixture fx;
  auto &a = fx.agent;
  {
    // First start: no version recorded, nothing cleaned, nothing pending.
    Traces tr({F::B::kInterfaceClass});
    a.boot();
    EXPECT_FALSE(tr.has(3, " Cleaned entry log until table version: 0"));
    EXPECT_TRUE(tr.has(2, fmt::format(" Entry log created for table id: {} at "
                                      "version: 0",
                                      Asic::SwTableId(F::kTypeId))));
    EXPECT_FALSE(a.intf<F>()->swTableStatus()->pendingHwWrites());
  }
  auto table = a.intf<F>()->makeSwTable(1, nullptr, false);
  for (std::uint32_t l = 1; l <= 12; ++l) {
    table->entryWrite(typename F::Key(l), F::entry(l, 0), nullptr);
  }
  EXPECT_EQ(a.pass(), 12u);
  a.confirm(F::kTypeId, 10);
  {
    Traces tr({F::B::kInterfaceClass});
    a.restart();
    EXPECT_TRUE(tr.has(3, " Cleaned entry log until table version: 10"));
    EXPECT_TRUE(tr.has(2, " Turning ON pendingHwWrites"));
  }
  auto intf = a.intf<F>();
  EXPECT_EQ(intf->entryLog()->entryLogRecords(), 2u);
  EXPECT_EQ(intf->entryLog()->cleanupVersion(), 10u);
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites());

  // The hardware catches up: pending writes go off through the table set.
  auto t2 = intf->makeSwTable(1, nullptr, false);
  a.confirm(F::kTypeId, 12);
  EXPECT_EQ(a.group->hwProgress(), 1u);
  EXPECT_EQ(a.group->hwProgress(), 0u); // nothing new
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
  a.restart();
  EXPECT_EQ(a.intf<F>()->entryLog()->entryLogRecords(), 0u);
  EXPECT_FALSE(a.intf<F>()->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(Interface, VersionsNeverGoBackBelowWhatTheHardwareConfirmed) {
  using F = TypeParam;
  using Key = typename F::Key;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  PipelineTest::Responses r;
  auto table = a.intf<F>()->makeSwTable(1, nullptr, false);
  for (std::uint32_t l = 1; l <= 5; ++l) {
    table->entryWrite(Key(l), F::entry(l, 0), nullptr);
  }
  EXPECT_EQ(a.pass(), 5u);
  // The hardware writer says it has taken version 40, which this log never
  // reached (its store was restored from an older copy, say).
  a.confirm(F::kTypeId, 40);
  {
    Traces tr({F::B::kEntryLogClass});
    a.restart();
    EXPECT_TRUE(tr.has(2, " Raising tableVersion from 5 to 40, confirmed by "
                          "the hardware"));
  }
  const auto &log = a.intf<F>()->entryLog();
  EXPECT_EQ(log->tableVersion(), 41u);
  EXPECT_EQ(log->hwResyncVersion(), 41u);
  EXPECT_EQ(log->entryLogRecords(), 0u);
  EXPECT_TRUE(a.intf<F>()->swTableStatus()->pendingHwWrites());
  table = a.intf<F>()->makeSwTable(1, nullptr, false);
  EXPECT_EQ(table->entrys(), 5u);

  // Until the writer has rebuilt its tables at 41, what logs nothing waits:
  // an identical write of a restored entry, a remove of a key never
  // written. New changes take versions above 41.
  auto same = table->entryWriteWithResponseHandler(Key(1), F::entry(1, 0),
                                                   nullptr, r.handler());
  auto absent = table->entryRemoveWithResponseHandler(Key(99), nullptr,
                                                      r.handler());
  auto fresh = table->entryWriteWithResponseHandler(Key(50), F::entry(50, 0),
                                                    nullptr, r.handler());
  EXPECT_EQ(a.pass(), 3u);
  EXPECT_EQ(r.calls.size(), 0u);
  EXPECT_EQ(same->logVersion(), 41u);
  EXPECT_EQ(absent->logVersion(), 41u);
  EXPECT_EQ(fresh->logVersion(), 42u);
  a.confirm(F::kTypeId, 41);
  EXPECT_EQ(a.group->hwProgress(), 1u);
  EXPECT_EQ(same->entryState(), EntryState::finished);
  EXPECT_EQ(absent->entryState(), EntryState::finished);
  EXPECT_EQ(fresh->entryState(), EntryState::logged);

  // A version beyond the log: the writer follows another log. It confirms
  // nothing, and is reported once, asking for a relaunch.
  auto gen = Asic::genIdIs(*a.stateDb);
  const auto errors = AgentLog::raisedCount("HW_ABSTRACTION_ERROR");
  for (Asic::LogVersion v : {1000, 1001}) {
    a.confirm(F::kTypeId, v);
    EXPECT_EQ(a.group->hwProgress(), 1u);
  }
  EXPECT_EQ(fresh->entryState(), EntryState::logged);
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), errors + 1);
  EXPECT_EQ(AgentLog::raised().back().text,
            std::string("Hardware abstraction error: unable to load item: "
                        "hwVersion::") +
                F::B::kWipedItem);
  EXPECT_EQ(gen->majorId(), 1u);
  a.confirm(F::kTypeId, 42);
  EXPECT_EQ(a.group->hwProgress(), 1u);
  EXPECT_EQ(fresh->entryState(), EntryState::finished);
}

TYPED_TEST(Interface, MakeSwTableCreatesOnceThenOnlySetsTheHelperOrClears) {
  using F = TypeParam;
  using Key = typename F::Key;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  auto intf = a.intf<F>();
  auto helper = Fwk::make<typename F::Helper>();
  Traces tr({F::B::kInterfaceClass});
  auto t = intf->makeSwTable(1, helper, false);
  EXPECT_TRUE(tr.has(2, fmt::format(F::B::kRestoredTrace, 0, 1)));
  EXPECT_TRUE(tr.has(2, fmt::format(F::B::kResourceStartedTrace, 0)));
  EXPECT_EQ(t->swTableHelper(), helper);
  EXPECT_EQ(t->status(), intf->swTableStatus());
  EXPECT_TRUE(t->inMarkingState()); // the first replay is not done
  EXPECT_EQ(a.group->sweepableSwTables(), 1u);
  t->entryWrite(Key(1), F::entry(1, 1), nullptr);
  t->entryWrite(Key(2), F::entry(2, 1), nullptr);
  EXPECT_EQ(a.pass(), 2u);

  // Again: the same table; the helper is set again, nothing else happens.
  auto other = Fwk::make<typename F::Helper>();
  EXPECT_EQ(intf->makeSwTable(1, other, false), t);
  EXPECT_EQ(t->swTableHelper(), other);
  EXPECT_TRUE(tr.has(3, "swTable with unitId: 1 exists"));
  EXPECT_TRUE(tr.has(2, "Update software table helper"));
  EXPECT_EQ(t->entrys(), 2u);
  // Without a helper and with clearEntries: cleared, the helper kept.
  EXPECT_EQ(intf->makeSwTable(1, nullptr, true), t);
  EXPECT_EQ(t->swTableHelper(), other);
  EXPECT_EQ(t->entrys(), 0u);
  EXPECT_TRUE(tr.has(2, fmt::format(" Clearing entries for table id: {}",
                                    Asic::SwTableId(F::kTypeId))));

  // Once the first replay is done, new tables do not mark.
  a.otIntf->finishInitialReplay();
  EXPECT_FALSE(t->inMarkingState());
  EXPECT_FALSE(intf->makeSwTable(2, nullptr, false)->inMarkingState());
}

TYPED_TEST(Interface,
           OnlyDrivenUnitsTakeClientSlotsAndOneTooManyLeavesNothing) {
  using F = TypeParam;
  using Key = typename F::Key;
  constexpr auto kSlots = static_cast<Asic::UnitId>(F::ResTable::kMaxClients);
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  auto intf = a.intf<F>();
  const auto set = [&] { return a.group->swTableSet(intf->swTableId()); };
  for (Asic::UnitId u = 1; u <= kSlots; ++u) {
    intf->makeSwTable(u, nullptr, false)
        ->entryWrite(Key(u), F::entry(u, 1), nullptr);
  }
  EXPECT_EQ(a.pass(), kSlots);
  EXPECT_EQ(a.resources<F>().clientSlotsTaken(), kSlots);

  // One unit too many is refused before anything is mounted or made.
  const auto refused = [&](Asic::UnitId u) {
    SCOPED_TRACE(u);
    const Asic::LogVersion version = intf->entryLog()->tableVersion();
    const bool existed = set()->swTable(u) != nullptr;
    EXPECT_THROW(intf->makeSwTable(u, nullptr, false), Fwk::Exception);
    EXPECT_EQ(set()->swTable(u) != nullptr, existed);
    EXPECT_EQ(intf->entryLog()->tableConfigSlateHas(u), existed);
    EXPECT_EQ(std::filesystem::exists(a.directory() + "/" +
                                      F::B::Constants::configSlatePath(u)),
              existed);
    EXPECT_EQ(intf->entryLog()->tableVersion(), version);
  };
  refused(kSlots + 1);
  EXPECT_FALSE(
      a.resources<F>().clientInstance(F::B::kResourceName, kSlots + 1));

  // Restarted, the agent drives units 1 and 2. Reconciling the others takes
  // no slot, so as many new units as there are slots left can be driven.
  a.restart();
  intf = a.intf<F>();
  intf->makeSwTable(1, nullptr, false);
  intf->makeSwTable(2, nullptr, false);
  intf->reconcile();
  EXPECT_EQ(set()->swTables(), kSlots);
  EXPECT_EQ(a.resources<F>().clientSlotsTaken(), 2u);
  for (Asic::UnitId u = kSlots + 1; u <= 2 * kSlots - 2; ++u) {
    intf->makeSwTable(u, nullptr, false);
  }
  EXPECT_EQ(a.resources<F>().clientSlotsTaken(), kSlots);
  refused(2 * kSlots - 1);
  refused(3); // a reconciled unit to drive again

  // A write into a reconciled unit's table finds no slot: it fails, and
  // the resource table keeps nothing for it.
  auto t3 = Fwk::ptrCast<typename F::Table>(set()->swTable(3));
  PipelineTest::Responses r;
  const std::size_t entries = a.resources<F>().entries();
  auto h = t3->entryWriteWithResponseHandler(Key(9), F::entry(9, 7), nullptr,
                                             r.handler());
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(a.resources<F>().entries(), entries);
  EXPECT_FALSE(a.resources<F>().entry(F::resKey(7)));
}

TYPED_TEST(Interface, AMissingOrWronglyTypedResourceTableStopsTheProcess) {
  using F = TypeParam;
  Fixture fx;
  auto &a = fx.agent;
  a.boot(false);
  EXPECT_DEATH(a.intf<F>()->makeSwTable(1, nullptr, false), "resTbl");
  a.stop();
  a.boot(false, true);
  EXPECT_DEATH(a.intf<F>()->makeSwTable(1, nullptr, false),
               "typedResourceTable");
}

TYPED_TEST(Interface,
           ARestartRestoresWithoutRewritingAndReconcilesUndrivenUnits) {
  using F = TypeParam;
  using Key = typename F::Key;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  for (Asic::UnitId u : {1, 2, 3}) {
    auto t = a.intf<F>()->makeSwTable(u, nullptr, false);
    for (std::uint32_t l = 1; l <= 40; ++l) {
      t->entryWrite(Key(l), F::entry(l, l % 4 + 1), nullptr); // 4 resources
    }
  }
  EXPECT_EQ(a.pass(), 120u);
  const Asic::LogVersion logged = a.intf<F>()->entryLog()->tableVersion();
  a.confirm(F::kTypeId, logged);
  const auto before = F::result(
      Fwk::ptrCast<typename F::Table>(a.intf<F>()->swTableSet()->swTable(1))
          ->entry(Key(5)));
  EXPECT_NE(before, 0u);

  // Unit 3's configuration is lost while the agent is down.
  a.stop();
  ASSERT_EQ(
      ::unlink(
          (a.directory() + "/" + F::B::Constants::configSlatePath(3)).c_str()),
      0);
  a.boot();
  auto intf = a.intf<F>();
  auto t1 = intf->makeSwTable(1, nullptr, false);
  EXPECT_EQ(t1->entrys(), 40u);
  EXPECT_EQ(F::result(t1->entry(Key(5))), before);
  EXPECT_EQ(intf->entryLog()->tableVersion(), logged); // nothing logged anew
  EXPECT_EQ(t1->stats()->updateCnt(), 0u);
  auto client = a.resources<F>().clientInstance(F::B::kResourceName, 1);
  EXPECT_EQ(client->acks(), 4u); // one per resource in use
  EXPECT_EQ(t1->linkage()->entryUsageSms(), 4u);

  // Units 2 and 3 get no table: reconcile clears them through the log.
  // Unit 3, whose file was lost, is found wiped: the hardware writer is
  // asked to rebuild (at a version of its own), which clears what the
  // hardware holds of it.
  Traces tr({F::B::kInterfaceClass});
  intf->reconcile();
  EXPECT_TRUE(tr.has(3, " Found inactive unit id: 2"));
  EXPECT_TRUE(tr.has(3, " Found inactive unit id: 3"));
  auto t2 = Fwk::ptrCast<typename F::Table>(intf->swTableSet()->swTable(2));
  ASSERT_TRUE(t2);
  EXPECT_EQ(t2->entrys(), 0u);
  EXPECT_FALSE(t2->inMarkingState());
  EXPECT_TRUE(intf->swTableSet()->swTable(3));
  EXPECT_EQ(intf->entryLog()->hwResyncVersion(), logged + 2);
  EXPECT_EQ(intf->entryLog()->tableVersion(), logged + 3);
  EXPECT_EQ(t1->entrys(), 40u);
  intf->reconcile(); // every unit has its table now
  EXPECT_EQ(intf->entryLog()->tableVersion(), logged + 3);

  // Nothing was replayed: the sweep removes unit 1's entries, and the
  // resources only unit 2 held are let go.
  std::size_t released = 0;
  EXPECT_EQ(a.otIntf->finishInitialReplay(&released), 40u);
  EXPECT_EQ(released, 0u); // unit 1 claimed all four
  EXPECT_EQ(a.pass(), 40u);
  EXPECT_EQ(a.resources<F>().entries(), 4u); // until the hardware has it
  a.confirm(F::kTypeId, intf->entryLog()->tableVersion());
  a.group->hwProgress();
  EXPECT_EQ(a.resources<F>().entries(), 0u);
}

TYPED_TEST(Interface, AResourceThatChangedWhileTheAgentWasDownIsUpdated) {
  using F = TypeParam;
  using Key = typename F::Key;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  auto t = a.intf<F>()->makeSwTable(1, nullptr, false);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    t->entryWrite(Key(l), F::entry(l, 9), nullptr);
  }
  t->entryWrite(Key(4), F::entry(4, 8), nullptr);
  EXPECT_EQ(a.pass(), 4u);
  const auto logged = a.intf<F>()->entryLog()->tableVersion();
  a.restart();
  // The resource agent moved resource 9 meanwhile; 8 was never claimed again.
  a.resources<F>().updateIs(F::resKey(9), F::data(0x4242));
  auto t1 = a.intf<F>()->makeSwTable(1, nullptr, false);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    EXPECT_EQ(F::result(t1->entry(Key(l))), 0x4242u);
  }
  EXPECT_EQ(t1->stats()->updateCnt(), 3u);
  EXPECT_EQ(a.intf<F>()->entryLog()->tableVersion(), logged + 3);
  t1->entryRemove(Key(4), nullptr);
  EXPECT_EQ(a.pass(), 1u);
  std::size_t released = 0;
  a.otIntf->finishInitialReplay(&released);
  EXPECT_EQ(released, 0u);
  a.confirm(F::kTypeId, a.intf<F>()->entryLog()->tableVersion());
  a.group->hwProgress();
  EXPECT_EQ(a.resources<F>().entries(), 1u);
}

TYPED_TEST(Interface, ARestartThatLostItsAllocationsNeverLogsZeroes) {
  using F = TypeParam;
  using Key = typename F::Key;
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  auto t = a.intf<F>()->makeSwTable(1, nullptr, false);
  t->entryWrite(Key(10), F::entry(10, 2), nullptr);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    t->entryWrite(Key(l), F::entry(l, 9, 0x77), nullptr);
  }
  EXPECT_EQ(a.pass(), 4u);
  // Resource 2 goes, so that 9 resolves to another index after a restart.
  t->entryRemove(Key(10), nullptr);
  EXPECT_EQ(a.pass(), 1u);
  a.confirm(F::kTypeId, a.intf<F>()->entryLog()->tableVersion());
  a.group->hwProgress();
  const auto before = F::result(t->entry(Key(1)));
  const auto expectKept = [&](const auto &table) {
    for (std::uint32_t l = 1; l <= 3; ++l) {
      const auto e = table->entry(Key(l));
      EXPECT_EQ(F::result(e), before) << l;
      if constexpr (std::is_same_v<F, Isem2>) {
        EXPECT_EQ(e.inLifClientData.counterId, 0x77u) << l;
      }
    }
  };
  const std::string allocations = a.directory() + "/resource/" +
                                  F::B::kResourceNamespace + "/" +
                                  F::B::kResourceName;
  t = nullptr;

  // The allocations are lost while the agent is down, and allocating again
  // takes a while: the restored entries keep what they were committed
  // with, nothing is logged, and once resource 9 resolves (to another
  // index) they take its results.
  a.stop();
  ASSERT_EQ(::unlink(allocations.c_str()), 0) << allocations;
  a.boot();
  std::vector<std::function<void()>> later;
  a.resources<F>().schedulerIs(
      [&](std::function<void()> task) { later.push_back(task); });
  const auto logged = a.intf<F>()->entryLog()->tableVersion();
  auto t1 = a.intf<F>()->makeSwTable(1, nullptr, false);
  expectKept(t1);
  EXPECT_EQ(a.intf<F>()->entryLog()->tableVersion(), logged);
  for (const auto &run : later) {
    run();
  }
  const auto after = F::result(t1->entry(Key(1)));
  EXPECT_NE(after, before);
  EXPECT_NE(after, 0u);
  EXPECT_EQ(t1->stats()->updateCnt(), 3u);
  t1 = nullptr;

  // Lost again, and now the allocation fails: the entries keep what they
  // had, and a write of the same entry fails through its handler.
  a.stop();
  ASSERT_EQ(::unlink(allocations.c_str()), 0);
  a.boot();
  F::allocator(a.resources<F>()).failingKeyIs(F::resKey(9));
  auto t2 = a.intf<F>()->makeSwTable(1, nullptr, false);
  for (std::uint32_t l = 1; l <= 3; ++l) {
    EXPECT_EQ(F::result(t2->entry(Key(l))), after);
  }
  EXPECT_EQ(t2->stats()->updateCnt(), 0u);
  PipelineTest::Responses r;
  auto h = t2->entryWriteWithResponseHandler(Key(1), F::entry(1, 9, 0x77),
                                             nullptr, r.handler());
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(F::result(t2->entry(Key(1))), after);
}

TEST(Resolver, AStuckChangeHoldsBackOnlyItsKeyAndWhatItsTableOrdersAfterIt) {
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  using Key = Isem2::Key;
  auto u1 = a.isem2->makeSwTable(1, nullptr, false);
  auto u2 = a.isem2->makeSwTable(2, nullptr, false);
  auto lem = a.lem->makeSwTable(1, nullptr, false);
  auto stuck = PipelineTest::dependency(EntryState::made);
  auto held = u1->entryWrite(Key(1), Isem2::entry(1, 0), stuck);
  auto sameKey = u1->entryWrite(Key(1), Isem2::entry(1, 2), nullptr);
  auto otherKey = u1->entryWrite(Key(2), Isem2::entry(2, 0), nullptr);
  auto otherUnit = u2->entryWrite(Key(1), Isem2::entry(1, 0), nullptr);
  auto otherType = lem->entryWrite(Lem::Key(1), Lem::entry(1, 3), nullptr);
  EXPECT_EQ(a.pass(), 3u);
  for (const auto &h : {otherKey, otherUnit}) {
    EXPECT_EQ(h->entryState(), EntryState::logged);
  }
  EXPECT_EQ(otherType->entryState(), EntryState::logged);
  EXPECT_EQ(held->entryState(), EntryState::made);
  EXPECT_EQ(sameKey->entryState(), EntryState::made);

  // A remove-all of unit 1 waits for the stuck change; unit 1's changes
  // after it wait for the remove-all; unit 2 goes on.
  u1->entryRemoveAll(nullptr);
  auto afterClear = u1->entryWrite(Key(3), Isem2::entry(3, 0), nullptr);
  auto u2Later = u2->entryWrite(Key(2), Isem2::entry(2, 0), nullptr);
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(u2Later->entryState(), EntryState::logged);
  EXPECT_EQ(afterClear->entryState(), EntryState::made);
  // The stuck one waits on its dependency: no pass asks it again.
  EXPECT_EQ(stuck->parked(), 1u);
  EXPECT_EQ(a.group->groupResolver()->offerable(), 0u);

  // The dependency finishes: its key, the remove-all and what followed it
  // commit in order.
  const auto gen = a.group->groupResolver()->genId();
  stuck->entryStateIs(EntryState::finished); // wakes the resolver
  EXPECT_GT(a.group->groupResolver()->genId(), gen);
  EXPECT_EQ(a.pass(), 4u);
  EXPECT_LT(held->logVersion(), sameKey->logVersion());
  EXPECT_EQ(afterClear->entryState(), EntryState::logged);
  EXPECT_GT(afterClear->logVersion(), sameKey->logVersion());
  EXPECT_EQ(u1->entrys(), 1u); // only what came after the remove-all
  EXPECT_EQ(a.group->groupResolver()->resolverQueueSize(), 0u);
}

TEST(Resolver, APassTakesWhatWasReadyWhenItBeganAndParksWhatMustWait) {
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  using Key = Isem2::Key;
  using Handle = Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle>;
  auto u1 = a.isem2->makeSwTable(1, nullptr, false);
  const auto &resolver = a.group->groupResolver();

  // A handler that writes its key again after each failure: each pass
  // takes one of the writes, the next waits for the next pass.
  auto failed = PipelineTest::dependency(EntryState::failed);
  int rewrites = 0;
  std::function<void(const Handle &)> again = [&](const Handle &h) {
    if (h->entryState() == EntryState::failed && rewrites < 100) {
      ++rewrites;
      u1->entryWriteWithResponseHandler(Key(1), Isem2::entry(1, 0), failed,
                                        again);
    }
  };
  u1->entryWriteWithResponseHandler(Key(1), Isem2::entry(1, 0), failed, again);
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(rewrites, 1);
  EXPECT_EQ(resolver->resolverQueueSize(), 1u);
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(rewrites, 2);
  rewrites = 100; // the next failure ends it
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(resolver->resolverQueueSize(), 0u);

  // Changes whose resource is pending wait on its handle: asked once, not
  // again by later passes, and offered together when it resolves.
  std::vector<std::function<void()>> allocations;
  a.inLif->schedulerIs(
      [&](std::function<void()> task) { allocations.push_back(task); });
  Traces tr({Isem2::B::kSwTableClass});
  constexpr std::uint32_t kWaiting = 500;
  for (std::uint32_t k = 10; k < 10 + kWaiting; ++k) {
    u1->entryWrite(Key(k), Isem2::entry(k, 5), nullptr);
  }
  EXPECT_EQ(a.pass(), 0u);
  const auto pending = a.inLif->entry(Isem2::resKey(5));
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->parked(), kWaiting);
  const auto asked = [&] {
    return std::count_if(tr.lines.begin(), tr.lines.end(), [](const auto &l) {
      return l.message.find("is still unresolved!") != std::string::npos;
    });
  };
  EXPECT_EQ(asked(), kWaiting);
  u1->entryWrite(Key(1), Isem2::entry(1, 0), nullptr);
  EXPECT_EQ(a.pass(), 1u);
  EXPECT_EQ(asked(), kWaiting);
  EXPECT_EQ(resolver->offerable(), 0u);
  for (const auto &run : allocations) {
    run();
  }
  EXPECT_EQ(resolver->offerable(), kWaiting);
  EXPECT_EQ(a.pass(), kWaiting);
  EXPECT_EQ(asked(), kWaiting);
}

TEST(Resolver, QueuedChangesOfATableThatGoesAwayFailOnce) {
  Fixture fx;
  auto &a = fx.agent;
  a.boot();
  using Key = Isem2::Key;
  PipelineTest::Responses r;
  auto stuck = PipelineTest::dependency(EntryState::made);
  // Taken off its interface: a change waiting on a dependency, one behind
  // it on its key, a remove-all and a change behind that.
  auto u1 = a.isem2->makeSwTable(1, nullptr, false);
  std::vector<Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle>> handles{
      u1->entryWriteWithResponseHandler(Key(1), Isem2::entry(1, 0), stuck,
                                        r.handler()),
      u1->entryRemoveWithResponseHandler(Key(1), nullptr, r.handler()),
      u1->entryWriteWithResponseHandler(Key(2), Isem2::entry(2, 0), nullptr,
                                        r.handler())};
  u1->entryRemoveAllWithResponseHandler(nullptr, r.handler());
  handles.push_back(u1->entryWriteWithResponseHandler(
      Key(3), Isem2::entry(3, 0), nullptr, r.handler()));
  EXPECT_EQ(a.pass(), 1u); // the write of key 2
  r.calls.clear();
  a.isem2->onDelete();
  EXPECT_EQ(r.calls.size(), 4u); // key 1 twice, the remove-all, key 3
  EXPECT_EQ(a.group->groupResolver()->resolverQueueSize(), 0u);
  EXPECT_EQ(stuck->parked(), 0u);
  EXPECT_FALSE(u1->transientRemoveAllVersion().valid());
  EXPECT_EQ(u1->transientVersionForKeys(), 0u);
  for (const auto &h : {handles[0], handles[1], handles[3]}) {
    EXPECT_EQ(h->entryState(), EntryState::failed);
    EXPECT_EQ(r.count(h), 1u);
  }
  a.isem2 = nullptr;

  // Destroyed: the handles no longer name it.
  auto u2 = a.lem->makeSwTable(2, nullptr, false);
  auto h = u2->entryWriteWithResponseHandler(Lem::Key(1), Lem::entry(1, 0),
                                             stuck, r.handler());
  EXPECT_EQ(a.pass(), 0u);
  r.calls.clear();
  a.lem->swTableSet()->swTableDel(2);
  a.group->sweepableSwTableSetDel(a.lem->swTableId(), 2);
  u2 = nullptr;
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(h->swTable(), nullptr);
  stuck->entryStateIs(EntryState::finished);
  EXPECT_EQ(a.pass(), 0u);
}

} // namespace
