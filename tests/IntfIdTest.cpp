// Interface identifiers: name codec, listing order, generic parts, raw and
// text forms, hashing.
#include <Zenet/IntfId.h>

#include <Kel/Exception.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <random>
#include <unordered_set>
#include <vector>

using Kel::String8;
using Zenet::GenericIntfId;
using Zenet::IntfId;

namespace {

enum : uint8_t { vlan = 1, management = 2, ethernet = 4, tunnel = 15 };

std::string rawForm(uint64_t v) {
   char buf[32];
   snprintf(buf, sizeof buf, "IntfId(0x%016" PRIx64 ")", v);
   return buf;
}

} // namespace

TEST(IntfIdName, RoundTripsThroughTheIdentifier) {
   const char * names[] = {
       "Ethernet7",      "Ethernet0",         "Ethernet1048574", "Ethernet3/1",
       "Ethernet3/1/4",  "Ethernet3/4094/254", "Ethernet3/1.100", "Ethernet3/1/4.0",
       "Ethernet1.65534", "Management1",      "Management0",     "Management1/1",
       "Vlan1",          "Vlan100",           "Vlan4094",        "Loopback0",
       "Tunnel5",        "Vxlan1",            "GreTunnel5",      "Test1/2/3",
       "Test7",
   };
   for (const char * name : names) {
      SCOPED_TRACE(name);
      IntfId id(name);
      EXPECT_FALSE(id.isNull());
      EXPECT_TRUE(id.hasName());
      EXPECT_EQ(id.stringValue(), name);
      IntfId quiet;
      ASSERT_TRUE(Zenet::parseIntfName(name, &quiet, nullptr));
      EXPECT_EQ(quiet, id);
   }
   EXPECT_TRUE(IntfId("").isNull());
   EXPECT_EQ(IntfId().stringValue(), "");
}

TEST(IntfIdName, RefusesMalformedNames) {
   const char * names[] = {
       "Ether1",           // unknown prefix
       "Port1",            //
       "ethernet1",        // lowercase prefix
       "ETHERNET1",        //
       "Ethernet01",       // leading zeros
       "Ethernet3/01",     //
       "Ethernet3/1.05",   //
       "Ethernet3/",       // trailing '/'
       "Ethernet",         // no number
       "Ethernet/1",       //
       "Ethernet3//1",     //
       "Ethernet3.",       // empty sub-interface
       "Vlan0",            // outside the family's range
       "Vlan4095",         //
       "Ethernet1048575",  // larger than the fields hold
       "Ethernet1/4095",   //
       "Ethernet1/1/255",  //
       "Ethernet1.65535",  //
       "Ethernet99999999999999999999",
       "Vlan1/1",          // too many parts for the family
       "Loopback1/1",      //
       "Management1/2/3",  //
       "Ethernet1/2/3/4",  //
       "Vlan10.1",         // sub-interface where the family has none
       "Management1.1",    //
       "Test1.1",          //
       "Ethernet1x",       // trailing junk
       "Ethernet1/2)",     //
       "Ethernet1 ",       // spaces
       " Ethernet1",       //
       "Ethernet 1",       //
       "Ethernet-1",       // signs
       "Ethernet+1",       //
       "IntfId(0x)",       // malformed raw forms
       "IntfId(0xzz)",     //
       "IntfId(0x1)",      // raw forms other than the one printed
       "IntfId(0xFF00000000000001)",
       "IntfId(0x0400001000000000)",  // Ethernet0 has a name
       "IntfId(0x0000000000000000)",  // so has no interface: ""
   };
   for (const char * name : names) {
      SCOPED_TRACE(name);
      try {
         IntfId id(name);
         ADD_FAILURE() << "accepted as " << rawForm(id.intfIdValue());
      } catch (Kel::RangeException const & e) {
         EXPECT_TRUE(e.message().contains(name)) << e.message();
      }
      IntfId quiet(uint64_t(42));
      String8 reason;
      EXPECT_FALSE(Zenet::parseIntfName(name, &quiet, &reason));
      EXPECT_TRUE(reason.contains(name)) << reason;
   }
}

