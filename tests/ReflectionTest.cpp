// Reflection: attributes read, written, iterated and constructed by name.
#include "TestTypes.h"

#include <Intf/IntfStatusDir.h>
#include <Kel/GenericIf.h>
#include <Kel/Stream.h>

#include <gtest/gtest.h>

#include <thread>

using namespace Interface;
using Kel::GenericIf;
using Kel::String8;
using KelTest::Leaf;
using KelTest::Thing;

namespace {

template <class T>
GenericIf::PtrConst gen(T const & v) {
   return Kel::toGeneric(v);
}

template <class T>
T val(GenericIf::Ptr const & g) {
   return Kel::fromGeneric<T>(*g, "test");
}

std::string errorOf(std::function<void()> f) {
   try {
      f();
   } catch (Kel::Exception const & e) {
      return e.message().str();
   }
   return "(no error)";
}

struct Count : Thing::NotifieeConst {
   void onCount() override { ++n; }
   int n = 0;
};

} // namespace

TEST(Reflection, RecordFieldsAndConstantsByName) {
   LoadInterval::GenericIf_ g(LoadInterval(true, 300));
   EXPECT_EQ(val<double>(g.attribute("maxVal")), 600.0);
   g.attributeIs("val", gen(30.0));
   g.attributeIs("useDefault", gen(false));
   EXPECT_EQ(g.value(), LoadInterval(false, 30));
   EXPECT_EQ(g.strRep(), valueToStrep(LoadInterval(false, 30)));
   EXPECT_EQ(g.attributeId("useDefault"), 258u);
   EXPECT_EQ(g.type()->name(), String8("Interface::LoadInterval"));
}

TEST(Reflection, RecordWritesAreCheckedAndLeaveTheValueOnRefusal) {
   LoadInterval::GenericIf_ g(LoadInterval(false, 30));
   EXPECT_EQ(errorOf([&] { g.attributeIs("val", gen(4.0)); }),
             "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed");
   EXPECT_EQ(errorOf([&] { g.attributeIs("val", gen(uint32_t(30))); }),
             "wrong type of value for val");
   EXPECT_EQ(errorOf([&] { g.attributeIs("minVal", gen(1.0)); }),
             "operation set is not supported by attribute minVal");
   EXPECT_EQ(errorOf([&] { g.attributeAt("val", gen(1.0)); }),
             "attribute val is not a collection and cannot be indexed");
   EXPECT_EQ(errorOf([&] { g.attributeId("bogus"); }), "LoadInterval has no such attribute: bogus");
   EXPECT_EQ(g.value(), LoadInterval(false, 30));

   LoadInterval::GenericIf_ ro(LoadInterval(false, 30), true);
   EXPECT_EQ(errorOf([&] { ro.attributeIs("val", gen(40.0)); }),
             "attempting to modify a const instance");
   EXPECT_EQ(ro.value().val(), 30.0);
   EXPECT_EQ(val<double>(ro.attribute("val")), 30.0);
}

TEST(Reflection, ListConstructorFillsFieldsInOrder) {
   auto const * t = LoadInterval::_fwkType();
   GenericIf::List args({gen(false), gen(45.0)});
   auto v = t->newInstance(args);
   EXPECT_EQ(val<LoadInterval>(v), LoadInterval(false, 45));
   GenericIf::List shorter({gen(false)});
   EXPECT_EQ(val<LoadInterval>(t->newInstance(shorter)), LoadInterval(false, 300));
   GenericIf::List tooMany({gen(false), gen(45.0), gen(1.0)});
   EXPECT_EQ(errorOf([&] { t->newInstance(tooMany); }),
             "arguments do not fit the attributes of LoadInterval");
   GenericIf::List wrong({gen(1.0)});
   EXPECT_EQ(errorOf([&] { t->newInstance(wrong); }), "wrong type of value for useDefault");
   EXPECT_EQ(errorOf([&] { t->newInstance(*gen(1.0)); }), "wrong type of value for LoadInterval");
}

