#include "runtime/Collection.h"
#include "runtime/LinkQueue.h"
#include "runtime/Name.h"
#include "runtime/NotifyingCollection.h"
#include "runtime/String.h"
#include "tests/support/WhatOf.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

template <class C>
std::vector<int> values(C const& c) {
  std::vector<int> v;
  for (auto const& [k, x] : c) v.push_back(x);
  return v;
}

TEST(CollectionTest, KeepsInsertionOrderThroughReplaceAndErase) {
  Kel::Collection<Kel::Name, int> c;
  EXPECT_TRUE(c.insert("b", 1));
  EXPECT_TRUE(c.insert("a", 2));
  EXPECT_TRUE(c.insert("c", 3));
  EXPECT_FALSE(c.insert("b", 10)) << "replacing keeps the position";
  EXPECT_EQ((std::vector<int>{10, 2, 3}), values(c));
  EXPECT_EQ(2, *c.erase("a"));
  EXPECT_FALSE(c.erase("a"));
  EXPECT_EQ(nullptr, c.find("a"));
  c.insert("a", 4);
  EXPECT_EQ((std::vector<int>{10, 3, 4}), values(c));
  EXPECT_EQ(10, c.popFront()->second);
  EXPECT_EQ(2u, c.size());
}

TEST(CollectionTest, ErasingOtherEntriesWhileIteratingIsSafe) {
  Kel::Collection<std::uint32_t, int> c;
  for (std::uint32_t i = 0; i < 10; ++i) c.insert(i, int(i));
  std::vector<int> seen;
  for (auto const& [k, v] : c) {
    seen.push_back(v);
    c.erase(k + 1);  // the next one goes before it is reached
  }
  EXPECT_EQ((std::vector<int>{0, 2, 4, 6, 8}), seen);
}

TEST(NotifyingCollectionTest, TellsEachKeyOnceItsChangeStandsAndEraseAllOldestFirst) {
  // Each told key as "key+size" when present then, "key-size" when gone.
  std::vector<std::string> told;
  Kel::NotifyingCollection<Kel::String, int> c(
      [&](Kel::String const& k) { told.push_back(k.str() + (c.find(k) ? "+" : "-") + std::to_string(c.size())); });
  c.insert("a", 1);
  c.insert("b", 2);
  c.insert("b", 2);  // the value it has: no change
  c.insert("b", 3);  // replaced where it stands
  EXPECT_EQ(3, c.findOrInsert("b", [](Kel::String const&) { return 9; }));
  EXPECT_EQ(4, c.findOrInsert("c", [](Kel::String const& k) { return int(k.size()) + 3; }));
  EXPECT_EQ(1, *c.erase(c.begin()->first)) << "the entry's own key";
  EXPECT_FALSE(c.erase("a"));
  c.insert("a", 5);
  EXPECT_EQ(0, c.value("d"));
  EXPECT_EQ((std::vector<int>{3, 4, 5}), values(c));
  EXPECT_TRUE(c.eraseAll());
  EXPECT_FALSE(c.eraseAll());
  c.insert("d", 6);
  EXPECT_TRUE(c.clear()) << "tells no key";
  EXPECT_FALSE(c.clear());
  EXPECT_EQ((std::vector<std::string>{"a+1", "b+2", "b+2", "c+3", "a-2", "a+3", "b-2", "c-1", "a-0", "d+1"}), told);
}

TEST(NameTest, InternedNamesCompareByIdentityAndPrintTheirText) {
  Kel::Name a("requester"), b(std::string("requester")), c("other");
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.charPtr(), b.charPtr());
  EXPECT_FALSE(a == c);
  EXPECT_TRUE(c < a);
  EXPECT_TRUE(Kel::Name().empty());
  EXPECT_EQ(Kel::String("requester"), Kel::String(a));
}

TEST(LinkQueueTest, WrapsAroundTheTopOfTheIndexSpace) {
  Kel::LinkQueue<int> q(0xFFFFFFFEu);
  EXPECT_EQ(0xFFFFFFFEu, q.enq(1));
  EXPECT_EQ(0xFFFFFFFFu, q.enq(2));
  EXPECT_EQ(0u, q.enq(3));
  EXPECT_EQ(3, *q.at(0));
  EXPECT_EQ(1, *q.deq());
  EXPECT_EQ(2, *q.deq());
  EXPECT_EQ(3, *q.deq());
  EXPECT_EQ(1u, q.head());
}

TEST(LinkQueueTest, FullIndexSpaceRefusesTheEnqueue) {
  Kel::LinkQueue<int> q(14, 16);  // a small index space, wrapping at 16
  for (int i = 0; i < 15; ++i) q.enq(i);
  EXPECT_EQ("linkqueue index space full", whatOf<Kel::RangeException>([&] { q.enq(99); }));
  EXPECT_EQ(15u, q.members());
  EXPECT_EQ(0, *q.deq());
  EXPECT_EQ(13u, q.enq(15)) << "a dequeue makes room again";

  // Indices are 32 bits: no room at all, or more than they can tell apart.
  for (auto [first, space] :
       {std::pair<std::uint32_t, std::uint64_t>{0, 0}, {0, (std::uint64_t(1) << 32) + 1}, {16, 16}}) {
    EXPECT_THROW((Kel::LinkQueue<int>(first, space)), Kel::RangeException) << space;
  }
}

}  // namespace
