// Writer-side behaviour of collections: the model, the order, capacity,
// persistence across remounts, wiped collections, paths and files.
#include <map>
#include <random>
#include <set>

#include "ShmTestTypes.h"

using namespace ShmTest;

namespace {

const Shm::EntityTypeRegistrar<Slate> kSlate;
const Shm::EntityTypeRegistrar<Table> kTable;

struct SmallTraitsV2 : SmallTraits {
  static constexpr std::uint32_t kRecordVersion = 2;
};
struct TableV2 : Shm::Entity {
  static constexpr const char *kTypeName = Table::kTypeName;
  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName).collection<SmallTraitsV2>("entries");
  }
  explicit TableV2(Shm::EntityInit &init)
      : Shm::Entity(init), entries(init, "entries") {}
  Shm::Collection<SmallTraitsV2> entries;
};

std::vector<std::uint32_t> walkKeys(Shm::Collection<SmallTraits> &c) {
  std::vector<std::uint32_t> keys;
  for (auto k = c.firstKey(); k; k = c.nextKey(*k)) {
    keys.push_back(*k);
  }
  return keys;
}

TEST(ShmCollection, MatchesAModelAcrossRemounts) {
  const std::string agent = freshAgent();
  std::map<std::uint32_t, std::uint64_t> model;
  std::mt19937 rng(7);
  for (int round = 0; round < 4; ++round) {
    auto em = Shm::entityManager(agent, 0);
    auto slate = mount<Slate>(em, "slate", slateInfo(64));
    auto &big = slate->big();
    ASSERT_EQ(big.count(), model.size());
    for (int i = 0; i < 400; ++i) {
      const std::uint32_t label = rng() % 80;
      const BigKey key{label, label % 4};
      // Every other change goes through the key's place: found once (with
      // the record's flag, from the index), then read and written there.
      const bool byPlace = rng() % 2 == 0;
      auto at = big.at(key);
      ASSERT_EQ(at.found(), model.count(label) == 1);
      ASSERT_EQ(at.flagged(), at.found() && model[label] % 3 == 0);
      if (at.found()) {
        ASSERT_TRUE(bigConsistent(*big.recordAt(at)));
      }
      if (rng() % 3 == 0) {
        EXPECT_EQ(byPlace ? big.eraseAt(at) : big.erase(key),
                  model.erase(label) == 1);
        EXPECT_FALSE(big.at(key).found());
      } else if (model.size() < 64 || model.count(label)) {
        const BigRecord r = bigRecord(label, round * 1000 + i);
        if (byPlace) {
          // Another key's insert in between moves the place: it is found
          // again before the write.
          if (rng() % 4 == 0 && model.size() < 63 && !model.count(79)) {
            big.insert(bigRecord(79, 3));
            model[79] = 3;
          }
          big.insertAt(at, r.flagged, [&](BigRecord &slot) { slot = r; });
          EXPECT_TRUE(at.found());
          EXPECT_EQ(big.recordAt(at)->value, r.value);
        } else {
          big.insert(r);
        }
        model[label] = r.value;
      }
    }
    std::size_t flagged = 0;
    for (const auto &[label, value] : model) {
      BigRecord r;
      ASSERT_TRUE(big.find(BigKey{label, label % 4}, r));
      EXPECT_TRUE(bigConsistent(r));
      EXPECT_EQ(r.value, value);
      flagged += value % 3 == 0;
    }
    EXPECT_EQ(big.count(), model.size());
    EXPECT_EQ(big.flaggedCount(), flagged);
    EXPECT_EQ(big.countByScan(), model.size());
    BigRecord r;
    EXPECT_FALSE(big.find(BigKey{1000, 0}, r));
    EXPECT_FALSE(big.control().wiped());
    em->close();
  }
}

