// Every attribute kind of the entity pattern: what a write stores, counts
// and announces, and what it refuses.
#include "TestTypes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <vector>

using Interface::IntfConfigRequest;
using Interface::LoadInterval;
using Interface::PktType;
using KelTest::Leaf;
using KelTest::Thing;
using Zenet::IntfId;

namespace {

// Counts every callback of Thing.
struct Counter : Thing::NotifieeConst {
   void onFlag() override { ++n["flag"]; }
   void onCount() override { ++n["count"]; }
   void onRatio() override { ++n["ratio"]; }
   void onText() override { ++n["text"]; }
   void onState() override { ++n["state"]; }
   void onInterval() override { ++n["interval"]; }
   void onPeer() override { ++n["peer"]; }
   void onMust() override { ++n["must"]; }
   void onConfig() override { ++n["config"]; }
   void onRequestor(Kel::String8 k) override { keys.push_back("requestor:" + k.str()); }
   void onRequest(IntfConfigRequest r) override { keys.push_back("request:" + r.requestor().str()); }
   void onLeaf(IntfId id) override { keys.push_back("leaf:" + id.stringValue().str()); }
   void onByName(Kel::String8 k) override { keys.push_back("byName:" + k.str()); }
   void onQueues(uint8_t q) override { keys.push_back("queues:" + std::to_string(q)); }
   void onOrdered(uint32_t k) override { keys.push_back("ordered:" + std::to_string(k)); }
   std::map<std::string, int> n;
   std::vector<std::string> keys;
};

struct AttributeKindsTest : ::testing::Test {
   AttributeKindsTest() { counter->notifierIs(thing); }
   Thing::Ptr thing = Kel::makePtr<Thing>(1);
   Kel::Ptr<Counter> counter = Kel::makePtr<Counter>();
   using Keys = std::vector<std::string>;
};

// One scenario for every scalar-like kind: a first write stores, counts and
// notifies once; writing the held value again does nothing at all.
template <class Set, class Get, class V>
void expectNoOpRule(Thing & t, Counter & c, const char * name, Set set, Get get, V a, V b) {
   set(a);
   uint32_t mc = t.modificationCount();
   int calls = c.n[name];
   set(a);
   EXPECT_EQ(t.modificationCount(), mc) << name;
   EXPECT_EQ(c.n[name], calls) << name;
   set(b);
   EXPECT_EQ(get(), b) << name;
   EXPECT_EQ(t.modificationCount(), mc + 1) << name;
   EXPECT_EQ(c.n[name], calls + 1) << name;
}

} // namespace

TEST_F(AttributeKindsTest, DefaultsAreTheDeclaredOnes) {
   EXPECT_EQ(thing->id(), 1u);
   EXPECT_EQ(thing->name(), Kel::Name("thing1"));
   EXPECT_FALSE(thing->flag());
   EXPECT_EQ(thing->count(), 7u);
   EXPECT_EQ(thing->state(), Interface::IntfEnabledState::unknownEnabledState);
   EXPECT_EQ(thing->interval(), LoadInterval());
   EXPECT_FALSE(thing->peer());
   EXPECT_EQ(thing->answer(), 42u);
   EXPECT_EQ(thing->requestorSize(), 0u);
   EXPECT_EQ(thing->modificationCount(), 0u);
}

TEST_F(AttributeKindsTest, EveryScalarKindFollowsTheNoOpRule) {
   Thing & t = *thing;
   Counter & c = *counter;
   expectNoOpRule(t, c, "flag", [&](bool v) { t.flagIs(v); }, [&] { return t.flag(); }, true, false);
   expectNoOpRule(t, c, "count", [&](uint32_t v) { t.countIs(v); }, [&] { return t.count(); }, 1u, 2u);
   expectNoOpRule(t, c, "ratio", [&](double v) { t.ratioIs(v); }, [&] { return t.ratio(); }, 0.5, -0.0 + 2);
   expectNoOpRule(t, c, "text", [&](Kel::String8 v) { t.textIs(v); }, [&] { return t.text(); },
                  Kel::String8("a b"), Kel::String8("a c"));
   expectNoOpRule(t, c, "state", [&](Interface::IntfEnabledState v) { t.stateIs(v); },
                  [&] { return t.state(); }, Interface::IntfEnabledState::enabled,
                  Interface::IntfEnabledState::shutdown);
   expectNoOpRule(t, c, "interval", [&](LoadInterval v) { t.intervalIs(v); },
                  [&] { return t.interval(); }, LoadInterval(false, 30), LoadInterval(false, 31));
   auto l1 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   auto l2 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));  // equal content, other identity
   expectNoOpRule(t, c, "peer", [&](Leaf::PtrConst v) { t.peerIs(v); }, [&] { return t.peer(); },
                  Leaf::PtrConst(l1), Leaf::PtrConst(l2));
}

