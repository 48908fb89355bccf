#include "runtime/Entity.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

// A minimal entity with one notifying scalar, as the entity classes are built.
class Thing : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<Thing> {
   public:
    virtual void onValue() {}
  };
  static Kel::Ptr<Thing> ThingIs() { return new Thing(); }
  int value() const { return value_; }
  void valueIs(int v) {
    if (Kel::changed(value_, v)) notify(&NotifieeConst::onValue);
  }

 private:
  int value_ = 0;
};

class Recorder : public Thing::NotifieeConst {
 public:
  Recorder(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
  void onValue() override {
    log_->push_back(name_);
    if (action) action();
  }
  void onNotifier() override { log_->push_back(name_ + " bound"); }
  std::function<void()> action;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

TEST(EntityTest, BindingNotifiesCatchUpAndChangesReachEveryReactorOnce) {
  std::vector<std::string> log;
  auto thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log)), b(new Recorder("b", &log));
  a->notifierIs(thing);
  b->notifierIs(thing);
  EXPECT_EQ((std::vector<std::string>{"a bound", "b bound"}), log);
  EXPECT_EQ(thing, a->notifier());
  log.clear();
  thing->valueIs(1);
  thing->valueIs(1);  // the same value notifies nobody
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), log);
  b->notifierIs(nullptr);
  log.clear();
  thing->valueIs(2);
  EXPECT_EQ((std::vector<std::string>{"a"}), log);
  EXPECT_EQ(1u, thing->reactors());
}

TEST(EntityTest, MarkedForDeletionAndUnboundReactorsGetNothing) {
  std::vector<std::string> log;
  auto thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log));
  a->markedForDeletionIs(true);
  a->notifierIs(thing);  // no catch-up either
  thing->valueIs(1);
  EXPECT_TRUE(log.empty());
}

TEST(EntityTest, ReactorRemovingItselfAndItsNeighbourDuringDelivery) {
  std::vector<std::string> log;
  auto thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log)), b(new Recorder("b", &log)), c(new Recorder("c", &log));
  for (auto* r : {&a, &b, &c}) (*r)->notifierIs(thing);
  Kel::Ptr<Recorder> late(new Recorder("late", &log));
  // a destroys its neighbour b and unbinds itself; a reactor added meanwhile
  // waits for the next change.
  a->action = [&] {
    b = nullptr;
    a->notifierIs(nullptr);
    late->notifierIs(thing);
  };
  log.clear();
  thing->valueIs(1);
  EXPECT_EQ((std::vector<std::string>{"a", "late bound", "c"}), log);
  log.clear();
  thing->valueIs(2);
  EXPECT_EQ((std::vector<std::string>{"c", "late"}), log);
  EXPECT_EQ(2u, thing->reactors());
}

TEST(EntityTest, NotifierDestroyedDuringDeliveryStopsIt) {
  std::vector<std::string> log;
  Kel::Ptr<Thing> thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log)), b(new Recorder("b", &log));
  a->notifierIs(thing);
  b->notifierIs(thing);
  Thing* raw = thing.ptr();
  thing = nullptr;  // the reactors keep it alive
  a->action = [&] {
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);  // the last reference goes mid-delivery
  };
  log.clear();
  raw->valueIs(1);
  EXPECT_EQ((std::vector<std::string>{"a"}), log);
}

TEST(EntityTest, ThrowingReactorDoesNotStopTheFanOut) {
  std::vector<std::string> log;
  auto thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log)), b(new Recorder("b", &log));
  a->notifierIs(thing);
  b->notifierIs(thing);
  a->action = [] { throw std::runtime_error("boom"); };
  log.clear();
  EXPECT_THROW(thing->valueIs(1), std::runtime_error) << "the failure reaches the mutator's caller";
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), log);
  a->action = nullptr;
  log.clear();
  thing->valueIs(2);  // the list is consistent afterwards
  EXPECT_EQ(2u, log.size());

  // A reactor that lets go of its own last pointer and then throws is still
  // there to be told of its failure.
  Recorder* const raw = a.ptr();
  raw->action = [&a] {
    a = nullptr;
    throw std::runtime_error("gone");
  };
  EXPECT_THROW(thing->valueIs(3), std::runtime_error);
}

}  // namespace
