// Counters, their directories and look-ups; the global and per-interface
// settings, and the counter holder Bogon.
#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/IntfCounter.h>

#include <gtest/gtest.h>

using namespace Interface;
using Zenet::IntfId;

TEST(IntfCounter, LookUpsWriteTheMemberOrNullAndNeverCreate) {
   auto all = allIntfCounterDirFactory("eth");
   auto dir = all->intfCounterDirIs(IntfId("Ethernet1"));
   auto current = dir->intfCounterIs("current");
   auto base = Kel::makePtr<IntfCounterDirBase>(IntfId("Ethernet1"));
   auto baseDirs = Kel::makePtr<IntfCounterDirDirBase>("none");
   // Whatever the slot held before is overwritten, a miss included.
   auto decoy = Kel::makePtr<IntfCounter>("decoy");
   auto decoyDir = Kel::makePtr<IntfCounterDir>(IntfId("Ethernet9"));

   auto counterOf = [&](IntfCounterDirBase & d, const char * name) {
      IntfCounter * out = decoy.ptr();
      d.doGetIntfCounter(name, &out);
      return out;
   };
   EXPECT_EQ(counterOf(*dir, "current"), current.ptr());
   EXPECT_EQ(counterOf(*dir, "other"), nullptr);
   EXPECT_EQ(counterOf(*base, "current"), nullptr);

   auto dirOf = [&](IntfCounterDirDirBase & d, const char * id) {
      IntfCounterDirBase * out = decoyDir.ptr();
      d.doGetIntfCounterDir(IntfId(id), &out);
      return out;
   };
   EXPECT_EQ(dirOf(*all, "Ethernet1"), dir.ptr());
   EXPECT_EQ(dirOf(*all, "Ethernet2"), nullptr);
   EXPECT_EQ(dirOf(*baseDirs, "Ethernet1"), nullptr);
   EXPECT_EQ(all->intfCounterDirSize(), 1u);
   EXPECT_EQ(dir->intfCounterSize(), 1u);
   EXPECT_EQ(current->parent(), dir);
}

TEST(Bogon, FindsOrMakesACounterAndAnnouncesOnlyTheCreation) {
   struct Heard : Bogon::NotifieeConst {
      void onIntfCounter(Kel::Name n) override { keys.push_back(n.str()); }
      std::vector<std::string> keys;
   };
   auto bogon = Kel::makePtr<Bogon>("bogon");
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(Bogon::PtrConst(bogon));
   auto first = bogon->intfCounterIs("x");
   EXPECT_EQ(bogon->intfCounterIs("x"), first);
   EXPECT_EQ(heard->keys, std::vector<std::string>{"x"});
   bogon->intfCounterDel("x");
   EXPECT_FALSE(first->parent());
   EXPECT_EQ(heard->keys, (std::vector<std::string>{"x", "x"}));
}

TEST(Settings, GlobalLoggingDefaultsToOnWhileAnInterfaceDefersToIt) {
   auto global = Kel::makePtr<GlobalIntfConfig>("global");
   EXPECT_EQ(global->linkStatusLogging(), IntfLoggingMode::on);
   EXPECT_EQ(Kel::makePtr<IntfConfig>(IntfId("Ethernet1"))->linkStatusLogging(),
             IntfLoggingMode::useGlobal);
}
