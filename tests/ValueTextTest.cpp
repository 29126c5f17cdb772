// Text forms of records, enumerations and built-ins: print, parse, refuse.
#include <Intf/Types.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace Interface;
using Kel::String8;

namespace {

template <class V>
V parse(String8 const & text) {
   V v;
   Kel::strepToValue(text, &v);
   return v;
}

template <class V>
std::string parseError(String8 const & text) {
   try {
      parse<V>(text);
   } catch (Kel::RangeException const & e) {
      return e.message().str();
   }
   return "(accepted)";
}

// Random field values, including the awkward ones: extremes, absent
// optional counters, strings that need escapes, unnamed enum numbers.
struct Random {
   std::mt19937_64 rng{12345};
   uint64_t u64() {
      switch (rng() % 4) {
         case 0: return 0;
         case 1: return ~uint64_t(0);
         default: return rng();
      }
   }
   double dbl() {
      switch (rng() % 5) {
         case 0: return 0.0;
         case 1: return -1e308;
         case 2: return 5e-324;
         default: return std::ldexp(double(int64_t(rng())), int(rng() % 64) - 70);
      }
   }
   Brik::MaybeU63 maybe() {
      return rng() % 3 ? Brik::MaybeU63(rng() >> 1) : Brik::MaybeU63::absent();
   }
   String8 str() {
      std::string s;
      for (int i = int(rng() % 12); i > 0; --i) s += char(rng() % 256);
      return String8(s);
   }
   Zenet::IntfId id() {
      switch (rng() % 3) {
         case 0: return Zenet::IntfId();
         case 1: return Zenet::GenericIntfId::make(4, {uint32_t(rng() % 100), uint32_t(rng() % 60)});
         default: return Zenet::IntfId(rng());  // mostly undecodable: raw form
      }
   }
};

template <class V>
void expectRoundTrip(V const & v) {
   String8 text = valueToStrep(v);
   V back = parse<V>(text);
   EXPECT_EQ(back, v) << text;
   EXPECT_EQ(valueToStrep(back), text);
}

} // namespace

TEST(ValueText, EveryRecordRoundTripsWithRandomFieldValues) {
   Random r;
   for (int i = 0; i < 300; ++i) {
      IntfStatistics s;
      s.outUcastPktsIs(r.u64());
      s.outMulticastPktsIs(r.u64());
      s.outBroadcastPktsIs(r.u64());
      s.inUcastPktsIs(r.u64());
      s.inMulticastPktsIs(r.u64());
      s.inBroadcastPktsIs(r.u64());
      s.outOctetsIs(r.maybe());
      s.inOctetsIs(r.u64());
      s.inDiscardsIs(r.u64());
      s.inErrorsIs(r.u64());
      s.outDiscardsIs(r.maybe());
      s.outErrorsIs(r.u64());
      s.lastUpdateIs(r.dbl());
      expectRoundTrip(s);

      IntfRates rt;
      rt.outPktsRateIs(r.dbl());
      rt.inPktsRateIs(r.dbl());
      rt.outBitsRateIs(r.dbl());
      rt.inBitsRateIs(r.dbl());
      rt.statsUpdateTimeIs(r.dbl());
      expectRoundTrip(rt);

      expectRoundTrip(LoadInterval(r.rng() % 2, 5.0 + double(r.rng() % 5950) / 10));
      expectRoundTrip(IntfConfigRequest(r.id(), r.str()));

      IntfStatusOperStatusChange c;
      c.timeIs(r.dbl());
      c.countIs(uint32_t(r.rng()));
      expectRoundTrip(c);

      expectRoundTrip(IntfOperStatus(r.rng() % 10));
      expectRoundTrip(IntfForwardingModel(r.rng() % 8));
      expectRoundTrip(PktType(r.rng() % 4));
   }
   expectRoundTrip(QueueCounterConstants());
}

