#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/framework/Assert.h"
#include "platform/framework/Errors.h"
#include "platform/framework/Notifier.h"
#include "platform/framework/Object.h"

namespace {

struct Counted : Fwk::Object {
  explicit Counted(int *alive) : alive_(alive) { ++*alive_; }
  ~Counted() override { --*alive_; }
  int *alive_;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(Ptr, CountsReferencesDestroysWithTheLastAndCastsAlongTheHierarchy) {
  int alive = 0;
  Fwk::Ptr<Counted> a = Fwk::make<Derived>(&alive);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(a->references(), 1u);
  {
    Fwk::Ptr<const Counted> b = a; // const view shares the count
    EXPECT_EQ(a->references(), 2u);
    EXPECT_TRUE(Fwk::ptrCast<Derived>(a));
    Fwk::Ptr<Counted> c = std::move(a);
    EXPECT_FALSE(a);
    EXPECT_EQ(c->references(), 2u);
    EXPECT_FALSE(Fwk::ptrCast<Derived>(Fwk::make<Counted>(&alive)));
  }
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(fmt::format("{}", Fwk::Ptr<Counted>()), "0x0");
}

TEST(Ptr, MultiThreadedModeKeepsCountsExact) {
  int alive = 0;
  Fwk::multiThreadedIs(true);
  auto obj = Fwk::make<Counted>(&alive);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([obj] {
      for (int i = 0; i < 100000; ++i) {
        Fwk::Ptr<Counted> copy = obj;
      }
    });
  }
  for (auto &t : threads) {
    t.join();
  }
  Fwk::multiThreadedIs(false);
  EXPECT_EQ(obj->references(), 1u);
  obj = nullptr;
  EXPECT_EQ(alive, 0);
}

constexpr Fwk::AttrId kColor{1, "color"};
constexpr Fwk::AttrId kItem{2, "item"};

struct Subject : Fwk::Notifier {
  void colorIs(int c) {
    color = c;
    notify(kColor);
  }
  void itemIs(int k) { notify(kItem, k); }
  using Fwk::Notifier::hasObservers;
  int color = 0;
};

struct Recorder : Fwk::Observer {
  void onChange(const Fwk::Notifier &, const Fwk::Change &c) override {
    attrs.push_back(c.attr.id);
    const int *k = c.key<int>();
    keys.push_back(k ? *k : -1);
    if (onCall) {
      onCall();
    }
  }
  std::vector<int> attrs, keys;
  std::function<void()> onCall;
};

// Every observer hears the attribute and key of each change, once however
// often it registered; observers deregistered during a notification are not
// called for it, ones registered during it from the next change on.
TEST(Notifier, AnnouncesAttributeAndKeyToEveryObserverRegisteredWhenItRuns) {
  auto s = Fwk::make<Subject>();
  EXPECT_FALSE(s->hasObservers());
  Recorder r1, r2, late;
  s->observerIs(&r1);
  s->observerIs(&r1); // registering twice is once
  s->observerIs(&r2);
  EXPECT_EQ(s->observers(), 2u);
  s->colorIs(3);
  s->itemIs(42);
  EXPECT_EQ(r1.attrs, (std::vector<int>{1, 2}));
  EXPECT_EQ(r1.keys, (std::vector<int>{-1, 42}));
  EXPECT_EQ(r2.attrs, r1.attrs);
  r1.onCall = [&] {
    s->observerDel(&r2);
    s->observerIs(&late);
  };
  s->colorIs(1);
  EXPECT_EQ(r1.attrs.size(), 3u);
  EXPECT_EQ(r2.attrs.size(), 2u);
  EXPECT_TRUE(late.attrs.empty());
  r1.onCall = nullptr;
  s->colorIs(2);
  EXPECT_EQ(late.attrs.size(), 1u);
  EXPECT_EQ(s->observers(), 2u);
  s->observerDel(&r1);
  s->observerDel(&late);
  EXPECT_FALSE(s->hasObservers());
}

TEST(Notifier, ObserverMayDropTheLastReferenceToTheNotifier) {
  auto s = Fwk::make<Subject>();
  Recorder r;
  r.onCall = [&] {
    s->observerDel(&r);
    s = nullptr; // the notification in flight keeps it alive
  };
  s->observerIs(&r);
  s->colorIs(7);
  EXPECT_FALSE(s);
}

TEST(Errors, CarryTheirSubject) {
  Fwk::NullPointerException e("resPtr");
  EXPECT_EQ(e.argument(), "resPtr");
  EXPECT_NE(std::string(e.what()).find("resPtr"), std::string::npos);
  EXPECT_THROW(throw Fwk::ReinstantiationException("key 3"), Fwk::Exception);
}

TEST(AssertDeathTest, PrintsTheExpressionAndTheMessage) {
  EXPECT_DEATH(FWK_ASSERT_MSG(1 + 1 == 3, "sum was {}", 2),
               "assertion failed: 1 \\+ 1 == 3: sum was 2");
  EXPECT_DEATH(FWK_ASSERT_TEXT(false, "tableConfigSlateHas( unitId )",
                               "Config slate for unitId:{} is not created yet!",
                               7),
               "tableConfigSlateHas\\( unitId \\): Config slate for "
               "unitId:7 is not created yet!");
}

} // namespace

