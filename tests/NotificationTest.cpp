// Notification runs on a snapshot of the registered reactors: these tests
// are the ways a reactor can change the list while it is being walked.
#include "TestTypes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

using KelTest::Thing;

namespace {

// Records every callback it gets into a shared log, under its own name.
struct Recorder : Thing::NotifieeConst {
   Recorder(std::vector<std::string> * log, std::string tag) : log(log), tag(std::move(tag)) {}
   void onCount() override {
      log->push_back(tag + ".count");
      if (action) action();
   }
   void onRequestor(Kel::String8 k) override { log->push_back(tag + ".requestor." + k.str()); }
   void onNotificationException(Kel::AttributeId id) override {
      log->push_back(tag + ".exception." + std::to_string(id));
   }
   void onZeroReferences() override { log->push_back(tag + ".zero"); }
   std::vector<std::string> * log;
   std::string tag;
   std::function<void()> action;
};

// The whole suite also runs with thread-safe counts (a second ctest entry
// sets the variable), where notification takes a counted snapshot instead
// of walking the list in place.
bool threadSafeRun() {
   static bool on = [] {
      bool set = std::getenv("INTF_TEST_THREAD_SAFE_POINTERS") != nullptr;
      if (set) Kel::VFPtrInterface::enableThreadSafePointers();
      return set;
   }();
   return on;
}

struct NotificationTest : ::testing::Test {
   NotificationTest() { threadSafeRun(); }
   Kel::Ptr<Recorder> reactor(std::string tag) {
      Kel::Ptr<Recorder> r = Kel::makePtr<Recorder>(&log, tag);
      r->notifierIs(thing);
      return r;
   }
   std::vector<std::string> log;
   Thing::Ptr thing = Kel::makePtr<Thing>(1);
};

using Log = std::vector<std::string>;

} // namespace

TEST_F(NotificationTest, ReactorsAreCalledInRegistrationOrder) {
   auto a = reactor("a"), b = reactor("b"), c = reactor("c");
   thing->countIs(1);
   EXPECT_EQ(log, (Log{"a.count", "b.count", "c.count"}));
   EXPECT_EQ(thing->reactorCount(), 3u);
}

TEST_F(NotificationTest, ThrowingReactorGetsItsExceptionAndOthersStillRun) {
   auto a = reactor("a"), b = reactor("b"), c = reactor("c");
   b->action = [] { throw std::runtime_error("boom"); };
   thing->countIs(5);
   EXPECT_EQ(thing->count(), 5u);
   EXPECT_EQ(log, (Log{"a.count", "b.count",
                       "b.exception." + std::to_string(Thing::kelId_count), "c.count"}));
}

TEST_F(NotificationTest, ReactorReleasedByAnEarlierReactorIsNotCalled) {
   auto a = reactor("a");
   auto b = reactor("b");
   auto c = reactor("c");
   a->action = [&] { b = nullptr; };  // last outside reference to b
   thing->countIs(2);
   EXPECT_EQ(log, (Log{"a.count", "c.count"}));
   EXPECT_EQ(thing->reactorCount(), 2u);  // b was freed and unbound with the snapshot
}

TEST_F(NotificationTest, ReactorUnregisteringItselfFinishesAndIsNotCalledAgain) {
   auto a = reactor("a"), b = reactor("b");
   a->action = [&] { a->isRegisteredNotifieeIs(false); };
   thing->countIs(2);
   thing->countIs(3);
   EXPECT_EQ(log, (Log{"a.count", "b.count", "b.count"}));
   EXPECT_EQ(thing->reactorCount(), 1u);
}

TEST_F(NotificationTest, ReactorUnregisteredByAnotherButStillHeldFinishesThisRoundOnly) {
   // The owner keeps b, so the running snapshot is not b's only holder: b
   // still hears this change, and nothing after it.
   auto a = reactor("a"), b = reactor("b"), c = reactor("c");
   a->action = [&] { b->isRegisteredNotifieeIs(false); };
   thing->countIs(2);
   a->action = nullptr;
   thing->countIs(3);
   EXPECT_EQ(log, (Log{"a.count", "b.count", "c.count", "a.count", "c.count"}));
   EXPECT_EQ(b->notifier(), thing);
}