TEST_F(AttributeKindsTest, NaNIsAlwaysAChange) {
   thing->ratioIs(std::nan(""));
   thing->ratioIs(std::nan(""));
   EXPECT_EQ(counter->n["ratio"], 2);
}

TEST_F(AttributeKindsTest, PointerHoldsOneReferenceAndDropsItWhenReplaced) {
   auto l1 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   auto l2 = Kel::makePtr<Leaf>(IntfId("Ethernet2"));
   thing->peerIs(l1);
   EXPECT_EQ(l1->references(), 2u);
   thing->peerIs(l2);
   EXPECT_EQ(l1->references(), 1u);
   thing->peerIs(nullptr);
   EXPECT_EQ(l2->references(), 1u);
}

TEST_F(AttributeKindsTest, NullRefusingPointerThrowsTheFixedTextAndKeepsItsValue) {
   auto l1 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   thing->mustIs(l1);
   try {
      thing->mustIs(nullptr);
      FAIL() << "null accepted";
   } catch (Kel::RangeException const & e) {
      EXPECT_EQ(e.message(),
                Kel::String8("null _must parameter to mutator for KelTest::Thing::must not allowed\""));
   }
   EXPECT_EQ(thing->must(), l1);
   EXPECT_EQ(counter->n["must"], 1);
}

TEST_F(AttributeKindsTest, WriteOnceAcceptsFirstAndSameUndoesClearAndReportsChange) {
   auto a = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   auto b = Kel::makePtr<Leaf>(IntfId("Ethernet2"));
   thing->configIs(a);
   thing->configIs(a);
   EXPECT_EQ(counter->n["config"], 1);
   thing->configIs(nullptr);  // undone, but still announced
   EXPECT_EQ(thing->config(), a);
   EXPECT_EQ(counter->n["config"], 2);
   try {
      thing->configIs(b);
      FAIL() << "change accepted";
   } catch (Kel::InternalException const & e) {
      EXPECT_EQ(e.message(), Kel::String8("KelTest::Thing.config is a write-once variable. Illegal "
                                          "attempt to change it after it has already been set "));
      EXPECT_TRUE(e.ids().has(11));
   }
   EXPECT_EQ(thing->config(), b);  // reported, not rolled back
   EXPECT_EQ(counter->n["config"], 2);
}

TEST_F(AttributeKindsTest, LocalCacheIsSetThroughAConstHandleWithoutNotifying) {
   Thing::PtrConst ro = thing;
   auto l1 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   uint32_t mc = thing->modificationCount();
   ro->cacheIs(l1);
   EXPECT_EQ(thing->cache(), l1);
   EXPECT_EQ(thing->modificationCount(), mc);
   EXPECT_TRUE(counter->n.empty());
}

TEST_F(AttributeKindsTest, ValueCollectionNotifiesPerEffectiveChange) {
   thing->requestorIs("x", true);
   thing->requestorIs("x", true);
   thing->requestorIs("x", false);
   thing->requestorDel("absent");
   thing->requestorDel("x");
   thing->requestorDel("x");
   EXPECT_EQ(counter->keys, (Keys{"requestor:x", "requestor:x", "requestor:x"}));
   EXPECT_EQ(thing->requestorSize(), 0u);
   EXPECT_FALSE(thing->requestor("x"));  // absent reads as the default
}

TEST_F(AttributeKindsTest, NotifyAnnouncesAKeyAgainWithoutChangingIt) {
   thing->requestorIs("x", true);
   uint32_t mc = thing->modificationCount();
   thing->requestorNotify("x");
   EXPECT_EQ(counter->keys, (Keys{"requestor:x", "requestor:x"}));
   EXPECT_EQ(thing->modificationCount(), mc);
}

