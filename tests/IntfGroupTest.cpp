// Interface groups: member collections, the directories, and groups
// replicated to another process with per-key changes.
#include <Intf/IntfGroup.h>
#include <Kel/Stream.h>

#include "ChildProcess.h"
#include "Pipe.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

using Zenet::IntfId;

namespace {

struct Heard : IntfGroup::Status::NotifieeConst {
   std::ostringstream log;
   void onIntf(IntfId k) override { log << "intf[" << k << "];"; }
   void onSubIntf(IntfId k) override { log << "subIntf[" << k << "];"; }
};

} // namespace

TEST(IntfGroup, MembersNotifyOncePerChangeAndTheTwoCollectionsAreIndependent) {
   auto dir = Kel::makePtr<IntfGroup::StatusDir>(Kel::Name("status"));
   auto g = dir->statusIs("uplinks");
   EXPECT_EQ(dir->statusIs("uplinks"), g);  // the same group
   EXPECT_EQ(g->name(), "uplinks");
   EXPECT_EQ(g->groupName(), "uplinks");
   EXPECT_EQ(g->key(), Group::GroupKey(Group::GroupType::groupTypeIntf, "uplinks"));
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(g);
   g->intfIs(IntfId("Ethernet1"), true);
   g->intfIs(IntfId("Ethernet1"), true);   // unchanged: nothing
   g->intfIs(IntfId("Ethernet1"), false);  // changed flag
   g->subIntfIs(IntfId("Ethernet1"), true);
   EXPECT_TRUE(g->intf(IntfId("Ethernet1")) == false && g->intfSize() == 1);
   EXPECT_TRUE(g->subIntf(IntfId("Ethernet1")));
   g->intfDel(IntfId("Ethernet1"));
   EXPECT_EQ(g->intfSize(), 0u);
   EXPECT_EQ(g->subIntfSize(), 1u);
   g->subIntfNotify(IntfId("Ethernet1"));
   EXPECT_EQ(heard->log.str(),
             "intf[Ethernet1];intf[Ethernet1];subIntf[Ethernet1];intf[Ethernet1];subIntf[Ethernet1];");
   g->originIs(Group::GroupOrigin::groupOriginLocal);
   g->groupTypeIs(Group::GroupType::groupTypeIntf);
   dir->statusDel("uplinks");
   EXPECT_FALSE(dir->status("uplinks"));
}

TEST(IntfGroup, GroupsReachAnotherProcessWithEachMemberChange) {
   Pipe ready, result;
   int sv[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      ::close(sv[0]);
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Reader reader(sv[1], "");
      loop.add(&reader);
      loop.runUntil([&] { return reader.synced() || reader.closed(); }, 5000);
      auto dir = Kel::dynamicCast<IntfGroup::ConfigDir>(reader.root());
      std::ostringstream out;
      auto g = dir ? dir->config("spines") : nullptr;
      if (!g) {
         result.send("no group: " + reader.closeReason().str());
         ::_exit(0);
      }
      out << "members=" << g->intfSize() << " origin=" << g->origin() << " | ";
      struct Watch : IntfGroup::Config::NotifieeConst {
         std::ostringstream * out;
         void onIntf(IntfId k) override {
            *out << k << "=" << (notifier()->intfIteratorConst(k) ? "in" : "out") << ";";
         }
      };
      auto w = Kel::makePtr<Watch>();
      w->out = &out;
      w->notifierIs(g);
      ready.send("synced");
      loop.runUntil([&] { return g->intfSize() == 3 || reader.closed(); }, 5000);
      result.send(out.str());
      ::_exit(0);
   }
   ::close(sv[1]);
   auto dir = Kel::makePtr<IntfGroup::ConfigDir>(Kel::Name("config"));
   auto g = dir->configIs("spines");
   g->originIs(Group::GroupOrigin::groupOriginLocal);
   g->intfIs(IntfId("Ethernet1"), true);
   g->intfIs(IntfId("Ethernet2"), true);
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Writer writer(sv[0], dir, "groups");
   loop.add(&writer);
   loop.runUntil([&] { return writer.synced() && writer.pending() == 0; }, 5000);
   EXPECT_EQ(ready.receive(), "synced");
   g->intfDel(IntfId("Ethernet1"));
   g->intfIs(IntfId("Ethernet3"), true);
   g->intfIs(IntfId("Ethernet4"), true);
   loop.runUntil([&] { return writer.pending() == 0; }, 5000);
   EXPECT_EQ(result.receive(),
             "members=2 origin=groupOriginLocal | Ethernet1=out;Ethernet3=in;Ethernet4=in;");
   ::waitpid(pid, nullptr, 0);
   ::close(sv[0]);
}
