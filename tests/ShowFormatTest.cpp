// The layouts of intf-show: interface order, aligned columns, units, and
// JSON that scripts can rely on.
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
   e10.operStatus = IntfOperStatus::intfOperUp;
   e10.mtu = 9000;
   e10.maxMtu = 9216;
   e10.speedBps = 10'000'000'000;
   e10.hasCounters = true;
   e10.stats.inOctetsIs(123456789);
   e10.stats.inUcastPktsIs(1000);
   e10.stats.outUcastPktsIs(7);
   Brik::MaybeU63 absent;
   absent.valueDel();
   e10.stats.outOctetsIs(absent);
   e10.rates.inBitsRateIs(2.5e9);
   e10.rates.inPktsRateIs(1234.0);
   e10.loadInterval = 30;
   IntfView e2;
   e2.intfId = IntfId("Ethernet2");
   e2.adminUp = false;
   e2.operStatus = IntfOperStatus::intfOperLowerLayerDown;
   e2.mtu = 1500;
   e2.netNs = "blue";
   IntfView lo;
   lo.intfId = IntfId("Loopback0");
   lo.device = "lo";
   lo.mtu = 65536;
   lo.hasCounters = true;
   return {e10, lo, e2};
}

} // namespace

// Interface order is the identifiers' order: by family, then by number
// (Ethernet2 before Ethernet10), not by name.
TEST(ShowFormat, StatusListsInterfacesInInterfaceOrderWithAlignedColumns) {
   EXPECT_EQ(statusTable(rows()),
             "Interface   Description  Admin  Oper              MTU  Device  Namespace\n"
             "Loopback0                up     unknown         65536  lo      default\n"
             "Ethernet2                down   lowerLayerDown   1500  -       blue\n"
             "Ethernet10  to \"spine\"   up     up               9000  eth9    default\n");
}

TEST(ShowFormat, RatesAreInMbpsAndKppsWithUtilisationWhereTheSpeedIsKnown) {
   EXPECT_EQ(ratesTable(rows()),
             "Interface   Intvl  In Mbps      %  In Kpps  Out Mbps     %  Out Kpps\n"
             "Loopback0    5:00      0.0      -      0.0       0.0     -       0.0\n"
             "Ethernet10   0:30   2500.0  25.0%      1.2       0.0  0.0%       0.0\n");
}

TEST(ShowFormat, CountersShowInputAndOutputTablesAndMarkAbsentCounters) {
   std::string t = countersTable(rows());
   EXPECT_NE(t.find("Ethernet10  123456789         1000"), std::string::npos) << t;
   EXPECT_EQ(t.find("Ethernet2"), std::string::npos) << t;  // no counters: not listed
   // Out octets were never given: shown as absent, not as zero.
   EXPECT_NE(t.find("Ethernet10          -             7"), std::string::npos) << t;
   // Values that are the last ones read are marked, in every form.
   auto r = rows();
   r[0].countersStale = true;
   for (auto [shown, piece] : {std::pair<std::string, char const *>{countersTable(r), "Ethernet10*"},
                               {ratesTable(r), "* last values read: the counters cannot be read just now\n"},
                               {interfaceDetail(r[0], 0), "  Counters: the last values read; they cannot be read just now\n"},
                               {toJson(r), "\"stale\": true"}}) {
      EXPECT_NE(shown.find(piece), std::string::npos) << shown;
   }
   EXPECT_EQ(t.find("*"), std::string::npos);
}

TEST(ShowFormat, JsonCarriesEveryFieldWithEscapedStrings) {
   std::string j = toJson(rows());
   EXPECT_EQ(j.rfind("{\"interfaces\": {\"Loopback0\": {", 0), 0u) << j;
   EXPECT_NE(j.find("\"description\": \"to \\\"spine\\\"\""), std::string::npos) << j;
   EXPECT_NE(j.find("\"operStatus\": \"lowerLayerDown\""), std::string::npos) << j;
   EXPECT_NE(j.find("\"inOctets\": 123456789"), std::string::npos) << j;
   EXPECT_NE(j.find("\"outOctets\": null"), std::string::npos) << j;
   EXPECT_NE(j.find("\"inBitsRate\": 2.5e+09"), std::string::npos) << j;
   EXPECT_EQ(jsonString(std::string("a\x01\n", 3)), "\"a\\u0001\\n\"");
}

TEST(ShowFormat, DetailTellsEverythingKnownOfOneInterface) {
   auto r = rows();
   r[2].changes = 3;
   r[2].lastChange = 100;
   std::string d = interfaceDetail(r[2], 160);
   EXPECT_EQ(d,
             "Ethernet2 is administratively down, line protocol is lowerLayerDown\n"
             "  Device - in namespace blue\n"
             "  MTU 1500 bytes\n"
             "  3 link status changes, last 60 s ago\n"
             "  No counters\n");
   // The maximum MTU only where the kernel told it.
   for (auto const & v : r) {
      if (v.maxMtu) {
         EXPECT_NE(interfaceDetail(v, 160).find("MTU 9000 bytes, maximum 9216\n"), std::string::npos);
      }
   }
}
