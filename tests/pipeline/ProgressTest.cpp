// Version progress: the hardware confirms log versions, the table finishes
// the changes they cover in queue order and runs their handlers.
#include "PipelineFixture.h"

namespace {

using namespace PipelineTest;

template <typename F> class Progress : public ::testing::Test {};
TYPED_TEST_SUITE(Progress, Families);

TYPED_TEST(Progress,
           AVersionBelowTheFrontReleasesNothingButCleansAndRecomputes) {
  using F = TypeParam;
  Env<F> env;
  auto &t = *env.table;
  Responses r;
  EXPECT_FALSE(t.hasPendingHwWrites());
  t.entryRemoveAllWithResponseHandler(nullptr, r.handler());
  // A pending remove-all alone keeps the table pending.
  EXPECT_EQ(t.transientAddEntrys() + t.transientRemoveEntrys(), 0u);
  EXPECT_EQ(env.log->tableVersion(), env.log->cleanupVersion());
  EXPECT_TRUE(t.hasPendingHwWrites());
  EXPECT_TRUE(env.set->pendingHwWrites());
  auto h = t.entryWriteWithResponseHandler(typename F::Key(1), F::entry(1, 1),
                                           nullptr, r.handler());
  EXPECT_EQ(env.pass(),
            2u); // the remove-all is logged as version 1, the write 2
  EXPECT_EQ(env.log->entryLogRecords(), 2u);
  const auto gen = env.resolver->genId();
  const auto updates = env.set->pendingHwWritesUpdates();

  t.tableStatusVersion(1);
  EXPECT_EQ(h->entryState(), EntryState::logged);
  EXPECT_EQ(t.entryHandleInLogSize(), 1u);
  EXPECT_TRUE(r.calls.empty());
  EXPECT_EQ(env.log->entryLogRecords(), 1u);
  EXPECT_EQ(env.resolver->genId(), gen + 1);
  EXPECT_EQ(env.set->pendingHwWritesUpdates(), updates + 1);
  EXPECT_TRUE(env.set->pendingHwWrites());

  t.tableStatusVersion(2);
  EXPECT_EQ(h->entryState(), EntryState::finished);
  EXPECT_EQ(r.count(h), 1u);
  EXPECT_EQ(r.calls.size(),
            1u); // the remove-all's handler is not the table's to call
  EXPECT_FALSE(t.hasPendingHwWrites());
  EXPECT_FALSE(env.set->pendingHwWrites());
}

TYPED_TEST(Progress,
           ConfirmedChangesFinishInQueueOrderWhileHandlersChangeTheTable) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  std::vector<std::uint32_t> order;
  std::vector<Fwk::Ptr<const typename F::Table::EntryHandle>> handles;
  for (std::uint32_t label = 1; label <= 5; ++label) {
    handles.push_back(t.entryWriteWithResponseHandler(
        Key(label), F::entry(label, label), nullptr,
        [&, label](const Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle> &h) {
          order.push_back(label);
          EXPECT_EQ(h->entryState(), EntryState::finished);
          if (label == 1) {
            // Writes, removes a key whose handle is still queued, and
            // commits both at once.
            t.entryWrite(Key(6), F::entry(6, 6), nullptr);
            t.entryRemove(Key(3), nullptr);
            EXPECT_EQ(env.pass(), 2u);
          }
        }));
  }
  EXPECT_EQ(env.pass(), 5u);
  t.tableStatusVersion(5);
  EXPECT_EQ(order, (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
  for (const auto &h : handles) {
    EXPECT_EQ(h->entryState(), EntryState::finished);
  }
  // The handler's own changes were logged after version 5 and wait.
  ASSERT_EQ(t.entryHandleInLogSize(), 2u);
  EXPECT_EQ(t.entryHandleInLogFront()->logVersion(), 6u);
  EXPECT_EQ(t.entryHandleInLogBack()->logVersion(), 7u);
  t.tableStatusVersion(7);
  EXPECT_EQ(t.entryHandleInLogSize(), 0u);
  EXPECT_EQ(order.size(), 5u);
  EXPECT_FALSE(t.hasPendingHwWrites());
  EXPECT_FALSE(env.logged(3));
}

} // namespace
