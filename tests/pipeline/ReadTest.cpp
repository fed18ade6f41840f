// Reads and iteration: pending changes merged over the committed
// configuration, and walks that survive changes between their steps.
#include <algorithm>

#include "OrderedTable/TableAttributes.h"
#include "PipelineFixture.h"
#include "tools/inspect/JsonVisitor.h"

namespace {

using namespace PipelineTest;

template <typename F> class Read : public ::testing::Test {};
TYPED_TEST_SUITE(Read, Families);

template <typename It> auto keysOf(It &&it) {
  std::vector<std::decay_t<decltype(it.entry().key)>> keys;
  for (; !it.done(); ++it) {
    keys.push_back(it.entry().key);
  }
  return keys;
}

// The committed keys in the configuration table's order.
template <typename F> std::vector<typename F::Key> configOrder(Env<F> &env) {
  std::vector<typename F::Key> keys;
  auto &coll = env.log->tableConfigSlate(Env<F>::kUnit)->swTableEntries();
  for (auto k = coll.firstKey(); k; k = coll.nextKey(*k)) {
    keys.push_back(*k);
  }
  return keys;
}

TYPED_TEST(Read, PendingWritesShadowAndPendingRemovesHideCommittedEntries) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 1}, {2, 2}, {3, 3}});
  const auto committed3 = env.committed(3);
  EXPECT_NE(F::result(committed3), 0u); // resolved at commit
  t.entryWrite(Key(1), F::entry(1, 7, 42), nullptr);
  t.entryRemove(Key(2), nullptr);
  t.entryWrite(Key(4), F::entry(4, 4), nullptr);
  t.entryRemove(Key(9), nullptr); // never committed
  const std::pair<std::uint32_t, bool> has[] = {
      {1, true}, {2, false}, {3, true}, {4, true}, {9, false}};
  for (const auto &[label, yes] : has) {
    EXPECT_EQ(t.entryHas(Key(label)), yes) << label;
  }
  EXPECT_EQ(t.entry(Key(1)), F::entry(1, 7, 42));
  EXPECT_EQ(t.entryFromConfig(Key(1)), env.committed(1));
  EXPECT_EQ(t.entry(Key(2)), typename F::Entry{});
  EXPECT_EQ(t.entry(Key(3)), committed3);
  EXPECT_EQ(t.entrys(), 3u);

  // A pending remove-all hides every committed entry, except from a point
  // read of a key that is still committed.
  t.entryRemoveAll(nullptr);
  t.entryWrite(Key(5), F::entry(5, 5), nullptr);
  EXPECT_FALSE(t.entryHas(Key(3)));
  EXPECT_EQ(t.entry(Key(3)), committed3);
  EXPECT_EQ(t.entrys(), 1u);
  EXPECT_EQ(keysOf(t.entryIteratorConst()), std::vector<Key>{Key(5)});
}

