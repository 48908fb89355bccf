#include "runtime/Ptr.h"

#include <gtest/gtest.h>

#include "runtime/Exception.h"
#include "tests/support/WhatOf.h"

namespace {

struct Counted : Kel::PtrInterface {
  explicit Counted(int* destroyed, int* zero = nullptr) : destroyed_(destroyed), zero_(zero) {}
  void zeroReferencesIs() override {
    if (zero_) ++*zero_;
  }
  ~Counted() override { ++*destroyed_; }
  int* destroyed_;
  int* zero_;
};

struct Derived : Counted {
  using Counted::Counted;
};

TEST(PtrTest, CountsCopiesMovesAndConversionsAndDestroysWithTheLast) {
  int destroyed = 0, zero = 0;
  {
    Kel::Ptr<Derived> d(new Derived(&destroyed, &zero));
    EXPECT_EQ(1u, d->references());
    Kel::Ptr<Counted const> base = d;  // to base, to const
    EXPECT_EQ(2u, d->references());
    Kel::Ptr<Derived> moved = std::move(d);
    EXPECT_FALSE(d);
    EXPECT_EQ(2u, moved->references());
    Kel::Ptr<Counted> raw(moved.ptr());  // the count lives in the object
    EXPECT_EQ(3u, moved->references());
    moved = nullptr;
    raw = nullptr;
    EXPECT_EQ(0, destroyed);
    EXPECT_EQ(1u, base->references());
  }
  EXPECT_EQ(1, destroyed);
  EXPECT_EQ(1, zero) << "the zero-references hook runs once, before destruction";
}

TEST(PtrTest, SelfAssignmentAndSwapKeepTheObject) {
  int destroyed = 0;
  Kel::Ptr<Counted> a(new Counted(&destroyed));
  Kel::Ptr<Counted>& alias = a;
  a = alias;
  EXPECT_EQ(1u, a->references());
  Kel::Ptr<Counted> b;
  a.swap(b);
  EXPECT_FALSE(a);
  EXPECT_TRUE(b);
  EXPECT_EQ(0, destroyed);
}

TEST(PtrTest, ValidPtrRejectsNull) {
  int destroyed = 0;
  Kel::Ptr<Counted> null;
  EXPECT_EQ("null ValidPtr", whatOf<Kel::RangeException>([&] { Kel::ValidPtr<Counted> v(null); }));
  Kel::ValidPtr<Counted> ok(new Counted(&destroyed));
  EXPECT_EQ(1u, ok->references());
}

}  // namespace