TEST(ShmCollection, OrderIsStableAndWalksResumeAfterErasedKeys) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  auto t = mount<Table>(em, "t", tableInfo(200));
  auto &c = t->entries();
  for (std::uint32_t k = 0; k < 150; ++k) {
    c.insert(SmallRecord{k, k});
  }
  const std::vector<std::uint32_t> order = walkKeys(c);
  ASSERT_EQ(order.size(), 150u);
  // The order is not the insertion order (it is by hash), and forEach agrees.
  EXPECT_FALSE(std::is_sorted(order.begin(), order.end()));
  std::vector<std::uint32_t> viaForEach;
  c.forEach([&](const SmallRecord &r) { viaForEach.push_back(r.key); });
  EXPECT_EQ(viaForEach, order);

  // nextKey after an erased key, and lowerBoundKey of an absent key, land on
  // the successor the key had.
  c.erase(order[40]);
  EXPECT_EQ(c.nextKey(order[40]), order[41]);
  EXPECT_EQ(c.lowerBoundKey(order[40]), order[41]);
  EXPECT_EQ(c.lowerBoundKey(order[41]), order[41]);
  EXPECT_EQ(c.nextKey(order.back()), std::nullopt);

  // Draining while walking, as the entry log does.
  std::vector<std::uint32_t> drained;
  for (auto k = c.firstKey(); k; k = c.nextKey(*k)) {
    drained.push_back(*k);
    if (*k % 2 == 0) {
      c.erase(*k);
    }
  }
  std::vector<std::uint32_t> expect = order;
  expect.erase(expect.begin() + 40);
  EXPECT_EQ(drained, expect);

  // The order survives a remount (it depends on the file's seed only).
  const std::vector<std::uint32_t> before = walkKeys(c);
  em->close();
  auto em2 = Shm::entityManager(agent, 0);
  auto t2 = mount<Table>(em2, "t", tableInfo(200));
  EXPECT_EQ(walkKeys(t2->entries()), before);
  // And a reader, which has no index, iterates in the same order.
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  auto rt = mount<Table>(ro, "t", readerInfo());
  std::vector<std::uint32_t> readerOrder;
  rt->entries().forEach(
      [&](const SmallRecord &r) { readerOrder.push_back(r.key); });
  EXPECT_EQ(readerOrder, before);
  ro->close();
  em2->close();
  // And so does a reader in another process.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const pid_t child = forkChild([&] {
    auto cro = Shm::entityManager(agent, 0, Shm::Access::read);
    auto ct = mount<Table>(cro, "t", readerInfo());
    ct->entries().forEach([&](const SmallRecord &r) {
      (void)!::write(fds[1], &r.key, sizeof r.key);
    });
  });
  ::close(fds[1]);
  std::vector<std::uint32_t> childOrder;
  std::uint32_t k = 0;
  while (::read(fds[0], &k, sizeof k) == sizeof k) {
    childOrder.push_back(k);
  }
  ::close(fds[0]);
  EXPECT_EQ(waitExit(child), 0);
  EXPECT_EQ(childOrder, before);
}

TEST(ShmCollection, ReadersNoticeAReplacedOrRemovedFile) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  mount<Table>(em, "t", tableInfo(4))->entries().insert(SmallRecord{1, 1});
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  auto rt = mount<Table>(ro, "t", readerInfo());
  EXPECT_FALSE(rt->stale());
  EXPECT_THROW(em->mountGroup()->doMount("t", Table::kTypeName, tableInfo(8)),
               Shm::Error); // mounted already, with another capacity
  em->entityDel("t");
  EXPECT_TRUE(rt->stale());
  SmallRecord r;
  EXPECT_TRUE(rt->entries().find(1, r)); // the old mapping stays readable
  mount<Table>(em, "t", tableInfo(4));
  EXPECT_TRUE(rt->stale());
  ro->close();
  em->close();
}