TEST(Reflection, EntitySetGoesThroughTheMutator) {
   auto thing = Kel::makePtr<Thing>(1);
   auto c = Kel::makePtr<Count>();
   c->notifierIs(thing);
   Thing::GenericIf_ g(thing);
   g.attributeIs("count", gen(uint32_t(9)));
   g.attributeIs("count", gen(uint32_t(9)));  // equal: no notification
   EXPECT_EQ(thing->count(), 9u);
   EXPECT_EQ(c->n, 1);
   EXPECT_EQ(val<uint32_t>(g.attribute("doubled")), 18u);
   EXPECT_EQ(val<uint32_t>(g.attribute("answer")), 42u);
   EXPECT_EQ(val<uint32_t>(g.attribute("id")), 1u);
   EXPECT_EQ(errorOf([&] { g.attributeIs("id", gen(uint32_t(2))); }),
             "operation set is not supported by attribute id");
   Thing::GenericIf_ ro(thing, true);
   EXPECT_EQ(errorOf([&] { ro.attributeIs("count", gen(uint32_t(1))); }),
             "attempting to modify a const instance");
   // By identifier, looked up once: the same operations.
   Kel::AttributeId count = g.attributeId("count");
   EXPECT_EQ(count, Thing::kelId_count);
   g.attributeIs(count, gen(uint32_t(11)));
   EXPECT_EQ(thing->count(), 11u);
   EXPECT_EQ(c->n, 2);
   EXPECT_EQ(val<uint32_t>(g.attribute(count)), 11u);
   EXPECT_EQ(errorOf([&] { ro.attributeIs(count, gen(uint32_t(1))); }), "attempting to modify a const instance");
   EXPECT_NE(errorOf([&] { g.attribute(Kel::AttributeId(9999)); }).find("has no such attribute: 9999"),
             std::string::npos);
}

// Scalar results share a per-thread box once their holders let go of it:
// a result still held keeps its value, and one made by a thread outlives
// the thread.
TEST(Reflection, ReadResultsKeepTheirValuesWhileHeld) {
   auto thing = Kel::makePtr<Thing>(1);
   Thing::GenericIf_ g(thing);
   Kel::AttributeId count = g.attributeId("count");
   thing->countIs(3);
   GenericIf::Ptr first = g.attribute(count);
   thing->countIs(4);
   GenericIf::Ptr second = g.attribute("count");
   EXPECT_NE(first.ptr(), second.ptr());
   EXPECT_EQ(val<uint32_t>(first), 3u);
   EXPECT_EQ(val<uint32_t>(second), 4u);
   first = nullptr;
   thing->countIs(5);
   EXPECT_EQ(val<uint32_t>(g.attribute(count)), 5u);
   EXPECT_EQ(val<uint32_t>(g.attribute("doubled")), 10u);
   EXPECT_EQ(val<uint32_t>(second), 4u);
   // A result written over through its own wrapper stays the caller's.
   auto mine = Kel::dynamicCast<Kel::GenericValue<uint32_t>>(g.attribute(count));
   ASSERT_TRUE(mine);
   mine->valIs(77);
   EXPECT_EQ(val<uint32_t>(g.attribute(count)), 5u);
   EXPECT_EQ(mine->value(), 77u);

   GenericIf::Ptr fromThread;
   std::thread([&] { fromThread = g.attribute(count); }).join();
   EXPECT_EQ(val<uint32_t>(fromThread), 5u);
   EXPECT_EQ(fromThread->references(), 1u);  // the ended thread holds none
}

TEST(Reflection, EntityPointerAttributesCheckTheTargetType) {
   auto thing = Kel::makePtr<Thing>(1);
   auto leaf = Kel::makePtr<Leaf>(Zenet::IntfId("Ethernet1"));
   Thing::GenericIf_ g(thing);
   g.attributeIs("peer", gen(Leaf::PtrConst(leaf)));
   EXPECT_EQ(thing->peer(), leaf);
   EXPECT_EQ(errorOf([&] { g.attributeIs("peer", gen(thing)); }), "wrong type of value for peer");
   g.attributeIs("must", gen(leaf));
   EXPECT_EQ(errorOf([&] { g.attributeIs("must", gen(Leaf::Ptr())); }),
             "null _must parameter to mutator for KelTest::Thing::must not allowed\"");
}

