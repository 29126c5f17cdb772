// intf-gnmid's pieces that need no process: path resolution against the
// served schema, the hand-written wire encoding (read back with the
// generated protobuf classes), leaf values and JSON subtrees.
#include "JsonTree.h"
#include "Schema.h"
#include "Values.h"
#include "Wire.h"

#include "gnmi.pb.h"

#include <Smash/Table.h>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Gnmi;

namespace {

std::vector<PathElem> path(std::string const & text) {
   std::vector<PathElem> out;
   size_t i = 0;
   while (i < text.size()) {
      size_t end = text.find('/', i + 1);
      std::string part = text.substr(i + 1, end == std::string::npos ? std::string::npos : end - i - 1);
      PathElem e;
      size_t br = part.find('[');
      e.name = part.substr(0, br);
      if (br != std::string::npos) {
         size_t eq = part.find('=', br);
         e.keys.emplace_back(part.substr(br + 1, eq - br - 1), part.substr(eq + 1, part.size() - eq - 2));
      }
      out.push_back(e);
      i = end == std::string::npos ? text.size() : end;
   }
   return out;
}

} // namespace

TEST(GnmiSchema, PathsResolveToInterfacesAndLeavesOrNameTheOffendingElement) {
   struct Case {
      std::string path;
      LeafSet leaves;  // 0: refused
      std::string intfOrError;
      Node node = Node::leaf;
   };
   Case const cases[] = {
      {"/interfaces", allLeaves, "", Node::interfaces},
      {"/openconfig-interfaces:interfaces/interface[name=Ethernet1]/state/counters", counterLeaves, "Ethernet1",
       Node::counters},
      {"/interfaces/interface[name=*]/state/oper-status", bit(Leaf::operStatus), "", Node::leaf},
      {"/interfaces/interface/config", bit(Leaf::configName) | bit(Leaf::configMtu) |
                                           bit(Leaf::configDescription) | bit(Leaf::configEnabled), "", Node::config},
      {"/interfaces/*/*/mtu", bit(Leaf::configMtu) | bit(Leaf::stateMtu), ""},
      {"/interfaces/.../in-octets", bit(Leaf::inOctets), ""},
      {"/interfaces/interface[name=Loopback0]/...", allLeaves, "Loopback0"},
      {"/interfaces/interface[name=Vlan5]/name", bit(Leaf::name), "Vlan5", Node::leaf},
      {"/interfaces//interface", 0, "empty element name after /interfaces"},
      {"/interfaces/interface/state/bogus", 0, "unknown element \"bogus\" under /interfaces/interface/state"},
      {"/interfaces/interface[ifindex=3]", 0, "no key \"ifindex\""},
      {"/interfaces/interface[name=eth0]", 0, "interface[name=eth0]: not an interface name"},
      {"/interfaces[name=x]", 0, "\"interfaces\" is not a list"},
      {"/interfaces/interface/state/mtu/x", 0, "is a leaf"},
      {"/system", 0, "unknown element \"system\" under /"},
   };
   for (auto const & c : cases) {
      std::string error;
      auto q = resolve(path(c.path), &error);
      if (!c.leaves) {
         EXPECT_FALSE(q) << c.path;
         EXPECT_NE(error.find(c.intfOrError), std::string::npos) << c.path << ": " << error;
         continue;
      }
      ASSERT_TRUE(q) << c.path << ": " << error;
      EXPECT_EQ(q->leaves, c.leaves) << c.path;
      EXPECT_EQ(q->node, c.node) << c.path;
      EXPECT_EQ(q->intf ? q->intf->stringValue().str() : "", c.intfOrError) << c.path;
   }
}