TEST(ShmCollection, FullCollectionRefusesNewKeysButReplaces) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  auto t = mount<Table>(em, "t", tableInfo(4));
  auto &c = t->entries();
  for (std::uint32_t k = 0; k < 4; ++k) {
    c.insert(SmallRecord{k, 0});
  }
  const auto order = walkKeys(c);
  try {
    c.insert(SmallRecord{99, 1});
    FAIL() << "no CollectionFullError";
  } catch (const Shm::CollectionFullError &e) {
    EXPECT_NE(std::string(e.what()).find("full"), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("entries"), std::string::npos);
  }
  EXPECT_EQ(c.count(), 4u);
  EXPECT_EQ(c.countByScan(), 4u);
  EXPECT_EQ(walkKeys(c), order);
  // Replacing every key many times works at capacity (the spare slot).
  for (std::uint32_t v = 1; v < 50; ++v) {
    c.insert(SmallRecord{v % 4, v});
  }
  SmallRecord r;
  ASSERT_TRUE(c.find(3, r));
  EXPECT_EQ(r.value, 47u);
  EXPECT_EQ(c.countByScan(), 4u);
  // Every slot has been used, the spare too; a remount finds every record
  // and can still replace, and still refuse a new key.
  EXPECT_EQ(c.control().highWater(), 5u);
  em->close();
  em = Shm::entityManager(agent, 0);
  auto &again = mount<Table>(em, "t", tableInfo(4))->entries();
  EXPECT_EQ(walkKeys(again), order);
  EXPECT_EQ(again.countByScan(), 4u);
  ASSERT_TRUE(again.find(3, r));
  EXPECT_EQ(r.value, 47u);
  EXPECT_THROW(again.insert(SmallRecord{99, 1}), Shm::CollectionFullError);
  again.insert(SmallRecord{3, 48});
  ASSERT_TRUE(again.find(3, r));
  EXPECT_EQ(r.value, 48u);
  // An erase makes room again.
  EXPECT_TRUE(again.erase(0));
  again.insert(SmallRecord{99, 1});
  EXPECT_EQ(again.count(), 4u);
  EXPECT_EQ(again.countByScan(), 4u);
  em->close();
}

// The scratchpad and auxiliary words and freed slots persist; a closed
// handle still reads but refuses changes.
TEST(ShmCollection, ScratchpadAndFreedSlotsPersistAndAClosedHandleOnlyReads) {
  const std::string agent = freshAgent();
  {
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "s", slateInfo());
    for (std::uint64_t v = 1; v <= 200; ++v) {
      s->log().insert(logRecord(v, v * 2));
      if (v > 10) {
        s->log().erase(v - 10);
      }
      s->log().control().scratchpadIs(v);
    }
    s->log().control().auxiliaryIs(7);
    em->close();
    EXPECT_TRUE(s->closed());
    LogRecord r;
    EXPECT_TRUE(s->log().find(200, r));
    EXPECT_DEATH(s->log().insert(logRecord(201, 1)), "closed");
    EXPECT_DEATH(s->log().control().scratchpadIs(3), "closed");
  }
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "s", slateInfo());
  EXPECT_EQ(s->log().control().scratchpad(), 200u);
  EXPECT_EQ(s->log().control().auxiliary(), 7u);
  EXPECT_EQ(s->big().control().auxiliary(), 0u); // a word per collection
  EXPECT_EQ(s->log().count(), 10u);
  // Freed slots were reused: the file never needed more than 11.
  EXPECT_LE(s->log().control().highWater(), 11u);
  LogRecord r;
  ASSERT_TRUE(s->log().find(195, r));
  EXPECT_TRUE(logConsistent(r));
  EXPECT_FALSE(s->log().find(190, r));
  em->close();
}

// --- wiped ----------------------------------------------------------------

// A file lost behind the store's back, or of another layout (capacity, type,
// record version), is recreated empty and marked wiped, per collection,
// until the owner clears the mark.
TEST(ShmWiped, LostFilesAndLayoutChangesRecreateTheFileWipedUntilCleared) {
  const std::string agent = freshAgent();
  CaptureReporter rep;
  {
    auto em = Shm::entityManager(agent, 0);
    mount<Slate>(em, "a/b", slateInfo())->big().insert(bigRecord(1, 1));
    em->close();
  }
  ASSERT_TRUE(std::filesystem::remove(instanceDir(agent) + "/a/b"));
  {
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "a/b", slateInfo());
    EXPECT_TRUE(s->big().control().wiped());
    EXPECT_TRUE(s->small().control().wiped());
    EXPECT_EQ(s->big().count(), 0u);
    EXPECT_FALSE(rep.notices.empty());
    s->big().control().clearWiped();
    em->close();
  }
  {
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "a/b", slateInfo());
    EXPECT_FALSE(s->big().control().wiped());
    EXPECT_TRUE(s->small().control().wiped()); // never cleared
    em->close();
  }

  auto fill = [&](const Shm::MountInfo &info) {
    auto em = Shm::entityManager(agent, 0);
    auto t = mount<Table>(em, "t", info);
    t->entries().insert(SmallRecord{1, 1});
    t->entries().control().clearWiped();
    em->close();
  };
  auto wipedAfter = [&](const Shm::MountInfo &info) {
    auto em = Shm::entityManager(agent, 0);
    auto t = mount<Table>(em, "t", info);
    const bool w = t->entries().control().wiped();
    EXPECT_EQ(t->entries().count(), w ? 0u : 1u);
    em->close();
    return w;
  };
  fill(tableInfo(8));
  EXPECT_FALSE(wipedAfter(tableInfo(8)));
  EXPECT_TRUE(wipedAfter(tableInfo(16))); // capacity

  // Another type at the same path.
  fill(tableInfo(8));
  {
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "t", slateInfo());
    EXPECT_TRUE(s->small().control().wiped());
    em->close();
  }
  // The same type name with another record version.
  fill(tableInfo(8));
  { const Shm::EntityTypeRegistrar<TableV2> v2; }
  {
    auto em = Shm::entityManager(agent, 0);
    em->mountGroup()->doMount("t", Table::kTypeName, tableInfo(8));
    auto t = Fwk::ptrCast<TableV2>(em->entity("t"));
    ASSERT_TRUE(t);
    EXPECT_TRUE(t->entries.control().wiped());
    em->close();
  }
  { const Shm::EntityTypeRegistrar<Table> v1; }
}

