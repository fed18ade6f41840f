#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "platform/framework/Object.h"
#include "platform/framework/RingQueue.h"

namespace {

struct Item : Fwk::Object {
  explicit Item(int v) : v(v) { ++alive; }
  ~Item() override { --alive; }
  int v;
  static inline int alive = 0;
};
using Q = Fwk::RingQueue<Fwk::Ptr<Item>>;

TEST(SerialOrder, ComparesAcrossTheWrap) {
  EXPECT_TRUE(Fwk::serialLess(0xffffffffu, 0));
  EXPECT_FALSE(Fwk::serialLess(0, 0xffffffffu));
  EXPECT_TRUE(Fwk::serialLess(1, 2));
  EXPECT_FALSE(Fwk::serialLess(5, 5));
  EXPECT_TRUE(Fwk::serialLess(0, 0x7fffffffu));
  EXPECT_FALSE(Fwk::serialLess(0, 0x80000000u));
}

// Numbering starts at 1 and goes on through emptying and clear(); the tail
// array grows by whole arrays (4, 8, 16, ... at most 8192 slots) and an
// emptied queue keeps only a placeholder.
TEST(RingQueue, NumbersFromOneAndGrowsByWholeArraysUpTo8192) {
  Q q;
  EXPECT_TRUE(q.empty());
  EXPECT_FALSE(q.has(0));
  EXPECT_FALSE(q.has(1));
  EXPECT_EQ(q.enq(Fwk::make<Item>(0)), 1u);
  EXPECT_TRUE(q.has(1));
  EXPECT_FALSE(q.has(0));
  EXPECT_FALSE(q.has(2));
  for (int i = 1; i < 4; ++i) {
    q.enq(Fwk::make<Item>(i));
  }
  EXPECT_EQ(q.arrays(), 1u);
  EXPECT_EQ(q.tailCapacity(), 4u);
  EXPECT_EQ(q.enq(Fwk::make<Item>(4)), 5u); // fifth: a new array of 8
  EXPECT_EQ(q.arrays(), 2u);
  EXPECT_EQ(q.tailCapacity(), 8u);
  for (int i = 5; i < 12; ++i) {
    q.enq(Fwk::make<Item>(i)); // fills the 8, then 12 queued...
  }
  EXPECT_EQ(q.tailCapacity(), 8u);
  q.enq(Fwk::make<Item>(12)); // 12 queued -> 16 slots
  EXPECT_EQ(q.tailCapacity(), 16u);
  for (std::uint32_t n = 1; n <= 13; ++n) {
    ASSERT_NE(q.at(n), nullptr);
    EXPECT_EQ((*q.at(n))->v, static_cast<int>(n - 1));
  }
  EXPECT_EQ(q.at(14), nullptr);
  EXPECT_EQ((*q.front())->v, 0);
  EXPECT_EQ((*q.back())->v, 12);

  for (int i = 0; i < 13; ++i) {
    auto h = q.deq();
    ASSERT_TRUE(h);
    EXPECT_EQ(h->v, i);
  }
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.arrays(), 1u);
  EXPECT_EQ(q.tailCapacity(), 0u); // the placeholder
  EXPECT_FALSE(q.deq());
  EXPECT_EQ(q.enq(Fwk::make<Item>(13)), 14u);
  EXPECT_EQ(q.tailCapacity(), 4u);
  q.clear();
  EXPECT_EQ(Item::alive, 0);
  EXPECT_EQ(q.enq(Fwk::make<Item>(14)), 15u); // clear does not restart at 1

  for (int i = 0; i < 20000; ++i) {
    q.enq(nullptr);
  }
  EXPECT_EQ(q.tailCapacity(), 8192u);
  EXPECT_EQ(q.size(), 20001u);
}

TEST(RingQueue, MatchesADequeUnderRandomUse) {
  Q q;
  std::deque<std::pair<std::uint32_t, int>> model;
  std::mt19937 rng(3);
  std::uint32_t next = 1;
  for (int i = 0; i < 100000; ++i) {
    if (rng() % 100 < 55) {
      EXPECT_EQ(q.enq(Fwk::make<Item>(i)), next);
      model.emplace_back(next++, i);
    } else {
      auto h = q.deq();
      if (model.empty()) {
        EXPECT_FALSE(h);
      } else {
        ASSERT_TRUE(h);
        EXPECT_EQ(h->v, model.front().second);
        model.pop_front();
      }
    }
    ASSERT_EQ(q.size(), model.size());
    if (i % 1000 == 0 && !model.empty()) {
      const auto &[seq, v] = model[rng() % model.size()];
      ASSERT_TRUE(q.has(seq));
      EXPECT_EQ((*q.at(seq))->v, v);
      std::size_t k = 0;
      for (auto it = q.begin(); it != q.end(); ++it, ++k) {
        ASSERT_EQ(it.seq(), model[k].first);
        ASSERT_EQ((*it)->v, model[k].second);
      }
      EXPECT_EQ(k, model.size());
    }
  }
  q.clear();
  EXPECT_EQ(Item::alive, 0);
}

} // namespace