TEST(GnmiWire, EncodedUpdatesReadBackAsTheGeneratedClassesSeeThem) {
   std::string intf = Wire::intfElem("Ethernet3/1");
   for (Enc enc : {Enc::proto, Enc::jsonIetf, Enc::json}) {
      for (uint64_t v : {uint64_t(0), uint64_t(127), uint64_t(128), uint64_t(1) << 63, ~uint64_t(0)}) {
         // The counters' fast path writes what the general one writes.
         std::string fast, general;
         Wire::counterUpdate(fast, intf, Leaf::inOctets, v, enc);
         Value num;
         num.kind = Value::Kind::number;
         num.number = v;
         Wire::leafUpdate(general, intf, Leaf::inOctets, num, enc);
         EXPECT_EQ(fast, general) << v;
         gnmi::SubscribeResponse r;
         ASSERT_TRUE(r.ParseFromString(Wire::subscribeUpdate(
             Wire::notification(1234567890123456789, Wire::interfacesPrefix("dut"), fast))));
         auto const & n = r.update();
         EXPECT_EQ(n.timestamp(), 1234567890123456789);
         EXPECT_EQ(n.prefix().target(), "dut");
         ASSERT_EQ(n.prefix().elem_size(), 1);
         EXPECT_EQ(n.prefix().elem(0).name(), "interfaces");
         ASSERT_EQ(n.update_size(), 1);
         auto const & p = n.update(0).path();
         ASSERT_EQ(p.elem_size(), 4);
         EXPECT_EQ(p.elem(0).name(), "interface");
         EXPECT_EQ(p.elem(0).key().at("name"), "Ethernet3/1");
         EXPECT_EQ(p.elem(1).name() + "/" + p.elem(2).name() + "/" + p.elem(3).name(), "state/counters/in-octets");
         auto const & val = n.update(0).val();
         if (enc == Enc::proto) {
            EXPECT_EQ(val.uint_val(), v);
         } else {
            EXPECT_EQ(enc == Enc::json ? val.json_val() : val.json_ietf_val(), "\"" + std::to_string(v) + "\"");
         }
      }
   }
   std::string deletes;
   Wire::intfDelete(deletes, intf);
   gnmi::Notification n;
   ASSERT_TRUE(n.ParseFromString(Wire::notification(1, Wire::rootPrefix(""), "", deletes)));
   ASSERT_EQ(n.delete__size(), 1);
   EXPECT_EQ(n.delete_(0).elem(0).key().at("name"), "Ethernet3/1");
   gnmi::SubscribeResponse sync;
   ASSERT_TRUE(sync.ParseFromString(Wire::syncResponse()));
   EXPECT_TRUE(sync.sync_response());
}

TEST(GnmiValues, TypesAndJsonFollowTheModel) {
   EXPECT_EQ(interfaceType(Zenet::IntfId("Ethernet1")), "iana-if-type:ethernetCsmacd");
   EXPECT_EQ(interfaceType(Zenet::IntfId("Ethernet1.5")), "iana-if-type:l2vlan");
   EXPECT_EQ(interfaceType(Zenet::IntfId("Loopback0")), "iana-if-type:softwareLoopback");
   EXPECT_EQ(interfaceType(Zenet::IntfId("Vlan10")), "iana-if-type:l3ipvlan");

   Interface::IntfStatus status(Zenet::IntfId("Ethernet2"), nullptr, 1);
   status.mtuIs(9000);
   status.operStatusIs(Interface::IntfOperStatus::intfOperLowerLayerDown);
   IntfValues v = stateValues(Zenet::IntfId("Ethernet2"), status, nullptr);
   // No configuration: no description, no administrative state; never changed: no last-change.
   EXPECT_FALSE(v[Leaf::stateDescription].present() || v[Leaf::adminStatus].present() ||
                v[Leaf::stateEnabled].present() || v[Leaf::lastChange].present());
   EXPECT_EQ(jsonScalar(Leaf::operStatus, v[Leaf::operStatus]), "\"LOWER_LAYER_DOWN\"");
   EXPECT_EQ(jsonScalar(Leaf::stateMtu, v[Leaf::stateMtu]), "9000");
   // The leaves are 16 bits wide: the largest MTU fits, a larger one is left out.
   for (uint32_t m : {65535u, 65536u}) {
      status.mtuIs(m);
      auto big = Interface::intfConfigFactory(Zenet::IntfId("Ethernet2"));
      big->mtuIs(m);
      IntfValues w = stateValues(Zenet::IntfId("Ethernet2"), status, big.ptr());
      EXPECT_EQ(w[Leaf::stateMtu].present(), m == 65535u) << m;
      EXPECT_EQ(w[Leaf::configMtu].present(), m == 65535u) << m;
   }
   status.mtuIs(9000);

   auto cfg = Interface::intfConfigFactory(Zenet::IntfId("Ethernet2"));
   cfg->descriptionIs("to \"core\"");
   cfg->adminEnabledStateLocalIs(Interface::IntfEnabledState::shutdown);
   v = stateValues(Zenet::IntfId("Ethernet2"), status, cfg.ptr());
   EXPECT_EQ(jsonScalar(Leaf::adminStatus, v[Leaf::adminStatus]), "\"DOWN\"");
   EXPECT_EQ(jsonScalar(Leaf::configEnabled, v[Leaf::configEnabled]), "false");

   AgentTree::Counters c;
   c.present = bit(Leaf::inOctets);
   c.value[0] = 42;
   setCounters(v, c);
   EXPECT_EQ(jsonOfInterface(Node::state, v, stateLeaves | counterLeaves),
             "{\"openconfig-interfaces:name\":\"Ethernet2\",\"openconfig-interfaces:type\":"
             "\"iana-if-type:ethernetCsmacd\",\"openconfig-interfaces:mtu\":9000,"
             "\"openconfig-interfaces:description\":\"to \\\"core\\\"\",\"openconfig-interfaces:enabled\":false,"
             "\"openconfig-interfaces:admin-status\":\"DOWN\",\"openconfig-interfaces:oper-status\":"
             "\"LOWER_LAYER_DOWN\",\"openconfig-interfaces:counters\":{\"in-octets\":\"42\"}}");
   EXPECT_EQ(jsonOfInterface(Node::counters, v, bit(Leaf::outOctets)), "") << "absent leaves are left out";
   EXPECT_EQ(jsonOfList(Node::interfaces, {&v}, bit(Leaf::configMtu)),
             "{\"openconfig-interfaces:interface\":[{\"name\":\"Ethernet2\",\"config\":{\"mtu\":1500}}]}");
}

