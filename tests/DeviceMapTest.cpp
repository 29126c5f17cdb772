// Which interface each kernel device becomes: the automatic rule, explicit
// mappings from the configuration, and devices that cannot be modelled.
#include "DeviceMap.h"

#include <gtest/gtest.h>

using IntfApp::ConfigFile;
using IntfApp::DeviceMap;
using IntfApp::KernelDevice;
using Kind = IntfApp::KernelDevice::Kind;

namespace {

KernelDevice dev(std::string ns, std::string name, int ifindex, Kind kind = Kind::ordinary,
                 uint16_t vlan = 0, int parent = 0) {
   KernelDevice d;
   d.netNs = std::move(ns);
   d.name = std::move(name);
   d.ifindex = ifindex;
   d.kind = kind;
   d.vlanId = vlan;
   d.parentIfindex = parent;
   return d;
}

std::string mapped(DeviceMap & m, KernelDevice const & d) {
   std::string why;
   auto id = m.assign(d, &why);
   return id.isNull() ? "none: " + why : id.stringValue().str();
}

} // namespace

TEST(DeviceMap, DevicesOfTheDefaultNamespaceFollowTheAutomaticRule) {
   DeviceMap m;
   struct Case {
      KernelDevice d;
      std::string intf;
   } const cases[] = {
      {dev("default", "lo", 1, Kind::loopback), "Loopback0"},
      {dev("default", "eth0", 2), "Ethernet2"},
      {dev("", "eth1", 3), "Ethernet3"},  // no name is the default namespace
      {dev("default", "eth0.100", 7, Kind::vlan, 100, 2), "Ethernet2.100"},
      {dev("default", "lo.5", 8, Kind::vlan, 5, 1), "Vlan5"},      // over a loopback
      {dev("default", "x.9", 9, Kind::vlan, 9, 44), "Vlan9"},      // parent not known
      {dev("default", "eth0.100.7", 10, Kind::vlan, 7, 7), "Vlan7"},  // over a sub-interface
   };
   for (auto const & c : cases) EXPECT_EQ(mapped(m, c.d), c.intf) << c.d.name;
   EXPECT_EQ(m.intfOf("default", 2).stringValue(), "Ethernet2");
   EXPECT_EQ(mapped(m, dev("default", "eth0", 2)), "Ethernet2");  // asked again
}

TEST(DeviceMap, NamedNamespacesGetTheirOwnStableNumber) {
   DeviceMap a, b;
   uint32_t blue = a.namespaceNumber("blue");
   EXPECT_GE(blue, 1u);
   EXPECT_LE(blue, 100000u);
   a.namespaceNumber("red");
   EXPECT_EQ(b.namespaceNumber("blue"), blue);  // independent of what was seen before
   std::string k = std::to_string(blue);
   EXPECT_EQ(mapped(a, dev("blue", "lo", 1, Kind::loopback)), "Loopback" + k);
   EXPECT_EQ(mapped(a, dev("blue", "veth0", 4)), "Ethernet" + k + "/4");
   EXPECT_EQ(mapped(a, dev("blue", "veth0.10", 5, Kind::vlan, 10, 4)), "Ethernet" + k + "/4.10");
   EXPECT_EQ(mapped(a, dev("blue", "dummy.3", 6, Kind::vlan, 3, 99)), "Ethernet" + k + "/6");
   // Each namespace's lo is a different interface.
   EXPECT_EQ(mapped(a, dev("default", "lo", 1, Kind::loopback)), "Loopback0");
}

TEST(DeviceMap, TwoNamespacesWhoseNamesHashAlikeStillGetDifferentNumbers) {
   // Find two names with the same hash bucket by search, then check both.
   std::map<uint32_t, std::string> seen;
   std::string first, second;
   for (int i = 0; second.empty(); ++i) {
      DeviceMap fresh;
      std::string n = "ns" + std::to_string(i);
      uint32_t k = fresh.namespaceNumber(n);
      auto [it, ok] = seen.emplace(k, n);
      if (!ok) {
         first = it->second;
         second = n;
      }
   }
   DeviceMap m;
   uint32_t a = m.namespaceNumber(first), b = m.namespaceNumber(second);
   EXPECT_NE(a, b);
   EXPECT_EQ(b, a % 100000 + 1);
   EXPECT_NE(mapped(m, dev(first, "lo", 1, Kind::loopback)),
             mapped(m, dev(second, "lo", 1, Kind::loopback)));
}

