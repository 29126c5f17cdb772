// A tour of the library: interface identifiers from names, records in their
// text form and back, moving-average rates from counter samples, and a
// configuration published to another process whose reactors hear it change.
#include <Intf/IntfStatusDir.h>
#include <Intf/MovingAverage.h>
#include <Intf/Types.h>
#include <Kel/Agent.h>
#include <Kel/CollectionWatcher.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

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

// In the reader process: one reactor per configuration, present or future.
// What they heard decides the demo's exit status (it runs as a test).
std::string heard;
struct ConfigWatch : IntfConfig::NotifieeConst {
   void onMtu() override {
      std::printf("  reader: %s mtu is now %u\n", notifier()->name().charPtr(), notifier()->mtu());
      heard += notifier()->name().str() + " mtu " + std::to_string(notifier()->mtu()) + ";";
   }
};
struct DirWatch : AllIntfConfigDir::NotifieeConst {
   void onIntfConfig(Zenet::IntfId id) override {
      bool in = bool(notifier()->intfConfig(id));
      std::printf("  reader: %s %s\n", id.stringValue().charPtr(), in ? "configured" : "removed");
      heard += id.stringValue().str() + (in ? " in;" : " out;");
   }
};

bool replication() {
   section("A configuration published to a second process");
   using namespace std::chrono_literals;
   std::string path = "@intf-demo-" + std::to_string(::getpid());
   std::fflush(stdout);
   int ready[2];  // the reader says when it has the tree and its reactors
   if (::pipe(ready) != 0) return false;
   pid_t reader = ::fork();
   if (reader == 0) {
      std::setvbuf(stdout, nullptr, _IOLBF, 0);  // lines interleave with the agent's
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Client::Options options;
      options.reconnect = true;
      options.minBackoff = 20ms;
      Kel::NboAttrLog::Client client(loop, path, "", options);
      Kel::Ptr<DirWatch> dirWatch;
      Kel::Ptr<Kel::CollectionWatcher<AllIntfConfigDir, Zenet::IntfId, IntfConfig, ConfigWatch>> members;
      bool closed = false;
      client.onSynced = [&](Kel::Ptr<Kel::Entity> root) {
         auto dir = Kel::dynamicCast<AllIntfConfigDir>(root);
         std::printf("  reader: synced, %u configurations\n", dir->intfConfigSize());
         dirWatch = Kel::makePtr<DirWatch>();
         dirWatch->notifierIs(AllIntfConfigDir::PtrConst(dir));
         members = Kel::watchCollection(AllIntfConfigDir::PtrConst(dir), &AllIntfConfigDir::intfConfig,
                                        AllIntfConfigDir::kelId_intfConfig,
                                        [](Kel::Ptr<IntfConfig const> const &) { return Kel::makePtr<ConfigWatch>(); });
         (void)!::write(ready[1], "r", 1);
      };
      client.onClosed = [&](Kel::String8 const & why) {
         if (client.connects() == 0) return;  // the agent is not listening yet
         std::printf("  reader: connection closed: %s\n", why.charPtr());
         closed = true;
      };
      loop.runUntil([&] { return closed; }, 10000);
      std::fflush(stdout);
      bool all = heard == "Ethernet2 mtu 9000;Ethernet3 in;Ethernet1 out;Ethernet3 mtu 9214;";
      if (!all) std::printf("  reader heard: %s\n", heard.c_str());
      ::_exit(closed && all ? 0 : 1);
   }
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   auto dir = Kel::makePtr<AllIntfConfigDir>(Kel::Name("config"));
   for (char const * n : {"Ethernet1", "Ethernet2"}) dir->intfConfigIs(intfConfigFactory(Zenet::IntfId(n)));
   {
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Server server(loop, path, dir, "demoConfigAgent");
      std::printf("  agent: serving Ethernet1 and Ethernet2 on %s\n", path.c_str());
      bool done = false;
      // Changes start once the reader is listening, so it hears each one.
      auto readerReady = [&] {
         pollfd p{ready[0], POLLIN, 0};
         return ::poll(&p, 1, 0) > 0;
      };
      loop.runUntil(readerReady, 10000);
      loop.timerIs(100ms, [&] {
         std::printf("  agent: Ethernet2 mtu 9000\n");
         std::fflush(stdout);
         dir->intfConfig(Zenet::IntfId("Ethernet2"))->mtuIs(9000);
      });
      loop.timerIs(200ms, [&] {
         std::printf("  agent: adds Ethernet3 with mtu 1400, removes Ethernet1\n");
         std::fflush(stdout);
         auto c = intfConfigFactory(Zenet::IntfId("Ethernet3"));
         c->mtuIs(1400);
         dir->intfConfigIs(c);
         dir->intfConfigDel(Zenet::IntfId("Ethernet1"));
      });
      loop.timerIs(300ms, [&] { dir->intfConfig(Zenet::IntfId("Ethernet3"))->mtuIs(9214); });
      loop.timerIs(500ms, [&] {
         std::printf("  agent: stops\n");
         std::fflush(stdout);
         done = true;
      });
      loop.runUntil([&] { return done; }, 5000);
   }
   int status = 0;
   ::waitpid(reader, &status, 0);
   ::close(ready[0]);
   ::close(ready[1]);
   return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main() {
   bool ok = identifiers();
   ok &= records();
   rates();
   ok &= replication();
   std::printf("\n%s\n", ok ? "demo finished" : "demo found a problem");
   return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
