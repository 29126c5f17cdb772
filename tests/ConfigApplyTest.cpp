// A configuration file applied to the configuration entities: exactly the
// file's settings, nothing touched on an unchanged reload, and removals.
#include "ConfigApply.h"

#include <gtest/gtest.h>

using namespace Interface;
using IntfApp::applyConfig;
using IntfApp::parseConfig;
using Zenet::IntfId;

namespace {

struct Tree : IntfApp::ConfigTree {
   Tree() {
      global = Kel::makePtr<GlobalIntfConfig>(Kel::Name("globalIntfConfig"));
      intfs = Kel::makePtr<AllIntfConfigDir>(Kel::Name("intfConfig"));
      namespaces = Kel::makePtr<AllIntfNamespaceConfigDir>(Kel::Name("namespaceConfig"));
   }
};

struct Heard : AllIntfConfigDir::NotifieeConst {
   int calls = 0;
   void onIntfConfig(IntfId) override { ++calls; }
};

std::string counts(IntfApp::ApplyCounts c) {
   return std::to_string(c.added) + "+ " + std::to_string(c.changed) + "~ " +
          std::to_string(c.removed) + "-";
}

} // namespace

TEST(ConfigApply, AFileBecomesExactlyItsSettingsAndAReloadOnlyItsEdits) {
   Tree t;
   auto first = parseConfig("global load-interval=60\n"
                            "Ethernet1 admin=down mtu=9000 description=up1 load-interval=30\n"
                            "Ethernet2 admin=up netns=blue\n",
                            "a");
   EXPECT_EQ(counts(applyConfig(first, t)), "2+ 0~ 0-");
   EXPECT_EQ(t.global->loadInterval(), LoadInterval(false, 60));
   auto e1 = t.intfs->intfConfig(IntfId("Ethernet1"));
   ASSERT_TRUE(e1);
   EXPECT_FALSE(e1->adminEnabled());
   EXPECT_EQ(e1->mtu(), 9000u);
   EXPECT_EQ(e1->description(), "up1");
   EXPECT_EQ(e1->loadInterval(), LoadInterval(false, 30));
   auto e2 = t.intfs->intfConfig(IntfId("Ethernet2"));
   ASSERT_TRUE(e2);
   EXPECT_EQ(e2->adminEnabledStateLocal(), IntfEnabledState::enabled);
   EXPECT_EQ(e2->mtu(), 1500u);
   EXPECT_TRUE(IntfApp::setsMtu(*e1));
   EXPECT_FALSE(IntfApp::setsMtu(*e2));  // the device keeps its MTU
   EXPECT_EQ(t.namespaces->intfNamespaceConfig(IntfId("Ethernet2"))->netNsName().name(), "blue");
   EXPECT_EQ(t.namespaces->intfNamespaceConfig(IntfId("Ethernet1"))->netNsName().name(), "default");

   // The same file again: not one write reaches a reactor or a count.
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(AllIntfConfigDir::PtrConst(t.intfs));
   uint32_t e1Count = e1->modificationCount(), dirCount = t.intfs->modificationCount();
   uint32_t globalCount = t.global->modificationCount();
   EXPECT_EQ(counts(applyConfig(first, t)), "0+ 0~ 0-");
   EXPECT_EQ(e1->modificationCount(), e1Count);
   EXPECT_EQ(t.intfs->modificationCount(), dirCount);
   EXPECT_EQ(t.global->modificationCount(), globalCount);
   EXPECT_EQ(heard->calls, 0);

   // Edited: Ethernet1 loses its admin state and MTU, Ethernet2 goes,
   // Ethernet3 comes, the global interval goes back to its default.
   auto second = parseConfig("Ethernet1 description=up1 load-interval=30\n"
                             "Ethernet3 mtu=1400\n",
                             "a");
   EXPECT_EQ(counts(applyConfig(second, t)), "1+ 1~ 1-");
   EXPECT_EQ(t.intfs->intfConfig(IntfId("Ethernet1")), e1);  // the same entity, changed
   EXPECT_EQ(e1->adminEnabledStateLocal(), IntfEnabledState::unknownEnabledState);
   EXPECT_EQ(e1->mtu(), 1500u);
   EXPECT_FALSE(IntfApp::setsMtu(*e1));
   EXPECT_FALSE(t.intfs->intfConfig(IntfId("Ethernet2")));
   EXPECT_FALSE(t.namespaces->intfNamespaceConfig(IntfId("Ethernet2")));
   EXPECT_EQ(t.intfs->intfConfig(IntfId("Ethernet3"))->mtu(), 1400u);
   EXPECT_TRUE(IntfApp::setsMtu(*t.intfs->intfConfig(IntfId("Ethernet3"))));
   EXPECT_EQ(t.global->loadInterval(), LoadInterval());
   EXPECT_EQ(heard->calls, 2);  // Ethernet2 removed, Ethernet3 added

   // A move to another namespace alone is a change.
   EXPECT_EQ(counts(applyConfig(parseConfig("Ethernet1 description=up1 load-interval=30 netns=red\n"
                                            "Ethernet3 mtu=1400\n", "a"), t)), "0+ 1~ 0-");
   EXPECT_EQ(t.namespaces->intfNamespaceConfig(IntfId("Ethernet1"))->netNsName().name(), "red");
}