TEST(GnmiCounters, ACounterNotReadIsAbsentNeverZero) {
   AgentTree::Counters c;
   // No row at all: a status outside any tree has no counters.
   auto loose = Interface::intfStatusFactory(Zenet::IntfId("Ethernet1"), nullptr, 1);
   EXPECT_FALSE(AgentTree::readCounters(AgentTree::counterRow(*loose), 0, &c));
   auto noTable = Interface::SmashIntfCounter::SmashIntfCounterIs("current", Zenet::IntfId("Ethernet1"), {});
   EXPECT_FALSE(AgentTree::readCounters(noTable, 0, &c));

   Smash::shmPrefixIs("/intf-gnmitest-" + std::to_string(::getpid()) + "-");
   struct Remove {
      ~Remove() {
         Smash::removeTable("counters");
         Smash::removeTable("clears");
      }
   } remove;
   auto table = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
   table->counterOpen(Smash::Role::writer, "counters");
   Smash::Interface::IntfCounter row;
   row.keyIs(Zenet::IntfId("Ethernet1"));
   Interface::IntfStatistics st;
   st.inOctetsIs(5000);
   st.inUcastPktsIs(3);
   st.inMulticastPktsIs(2);
   st.outOctetsIs(Brik::MaybeU63::absent());
   st.lastUpdateIs(10.5);
   row.statisticsIs(st);
   table->counterIs(row);
   table->counterCommit();
   AgentTree::CounterRow one = Interface::SmashIntfCounter::SmashIntfCounterIs("current", Zenet::IntfId("Ethernet1"), table);
   AgentTree::CounterRow other = Interface::SmashIntfCounter::SmashIntfCounterIs("current", Zenet::IntfId("Ethernet2"), table);
   EXPECT_FALSE(AgentTree::readCounters(other, 0, &c)) << "no row";
   ASSERT_TRUE(AgentTree::readCounters(one, 1000, &c));
   auto at = [&](Leaf l) { return c.value[unsigned(l) - firstCounter]; };
   EXPECT_EQ(at(Leaf::inOctets), 5000u);
   EXPECT_EQ(at(Leaf::inPkts), 5u);
   EXPECT_EQ(c.sampledNs, 10500001000);
   EXPECT_TRUE(c.present & bit(Leaf::outDiscards));
   // Absent in the row, or not counted by the kernel: absent here.
   for (Leaf l : {Leaf::outOctets, Leaf::inUnicastPkts, Leaf::inBroadcastPkts, Leaf::outUnicastPkts, Leaf::carrierTransitions,
                  Leaf::lastClear}) {
      EXPECT_FALSE(c.present & bit(l)) << leafInfo(l).name;
   }
   // Cleared: the time of the clear in nanoseconds, the counters still absolute.
   auto clears = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
   clears->counterSnapshotOpen(Smash::Role::writer, "clears");
   Interface::IntfRates when;
   when.statsUpdateTimeIs(1700000000.25);
   row.ratesIs(when);
   clears->counterSnapshotIs(row);
   ASSERT_TRUE(AgentTree::readCounters(one, 1000, &c, clears));
   EXPECT_TRUE((c.present & bit(Leaf::lastClear)) && at(Leaf::lastClear) == 1700000000250000000u && at(Leaf::inOctets) == 5000u);
}
