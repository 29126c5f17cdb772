// Start-up: modules initialise in the fixed order and register their types,
// also in a fresh process that loads the library with dlopen.
#include <Intf/IntfIntfId.h>
#include <Intf/IntfStatusDir.h>
#include <Intf/Startup.h>
#include <Intf/Types.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <vector>

namespace {

// The lines with `prefix`, less types that tests (KelTest) and the agent
// programs (IntfApp, registered here by the agent's test) register for
// themselves.
std::vector<std::string> lines(std::string const & text, std::string const & prefix) {
   std::vector<std::string> out;
   std::istringstream in(text);
   for (std::string l; std::getline(in, l);) {
      if (l.rfind(prefix, 0) == 0 && l.find("KelTest::") == std::string::npos &&
          l.find("IntfApp::") == std::string::npos) {
         out.push_back(l.substr(prefix.size()));
      }
   }
   return out;
}

const std::vector<std::string> moduleOrder = {
    "IntfStatusDir", "Intf",    "SmashIntf",            "SmashIntfCounter", "IntfIntfId",
    "IntfDetailsProvider", "MovingAverage", "SyncMtu", "CliSaveIntfConfigWalk", "IntfGroup"};

} // namespace

TEST(Startup, ModulesRanInOrderAndTypesAreFindableByName) {
   EXPECT_EQ(lines(intfStartupReport(), "module "), moduleOrder);
   for (const char * name :
        {"Interface::IntfOperStatus", "Interface::LoadInterval", "Interface::IntfStatistics",
         "Interface::IntfStatus::OperStatusChange", "Zenet::TestIntfId", "Zenet::GreTunnelIntfId",
         "Smash::Interface::IntfCounter", "Smash::Interface::AllDropCounterDir",
         "Interface::SmashIntfCounter", "Interface::IntfQueueStatistics", "Mavo::ShmemManager"}) {
      auto const * t = Kel::findType(name);
      ASSERT_TRUE(t) << name;
      EXPECT_TRUE(t->registered());
      EXPECT_EQ(t->name(), Kel::String8(name));
   }
   EXPECT_EQ(Kel::findType("Interface::LoadInterval"), Interface::LoadInterval::_fwkType());
   EXPECT_FALSE(Kel::findType("Interface::NoSuchType"));
   // Registration order within a module is definition order.
   auto types = lines(intfStartupReport(), "type ");
   auto pos = [&](std::string const & n) { return std::find(types.begin(), types.end(), n) - types.begin(); };
   EXPECT_LT(pos("Zenet::TestIntfId"), pos("Zenet::LoopbackIntfId"));
   EXPECT_LT(pos("Zenet::VxlanTunnelIntfId"), pos("Zenet::GreTunnelIntfId"));
   EXPECT_LT(pos("Interface::QueueCounterConstants"), pos("Zenet::TestIntfId"));
   EXPECT_LT(pos("Interface::DeviceVrfIntfStatusDir"), pos("Interface::IntfOperStatus"));
   EXPECT_LT(pos("Interface::IntfConfig"), pos("Interface::AllIntfCounterDir"));
}

TEST(Startup, EveryModelEntityIsCreatableByTypeName) {
   using Kel::toGeneric;
   auto config = Interface::intfConfigFactory(Zenet::IntfId("Ethernet1"));
   auto byId = [](const char * id) { return toGeneric(Zenet::IntfId(id)); };
   auto byName = [](const char * n) { return toGeneric(Kel::String8(n)); };
   const std::pair<const char *, std::vector<Kel::GenericIf::PtrConst>> cases[] = {
       {"Interface::IntfConfig", {byId("Ethernet1")}},
       {"Interface::IntfStatus",
        {byId("Ethernet1"), toGeneric(Interface::IntfConfig::PtrConst(config)),
         toGeneric(uint32_t(3))}},
       {"Interface::IntfStatusLocal", {byId("Ethernet1")}},
       {"Interface::GlobalIntfConfig", {byName("Ethernet1")}},
       {"Interface::IntfNamespaceConfig", {byId("Ethernet1")}},
       {"Interface::Bogon", {byName("Ethernet1")}},
       {"Interface::IntfCounter", {byName("Ethernet1")}},
       {"Interface::IntfAclDrops", {byName("Ethernet1")}},
       {"Interface::IntfCounterDirBase", {byId("Ethernet1")}},
       {"Interface::IntfCounterDir", {byName("Ethernet1")}},
       {"Interface::IntfCounterDirDirBase", {byName("Ethernet1")}},
       {"Interface::AllIntfCounterDir", {byName("Ethernet1")}},
       {"Interface::AllIntfConfigDir", {byName("Ethernet1")}},
       {"Interface::AllIntfStatusDir", {byName("Ethernet1")}},
       {"Interface::AllIntfStatusLocalDir", {byName("Ethernet1")}},
       {"Interface::AllIntfNamespaceConfigDir", {byName("Ethernet1")}},
       {"Interface::KernelIntfStatusDir", {byName("Ethernet1")}},
       {"Interface::IntfConfigDirBase", {byName("Ethernet1")}},
       {"Interface::IntfStatusDirBase", {byName("Ethernet1")}},
       {"Interface::IntfStatusDir", {byName("Ethernet1")}},
       {"Interface::IntfStatusLocalDirBase", {byName("Ethernet1")}},
       {"Interface::DeviceIntfStatusDir", {byName("Ethernet1")}},
       {"Interface::DeviceVrfIntfStatusDir", {toGeneric(Kel::Name("Ethernet1")),
                                              toGeneric(Kel::Name("red"))}},
   };
   for (auto const & [type, args] : cases) {
      auto const * t = Kel::findType(type);
      ASSERT_TRUE(t && t->newEntity) << type;
      auto e = t->newEntity(Kel::GenericIf::List(args));
      ASSERT_TRUE(e) << type;
      EXPECT_EQ(e->fwkType(), t) << type;
      EXPECT_EQ(e->name(), Kel::Name("Ethernet1")) << type;
   }
   auto status = Kel::dynamicCast<Interface::IntfStatus>(
       Kel::findType("Interface::IntfStatus")
           ->newEntity(Kel::GenericIf::List(std::vector<Kel::GenericIf::PtrConst>(
               cases[1].second))));
   EXPECT_EQ(status->defaultConfig(), config);
   EXPECT_EQ(status->genId(), 3u);
}

TEST(Startup, AFreshProcessLoadingTheLibraryGetsTheSameOrder) {
   std::string cmd = std::string(INTF_STARTUP_PROBE) + " " + INTF_LIBRARY_PATH;
   FILE * p = popen(cmd.c_str(), "r");
   ASSERT_TRUE(p);
   std::string out;
   char buf[4096];
   for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
   ASSERT_EQ(pclose(p), 0) << out;
   EXPECT_EQ(lines(out, "module "), moduleOrder);
   EXPECT_EQ(lines(out, "type "), lines(intfStartupReport(), "type "));
}

TEST(Startup, IntrospectionWalkDescribesEachTypeAndAttribute) {
   std::string schema = Kel::IntrospectionReactor::schema().str();
   EXPECT_NE(schema.find("namespace Zenet\n  type Zenet::TestIntfId\n    attr intfId U64"),
             std::string::npos)
       << schema;
   EXPECT_NE(schema.find("    attr minVal double"), std::string::npos);
}
