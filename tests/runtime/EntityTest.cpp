#include "runtime/Entity.h"
#include "runtime/NestedReactor.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/Thing.h"

namespace {

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

TEST(EntityTest, AReactorThatIgnoresEntriesGetsEverythingElseInOrderAndUnbinds) {
  std::vector<std::string> log;
  auto thing = Thing::ThingIs();
  Kel::Ptr<Recorder> a(new Recorder("a", &log)), quiet(new Recorder("quiet", &log)), c(new Recorder("c", &log));
  quiet->ignoresEntriesIs(true);
  for (auto* r : {&a, &quiet, &c}) (*r)->notifierIs(thing);
  log.clear();
  thing->entryChanged();
  thing->valueIs(1);
  EXPECT_EQ((std::vector<std::string>{"a", "c", "a", "quiet", "c"}), log);
  quiet->notifierIs(nullptr);
  log.clear();
  thing->valueIs(2);
  EXPECT_EQ((std::vector<std::string>{"a", "c"}), log);
  EXPECT_EQ(2u, thing->reactors());
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

// Hears the thing through a nested reactor and asks handler what to do.
class Owner {
 public:
  Owner(Kel::Ptr<Thing> const& thing, std::function<void()> const* handler) : handler_(handler), watch_(this) {
    watch_->notifierIs(thing);
  }
  void handleValue() { (*handler_)(); }

 private:
  class Watch : public Kel::NestedReactor<Owner, Thing::NotifieeConst> {
   public:
    using NestedReactor::NestedReactor;
    void onValue() override { owner()->handleValue(); }
  };

  std::function<void()> const* handler_;
  Kel::Nested<Watch> watch_;
};

TEST(EntityTest, NestedReactorGoesWithItsOwnerEvenInsideItsOwnCallback) {
  auto thing = Thing::ThingIs();
  int calls = 0;
  std::unique_ptr<Owner> first, second;
  std::function<void()> const handler = [&] {
    ++calls;
    first.reset();
    second.reset();
  };
  first = std::make_unique<Owner>(thing, &handler);
  second = std::make_unique<Owner>(thing, &handler);
  thing->valueIs(1);
  EXPECT_EQ(1, calls) << "the second owner went before its turn";
  EXPECT_EQ(0u, thing->reactors());

  auto third = std::make_unique<Owner>(thing, &handler);
  EXPECT_EQ(1u, thing->reactors());
  third = nullptr;
  EXPECT_EQ(0u, thing->reactors());
}

}  // namespace
