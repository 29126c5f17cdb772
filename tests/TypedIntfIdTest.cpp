// Typed identifier views: family tests, part accessors and their
// assertions, text form, reflection.
#include <Intf/IntfIntfId.h>

#include <gtest/gtest.h>

using namespace Zenet;

namespace {

IntfId make(uint8_t code, std::initializer_list<uint32_t> parts) {
   return GenericIntfId::make(code, parts);
}

} // namespace

TEST(TypedIntfId, FamilyTestsLookAtTheTypeCodeOnly) {
   struct Case {
      bool (*test)(IntfId);
      uint8_t code;
   } cases[] = {
       {&TestIntfId::isTestIntfId, 10},         {&LoopbackIntfId::isLoopbackIntfId, 3},
       {&TunnelIntfId::isTunnelIntfId, 15},     {&VlanIntfId::isVlanIntfId, 1},
       {&MgmtIntfId::isMgmtIntfId, 2},          {&VxlanTunnelIntfId::isVxlanTunnelIntfId, 56},
       {&GreTunnelIntfId::isGreTunnelIntfId, 57},
   };
   for (auto const & c : cases) {
      for (uint8_t code : {uint8_t(1), uint8_t(2), uint8_t(3), uint8_t(4), uint8_t(10),
                           uint8_t(15), uint8_t(56), uint8_t(57)}) {
         // Any parts at all: three parts even for one-part families.
         EXPECT_EQ(c.test(make(code, {7, 8, 9})), code == c.code) << int(code);
      }
   }
}

TEST(TypedIntfId, PartsComeFromTheRightAndTruncateTo16Bits) {
   EXPECT_EQ(TestIntfId::module(make(10, {4})), 0);
   EXPECT_EQ(TestIntfId::module(make(10, {4, 5})), 4);
   EXPECT_EQ(TestIntfId::port(make(10, {4, 5})), 5);
   EXPECT_EQ(TestIntfId::port(make(10, {3, 4, 5})), 5);  // three parts: still part 0
   EXPECT_EQ(MgmtIntfId::module(IntfId("Management1/2")), 1);
   EXPECT_EQ(MgmtIntfId::port(IntfId("Management1/2")), 2);
   EXPECT_EQ(MgmtIntfId::port(IntfId("Management1")), 1);
   EXPECT_EQ(VlanIntfId::vlanId(IntfId("Vlan4094")), 4094);
   EXPECT_EQ(LoopbackIntfId::port(IntfId("Loopback0")), 0);
   EXPECT_EQ(TunnelIntfId::port(IntfId("Tunnel5")), 5);
   EXPECT_EQ(VxlanTunnelIntfId::vxlanTunnelId(IntfId("Vxlan1")), 1);
   EXPECT_EQ(GreTunnelIntfId::greTunnelId(make(57, {70000})), U16(70000 & 0xffff));
}

using TypedIntfIdDeathTest = ::testing::Test;

TEST(TypedIntfIdDeathTest, AccessorsAssertTheFamilyAndThePartCount) {
   EXPECT_DEATH(VlanIntfId::vlanId(IntfId("Loopback1")),
                "IntfIntfId: static U16 Zenet::VlanIntfId::vlanId\\(Zenet::IntfId\\): "
                "Assertion `isVlanIntfId\\( intfId \\)' failed");
   EXPECT_DEATH(TestIntfId::module(make(2, {1})), "isTestIntfId\\( intfId \\)");
   EXPECT_DEATH(MgmtIntfId::port(make(2, {1, 2, 3})),
                "static U16 Zenet::MgmtIntfId::port\\(Zenet::IntfId\\): Assertion `0' failed");
   EXPECT_DEATH(MgmtIntfId::module(make(2, {1, 2, 3})), "Assertion `0' failed");
   EXPECT_DEATH(TestIntfId::module(make(10, {1, 2, 3})), "Assertion `0' failed");
   EXPECT_DEATH(GreTunnelIntfId::greTunnelId(IntfId("Vxlan1")), "isGreTunnelIntfId\\( intfId \\)");
}

TEST(TypedIntfId, TextIsTheDecimalWordAndParsingTakesTheValueForm) {
   VlanIntfId v(IntfId("Vlan100"));
   EXPECT_EQ(valueToStrep(v), Kel::String8(std::to_string(IntfId("Vlan100").intfIdValue())));
   VlanIntfId p;
   Kel::strepToValue("Value('Zenet::VlanIntfId', ** {'stringValue': 'x', 'intfId': 5})", &p);
   EXPECT_EQ(p.intfId(), 5u);
   try {
      Kel::strepToValue("Value('Zenet::MgmtIntfId', ** {'port': 5})", &p);
      FAIL();
   } catch (Kel::RangeException const &) {
   }
   MgmtIntfId m;
   try {
      Kel::strepToValue("Value('Zenet::MgmtIntfId', ** {'port': 5})", &m);
      FAIL();
   } catch (Kel::RangeException const & e) {
      EXPECT_EQ(e.message(), Kel::String8("MgmtIntfId has no such attribute: port"));
   }
   try {
      Kel::strepToValue("Value('Zenet::GreTunnelIntfId', ** {'intfId': 5", &p);
      FAIL();
   } catch (Kel::RangeException const &) {
   }
   GreTunnelIntfId g;
   try {
      Kel::strepToValue("Value('Zenet::GreTunnelIntfId', ** {'intfId': 5", &g);
      FAIL();
   } catch (Kel::RangeException const & e) {
      EXPECT_EQ(e.message(), Kel::String8("premature end of value type GreTunnelIntfId"));
   }
}

TEST(TypedIntfId, ViewsCompareByTheWrappedIdentifier) {
   VlanIntfId a(IntfId("Vlan2")), b(IntfId("Vlan10"));
   EXPECT_LT(a, b);
   EXPECT_GE(b, a);
   EXPECT_NE(a, b);
   EXPECT_EQ(a, VlanIntfId(IntfId("Vlan2")));
}

TEST(TypedIntfId, ReflectionReadsConstantsNameAndCallsFamilyOperations) {
   MgmtIntfId::GenericIf_ g(MgmtIntfId(IntfId("Management1/2")));
   EXPECT_EQ(Kel::fromGeneric<uint8_t>(*g.attribute("mgmtIntfIdType"), "t"), 2);
   EXPECT_EQ(Kel::fromGeneric<Kel::String8>(*g.attribute("stringValue"), "t"),
             Kel::String8("Management1/2"));
   Kel::Ptr<Kel::GenericIf::Result> r(new Kel::GenericIf::Result);
   Kel::GenericIf::PtrConst args(new Kel::GenericIf::List({Kel::toGeneric(IntfId("Management1/2"))}));
   g.attributeOp({Kel::AttributeOp::call, g.attributeId("port")}, args, r);
   EXPECT_EQ(Kel::fromGeneric<U16>(*r->val(), "port"), 2);
   g.attributeOp({Kel::AttributeOp::call, g.attributeId("isMgmtIntfId")}, args, r);
   EXPECT_TRUE(Kel::fromGeneric<bool>(*r->val(), "isMgmtIntfId"));
   EXPECT_EQ(g.type()->name(), Kel::String8("Zenet::MgmtIntfId"));
}
