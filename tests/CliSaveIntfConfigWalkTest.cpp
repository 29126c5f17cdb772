// The configuration save filter over a tree: which entities it selects, and
// the walk's order.
#include <Intf/CliSaveIntfConfigWalk.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Dir.h>

#include <gtest/gtest.h>

using Zenet::IntfId;

namespace {

struct SpecialConfig : Interface::IntfConfig {
   using IntfConfig::IntfConfig;
};

} // namespace

TEST(CliSaveIntfConfigWalk, SelectsInterfaceConfigurationsButTheTemplate) {
   auto walk = Interface::cliSaveIntfConfigWalkFactory(Kel::Name("save"));
   struct Case {
      char const * what;
      Kel::Ptr<Kel::Entity> e;
      unsigned result;
   } const cases[] = {
      {"a configuration", Interface::intfConfigFactory(IntfId("Ethernet1")), 1},
      {"a subtype of it", Kel::makePtr<SpecialConfig>(IntfId("Ethernet2")), 1},
      {"the template",
       Kel::makePtr<Interface::IntfConfig>(Kel::Name("defaultIntfConfig"), IntfId("Ethernet3")), 0},
      {"a subtype named as the template",
       Kel::makePtr<SpecialConfig>(Kel::Name("defaultIntfConfig"), IntfId("Ethernet4")), 0},
      {"another type named as the template", Kel::makePtr<Kel::Dir>(Kel::Name("defaultIntfConfig")), 0},
      {"another type", Kel::makePtr<Kel::Dir>(Kel::Name("Ethernet5")), 0},
   };
   for (auto const & c : cases) {
      unsigned r = 7;
      walk->doFilter(c.e, &r);
      EXPECT_EQ(r, c.result) << c.what;
   }
   walk->newHandledType("Interface::IntfConfig", true);
   EXPECT_TRUE(walk->handledType("Interface::IntfConfig"));
}

TEST(CliSaveIntfConfigWalk, TheWalkQueuesMatchesDepthFirstWhereverTheyStand) {
   auto root = Kel::makePtr<Kel::Dir>(Kel::Name("root"));
   auto first = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("intfConfig"));
   root->mkdir("a")->entryIs(first);
   first->intfConfigIs(Interface::intfConfigFactory(IntfId("Ethernet2")));
   auto second = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("more"));
   root->mkdir("a/deeper")->entryIs(second);
   second->intfConfigIs(Kel::makePtr<SpecialConfig>(IntfId("Ethernet7")));
   auto walk = Interface::cliSaveIntfConfigWalkFactory(Kel::Name("save"));
   EXPECT_EQ(walk->walk(root), 2u);
   std::vector<std::string> got;
   while (auto e = walk->nextMatch()) got.push_back(e->fullName().str());
   // Dir entries iterate by hash, so "deeper" and "intfConfig" may come in
   // either order; each match still comes right after its own directory.
   std::sort(got.begin(), got.end());
   EXPECT_EQ(got, (std::vector<std::string>{"root/a/deeper/more/Ethernet7", "root/a/intfConfig/Ethernet2"}));
   EXPECT_FALSE(walk->nextMatch());
   EXPECT_EQ(walk->walk(nullptr), 0u);
}