TEST_F(NotificationTest, ThrowingReactorsNeverStopTheOnesAfterThemOnAnyAttributeKind) {
   // Every reactor but the last throws, on a scalar and on a collection.
   auto a = reactor("a"), b = reactor("b"), c = reactor("c");
   a->action = [] { throw std::runtime_error("a"); };
   b->action = [] { throw 7; };
   thing->countIs(5);
   thing->countIs(6);
   std::string ex = ".exception." + std::to_string(Thing::kelId_count);
   EXPECT_EQ(log, (Log{"a.count", "a" + ex, "b.count", "b" + ex, "c.count",
                       "a.count", "a" + ex, "b.count", "b" + ex, "c.count"}));
   EXPECT_EQ(thing->count(), 6u);
}

TEST_F(NotificationTest, ReactorRegisteredInsideACallbackWaitsForTheNextChange) {
   auto a = reactor("a");
   Kel::Ptr<Recorder> late;
   a->action = [&] {
      if (!late) late = reactor("late");
   };
   thing->countIs(2);
   EXPECT_EQ(log, (Log{"a.count"}));
   thing->countIs(3);
   EXPECT_EQ(log, (Log{"a.count", "a.count", "late.count"}));
}

TEST_F(NotificationTest, ReactorReleasingTheLastReferenceToTheEntityIsSafe) {
   auto a = reactor("a"), b = reactor("b");
   a->action = [&] { thing = nullptr; };
   Thing * raw = thing.ptr();
   raw->countIs(9);  // the entity lives until the notification ends
   EXPECT_EQ(log, (Log{"a.count", "b.count", "a.zero", "b.zero"}));
   EXPECT_FALSE(a->notifier());
}

TEST_F(NotificationTest, UnregisteredReactorStaysBoundButHearsNothing) {
   auto a = reactor("a");
   a->isRegisteredNotifieeIs(false);
   thing->countIs(4);
   EXPECT_TRUE(log.empty());
   EXPECT_EQ(a->notifier(), thing);
   a->isRegisteredNotifieeIs(true);
   thing->countIs(5);
   EXPECT_EQ(log, (Log{"a.count"}));
}

TEST_F(NotificationTest, RebindingMovesTheReactorToTheNewEntity) {
   auto a = reactor("a");
   auto other = Kel::makePtr<Thing>(2);
   a->notifierIs(other);
   thing->countIs(4);
   other->countIs(4);
   EXPECT_EQ(log, (Log{"a.count"}));
   EXPECT_EQ(thing->reactorCount(), 0u);
   EXPECT_EQ(other->reactorCount(), 1u);
}

TEST_F(NotificationTest, ManyReactorsAreAllCalledAndOnlyCountedSnapshotsOfMoreThanEightAllocate) {
   std::vector<Kel::Ptr<Recorder>> rs;
   for (int i = 0; i < 9; ++i) rs.push_back(reactor(std::to_string(i)));
   uint64_t before = Kel::SnapshotIterator::heapSnapshots();
   thing->countIs(1);
   EXPECT_EQ(log.size(), 9u);
   EXPECT_EQ(Kel::SnapshotIterator::heapSnapshots(), before + (threadSafeRun() ? 1 : 0));
   rs.pop_back();
   thing->countIs(2);
   EXPECT_EQ(log.size(), 17u);
   EXPECT_EQ(Kel::SnapshotIterator::heapSnapshots(), before + (threadSafeRun() ? 1 : 0));
}

TEST_F(NotificationTest, ReactorDroppingItsOwnLastReferenceRunsToTheEndOfItsCallback) {
   // Freed only once the notification is over: its callback, and the
   // std::function member it runs from, outlive the release.
   auto a = reactor("a"), b = reactor("b");
   bool * gone = new bool(false);
   struct Watch : Thing::NotifieeConst {
      explicit Watch(bool * g) : g(g) {}
      ~Watch() override { *g = true; }
      bool * g;
   };
   auto w = Kel::makePtr<Watch>(gone);
   w->notifierIs(thing);
   Recorder * raw = a.ptr();
   raw->action = [&, raw] {
      a = nullptr;
      w = nullptr;
      raw->log->push_back(raw->tag + ".after");
      EXPECT_FALSE(*gone);
   };
   thing->countIs(2);
   EXPECT_TRUE(*gone);
   EXPECT_EQ(log, (Log{"a.count", "a.after", "b.count"}));
   EXPECT_EQ(thing->reactorCount(), 1u);
   delete gone;
}