// --- paths and files ------------------------------------------------------

TEST(ShmPaths, BadNamesAreRefusedAndCreateNothing) {
  const std::string agent = freshAgent();
  for (const std::string bad :
       {"", ".", "..", "a/b", ".hidden", "a b", "a\n"}) {
    EXPECT_THROW(Shm::entityManager(bad, 0), Shm::PathError) << bad;
  }
  auto em = Shm::entityManager(agent, 0);
  for (const std::string &bad :
       std::vector<std::string>{"", "a/../b", "../x", "a//b", "/a", "a/",
                                "a/./b", "a/.lock", std::string("a\0b", 3)}) {
    EXPECT_THROW(em->mountGroup()->doMount(bad, Table::kTypeName, tableInfo(4)),
                 Shm::PathError)
        << bad;
  }
  EXPECT_TRUE(em->entityPaths("").empty());
  EXPECT_FALSE(std::filesystem::exists(Shm::rootDirectory() + "/x"));
  em->close();
}

TEST(ShmPaths, SymbolicLinksAreRefused) {
  const std::string agent = freshAgent();
  const std::string dir = instanceDir(agent);
  auto em = Shm::entityManager(agent, 0);
  mount<Table>(em, "real/t", tableInfo(4));
  std::filesystem::create_directory_symlink(dir + "/real", dir + "/linkdir");
  std::filesystem::create_symlink(dir + "/real/t", dir + "/real/linkfile");
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  for (const char *path : {"linkdir/t", "real/linkfile"}) {
    EXPECT_THROW(
        em->mountGroup()->doMount(path, Table::kTypeName, tableInfo(4)),
        Shm::PathError)
        << path;
    EXPECT_THROW(
        ro->mountGroup()->doMount(path, Table::kTypeName, readerInfo()),
        Shm::PathError)
        << path;
  }
  // The instance directory itself as a link.
  const std::string other = freshAgent("-other");
  std::filesystem::create_directory_symlink(dir, instanceDir(other));
  EXPECT_THROW(Shm::entityManager(other, 0), Shm::PathError);
  std::filesystem::remove(instanceDir(other));
  ro->close();
  em->close();
}

