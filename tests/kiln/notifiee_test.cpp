// Notifiees: registration, notifier changes, handler order and slots, the
// filtering of derived entities, exceptions in handlers, zero references.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "KilnTest/Chip.h"
#include "KilnTest/Hub.h"
#include "KilnTest/Station.h"

using KilnTest::Hub;
using KilnTest::Station;
using Calls = std::vector<std::string>;

namespace {

// Appends "<tag> <handler>" to a shared log.
class Recorder : public Station::NotifieeConst {
 public:
  Recorder(Calls* log, std::string tag) : log_(log), tag_(std::move(tag)) {}
  void onCount() override { log_->push_back(tag_ + " count"); }
  void onLevels(U16 k) override { log_->push_back(tag_ + " levels " + std::to_string(k)); }
  void onZeroReferences() override { log_->push_back(tag_ + " zero"); }
  void onNotificationException() override { log_->push_back(tag_ + " exception"); }

 protected:
  Calls* log_;
  std::string tag_;
};

class HubRecorder : public Hub::NotifieeConst {
 public:
  explicit HubRecorder(Calls* log) : log_(log) {}
  void onCount() override { log_->push_back("hub count"); }
  void onLoad() override { log_->push_back("hub load"); }
  void onLinks(U16 k) override { log_->push_back("hub links " + std::to_string(k)); }

 private:
  Calls* log_;
};

TEST(Notifiee, NewNotifieeIsRegisteredAndJoinsItsNotifiersList) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  EXPECT_TRUE(r->isRegisteredNotifiee());
  EXPECT_EQ(r->notifier(), nullptr);
  EXPECT_TRUE(s->notifieeList()->empty());
  r->notifierIs(s);
  EXPECT_EQ(r->notifier(), s);
  EXPECT_EQ(s->notifieeList()->size(), 1u);
  s->countIs(1);
  EXPECT_EQ(log, (Calls{"r count"}));
}

TEST(Notifiee, NotifierIsWithTheCurrentNotifierDoesNothing) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(s);
  r->notifierIs(s);
  EXPECT_EQ(s->notifieeList()->size(), 1u);
  s->countIs(1);
  EXPECT_EQ(log.size(), 1u);
}

TEST(Notifiee, NotifierIsMovesFromTheOldListToTheNew) {
  Calls log;
  Kiln::Ptr<Station> a = Station::StationIs("a");
  Kiln::Ptr<Station> b = Station::StationIs("b");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(a);
  r->notifierIs(b);
  EXPECT_TRUE(a->notifieeList()->empty());
  EXPECT_EQ(b->notifieeList()->size(), 1u);
  a->countIs(1);
  b->countIs(1);
  EXPECT_EQ(log, (Calls{"r count"}));
  r->notifierIs(nullptr);
  EXPECT_TRUE(b->notifieeList()->empty());
}

TEST(Notifiee, UnregisteredNotifieeKeepsItsNotifierButHearsNothing) {
  Calls log;
  Kiln::Ptr<Station> a = Station::StationIs("a");
  Kiln::Ptr<Station> b = Station::StationIs("b");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->isRegisteredNotifieeIs(false);
  r->notifierIs(a);
  EXPECT_EQ(r->notifier(), a);
  EXPECT_TRUE(a->notifieeList()->empty());
  a->countIs(1);
  r->isRegisteredNotifieeIs(true);
  r->isRegisteredNotifieeIs(true);
  EXPECT_EQ(a->notifieeList()->size(), 1u);
  a->countIs(2);
  r->isRegisteredNotifieeIs(false);
  r->notifierIs(b);
  EXPECT_TRUE(a->notifieeList()->empty());
  EXPECT_TRUE(b->notifieeList()->empty());
  EXPECT_EQ(log, (Calls{"r count"}));
}

TEST(Notifiee, NotifierOfTheWrongTypeIsTakenAsNull) {
  Calls log;
  Kiln::Ptr<Station> plain = Station::StationIs("plain");
  Kiln::Ptr<HubRecorder> h = new HubRecorder(&log);
  Station::NotifieeConst& asStationNotifiee = *h;
  asStationNotifiee.notifierIs(plain);
  EXPECT_EQ(h->notifier(), nullptr);
  EXPECT_TRUE(plain->notifieeList()->empty());
}

TEST(Notifiee, NotifieesAreVisitedInRegistrationOrder) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> a = new Recorder(&log, "a");
  Kiln::Ptr<Recorder> b = new Recorder(&log, "b");
  Kiln::Ptr<Recorder> c = new Recorder(&log, "c");
  for (auto* r : {b.ptr(), a.ptr(), c.ptr()}) r->notifierIs(s);
  s->levelsIs(2, true);
  EXPECT_EQ(log, (Calls{"b levels 2", "a levels 2", "c levels 2"}));
}

TEST(Notifiee, DestroyedNotifieeLeavesTheList) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  {
    Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
    r->notifierIs(s);
    EXPECT_EQ(s->notifieeList()->size(), 1u);
  }
  EXPECT_TRUE(s->notifieeList()->empty());
  s->countIs(5);
  EXPECT_TRUE(log.empty());
}

TEST(Notifiee, NotifieeHoldsAReferenceToItsNotifier) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(s);
  EXPECT_EQ(s->references(), 2u);
  Station* raw = s.ptr();
  s = nullptr;
  EXPECT_EQ(r->notifier().ptr(), raw);
  EXPECT_EQ(raw->count(), 0u);
}