TEST(DeviceMap, TheConfigurationMapsDevicesExplicitlyAndKeepsTheirNames) {
   ConfigFile cfg = IntfApp::parseConfig("Ethernet5 device=veth9\n"
                                         "Loopback7 device=lo netns=demo\n"
                                         "Ethernet9/1 device=gone\n",
                                         "intf.conf");
   DeviceMap m(cfg);
   EXPECT_EQ(mapped(m, dev("default", "veth9", 12)), "Ethernet5");
   EXPECT_EQ(mapped(m, dev("demo", "lo", 1, Kind::loopback)), "Loopback7");
   // The device whose index would make it Ethernet5 is not given it.
   EXPECT_EQ(mapped(m, dev("default", "eth3", 5)),
             "none: Ethernet5 is configured for device veth9 in default, not eth3 in default");
   // A device of the same name elsewhere is not the configured one.
   EXPECT_EQ(mapped(m, dev("default", "lo", 1, Kind::loopback)), "Loopback0");
}

TEST(DeviceMap, AReleasedDeviceFreesItsInterfaceAndAClashIsRefused) {
   ConfigFile cfg = IntfApp::parseConfig("Ethernet4 device=a\nEthernet4/1 device=b\n", "c");
   DeviceMap m(cfg);
   EXPECT_EQ(mapped(m, dev("default", "a", 20)), "Ethernet4");
   m.release("default", 20);
   EXPECT_TRUE(m.intfOf("default", 20).isNull());
   EXPECT_EQ(mapped(m, dev("default", "a", 21)), "Ethernet4");  // re-created, new index
   // Automatic names never take what another device holds.
   DeviceMap plain;
   EXPECT_EQ(mapped(plain, dev("default", "x", 3)), "Ethernet3");
   plain.configure(IntfApp::parseConfig("Ethernet3 device=y\n", "c"));
   EXPECT_EQ(mapped(plain, dev("default", "y", 8)), "none: Ethernet3 is already device 3 in default");
}

TEST(DeviceMap, AReconfigurationSaysWhichDevicesAndInterfacesItMoved) {
   DeviceMap m(IntfApp::parseConfig("Ethernet4 device=a\nEthernet5 device=b netns=blue\nEthernet6 device=c\n", "c"));
   auto c = m.configure(IntfApp::parseConfig(
         "Ethernet4 device=a\nEthernet5 device=b netns=red\nEthernet7 device=c\nEthernet8 device=d\n", "c"));
   struct Case {
      char const *ns, *device, *intf;
      bool touched;
   } const cases[] = {
      {"default", "a", "Ethernet4", false},  // unchanged
      {"blue", "b", "Ethernet1", true},      // left
      {"red", "b", "Ethernet1", true},       // came
      {"default", "x", "Ethernet5", true},   // the interface moved
      {"default", "c", "Ethernet1", true},   // another interface
      {"default", "x", "Ethernet7", true},
      {"", "d", "Ethernet1", true},          // new; "" is the default namespace
      {"default", "x", "Ethernet9", false},
   };
   for (auto const & k : cases) {
      EXPECT_EQ(c.touches(k.ns, k.device, Zenet::IntfId(k.intf)), k.touched) << k.ns << "/" << k.device << " " << k.intf;
   }
   EXPECT_TRUE(m.configure(IntfApp::parseConfig("Ethernet4 device=a\nEthernet5 device=b netns=red\n"
                                                "Ethernet7 device=c\nEthernet8 device=d\n", "c"))
                     .devices.empty());
}