TEST(ValueText, RecordTextIsTheScriptingLayersForm) {
   EXPECT_EQ(valueToStrep(LoadInterval(true, 300)),
             String8("Value('Interface::LoadInterval', ** {'useDefault': True, 'val': 300.0})"));
   IntfStatusOperStatusChange c;
   c.timeIs(1.5);
   c.countIs(3);
   EXPECT_EQ(valueToStrep(c),
             String8("Value('Interface::IntfStatus::OperStatusChange', ** {'time': 1.5, 'count': 3})"));
   EXPECT_EQ(valueToStrep(IntfConfigRequest(Zenet::IntfId("Ethernet3/1"), "it's")),
             String8("Value('Interface::IntfConfigRequest', ** {'intf': 'Ethernet3/1', "
                     "'requestor': 'it\\'s'})"));
   IntfStatistics s;
   s.outOctetsIs(Brik::MaybeU63::absent());
   EXPECT_NE(valueToStrep(s).str().find("'outOctets': None, 'inOctets': 0,"), std::string::npos);
   EXPECT_EQ(valueToStrep(QueueCounterConstants()),
             String8("Value('Interface::QueueCounterConstants', ** {})"));
}

TEST(ValueText, AttributesParseInAnyOrderAndRepeatedNamesKeepTheLast) {
   LoadInterval a = parse<LoadInterval>(
       "Value('Interface::LoadInterval', ** {'val': 30.0, 'useDefault': False, 'val': 45})");
   EXPECT_EQ(a, LoadInterval(false, 45));
   LoadInterval b = parse<LoadInterval>(
       "  Value ( 'Interface::LoadInterval' , ** { 'useDefault' : True } )");
   EXPECT_EQ(b, LoadInterval(true, 300));  // unnamed attributes keep their defaults
   LoadInterval c = parse<LoadInterval>(
       "Value('Interface::LoadInterval', ** {'useDefault': False, 'val': 42.0, })");
   EXPECT_EQ(c, LoadInterval(false, 42));  // a trailing comma before the brace is accepted
   IntfStatusOperStatusChange d = parse<IntfStatusOperStatusChange>(
       "Value('Interface::IntfStatus::OperStatusChange', ** {'count': 9,})");
   EXPECT_EQ(d.count(), 9u);
   EXPECT_EQ(d.time(), 0.0);
}

TEST(ValueText, RefusalsCarryTheirFixedTexts) {
   struct Case {
      const char * text;
      std::string error;
   } cases[] = {
       {"Value('Interface::LoadInterval', ** {'useDefault': True, 'val': 30.0}) ",
        "junk at column 70 deserializing Value('Interface::LoadInterval', ** {'useDefault': True, "
        "'val': 30.0}) "},
       {"Value('Interface::LoadInterval', ** {'useDefault': True, 'va",
        "premature end of value type LoadInterval"},
       {"Value('Interface::LoadInterval', ** {'useDefault': True,",
        "premature end of value type LoadInterval"},
       {"Value('Interface::LoadInterval', ** {'bogus': 1})",
        "LoadInterval has no such attribute: bogus"},
       {"Value('Interface::LoadInterval', ** {'val': 4.999})",
        "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed"},
       {"Value('Interface::LoadInterval', ** {'val': 600.001})",
        "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed"},
       {"Value('Interface::LoadInterval', ** {'val': nan})",
        "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed"},
   };
   for (auto const & c : cases) EXPECT_EQ(parseError<LoadInterval>(c.text), c.error) << c.text;
   EXPECT_EQ(parseError<IntfRates>("Value('Interface::IntfRates', ** {'outPktsRate': 1x})"),
             "bad number '1x' in attribute outPktsRate");
   EXPECT_EQ(parseError<IntfStatistics>("Value('Interface::IntfStatistics', ** {'inErrors': -1})"),
             "bad unsigned integer '-1' in attribute inErrors");
   EXPECT_EQ(parseError<IntfStatistics>("Value('Interface::IntfStatistics', ** {'x': 1})"),
             "IntfStatistics has no such attribute: x");
   EXPECT_EQ(parseError<IntfStatusOperStatusChange>(
                 "Value('Interface::IntfStatus::OperStatusChange', ** {'count': 4294967296})"),
             "bad unsigned integer (out of range) '4294967296' in attribute count");
   EXPECT_EQ(parseError<IntfRates>("Value('Interface::LoadInterval', ** {})"),
             "expected 'Interface::IntfRates' but found \"'Interface::Load\"");
}

TEST(ValueText, LoadIntervalBoundsAreInclusive) {
   for (double v : {5.0, 600.0}) {
      String8 t = valueToStrep(LoadInterval(false, v));
      EXPECT_EQ(parse<LoadInterval>(t).val(), v);
   }
}