TYPED_TEST(Read, AWalkYieldsPendingWritesFirstThenEachCommittedEntryOnce) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  EXPECT_TRUE(t.entryIteratorConst().done());
  EXPECT_EQ(t.getTableEntries_py()->size(), 0u);
  env.commit({{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}});
  t.entryWrite(Key(2), F::entry(2, 8, 1), nullptr);
  t.entryWrite(Key(4), F::entry(4, 8, 2), nullptr);
  t.entryWrite(Key(10), F::entry(10, 8), nullptr);
  t.entryRemove(Key(5), nullptr);

  std::vector<Key> expected;
  const auto &add = t.transientAddEntryColl();
  for (auto it = add.begin(); it != add.end(); ++it) {
    expected.push_back(it.key());
  }
  for (const Key &k : configOrder(env)) {
    if (!add.contains(k) && !(k == Key(5))) {
      expected.push_back(k);
    }
  }
  EXPECT_EQ(keysOf(t.entryIteratorConst()), expected);
  EXPECT_EQ(t.entrys(), 6u);
  auto snapshot = t.getTableEntries_py();
  EXPECT_EQ(snapshot->size(), 6u);
  ASSERT_TRUE(snapshot->tableEntry(Key(2)) && snapshot->tableEntry(Key(6)));
  EXPECT_EQ(*snapshot->tableEntry(Key(2)), F::entry(2, 8, 1));
  EXPECT_EQ(*snapshot->tableEntry(Key(6)), env.committed(6));
  // A walk from a key that is neither pending nor committed ends at once.
  EXPECT_TRUE(t.entryIteratorConst(Key(99)).done());

  // A committed record that fails its checks ends the walk where it lies:
  // it is reported and dropped once, and the next walk goes past its place.
  t.entryWrite(Key(5), F::entry(5, 5), nullptr); // shadows its removal
  env.pass();
  const auto order = configOrder(env);
  auto &coll = env.log->tableConfigSlate(Env<F>::kUnit)->swTableEntries();
  const Key bad = order[order.size() / 2];
  const_cast<unsigned char *>(
      reinterpret_cast<const unsigned char *>(coll.findRef(bad)))[0] ^= 0x5a;
  const std::vector<Key> before(order.begin(),
                                order.begin() + order.size() / 2);
  EXPECT_EQ(keysOf(t.entryIteratorConst()), before);
  EXPECT_EQ(coll.corruptionCount(), 1u);
  std::vector<Key> rest = order;
  rest.erase(rest.begin() + order.size() / 2);
  EXPECT_EQ(keysOf(t.entryIteratorConst()), rest);
}

TYPED_TEST(Read, AKeyWrittenBehindTheBookmarkIsNotReturnedTo) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  for (std::uint32_t label = 1; label <= 10; ++label) {
    t.entryWrite(Key(label), F::entry(label, 0), nullptr);
  }
  auto it = t.entryIteratorConst();
  for (int i = 0; i < 8; ++i) {
    ++it; // nine yielded; the bookmark is the last pending write
  }
  const Key bookmark = it.iterState()->bookmarkKey();
  for (std::uint32_t label = 100; label < 120; ++label) {
    t.entryWrite(Key(label), F::entry(label, 0), nullptr);
  }
  std::vector<Key> behind;
  const auto &add = t.transientAddEntryColl();
  for (auto a = add.begin(); !(a.key() == bookmark); ++a) {
    if (a.key().label >= 100) {
      behind.push_back(a.key());
    }
  }
  ASSERT_FALSE(behind.empty());
  ++it;
  const auto rest = keysOf(it);
  EXPECT_EQ(rest.front(), bookmark);
  EXPECT_EQ(rest.size(), 1 + 20 - behind.size());
  for (const Key &k : behind) {
    EXPECT_EQ(std::count(rest.begin(), rest.end(), k), 0) << k.label;
  }
}

TYPED_TEST(
    Read,
    AWalkWhosePendingWritesCommittedGoesOnInTheConfigurationAtItsBookmark) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8}});
  const Key first = configOrder(env).front();
  for (std::uint32_t label = 1; label <= 8; ++label) {
    if (!(Key(label) == first)) {
      t.entryWrite(Key(label), F::entry(label, label, 9), nullptr);
    }
  }
  auto it = t.entryIteratorConst();
  const Key bookmark = it.iterState()->bookmarkKey();
  EXPECT_EQ(env.pass(), 7u); // every pending write leaves the collection
  ++it;
  const auto order = configOrder(env);
  const auto at = std::find(order.begin(), order.end(), bookmark);
  ASSERT_NE(at, order.begin());
  EXPECT_EQ(keysOf(it), std::vector<Key>(at, order.end()));
}

} // namespace

namespace {

template <typename T> MicaMplsInspect::Json described(const T &obj) {
  MicaMplsInspect::JsonVisitor v;
  Introspect::inspectOperation(obj, v);
  return v.take();
}

} // namespace

