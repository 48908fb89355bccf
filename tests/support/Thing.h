#pragma once

#include "runtime/Entity.h"

// The smallest entity: one notifying scalar, built as the entity classes
// are.
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
  // As a collection tells of one of its entries.
  void entryChanged() const { notifyEntry(&NotifieeConst::onValue); }

 private:
  int value_ = 0;
};
