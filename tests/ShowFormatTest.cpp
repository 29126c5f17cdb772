// The layouts of intf-show: interface order, columns aligned by what a
// terminal shows, units, what was measured and what was not, escaped
// names, JSON per command that scripts can rely on, and the names
// operators type.
#include "IntfNameInput.h"
#include "ShowFormat.h"

#include <gtest/gtest.h>

using namespace IntfApp;
using Interface::IntfOperStatus;
using Zenet::IntfId;

namespace {

std::vector<IntfView> rows() {
   IntfView e10;
   e10.intfId = IntfId("Ethernet10");
   e10.description = "to \"spine\"";
   e10.device = "eth9";
   e10.adminUp = true;
   e10.adminConfigured = true;
   e10.operStatus = IntfOperStatus::intfOperUp;
   e10.mtu = 9000;
   e10.maxMtu = 9216;
   e10.speedBps = 10'000'000'000;
   e10.hasCounters = true;
   e10.unmeasured = kernelUnmeasured;
   e10.stats.inOctetsIs(123456789);
   e10.stats.inUcastPktsIs(1000);
   e10.stats.inMulticastPktsIs(24);
   e10.stats.outUcastPktsIs(7);
   Brik::MaybeU63 absent;
   absent.valueDel();
   e10.stats.outOctetsIs(absent);
   e10.rates.inBitsRateIs(2.5e9);
   e10.rates.inPktsRateIs(1234.0);
   e10.loadInterval = 30;
   IntfView e2;
   e2.intfId = IntfId("Ethernet2");
   e2.description = "Zürich\x1b[2J";
   e2.device = "eth2";
   e2.adminConfigured = true;  // asked up, but the device is down
   e2.operStatus = IntfOperStatus::intfOperLowerLayerDown;
   e2.mtu = 1500;
   e2.netNs = "blue";
   IntfView lo;
   lo.intfId = IntfId("Loopback0");
   lo.description = "東京🤖";
   lo.device = "lo";
   lo.adminUp = true;
   lo.mtu = 65536;
   lo.hasCounters = true;
   lo.unmeasured = kernelUnmeasured;
   lo.stats.outOctetsIs(absent);
   IntfView gone;
   gone.intfId = IntfId("Ethernet3");
   gone.present = false;
   gone.operStatus = IntfOperStatus::intfOperNotPresent;
   return {e10, lo, e2, gone};
}

} // namespace

// Interface order is the identifiers' order: by family, then by number
// (Ethernet2 before Ethernet10), not by name.
TEST(ShowFormat, StatusAndRatesShowAlignedColumnsTheAdminStatesAndUtilisationWhereTheSpeedIsKnown) {
   EXPECT_EQ(statusTable(rows()),
             "Interface   Description    Admin  Configured  Oper              MTU  Device  Namespace\n"
             "Loopback0   東京🤖         up     -           unknown         65536  lo      default\n"
             "Ethernet2   Zürich\\x1b[2J  down   up          lowerLayerDown   1500  eth2    blue\n"
             "Ethernet3                  -      -           notPresent          -  -       default\n"
             "Ethernet10  to \"spine\"     up     up          up               9000  eth9    default\n");
   EXPECT_EQ(ratesTable(rows()),
             "Interface   Intvl  In Mbps      %  In Kpps  Out Mbps     %  Out Kpps\n"
             "Loopback0    5:00      0.0      -      0.0       0.0     -       0.0\n"
             "Ethernet10   0:30   2500.0  25.0%      1.2       0.0  0.0%       0.0\n");
}