// Leaves its notifier's list from inside a handler; the visit goes on.
class Leaver : public Recorder {
 public:
  using Recorder::Recorder;
  void onCount() override {
    Recorder::onCount();
    isRegisteredNotifieeIs(false);
  }
};

TEST(Notifiee, NotifieeMayLeaveDuringAVisit) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Leaver> a = new Leaver(&log, "a");
  Kiln::Ptr<Recorder> b = new Recorder(&log, "b");
  a->notifierIs(s);
  b->notifierIs(s);
  s->countIs(1);
  s->countIs(2);
  EXPECT_EQ(log, (Calls{"a count", "b count", "b count"}));
  EXPECT_EQ(s->notifieeList()->size(), 1u);
}

// Throws from a handler.
class Thrower : public Recorder {
 public:
  using Recorder::Recorder;
  void onCount() override { throw std::runtime_error("handler failed"); }
};

TEST(Notifiee, HandlerExceptionCallsOnNotificationExceptionAndTheVisitGoesOn) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Thrower> a = new Thrower(&log, "a");
  Kiln::Ptr<Recorder> b = new Recorder(&log, "b");
  a->notifierIs(s);
  b->notifierIs(s);
  EXPECT_NO_THROW(s->countIs(1));
  EXPECT_EQ(s->count(), 1u);
  EXPECT_EQ(log, (Calls{"a exception", "b count"}));
}

TEST(Notifiee, ZeroReferencesVisitsEveryNotifiee) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> a = new Recorder(&log, "a");
  Kiln::Ptr<Recorder> b = new Recorder(&log, "b");
  a->notifierIs(s);
  b->notifierIs(s);
  s->zeroReferencesIs(true);
  EXPECT_EQ(log, (Calls{"a zero", "b zero"}));
}

TEST(Notifiee, ZeroReferencesReachesNotifieesOfAPointerInterface) {
  class ChipZero : public KilnTest::Chip::NotifieeConst {
   public:
    int zeros = 0;
    void onZeroReferences() override { ++zeros; }
  };
  Kiln::Ptr<KilnTest::Chip> chip = new KilnTest::Chip(1, 1);
  Kiln::Ptr<ChipZero> n = new ChipZero;
  n->notifierIs(chip);
  chip->zeroReferencesIs(true);
  EXPECT_EQ(n->zeros, 1);
}

TEST(Notifiee, NotificationCanBeSwitchedOff) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(s);
  s->hasNotificationActiveIs(false);
  s->countIs(1);
  EXPECT_EQ(s->count(), 1u);
  s->hasNotificationActiveIs(true);
  s->countIs(2);
  EXPECT_EQ(log, (Calls{"r count"}));
}

TEST(Notifiee, DerivedNotifieeHearsBaseAndOwnAttributes) {
  Calls log;
  Kiln::Ptr<Hub> hub = Hub::HubIs("h");
  Kiln::Ptr<HubRecorder> n = new HubRecorder(&log);
  n->notifierIs(hub);
  hub->countIs(1);
  hub->loadIs(2);
  hub->linksIs(3, 30);
  EXPECT_EQ(log, (Calls{"hub count", "hub load", "hub links 3"}));
}

TEST(Notifiee, BaseNotifieeOnADerivedEntityHearsOnlyTheBaseAttributes) {
  Calls log;
  Kiln::Ptr<Hub> hub = Hub::HubIs("h");
  Kiln::Ptr<Recorder> base = new Recorder(&log, "base");
  Kiln::Ptr<HubRecorder> derived = new HubRecorder(&log);
  base->notifierIs(hub);
  derived->notifierIs(hub);
  hub->loadIs(1);
  hub->linksIs(2, 20);
  hub->countIs(3);
  EXPECT_EQ(log, (Calls{"hub load", "hub links 2", "base count", "hub count"}));
}

// Calls every handler of Hub::NotifieeConst through the base classes' slots.
class SlotProbe : public Hub::NotifieeConst {
 public:
  Calls calls;
  void onCount() override { calls.push_back("count"); }
  void onWatcher() override { calls.push_back("watcher"); }
  void onLoad() override { calls.push_back("load"); }
};

TEST(Notifiee, DerivedHandlersFollowTheBasesSlots) {
  Kiln::Ptr<SlotProbe> p = new SlotProbe;
  Station::NotifieeConst& base = *p;
  base.onCount();
  base.onWatcher();
  p->onLoad();
  EXPECT_EQ(p->calls, (Calls{"count", "watcher", "load"}));
  // Each collection has three handlers and a queue a fourth for its metadata.
  base.onLevels(1);
  base.onLevelskilnImmediate();
  base.onLevels();
  base.onPendingMetadata();
  p->onLinks(1);
  p->onLinkskilnImmediate();
  p->onLinks();
}

TEST(Notifiee, AuditFindsNoErrorsInASoundList) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(s);
  EXPECT_EQ(s->kilnAuditErrors(0), 0u);
  EXPECT_EQ(s->auditErrors(0), 0u);
}

TEST(Notifiee, AuditCountsAListedNotifieeThatObservesAnotherObject) {
  Calls log;
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Station> other = Station::StationIs("other");
  Kiln::Ptr<Recorder> r = new Recorder(&log, "r");
  r->notifierIs(other);
  s->notifieeList()->notifieeIs(r.ptr());
  EXPECT_EQ(s->kilnAuditErrors(0), 1u);
  s->notifieeList()->notifieeDel(r.ptr());
}

}  // namespace