// The table's description: its attributes by name, and every collection
// walked a page at a time from a cursor, each element once, while the
// table changes between pages; the resolver's says what each change waits
// for.
TYPED_TEST(Read, TheDescriptionNamesAttributesAndPagesCollectionsByCursor) {
  using F = TypeParam;
  using Key = typename F::Key;
  Env<F> env;
  auto &t = *env.table;
  env.commit({{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}});
  t.entryWrite(Key(2), F::entry(2, 8, 1), nullptr);
  t.entryWrite(Key(10), F::entry(10, 8), nullptr);
  t.entryRemove(Key(5), nullptr);
  const auto waiting = dependency(Asic::EntryState::made);
  t.entryWrite(Key(11), F::entry(11, 8), waiting);
  env.resolver->runPass(); // commits all but the change that depends
  t.entryWrite(Key(12), F::entry(12, 8), nullptr);

  const auto doc = described(t);
  EXPECT_EQ(doc["class"], F::B::kSwTableClass);
  EXPECT_EQ(doc["unitId"], Env<F>::kUnit);
  EXPECT_EQ(doc["entries"], t.entrys());
  EXPECT_EQ(doc["transientAddEntry"], 2);
  EXPECT_EQ(doc["stats"]["entryWriteCnt"], t.stats()->entryWriteCnt());
  EXPECT_EQ(doc["loggedVersion"], t.loggedVersion());

  // Pages of two of the merged view are the table's own walk, and a key
  // written between pages behind the cursor is not visited.
  std::vector<Key> walked;
  Introspect::Cursor at;
  for (int page = 0;; ++page) {
    const auto w =
        Introspect::walkElements(t, "entries", at, 2, [&](const auto &e) {
          if constexpr (std::is_same_v<std::decay_t<decltype(e)>,
                                       typename F::Entry>) {
            walked.push_back(e.key);
          }
        });
    ASSERT_TRUE(w.found);
    if (page == 0) {
      EXPECT_EQ(walked.size(), 2u);
    }
    if (w.next.empty()) {
      break;
    }
    at = w.next;
  }
  EXPECT_EQ(walked, keysOf(t.entryIteratorConst()));
  auto snapshot = t.getTableEntries_py();
  EXPECT_EQ(snapshot->size(), walked.size());

  // The visitor form, and what a bad cursor or name gets.
  MicaMplsInspect::JsonVisitor v;
  const auto w =
      Introspect::genericIfIterator(t, "transientAddEntry", {}, 100, v);
  EXPECT_TRUE(w.next.empty());
  EXPECT_EQ(v.take().size(), 2u);
  EXPECT_THROW(Introspect::walkElements(t, "entries", Introspect::Cursor("x"),
                                        5, [](const auto &) {}),
               Introspect::BadCursor);
  std::string bothPhases(1 + 3 + sizeof(Key), '\0');
  bothPhases[0] = 0x06; // pending writes and the configuration at once
  EXPECT_THROW(Introspect::walkElements(t, "entries",
                                        Introspect::Cursor(bothPhases), 5,
                                        [](const auto &) {}),
               Introspect::BadCursor);
  EXPECT_FALSE(
      Introspect::walkElements(t, "noSuchCollection", {}, 5, [](const auto &) {
      }).found);

  // The resolver: one change parked on its dependency, one offered.
  const auto r = described(*env.resolver);
  EXPECT_EQ(r["resolverQueue"], 2);
  EXPECT_EQ(r["parkedOn"]["dependency"], 1);
  MicaMplsInspect::JsonVisitor q;
  Introspect::genericIfIterator(*env.resolver, "resolverQueue", {}, 10, q);
  const auto queue = q.take();
  ASSERT_EQ(queue.size(), 2u);
  int parked = 0;
  for (const auto &c : queue) {
    parked += c["waitsOn"] == "dependency";
    EXPECT_TRUE(c["laneHead"].get<bool>());
  }
  EXPECT_EQ(parked, 1);
  waiting->entryStateIs(Asic::EntryState::finished);
  env.resolver->runPass();
  EXPECT_EQ(described(*env.resolver)["resolverQueue"], 0);
  EXPECT_EQ(env.resolver->parkedOn(Asic::WaitKind::dependency), 0u);
}