TEST(ShowFormat, CountersShowWhatWasMeasuredAndMarkTheRest) {
   std::string t = countersTable(rows(), 0);
   // Packets in all, multicast apart; unicast and broadcast were never told apart.
   EXPECT_NE(t.find("Ethernet10  123456789    1024            -           24            -"), std::string::npos) << t;
   EXPECT_EQ(t.find("Ethernet2"), std::string::npos) << t;  // no counters: not listed
   // Out octets were never given, nor packets by kind.
   EXPECT_NE(t.find("Ethernet10          -        7             -             -             -"), std::string::npos)
         << t;
   // Values that are the last ones read are marked, in every form.
   auto r = rows();
   r[0].countersStale = true;
   for (auto [shown, piece] : {std::pair<std::string, char const *>{countersTable(r, 0), "Ethernet10*"},
                               {ratesTable(r), "* last values read: the counters cannot be read just now\n"},
                               {interfaceDetail(r[0], 0), "  Counters: the last values read; they cannot be read just now\n"},
                               {toJson("counters", r), "\"stale\": true"}}) {
      EXPECT_NE(shown.find(piece), std::string::npos) << shown;
   }
   EXPECT_EQ(t.find("*"), std::string::npos);
}

TEST(ShowFormat, TheLastClearIsSaidOnceWhenAllAgreeElsePerInterface) {
   struct Case {
      ClearState e10, lo;
      std::string tail;
   } const cases[] = {
      {{}, {}, "\nLast clearing of counters never\n"},
      {{99867, false}, {99867, false}, "\nLast clearing of counters 0:02:13 ago\n"},
      {{9939, false}, {}, "\nLoopback0: Last clearing of counters never\nEthernet10: Last clearing of counters 25:01:01 ago\n"},
      {{99995, true}, {99995, true}, " 0:00:05 ago (baseline dropped: the counters restarted since; counts are totals)\n"},
      {{100005, false}, {100005, false}, " 0:00:00 ago\n"},
   };
   for (auto const & c : cases) {
      auto r = rows();
      r[0].clear = c.e10;
      r[1].clear = c.lo;
      std::string t = countersTable(r, 100000);
      EXPECT_TRUE(t.ends_with(c.tail)) << t;
   }
   // Scripts are told when, whether the baseline was dropped, or that the counters are absolute.
   auto r = rows();
   r[0].clear = ClearState{1234.5, true};
   std::string json = toJson("counters", r);
   EXPECT_NE(json.find("\"stale\": false, \"lastClear\": 1234.5, \"baselineDropped\": true}"), std::string::npos) << json;
   EXPECT_NE(json.find("\"stale\": false, \"raw\": true}"), std::string::npos) << json;
   EXPECT_NE(interfaceDetail(r[0], 1334.5).find("\n  Last clearing of counters 0:01:40 ago (baseline dropped"), std::string::npos);
}

TEST(ShowFormat, JsonHasAVersionAndTheFieldsOfItsCommandOnly) {
   struct Case {
      std::string command;
      std::vector<std::string> has, hasNot;
   } const cases[] = {
      {"status",
       {"{\"version\": 1, \"command\": \"status\", \"interfaces\": {\"Loopback0\": {",
        "\"description\": \"to \\\"spine\\\"\"", "\"description\": \"Zürich\\u001b[2J\"", "\"adminUp\": false",
        "\"adminConfigured\": \"up\"", "\"Ethernet3\": {\"description\": \"\", \"device\": \"\", \"namespace\": "
        "\"default\", \"present\": false, \"operStatus\": \"notPresent\""},
       {"inOctets", "inBitsRate"}},
      {"counters",
       {"\"Ethernet10\": {\"inOctets\": 123456789, \"inPkts\": 1024, \"inMulticastPkts\": 24, \"inDiscards\": 0",
        "\"outPkts\": 7, \"outDiscards\": 0"},
       {"inUcastPkts", "inBroadcastPkts", "outUcastPkts", "outOctets", "operStatus", "inBitsRate", "Ethernet2"}},
      {"rates", {"\"Ethernet10\": {\"loadInterval\": 30, \"inBitsRate\": 2.5e+09"}, {"inOctets", "mtu"}},
   };
   for (auto const & c : cases) {
      std::string j = toJson(c.command, rows());
      EXPECT_EQ(j.find('\n'), j.size() - 1) << "one line";
      for (auto const & s : c.has) EXPECT_NE(j.find(s), std::string::npos) << c.command << ": " << s << "\n" << j;
      for (auto const & s : c.hasNot) EXPECT_EQ(j.find(s), std::string::npos) << c.command << ": " << s;
   }
   std::string all = toJson("interface", {rows()[0]});
   EXPECT_NE(all.find("\"mtu\": 9000, \"maxMtu\": 9216, \"speedBps\": 10000000000, \"counters\": {\"inOctets\""),
             std::string::npos) << all;
   EXPECT_NE(all.find("}, \"rates\": {\"loadInterval\""), std::string::npos) << all;
   EXPECT_EQ(jsonString(std::string("a\x01\n\x7f\xff", 5)), "\"a\\u0001\\n\\u007f\\ufffd\"");
}