TEST(Reflection, CollectionsIndexSetDeleteAndIterate) {
   auto thing = Kel::makePtr<Thing>(1);
   Thing::GenericIf_ g(thing);
   Kel::AttributeId id = g.attributeId("requestor");
   for (const char * k : {"a", "b", "c"}) {
      GenericIf::List kv({gen(String8(k)), gen(true)});
      g.attributeOp({Kel::AttributeOp::indexSet, id}, GenericIf::PtrConst(new GenericIf::List(kv)),
                    nullptr);
   }
   EXPECT_TRUE(val<bool>(g.attributeAt("requestor", gen(String8("b")))));
   g.attributeOp({Kel::AttributeOp::del, id}, gen(String8("b")), nullptr);
   EXPECT_EQ(thing->requestorSize(), 2u);
   int n = 0;
   for (auto it = g.attributeIteratorConst(id); it->nonNull(); it->iterInc()) {
      EXPECT_TRUE(thing->requestor(val<String8>(it->iterKey())));
      EXPECT_TRUE(val<bool>(it->iterObj()));
      it->iterDel();
      ++n;
   }
   EXPECT_EQ(n, 2);
   EXPECT_EQ(thing->requestorSize(), 0u);
}

TEST(Reflection, TypeObjectsDescribeAttributesAndMakeEntities) {
   auto const * t = KelTest::SubThing::_fwkType();
   EXPECT_TRUE(t->isA(Thing::_fwkType()));
   EXPECT_TRUE(t->isA(Kel::Entity::_fwkType()));
   EXPECT_FALSE(Thing::_fwkType()->isA(t));
   ASSERT_TRUE(t->attribute("extra"));
   EXPECT_EQ(t->attribute("extra")->id, Thing::kelAttrEnd);
   EXPECT_EQ(t->attribute("count")->id, Thing::kelId_count);  // inherited
   EXPECT_EQ(t->constructorArgNames().size(), 0u);
   auto const * tt = Thing::_fwkType();
   ASSERT_EQ(tt->constructorArgNames().size(), 1u);
   EXPECT_EQ(tt->constructorArgNames()[0], String8("id"));
   auto e = tt->newEntity(GenericIf::List({gen(uint32_t(5))}));
   ASSERT_TRUE(e);
   EXPECT_EQ(e->fwkType(), tt);
   EXPECT_EQ(Kel::dynamicCast<Thing>(e)->id(), 5u);
   EXPECT_EQ(IntfOperStatus(1), IntfOperStatus::intfOperUp);
   EXPECT_EQ(_fwkType_IntfOperStatus()->name(), String8("Interface::IntfOperStatus"));
}

// Every type names its support classes: the reactors, the reflection
// wrapper and the attribute-log adapter (the generic writer adapter for
// entities, the record's own encoding for records).
TEST(Reflection, EveryTypeNamesItsAttributeLogAdapter) {
   static_assert(std::is_same_v<Interface::IntfConfig::KelNboAttrLogSa, Kel::NboAttrLog::EntityAdapter>);
   static_assert(std::is_same_v<Interface::AllIntfStatusDir::KelNboAttrLogSa, Kel::NboAttrLog::EntityAdapter>);
   static_assert(std::is_same_v<Thing::KelNboAttrLogSa, Kel::NboAttrLog::EntityAdapter>);
   using Sa = LoadInterval::KelNboAttrLogSa;
   Kel::NboAttrLog::Out out;
   Sa::write(out, LoadInterval(false, 42), nullptr);
   Kel::NboAttrLog::In in(out.data(), out.size());
   EXPECT_EQ(Sa::read(in, nullptr), LoadInterval(false, 42));
   EXPECT_TRUE(in.atEnd());
}

// The look-up by name compares whole names: every attribute of every
// registered type is found by its name and by no name one byte away.
TEST(Reflection, EveryAttributeIsFoundByItsNameAndNotByANameOneByteAway) {
   size_t checked = 0;
   for (auto const * t : Kel::registeredTypes()) {
      for (auto const & d : t->attributes()) {
         std::string name(d.name);
         // (A derived level may repeat a base level's name; the first wins.)
         auto const * own = t->attribute(name);
         ASSERT_TRUE(own && std::string_view(own->name) == name) << t->name().str() << "::" << name;
         for (size_t k = 0; k < name.size(); ++k) {
            std::string other = name;
            other[k] ^= 0x20;
            auto const * found = t->attribute(other);
            EXPECT_TRUE(!found || std::string_view(found->name) == other)
                << t->name().str() << "::" << name << " found as " << other;
         }
         ++checked;
      }
   }
   EXPECT_GT(checked, 100u);
}