TEST_F(AttributeKindsTest, DelAllNotifiesEveryKeyOnceInIterationOrder) {
   std::vector<std::string> order;
   for (int i = 0; i < 50; ++i) thing->requestorIs(Kel::format("r%d", i), true);
   for (auto it = thing->requestorIteratorConst(); it; ++it) order.push_back("requestor:" + it.key().str());
   counter->keys.clear();
   thing->requestorDelAll();
   EXPECT_EQ(counter->keys, order);
   EXPECT_EQ(thing->requestorSize(), 0u);
}

TEST_F(AttributeKindsTest, RecordKeyedCollectionUsesTheRecordsEqualityAndHash) {
   IntfConfigRequest r1(IntfId("Ethernet1"), "agentA");
   IntfConfigRequest r2(IntfId("Ethernet1"), "agentB");
   thing->requestIs(r1, true);
   thing->requestIs(IntfConfigRequest(IntfId("Ethernet1"), "agentA"), true);
   thing->requestIs(r2, true);
   EXPECT_EQ(thing->requestSize(), 2u);
   EXPECT_EQ(counter->keys, (Keys{"request:agentA", "request:agentB"}));
}

TEST_F(AttributeKindsTest, EntityCollectionKeysByTheMembersOwnIdentity) {
   auto a = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   auto a2 = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   thing->leafIs(a);
   thing->leafIs(a);  // same object: nothing
   EXPECT_EQ(a->parent(), thing);
   EXPECT_EQ(a->fullName(), Kel::String8("thing1/Ethernet1"));
   thing->leafIs(a2);  // another object under the same key replaces it
   EXPECT_EQ(thing->leaf(IntfId("Ethernet1")), a2);
   EXPECT_FALSE(a->parent());
   EXPECT_EQ(counter->keys, (Keys{"leaf:Ethernet1", "leaf:Ethernet1"}));
   EXPECT_THROW(thing->leafIs(nullptr), Kel::RangeException);
   thing->leafDel(IntfId("Ethernet1"));
   EXPECT_FALSE(a2->parent());
   EXPECT_EQ(a2->references(), 1u);
}

TEST_F(AttributeKindsTest, OwnerDeathClearsChildrensBackPointers) {
   auto a = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   thing->leafIs(a);
   thing->byNameIs("eth1", a);  // a reference, not a second parent
   EXPECT_EQ(a->parent(), thing);
   counter = nullptr;
   thing = nullptr;
   EXPECT_FALSE(a->parent());
   EXPECT_EQ(a->fullName(), Kel::String8("Ethernet1"));
}

TEST_F(AttributeKindsTest, ReferenceCollectionDoesNotReparent) {
   auto other = Kel::makePtr<Thing>(2);
   auto a = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   other->leafIs(a);
   thing->byNameIs("et1", a);
   thing->byNameIs("et1", a);
   EXPECT_EQ(a->parent(), other);
   EXPECT_EQ(counter->keys, (Keys{"byName:et1"}));
   EXPECT_THROW(thing->byNameIs("et2", nullptr), Kel::RangeException);
}

TEST_F(AttributeKindsTest, InstantiatingCollectionReturnsTheSameChildOrRefusesOtherParameters) {
   auto q = thing->queuesIs(3, PktType::uc);
   EXPECT_EQ(q->queueId(), 3u);
   EXPECT_EQ(q->parent(), thing);
   EXPECT_EQ(thing->queuesIs(3, PktType::uc), q);
   try {
      thing->queuesIs(3, PktType::mc);
      FAIL() << "reinstantiation accepted";
   } catch (Kel::NameInUseException const & e) {
      EXPECT_EQ(e.message(), Kel::String8("Reinstantiating the entity with name q3 where constructor "
                                          "parameter attribute _pktType has a different value of "
                                          "'mc' than the current value of 'uc' not allowed"));
   }
   EXPECT_EQ(thing->queues(3)->pktType(), PktType::uc);
   EXPECT_EQ(counter->keys, (Keys{"queues:3"}));
}

TEST_F(AttributeKindsTest, OrderedCollectionsIterateInKeyOrder) {
   for (uint8_t k : {9, 2, 200, 0, 17}) thing->queuesIs(k, PktType::mc);
   for (uint32_t k : {50u, 7u, 4000u}) thing->orderedIs(k, "v");
   std::vector<int> queues, ordered;
   for (auto it = thing->queuesIteratorConst(); it; ++it) queues.push_back(it.key());
   for (auto it = thing->orderedIteratorConst(); it; ++it) ordered.push_back(int(it.key()));
   EXPECT_EQ(queues, (std::vector<int>{0, 2, 9, 17, 200}));
   EXPECT_EQ(ordered, (std::vector<int>{7, 50, 4000}));
}