TEST(IntfIdOrder, SortsAsAListingDoes) {
   // Families by code (Vlan 1, Management 2, Loopback 3, Ethernet 4, Test 10,
   // Tunnel 15, Vxlan 56, GreTunnel 57), then numbers left to right.
   const std::vector<std::string> expected = {
       "",
       "Vlan1",         "Vlan2",          "Vlan10",          "Vlan4094",
       "Management0",   "Management1",    "Management1/1",   "Management1/2",
       "Management2",   "Loopback0",      "Loopback9",       "Loopback10",
       "Ethernet0",     "Ethernet2",      "Ethernet3",       "Ethernet3.1",
       "Ethernet3/1",   "Ethernet3/1.5",  "Ethernet3/1.10",  "Ethernet3/1/1",
       "Ethernet3/1/1.1", "Ethernet3/1/2", "Ethernet3/2",    "Ethernet3/10",
       "Ethernet10",    "Ethernet10/1",   "Ethernet1048574", "Test1",
       "Test1/2/3",     "Test2",          "Tunnel5",         "Tunnel10",
       "Vxlan1",        "GreTunnel5",
   };
   std::vector<std::string> names = expected;
   std::mt19937 rng(7);
   for (int round = 0; round < 5; ++round) {
      std::shuffle(names.begin(), names.end(), rng);
      std::sort(names.begin(), names.end(), [](std::string const & a, std::string const & b) {
         return IntfId(std::string_view(a)) < IntfId(std::string_view(b));
      });
      EXPECT_EQ(names, expected);
   }
}

TEST(IntfIdGeneric, PartsCountFromTheRight) {
   struct Case {
      const char * name;
      uint8_t typeId;
      uint8_t parts;
      uint32_t part[3];
      bool isSub;
      uint32_t sub;
   } cases[] = {
       {"Management1/2", management, 2, {2, 1, 0}, false, 0},
       {"Ethernet3/1/4", ethernet, 3, {4, 1, 3}, false, 0},
       {"Ethernet3/1.100", ethernet, 2, {1, 3, 0}, true, 100},
       {"Ethernet3.0", ethernet, 1, {3, 0, 0}, true, 0},
       {"Vlan100", vlan, 1, {100, 0, 0}, false, 0},
       {"Tunnel1048574", tunnel, 1, {1048574, 0, 0}, false, 0},
   };
   for (auto const & c : cases) {
      SCOPED_TRACE(c.name);
      IntfId id(c.name);
      EXPECT_EQ(GenericIntfId::typeId(id), c.typeId);
      EXPECT_EQ(GenericIntfId::parts(id), c.parts);
      for (uint8_t i = 0; i < 4; ++i) {
         EXPECT_EQ(GenericIntfId::part(id, i), i < 3 ? c.part[i] : 0u) << "part " << int(i);
      }
      EXPECT_EQ(GenericIntfId::isSubIntf(id), c.isSub);
      EXPECT_EQ(GenericIntfId::subIntf(id), c.sub);
   }
}

TEST(IntfIdGeneric, SettersBuildTheNamedIdentifier) {
   IntfId id;
   GenericIntfId::typeIdIs(id, management);
   GenericIntfId::partIs(id, 2, 1, 1);
   GenericIntfId::partIs(id, 2, 0, 2);
   EXPECT_EQ(id, IntfId("Management1/2"));

   // Changing one part keeps the others and the family.
   GenericIntfId::partIs(id, 2, 0, 4094);
   EXPECT_EQ(id.stringValue(), "Management1/4094");
   GenericIntfId::typeIdIs(id, ethernet);
   GenericIntfId::subIntfIs(id, 7);
   EXPECT_EQ(id.stringValue(), "Ethernet1/4094.7");

   EXPECT_EQ(GenericIntfId::make(ethernet, {3, 1, 4}, 100, true), IntfId("Ethernet3/1/4.100"));
   EXPECT_EQ(GenericIntfId::make(ethernet, {3}, 0, true), IntfId("Ethernet3.0"));
   EXPECT_EQ(GenericIntfId::make(vlan, {4094}), IntfId("Vlan4094"));

   // A single-part family keeps the wide first field.
   IntfId tun;
   GenericIntfId::typeIdIs(tun, tunnel);
   GenericIntfId::partIs(tun, 1, 0, 70000);
   EXPECT_EQ(GenericIntfId::part(tun, 0), 70000u);
   EXPECT_EQ(tun.stringValue(), "Tunnel70000");
   EXPECT_EQ(IntfId("Tunnel70000"), tun);
}

