// A tour of the library: interface identifiers from names, records in their
// text form and back, and moving-average rates from counter samples.
#include <Intf/MovingAverage.h>
#include <Intf/Types.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace Interface;

namespace {

void section(const char * title) { std::printf("\n== %s\n", title); }

bool identifiers() {
   section("Interface identifiers (sorted as a listing)");
   std::vector<Zenet::IntfId> ids;
   for (const char * n : {"Ethernet10", "Vlan100", "Ethernet2", "Ethernet3/1.100", "Management1/1",
                          "Ethernet3/2", "Ethernet3/1", "Loopback0", "Tunnel5", "Vxlan1",
                          "GreTunnel7", "Ethernet3/1/4", "Test1/2"}) {
      ids.emplace_back(n);
   }
   std::sort(ids.begin(), ids.end());
   std::printf("%-18s %-20s %6s %6s %8s\n", "name", "identifier", "family", "parts", "part(0)");
   for (auto id : ids) {
      std::printf("%-18s 0x%016llx %6u %6u %8u\n", id.stringValue().charPtr(),
                  (unsigned long long)id.intfIdValue(), Zenet::GenericIntfId::typeId(id),
                  Zenet::GenericIntfId::parts(id), Zenet::GenericIntfId::part(id, 0));
   }
   for (const char * bad : {"Ethernet03", "ethernet1", "Vlan4095", "Loopback1.5", "Port-Channel1"}) {
      try {
         Zenet::IntfId id(bad);
         std::printf("unexpectedly accepted %s\n", bad);
         return false;
      } catch (Kel::RangeException const & e) {
         std::printf("refused: %s\n", e.what());
      }
   }
   return true;
}

template <class V>
bool roundTrip(V const & v) {
   Kel::String8 text = valueToStrep(v);
   V back;
   Kel::strepToValue(text, &back);
   std::printf("%s\n   parses back %s\n", text.charPtr(), back == v ? "equal" : "DIFFERENT");
   return back == v;
}

bool records() {
   section("Records in their text form");
   IntfStatistics s;
   s.inUcastPktsIs(123456789);
   s.outUcastPktsIs(987654321);
   s.outOctetsIs(Brik::MaybeU63::absent());
   s.inOctetsIs(4000000000ull);
   s.lastUpdateIs(1700000000.25);
   bool ok = roundTrip(s);
   ok &= roundTrip(LoadInterval(false, 30));
   ok &= roundTrip(IntfConfigRequest(Zenet::IntfId("Ethernet3/1"), "lacp"));
   ok &= roundTrip(IntfOperStatus::intfOperLowerLayerDown);
   std::printf("an unnamed status prints as %s\n", stringValue(IntfOperStatus(9)).charPtr());
   try {
      LoadInterval li;
      Kel::strepToValue("Value('Interface::LoadInterval', ** {'useDefault': False, 'val': 1.0})",
                        &li);
      ok = false;
   } catch (Kel::RangeException const & e) {
      std::printf("refused: %s\n", e.what());
   }
   return ok;
}

void rates() {
   section("Moving-average rates of one interface, load interval 30 s");
   // A link that carries 1,000 packets/s of 500 bytes for 60 s, then goes quiet.
   LoadInterval intf(false, 30), global;
   IntfRates r;
   std::printf("%6s %12s %14s\n", "time", "inPkts/s", "inBits/s");
   for (int t = 5; t <= 120; t += 5) {
      IntfStatistics delta;
      uint64_t pkts = t <= 60 ? 5000 : 0;
      delta.inUcastPktsIs(pkts);
      delta.inOctetsIs(pkts * 500);
      r = updateIntfMovingAverages(r, delta, t, intf, global);
      if (t % 15 == 0) std::printf("%6d %12.1f %14.1f\n", t, r.inPktsRate(), r.inBitsRate());
   }
}

} // namespace

int main() {
   bool ok = identifiers();
   ok &= records();
   rates();
   std::printf("\n%s\n", ok ? "demo finished" : "demo found a problem");
   return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