TEST_F(AttributeKindsTest, DeletingUnderAnIteratorKeepsItUsableForEveryContainer) {
   // One scenario, run over the hash map and the ordered map.
   for (int k = 0; k < 40; ++k) {
      thing->requestorIs(Kel::format("k%d", k), true);
      thing->orderedIs(uint32_t(k), "v");
   }
   std::vector<std::string> seenHash, seenTree;
   for (auto it = thing->requestorIterator(); it; ++it) {
      seenHash.push_back(it.key().str());
      if (seenHash.size() % 2) thing->requestorDel(it);
   }
   for (auto it = thing->orderedIterator(); it; ++it) {
      seenTree.push_back(std::to_string(it.key()));
      if (seenTree.size() % 2) thing->orderedDel(it);
   }
   EXPECT_EQ(seenHash.size(), 40u);
   EXPECT_EQ(seenTree.size(), 40u);
   EXPECT_EQ(thing->requestorSize(), 20u);
   EXPECT_EQ(thing->orderedSize(), 20u);
}

TEST_F(AttributeKindsTest, AttributeIdentifiersNumberOnFromTheBaseType) {
   EXPECT_EQ(Thing::kelId_id, 258u);
   EXPECT_EQ(Thing::kelId_flag, 259u);
   EXPECT_EQ(Thing::kelId_doubled, 269u);  // derived and constant rows take their number too
   EXPECT_EQ(KelTest::SubThing::kelId_extra, Thing::kelAttrEnd);
   EXPECT_EQ(Thing::kelAttrs[Thing::kelAttrCount - 1].name, std::string("ordered"));
}

TEST_F(AttributeKindsTest, DeletingAMemberCountsOneChangeAndDeletingAnAbsentKeyNothing) {
   // One scenario per collection kind: fill, delete an absent key, delete a
   // present one, delete it again.
   struct Case {
      const char * name;
      std::function<void()> add, delPresent, delAbsent;
      std::function<size_t()> size;
   };
   auto leaf = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   const Case cases[] = {
       {"value", [&] { thing->requestorIs("x", true); }, [&] { thing->requestorDel("x"); },
        [&] { thing->requestorDel("y"); }, [&] { return thing->requestorSize(); }},
       {"record",
        [&] { thing->requestIs(IntfConfigRequest(IntfId("Ethernet1"), "a"), true); },
        [&] { thing->requestDel(IntfConfigRequest(IntfId("Ethernet1"), "a")); },
        [&] { thing->requestDel(IntfConfigRequest(IntfId("Ethernet1"), "b")); },
        [&] { return thing->requestSize(); }},
       {"entity", [&] { thing->leafIs(leaf); }, [&] { thing->leafDel(IntfId("Ethernet1")); },
        [&] { thing->leafDel(IntfId("Ethernet2")); }, [&] { return thing->leafSize(); }},
       {"reference", [&] { thing->byNameIs("e1", leaf); }, [&] { thing->byNameDel("e1"); },
        [&] { thing->byNameDel("e2"); }, [&] { return thing->byNameSize(); }},
       {"instantiating", [&] { thing->queuesIs(4, PktType::uc); }, [&] { thing->queuesDel(4); },
        [&] { thing->queuesDel(5); }, [&] { return thing->queuesSize(); }},
       {"ordered", [&] { thing->orderedIs(3, "v"); }, [&] { thing->orderedDel(3); },
        [&] { thing->orderedDel(4); }, [&] { return thing->orderedSize(); }},
   };
   for (auto const & c : cases) {
      c.add();
      uint32_t mc = thing->modificationCount();
      c.delAbsent();
      EXPECT_EQ(thing->modificationCount(), mc) << c.name;
      EXPECT_EQ(c.size(), 1u) << c.name;
      c.delPresent();
      EXPECT_EQ(thing->modificationCount(), mc + 1) << c.name;
      EXPECT_EQ(c.size(), 0u) << c.name;
      c.delPresent();
      EXPECT_EQ(thing->modificationCount(), mc + 1) << c.name;
   }
}
