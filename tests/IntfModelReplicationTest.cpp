// A configuration agent and a reader in two processes: the agent builds
// configurations, statuses and counters in a tree and changes them; the
// reader mounts the tree and hears every change through its reactors.
#include <Intf/IntfStatusDir.h>
#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include "ChildProcess.h"
#include "Pipe.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>

using namespace Interface;
using Kel::ActivityLoop;
using Kel::NboAttrLog::Reader;
using Kel::NboAttrLog::Writer;
using Zenet::IntfId;

namespace {


std::ostringstream heard;

struct ConfigDirWatch : AllIntfConfigDir::NotifieeConst {
   void onIntfConfig(IntfId id) override {
      heard << "config[" << id << "]=" << (notifier()->intfConfig(id) ? "set" : "gone") << ";";
   }
};
struct StatusDirWatch : AllIntfStatusDir::NotifieeConst {
   void onIntfStatus(IntfId id) override {
      heard << "status[" << id << "]=" << (notifier()->intfStatus(id) ? "set" : "gone") << ";";
   }
};
struct CounterDirWatch : AllIntfCounterDir::NotifieeConst {
   void onIntfCounterDir(IntfId id) override {
      heard << "counter[" << id << "]=" << (notifier()->intfCounterDir(id) ? "set" : "gone") << ";";
   }
};
struct ConfigWatch : IntfConfig::NotifieeConst {
   void onAdminEnabledStateLocal() override {
      heard << "cfg1 adminEnabled=" << notifier()->adminEnabled() << ";";
   }
   void onDescription() override { heard << "cfg1 " << notifier()->prettyName() << ";"; }
   void onRequestor(Kel::String8 k) override {
      heard << "cfg1 requestor[" << k << "]=" << notifier()->requestor(k) << ";";
   }
};
struct StatusWatch : IntfStatus::NotifieeConst {
   void onOperStatus() override { heard << "status1 " << notifier()->operStatus() << ";"; }
   void onForwardingModelInputs(Kel::String8 k) override {
      heard << "status1 input[" << k << "]=" << notifier()->forwardingModelInputs(k) << ";";
   }
   void onMtu() override { heard << "status1 mtu=" << notifier()->mtu() << ";"; }
};
struct CounterWatch : IntfCounter::NotifieeConst {
   void onStatistics() override {
      heard << "current inUcastPkts=" << notifier()->statistics().inUcastPkts() << ";";
   }
};

const char * same(bool b) { return b ? "same" : "other"; }

// The reader's side: mount, describe, listen, describe again.
std::string readerProcess(int fd, Pipe const & ready) {
   Kel::registerTypes<Kel::Dir>();  // the tree's own directories
   ActivityLoop loop;
   Reader reader(fd, "");
   loop.add(&reader);
   if (!loop.runUntil([&] { return reader.synced() || reader.closed(); }, 10000)) return "no sync";
   if (reader.closed()) return "closed: " + reader.closeReason().str();
   auto root = reader.root();
   auto configs = Kel::dynamicCast<AllIntfConfigDir>(root->entity("config"));
   auto statuses = Kel::dynamicCast<AllIntfStatusDir>(root->entity("status"));
   auto counters = Kel::dynamicCast<AllIntfCounterDir>(root->entity("counter"));
   if (!configs || !statuses || !counters) return "tree incomplete";
   auto cfg1 = configs->intfConfig(IntfId("Ethernet1"));
   auto status1 = statuses->intfStatus(IntfId("Ethernet1"));
   auto current = counters->intfCounterDir(IntfId("Ethernet1"))->intfCounter("current");
   std::ostringstream out;
   out << cfg1->prettyName() << " mtu=" << cfg1->mtu() << " status1 genId=" << status1->genId()
       << " config=" << same(status1->intfConfig() == cfg1)
       << " default=" << status1->defaultConfig()->name()
       << " inUcastPkts=" << current->statistics().inUcastPkts() << " | ";

   auto w1 = Kel::makePtr<ConfigDirWatch>();
   auto w2 = Kel::makePtr<StatusDirWatch>();
   auto w3 = Kel::makePtr<CounterDirWatch>();
   auto w4 = Kel::makePtr<ConfigWatch>();
   auto w5 = Kel::makePtr<StatusWatch>();
   auto w6 = Kel::makePtr<CounterWatch>();
   w1->notifierIs(AllIntfConfigDir::PtrConst(configs));
   w2->notifierIs(AllIntfStatusDir::PtrConst(statuses));
   w3->notifierIs(AllIntfCounterDir::PtrConst(counters));
   w4->notifierIs(IntfConfig::PtrConst(cfg1));
   w5->notifierIs(IntfStatus::PtrConst(status1));
   w6->notifierIs(IntfCounter::PtrConst(current));
   ready.send("synced");
   loop.runUntil([&] { return status1->mtu() == 1400 || reader.closed(); }, 10000);
   out << heard.str() << " | ";

   auto cfg3 = configs->intfConfig(IntfId("Ethernet3"));
   auto status3 = statuses->intfStatus(IntfId("Ethernet3"));
   auto dir3 = counters->intfCounterDir(IntfId("Ethernet3"));
   if (!cfg3 || !status3 || !dir3) return out.str() + "new entries missing";
   out << "status3 config=" << same(status3->intfConfig() == cfg3)
       << " default=" << same(status3->defaultConfig() == cfg3) << " genId=" << status3->genId()
       << " counter3=" << (dir3->intfCounter("current") ? "current" : "none")
       << " configs=" << configs->intfConfigSize()
       << " status1 default=" << status1->defaultConfig()->name() << " whose default is cfg1:"
       << same(status1->defaultConfig()->defaultConfig() == cfg1)
       << " so adminEnabled=" << status1->defaultConfig()->adminEnabled() << " "
       << reader.closeReason();
   return out.str();
}

} // namespace