TEST(ShowFormat, OnlyWellFormedUtf8ReachesATerminal) {
   struct Case {
      char const * raw;
      char const * shown;
   } const cases[] = {
      {"Zürich 東京 🤖", "Zürich 東京 🤖"},
      {"\xc1\xbf", "\\xc1\\xbf"},                  // an overlong form of '?'
      {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},          // an overlong '/'
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          // a surrogate
      {"\xee\x80\x80", "\xee\x80\x80"},              // the first character past them
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // past U+10FFFF
      {"\xe6\x9d", "\\xe6\\x9d"},                  // cut short
      {"a\xc2\x85" "b", "a\\xc2\\x85b"},           // a control character past ASCII
   };
   for (auto const & c : cases) EXPECT_EQ(printable(c.raw), c.shown) << c.shown;
}

TEST(ShowFormat, DetailTellsEverythingKnownOfOneInterface) {
   auto r = rows();
   r[2].changes = 3;
   r[2].lastChange = 100;
   EXPECT_EQ(interfaceDetail(r[2], 160),
             "Ethernet2 is administratively down (configured up), line protocol is lowerLayerDown\n"
             "  Description: Zürich\\x1b[2J\n"
             "  Device eth2 in namespace blue\n"
             "  MTU 1500 bytes\n"
             "  3 link status changes, last 60 s ago\n"
             "  No counters\n");
   EXPECT_EQ(interfaceDetail(r[3], 160), "Ethernet3 is not present: configured, but no device carries it\n");
   std::string e10 = interfaceDetail(r[0], 160);
   EXPECT_NE(e10.find("MTU 9000 bytes, maximum 9216\n"), std::string::npos) << e10;
   EXPECT_NE(e10.find("Input: 1024 packets (- unicast, 24 multicast, - broadcast), 123456789 bytes"),
             std::string::npos) << e10;
}

TEST(ShowFormat, AnInterfaceIsFoundByItsNameAShortFormOrItsDevice) {
   auto r = rows();
   r[1].device = "eth2";  // also in the default namespace: it wins over blue's
   struct Case {
      char const * typed;
      char const * found;  // "" when none
   } const cases[] = {
      {"Ethernet10", "Ethernet10"}, {"Et10", "Ethernet10"}, {"et10", "Ethernet10"}, {"lo0", "Loopback0"},
      {"eth9", "Ethernet10"},       {"eth2", "Loopback0"},  {"blue/eth2", "Ethernet2"}, {"Ethernet4", ""},
      {"e", ""},                    {"x/eth2", ""},
   };
   for (auto const & c : cases) {
      std::string why;
      int i = findInterface(r, c.typed, &why);
      EXPECT_EQ(i < 0 ? std::string() : r[size_t(i)].intfId.stringValue().str(), c.found) << c.typed;
      EXPECT_EQ(why.empty(), i >= 0) << c.typed;
   }
   std::string why;
   EXPECT_EQ(findInterface(r, "bogus\x1b", &why), -1);
   EXPECT_EQ(why, "no interface or device named \"bogus\\x1b\"");
   // In two namespaces, neither of them the default: which one is meant must be said.
   r[2].device = r[3].device = "tap1";
   r[3].netNs = "red";
   EXPECT_EQ(findInterface(r, "tap1", &why), -1);
   EXPECT_EQ(why, "device tap1 is in several namespaces: name one as NAMESPACE/tap1");
}