TEST(ShmPaths, FilesAre0600DirectoriesAre0700AndListed) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  mount<Table>(em, "b/t2", tableInfo(4));
  mount<Table>(em, "b/t1", tableInfo(4));
  mount<Table>(em, "a", tableInfo(4));
  const std::string dir = instanceDir(agent);
  EXPECT_EQ(modeOf(dir), 0700u);
  EXPECT_EQ(modeOf(dir + "/b"), 0700u);
  EXPECT_EQ(modeOf(dir + "/b/t1"), 0600u);
  EXPECT_EQ(modeOf(dir + "/.lock"), 0600u);
  EXPECT_EQ(modeOf(dir + "/.catalog"), 0600u);
  EXPECT_EQ(em->entityPaths(""),
            (std::vector<std::string>{"a", "b/t1", "b/t2"}));
  EXPECT_EQ(em->entityPaths("b"), (std::vector<std::string>{"b/t1", "b/t2"}));
  EXPECT_TRUE(em->entityPaths("c").empty());

  // entityDel removes the file and the catalog entry: mounting again is a
  // new entity, not a wiped one.
  em->entityDel("b/t1");
  EXPECT_FALSE(em->entity("b/t1"));
  EXPECT_EQ(em->entityPaths("b"), (std::vector<std::string>{"b/t2"}));
  auto t = mount<Table>(em, "b/t1", tableInfo(4));
  EXPECT_FALSE(t->entries().control().wiped());

  // A file lost behind the store's back, while no writer had it open, is
  // still one of the instance's entities (it mounts wiped); a deleted one is
  // not.
  em->close();
  ASSERT_EQ(::unlink((dir + "/b/t2").c_str()), 0);
  em = Shm::entityManager(agent, 0);
  EXPECT_EQ(em->entityPaths("b"), (std::vector<std::string>{"b/t1"}));
  EXPECT_EQ(em->knownEntityPaths("b"),
            (std::vector<std::string>{"b/t1", "b/t2"}));
  EXPECT_EQ(em->knownEntityPaths(""),
            (std::vector<std::string>{"a", "b/t1", "b/t2"}));
  EXPECT_TRUE(em->knownEntityPaths("b/t").empty());
  em->entityDel("b/t2");
  EXPECT_EQ(em->knownEntityPaths("b"), (std::vector<std::string>{"b/t1"}));
  em->close();
}

TEST(ShmPaths, MountErrorsAreClear) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  EXPECT_THROW(em->mountGroup()->doMount("t", "No::Such", tableInfo(4)),
               Shm::Error);
  EXPECT_THROW(
      em->mountGroup()->doMount("t", Table::kTypeName, Shm::MountInfo()),
      Shm::Error);
  Shm::MountInfo extra = tableInfo(4);
  extra.collectionInfoIs("nope", 4);
  EXPECT_THROW(em->mountGroup()->doMount("t", Table::kTypeName, extra),
               Shm::Error);
  mount<Table>(em, "t", tableInfo(4));
  EXPECT_THROW(em->mountGroup()->doMount("t", Slate::kTypeName, slateInfo()),
               Shm::Error);
  EXPECT_THROW(em->mountGroup()->doMount("t/x", Table::kTypeName, tableInfo(4)),
               Shm::PathError);
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  EXPECT_THROW(
      ro->mountGroup()->doMount("missing", Table::kTypeName, readerInfo()),
      Shm::NotFoundError);
  EXPECT_THROW(ro->mountGroup()->doMount("t", Slate::kTypeName, readerInfo()),
               Shm::LayoutError);
  // Mounted read-only through the writer handle, a path is not quietly
  // handed to a writer later.
  auto created = em->mountGroup();
  created->doMount("r", Table::kTypeName, tableInfo(4));
  created->doUnmount();
  em->mountGroup()->doMount("r", Table::kTypeName, readerInfo());
  EXPECT_THROW(em->mountGroup()->doMount("r", Table::kTypeName, tableInfo(4)),
               Shm::Error);
  EXPECT_THROW(Shm::entityManager(freshAgent("-none"), 0, Shm::Access::read),
               Shm::NotFoundError);
  ro->close();
  em->close();
}

TEST(ShmPaths, MountGroupCloseKeepsItsMountsAndUnmountTakesThem) {
  const std::string agent = freshAgent();
  auto em = Shm::entityManager(agent, 0);
  auto g1 = em->mountGroup();
  auto g2 = em->mountGroup();
  g1->doMount("one", Table::kTypeName, tableInfo(4));
  g2->doMount("two", Table::kTypeName, tableInfo(4));
  g1->doClose();
  auto one = em->entity("one");
  ASSERT_TRUE(one);
  EXPECT_FALSE(one->closed());
  EXPECT_THROW(g1->doMount("three", Table::kTypeName, tableInfo(4)),
               Shm::Error);
  g1->doUnmount();
  EXPECT_FALSE(em->entity("one"));
  EXPECT_TRUE(one->closed());
  EXPECT_TRUE(em->entity("two"));
  em->close();
}

} // namespace