TEST(ValueText, EnumerationsPrintNamesOrTheirNumberForm) {
   EXPECT_EQ(stringValue(IntfOperStatus(0)), String8("IntfOperStatus(0)"));
   EXPECT_EQ(stringValue(IntfOperStatus(9)), String8("IntfOperStatus(9)"));
   EXPECT_EQ(stringValue(IntfForwardingModel(4)), String8("intfForwardingModelBridged"));
   EXPECT_EQ(valueToStrep(IntfLoggingMode::useGlobal), String8("'useGlobal'"));
   EXPECT_EQ(IntfEnabledStateInstance(2u), IntfEnabledState::shutdown);
   EXPECT_EQ(PktTypeInstance(String8("mixedUcMc")), PktType::mixedUcMc);
   try {
      PktTypeInstance(3u);
      FAIL();
   } catch (Kel::RangeException const & e) {
      EXPECT_EQ(e.message(), String8("PktType"));
   }
   EXPECT_THROW(IntfOperStatusInstance(0u), Kel::RangeException);
   EXPECT_THROW(DropPrecedenceInstance(String8("dropPrecedence3")), Kel::RangeException);
}

TEST(ValueText, EnumeratorNamesParseToTheirDeclaredNumberNotTheirPosition) {
   // IntfOperStatus numbers from 1, so every name sits one below its number.
   const std::pair<const char *, uint32_t> cases[] = {
       {"intfOperUp", 1},      {"intfOperDown", 2},     {"intfOperTesting", 3},
       {"intfOperUnknown", 4}, {"intfOperDormant", 5},  {"intfOperNotPresent", 6},
       {"intfOperLowerLayerDown", 7},
   };
   for (auto const & [name, number] : cases) {
      EXPECT_EQ(uint32_t(IntfOperStatusInstance(String8(name))), number) << name;
      IntfOperStatus parsed;
      Kel::strepToValue(String8(std::string("'") + name + "'"), &parsed);
      EXPECT_EQ(uint32_t(parsed), number) << name;
      EXPECT_EQ(stringValue(IntfOperStatus(number)), String8(name));
   }
}

TEST(ValueText, RecordEqualityAndOrder) {
   IntfStatistics a, b;
   b.lastUpdateIs(1.0);
   EXPECT_NE(a, b);
   a.outOctetsIs(Brik::MaybeU63::absent());
   b = a;
   b.outOctetsIs(Brik::MaybeU63::fromWord(Brik::MaybeU63::absentBit | 5));
   EXPECT_EQ(a, b);  // absent equals absent

   IntfRates nan;
   nan.inBitsRateIs(std::nan(""));
   EXPECT_NE(nan, nan);

   Zenet::IntfId e1("Ethernet1"), e2("Ethernet2");
   EXPECT_LT(IntfConfigRequest(e1, "b"), IntfConfigRequest(e2, "a"));
   EXPECT_LT(IntfConfigRequest(e1, "a"), IntfConfigRequest(e1, "b"));
   EXPECT_GE(IntfConfigRequest(e1, "b"), IntfConfigRequest(e1, "b"));
   EXPECT_EQ(IntfConfigRequest(e1, "a").hash(),
             Kel::bitReverse(e1.hash() + String8("a").hash()));
}

TEST(ValueText, BuiltInFormsRoundTrip) {
   auto rt = [](double d) {
      double back;
      Kel::strepToValue(Kel::valueToStrep(d), &back);
      return back;
   };
   for (double d : {0.1, 1e300, -2.5e-310, 300.0, -0.0}) EXPECT_EQ(rt(d), d);
   EXPECT_EQ(Kel::valueToStrep(300.0), String8("300.0"));
   EXPECT_EQ(Kel::valueToStrep(std::numeric_limits<double>::infinity()), String8("inf"));
   EXPECT_TRUE(std::isnan(rt(std::nan(""))));
   String8 weird(std::string("a'\\\n\x01\xff", 6));
   String8 back;
   Kel::strepToValue(Kel::valueToStrep(weird), &back);
   EXPECT_EQ(back, weird);
   EXPECT_EQ(Kel::valueToStrep(weird), String8("'a\\'\\\\\\n\\x01\\xff'"));
}
