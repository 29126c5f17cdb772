// Start-up: modules initialise in the fixed order and register their types,
// also in a fresh process that loads the library with dlopen.
#include <Intf/IntfIntfId.h>
#include <Intf/Startup.h>
#include <Intf/Types.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <vector>

namespace {

// The lines with `prefix`, less types that tests register for themselves.
std::vector<std::string> lines(std::string const & text, std::string const & prefix) {
   std::vector<std::string> out;
   std::istringstream in(text);
   for (std::string l; std::getline(in, l);) {
      if (l.rfind(prefix, 0) == 0 && l.find("KelTest::") == std::string::npos) {
         out.push_back(l.substr(prefix.size()));
      }
   }
   return out;
}

const std::vector<std::string> moduleOrder = {"Intf", "IntfIntfId", "MovingAverage"};

} // namespace

TEST(Startup, ModulesRanInOrderAndTypesAreFindableByName) {
   EXPECT_EQ(lines(intfStartupReport(), "module "), moduleOrder);
   for (const char * name :
        {"Interface::IntfOperStatus", "Interface::LoadInterval", "Interface::IntfStatistics",
         "Interface::IntfStatus::OperStatusChange", "Zenet::TestIntfId", "Zenet::GreTunnelIntfId"}) {
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