TEST(IntfModelReplication, AReaderProcessHearsEveryChangeOfTheConfigurationAgent) {
   Pipe ready, result;
   int sv[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      ::close(sv[0]);
      std::string r;
      try {
         r = readerProcess(sv[1], ready);
      } catch (std::exception const & e) {
         r = std::string("exception: ") + e.what();
      }
      result.send(r);
      ::_exit(0);
   }
   ::close(sv[1]);

   // The agent's tree.
   auto root = Kel::makePtr<Kel::Dir>("agent");
   auto configs = Kel::makePtr<AllIntfConfigDir>("config");
   auto statuses = Kel::makePtr<AllIntfStatusDir>("status");
   auto counters = allIntfCounterDirFactory("counter");
   root->entryIs(configs);
   root->entryIs(statuses);
   root->entryIs(counters);
   auto cfg1 = intfConfigFactory(IntfId("Ethernet1"));
   cfg1->descriptionIs("uplink");
   cfg1->mtuIs(9000);
   auto cfg2 = intfConfigFactory(IntfId("Ethernet2"));
   cfg2->defaultConfigIs(cfg1);
   configs->intfConfigIs(cfg1);
   configs->intfConfigIs(cfg2);
   auto status1 = intfStatusFactory(IntfId("Ethernet1"), cfg2, 5);
   status1->intfConfigIs(cfg1);
   statuses->intfStatusIs(status1);
   IntfStatistics stats;
   stats.inUcastPktsIs(10);
   counters->intfCounterDirIs(IntfId("Ethernet1"))->intfCounterIs("current")->statisticsIs(stats);

   ActivityLoop loop;
   Writer writer(sv[0], root, "configAgent");
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving() && writer.pending() == 0; }, 10000);
   ASSERT_EQ(ready.receive(), "synced");

   cfg1->adminEnabledIs(false);
   cfg1->adminEnabledIs(false);  // unchanged: nothing travels
   cfg1->descriptionIs("core");
   cfg1->requestorIs("lag", true);
   auto cfg3 = intfConfigFactory(IntfId("Ethernet3"));
   configs->intfConfigIs(cfg3);
   status1->operStatusIs(IntfOperStatus::intfOperUp);
   status1->forwardingModelInputsIs("bridging", IntfForwardingModel::intfForwardingModelBridged);
   stats.inUcastPktsIs(20);
   counters->intfCounterDir(IntfId("Ethernet1"))->intfCounter("current")->statisticsIs(stats);
   auto status3 = intfStatusFactory(IntfId("Ethernet3"), cfg3, 6);
   statuses->intfStatusIs(status3);
   status3->intfConfigIs(cfg3);
   counters->intfCounterDirIs(IntfId("Ethernet3"))->intfCounterIs("current");
   configs->intfConfigDel(IntfId("Ethernet2"));
   status1->mtuIs(1400);
   loop.runUntil([&] { return writer.pending() == 0; }, 10000);

   std::string r = result.receive();
   int status = 0;
   ::waitpid(pid, &status, 0);
   ::close(sv[0]);
   EXPECT_EQ(r,
             "Ethernet1 (uplink) mtu=9000 status1 genId=5 config=same default=Ethernet2 "
             "inUcastPkts=10 | "
             "cfg1 adminEnabled=0;cfg1 Ethernet1 (core);cfg1 requestor[lag]=1;"
             "config[Ethernet3]=set;status1 intfOperUp;"
             "status1 input[bridging]=intfForwardingModelBridged;current inUcastPkts=20;"
             "status[Ethernet3]=set;counter[Ethernet3]=set;config[Ethernet2]=gone;"
             "status1 mtu=1400; | "
             "status3 config=same default=same genId=6 counter3=current configs=2 "
             "status1 default=Ethernet2 whose default is cfg1:same so adminEnabled=0 ");
}