TEST_F(NotificationTest, ListChangesDuringAWalkTakeEffectAtTheNextChange) {
   // Twenty registrations (the list grows several times), an unregistration
   // of a reactor still held and a release, all in one callback.
   auto a = reactor("a"), b = reactor("b"), c = reactor("c"), d = reactor("d");
   std::vector<Kel::Ptr<Recorder>> late;
   a->action = [&] {
      for (int i = 0; i < 20; ++i) late.push_back(reactor("n" + std::to_string(i)));
      c->isRegisteredNotifieeIs(false);
      d = nullptr;
   };
   thing->countIs(2);
   EXPECT_EQ(log, (Log{"a.count", "b.count", "c.count"}));
   a->action = nullptr;
   log.clear();
   thing->countIs(3);
   Log next{"a.count", "b.count"};
   for (int i = 0; i < 20; ++i) next.push_back("n" + std::to_string(i) + ".count");
   EXPECT_EQ(log, next);
   EXPECT_EQ(thing->reactorCount(), 22u);
}

TEST_F(NotificationTest, NestedWriteFromACallbackWalksTheListAsItIsThen) {
   auto a = reactor("a"), b = reactor("b"), c = reactor("c");
   bool nested = false;
   a->action = [&] {
      if (nested) return;
      nested = true;
      b->isRegisteredNotifieeIs(false);
      thing->countIs(3);  // b no longer registered: a and c hear 3
   };
   thing->countIs(2);
   // The outer walk goes on with the reactors registered when it started.
   EXPECT_EQ(log, (Log{"a.count", "a.count", "c.count", "b.count", "c.count"}));
   EXPECT_EQ(thing->count(), 3u);
}

TEST_F(NotificationTest, EveryCallbackRunsUnderTheNotificationExpectationAndItsOwnScopesHold) {
   auto a = reactor("a"), b = reactor("b");
   std::vector<int64_t> seen;
   bool nested = false;
   a->action = [&] {
      seen.push_back(Kel::Expect::current());
      Kel::Expect inner(Kel::Exception::rangeId);
      seen.push_back(Kel::Expect::current());
      if (!nested) {
         nested = true;
         thing->countIs(9);  // a walk inside the callback's own scope
         seen.push_back(Kel::Expect::current());
      }
   };
   b->action = [&] { seen.push_back(Kel::Expect::current()); };
   {
      // A caller's scope does not reach into the reactors it notifies.
      Kel::Expect outer(Kel::Exception::rangeId);
      thing->countIs(8);
      seen.push_back(Kel::Expect::current());
   }
   seen.push_back(Kel::Expect::current());
   int64_t const n = Kel::Exception::notificationId, range = Kel::Exception::rangeId;
   // a (outer walk): n, then its own range scope; the nested walk calls a
   // (n, range) and b (n); back in a's scope: range; then b (outer): n;
   // the caller's scope, then none.
   EXPECT_EQ(seen, (std::vector<int64_t>{n, range, n, range, n, range, n, range, -1}));
}

TEST_F(NotificationTest, EntityDeathTellsBoundReactorsAndUnbindsThem) {
   auto a = reactor("a");
   thing = nullptr;
   EXPECT_EQ(log, (Log{"a.zero"}));
   EXPECT_FALSE(a->notifier());
}

TEST_F(NotificationTest, BaseTypeReactorOnDerivedEntityHearsOnlyBaseAttributes) {
   struct SubRecorder : KelTest::SubThing::NotifieeConst {
      void onExtra() override { ++extra; }
      void onCount() override { ++count; }
      int extra = 0, count = 0;
   };
   auto sub = Kel::makePtr<KelTest::SubThing>(3);
   Kel::Ptr<Recorder> base = Kel::makePtr<Recorder>(&log, "base");
   base->notifierIs(sub);
   auto derived = Kel::makePtr<SubRecorder>();
   derived->notifierIs(sub);
   sub->extraIs(5);
   sub->countIs(5);
   EXPECT_EQ(log, (Log{"base.count"}));
   EXPECT_EQ(derived->extra, 1);
   EXPECT_EQ(derived->count, 1);
}

TEST_F(NotificationTest, CollectionNotificationCarriesTheKeyAndAnExceptionTheCollectionId) {
   auto a = reactor("a");
   struct Thrower : Thing::NotifieeConst {
      void onRequestor(Kel::String8) override { throw 1; }
      void onNotificationException(Kel::AttributeId id) override { ids.push_back(id); }
      std::vector<Kel::AttributeId> ids;
   };
   auto t = Kel::makePtr<Thrower>();
   t->notifierIs(thing);
   thing->requestorIs("x", true);
   EXPECT_EQ(log, (Log{"a.requestor.x"}));
   EXPECT_EQ(t->ids, (std::vector<Kel::AttributeId>{Thing::kelId_requestor}));
}