TEST(IntfIdGeneric, SettersRefuseWhatTheFieldsCannotHold) {
   IntfId id = IntfId("Ethernet3/1/4.5");
   const IntfId before = id;
   struct Case {
      uint8_t count, index;
      uint32_t value;
   } cases[] = {
       {1, 0, 1048575}, {2, 0, 4095}, {3, 0, 255}, {3, 1, 4095},
       {0, 0, 1},       {4, 0, 1},    {2, 2, 1},   {1, 0, 0xffffffff},
   };
   for (auto const & c : cases) {
      SCOPED_TRACE(testing::Message() << int(c.count) << "/" << int(c.index) << "=" << c.value);
      EXPECT_THROW(GenericIntfId::partIs(id, c.count, c.index, c.value), Kel::RangeException);
      EXPECT_EQ(id, before);
   }
   EXPECT_THROW(GenericIntfId::subIntfIs(id, 65535), Kel::RangeException);
   EXPECT_EQ(id, before);
}

TEST(IntfIdRaw, EveryWordPrintsToTextThatReadsBack) {
   // Random words, half of them with a named family's code and some fields
   // cleared, so that both names and raw forms come up.
   const uint8_t codes[] = {1, 2, 3, 4, 10, 15, 56, 57};
   const uint64_t clears[] = {0, 0xffff, 0xffffff, 0xffffffffff, 0xfffff000000ULL};
   std::mt19937_64 rng(99);
   int raw = 0, named = 0;
   for (int i = 0; i < 4000; ++i) {
      uint64_t v = rng();
      if (i % 2) {
         v = (v & 0x00ffffffffffffffULL) | (uint64_t(codes[rng() % 8]) << 56);
         v &= ~clears[rng() % 5];
      }
      IntfId id(v);
      String8 text = id.stringValue();
      if (id.hasName()) {
         ++named;
      } else {
         ++raw;
         ASSERT_EQ(text, rawForm(v));
      }
      ASSERT_EQ(IntfId(text), id) << text;
   }
   EXPECT_GT(raw, 1000);
   EXPECT_GT(named, 500);
   // Shapes no name has: a gap between parts, Vlan0, a sub-interface on Vlan.
   for (uint64_t v : {0x0400000001000000ULL, 0x0100001000000000ULL, 0x0100002000000001ULL}) {
      IntfId id(v);
      EXPECT_FALSE(id.hasName()) << rawForm(v);
      EXPECT_EQ(id.stringValue(), rawForm(v));
   }
}

TEST(IntfIdText, QuotedNameRoundTrips) {
   struct Case {
      IntfId id;
      const char * text;
   } cases[] = {
       {IntfId("Ethernet3/1.100"), "'Ethernet3/1.100'"},
       {IntfId("Vlan4094"), "'Vlan4094'"},
       {IntfId(), "''"},
       {IntfId(0x0400000001000000ULL), "'IntfId(0x0400000001000000)'"},
   };
   for (auto const & c : cases) {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(Kel::valueToStrep(c.id), c.text);
      IntfId back(uint64_t(42));
      Kel::strepToValue(String8(c.text), &back);
      EXPECT_EQ(back, c.id);
   }
   IntfId id;
   Kel::strepToValue(String8("\"Management1/1\""), &id);
   EXPECT_EQ(id, IntfId("Management1/1"));
   for (const char * bad : {"'Ethernet01'", "Ethernet1", "'Ethernet1'x", "'Ethernet1"}) {
      SCOPED_TRACE(bad);
      EXPECT_THROW(Kel::strepToValue(String8(bad), &id), Kel::RangeException);
   }
}

TEST(IntfIdHash, EqualForEqualIdsAndSpreadInTheLowBits) {
   EXPECT_EQ(IntfId("Ethernet3/1").hash(), IntfId("Ethernet3/1").hash());
   EXPECT_EQ(std::hash<IntfId>()(IntfId("Vlan7")), IntfId("Vlan7").hash());
   // Hash maps index by the low bits. 10,000 random values would land on about
   // 9,270 of 65,536 buckets; a hash that drops the high fields would give
   // a few.
   struct Series {
      const char * what;
      IntfId (*make)(uint32_t);
   } series[] = {
       {"Ethernet1..", [](uint32_t i) { return GenericIntfId::make(ethernet, {i + 1}); }},
       {"Ethernet1/1.0..", [](uint32_t i) { return GenericIntfId::make(ethernet, {1, 1}, i, true); }},
       {"Ethernet1/1/1..", [](uint32_t i) {
           return GenericIntfId::make(ethernet, {i / 250 + 1, i / 50 % 5 + 1, i % 50 + 1});
        }},
   };
   for (auto const & s : series) {
      std::unordered_set<uint32_t> low;
      for (uint32_t i = 0; i < 10000; ++i) low.insert(s.make(i).hash() & 0xffff);
      EXPECT_GT(low.size(), 9000u) << s.what;
   }
}
