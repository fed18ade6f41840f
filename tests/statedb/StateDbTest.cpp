#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/framework/Errors.h"
#include "platform/statedb/EntityManager.h"
#include "platform/statedb/GenId.h"

namespace {

struct Thing : Fwk::Object {
  explicit Thing(int v = 0) : v(v) {}
  int v;
};

using Paths = std::vector<std::string>;

class EntityManagerTest : public ::testing::Test {
protected:
  StateDb::EntityManager::Ptr em = StateDb::entityManagerIs("MplsAgent", 3);
};

TEST_F(EntityManagerTest, StoresReplacesAndDeletesByPath) {
  EXPECT_EQ(em->entity("a/b"), nullptr);
  auto first = Fwk::make<Thing>(1);
  em->entityIs("a/b", first);
  EXPECT_EQ(em->entity("a/b"), first);
  em->entityIs("a/b", Fwk::make<Thing>(2));
  EXPECT_EQ(em->entity<Thing>("a/b")->v, 2);
  EXPECT_EQ(first->references(), 1u); // the replaced one was let go
  EXPECT_EQ(em->entities(), 1u);
  EXPECT_TRUE(em->entityDel("a/b"));
  EXPECT_FALSE(em->entityDel("a/b"));
  EXPECT_EQ(em->entity("a/b"), nullptr);
  EXPECT_THROW(em->entityIs("a/b", nullptr), Fwk::NullPointerException);
  EXPECT_EQ(em->entities(), 0u);
}

TEST_F(EntityManagerTest, ListsPathsAtOrUnderAPrefixInOrder) {
  for (const char *p : {"mpls/z", "mpls", "mpls/a/deep", "mpls-x/a", "mplsb",
                        "mpls/a", "other"}) {
    em->entityIs(p, Fwk::make<Thing>());
  }
  EXPECT_EQ(em->entityPaths("mpls"),
            (Paths{"mpls", "mpls/a", "mpls/a/deep", "mpls/z"}));
  EXPECT_EQ(em->entityPaths("mpls/"), em->entityPaths("mpls"));
  EXPECT_EQ(em->entityPaths("mpls/a"), (Paths{"mpls/a", "mpls/a/deep"}));
  EXPECT_EQ(em->entityPaths("nothing"), Paths{});
  EXPECT_EQ(em->entityPaths(),
            (Paths{"mpls", "mpls-x/a", "mpls/a", "mpls/a/deep", "mpls/z",
                   "mplsb", "other"}));
}

TEST_F(EntityManagerTest, BadNamesAndPathsAreRefusedAndChangeNothing) {
  EXPECT_EQ(em->name(), "MplsAgent");
  EXPECT_EQ(em->instanceId(), 3u);
  for (const char *bad : {"", "..", "a/b"}) {
    EXPECT_THROW(StateDb::entityManagerIs(bad, 0), std::invalid_argument)
        << bad;
  }
  auto kept = Fwk::make<Thing>(7);
  em->entityIs("a/b", kept);
  for (const char *bad : {"", "/a", "a/", "a//b", "a/../b", "..", "a/./b"}) {
    EXPECT_THROW(em->entityIs(bad, Fwk::make<Thing>()), std::invalid_argument)
        << bad;
    EXPECT_THROW(em->entityDel(bad), std::invalid_argument) << bad;
    EXPECT_THROW(em->entity(bad), std::invalid_argument) << bad;
  }
  EXPECT_THROW(em->entityIs(std::string("a\0b", 3), kept),
               std::invalid_argument);
  for (const char *bad : {"/", "a//", "../a", "/a"}) {
    EXPECT_THROW(em->entityPaths(bad), std::invalid_argument) << bad;
  }
  EXPECT_EQ(em->entityPaths(), Paths{"a/b"});
  EXPECT_EQ(em->entity("a/b"), kept);
}

class Supervisor : public Fwk::Observer {
public:
  void onChange(const Fwk::Notifier &source, const Fwk::Change &c) override {
    if (c.attr == Asic::GenId::attrMajorId) {
      seen.push_back(static_cast<const Asic::GenId &>(source).majorId());
    }
  }
  std::vector<std::uint32_t> seen;
};

// The agent's generation id lives at its relaunch path, made once; a path
// holding another type is not replaced.
TEST_F(EntityManagerTest, GenIdLivesAtTheAgentsRelaunchPathMadeOnce) {
  EXPECT_EQ(Asic::genId(*em), nullptr);
  auto gen = Asic::genIdIs(*em, 5, 2);
  EXPECT_EQ(em->entityPaths("hardware"),
            Paths{"hardware/gleam/agent/relaunch/config/MplsAgent"});
  EXPECT_EQ(Asic::genIdIs(*em, 9, 9), gen); // found, ids untouched
  EXPECT_EQ(Asic::genId(*em), gen);
  EXPECT_EQ(gen->majorId(), 5u);
  EXPECT_EQ(gen->minorId(), 2u);

  auto other = StateDb::entityManagerIs("OtherAgent", 0);
  auto squatter = Fwk::make<Thing>();
  other->entityIs(Asic::GenId::path(other->name()), squatter);
  EXPECT_THROW(Asic::genIdIs(*other), Fwk::ReinstantiationException);
  EXPECT_EQ(Asic::genId(*other), nullptr);
  EXPECT_EQ(other->entity(Asic::GenId::path(other->name())), squatter);
}

TEST(GenId, MajorIdIncrementsAreAnnounced) {
  auto gen = Fwk::make<Asic::GenId>(0xfffffffeu, 4);
  Supervisor supervisor;
  gen->observerIs(&supervisor);
  gen->majorIdInc(1);
  gen->majorIdInc(0); // no change, no announcement
  gen->majorIdInc(3); // wraps
  EXPECT_EQ(supervisor.seen, (std::vector<std::uint32_t>{0xffffffffu, 2u}));
  EXPECT_EQ(gen->minorId(), 4u);
  gen->observerDel(&supervisor);
  gen->majorIdInc(1);
  EXPECT_EQ(supervisor.seen.size(), 2u);
}

} // namespace
