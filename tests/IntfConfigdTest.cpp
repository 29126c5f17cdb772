// The configuration agent as its readers and operators meet it: the real
// intf-configd in a child process, its tree mounted over its socket, the
// file edited under it (good edits arrive, a bad one changes nothing and is
// reported with its line), a clean stop, and the check mode's verdicts.
#include "ChildProcess.h"
#include "ProgramLog.h"

#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace Interface;
using Zenet::IntfId;

using IntfTest::TempDir;

namespace {

// Written whole and renamed into place, as configuration tools do.
void writeFile(std::string const & path, std::string const & text) {
   std::string tmp = path + ".new";
   std::ofstream(tmp) << text;
   ASSERT_EQ(::rename(tmp.c_str(), path.c_str()), 0);
}

// intf-configd with the given arguments and a loop of its own; killed and
// reaped on every path.
struct OwnLoop {
   Kel::ActivityLoop loop;
};
struct Configd : OwnLoop, IntfTest::Child {
   explicit Configd(std::vector<std::string> args) : Child(loop, INTF_CONFIGD, std::move(args)) {}
   bool errorSays(std::string const & s) const { return says(s); }
};

struct Mounted {
   Kel::Ptr<Kel::Entity> root;
   Kel::Ptr<GlobalIntfConfig> global;
   Kel::Ptr<AllIntfConfigDir> intfs;
   Kel::Ptr<AllIntfNamespaceConfigDir> namespaces;
   bool complete() const { return global && intfs && namespaces; }
};

Mounted mounted(Kel::Ptr<Kel::Entity> root) {
   Mounted m{root, Kel::dynamicCast<GlobalIntfConfig>(root->entity("global")),
             Kel::dynamicCast<AllIntfConfigDir>(root->entity("intf")),
             Kel::dynamicCast<AllIntfNamespaceConfigDir>(root->entity("namespace"))};
   return m;
}

} // namespace

TEST(IntfConfigd, AReaderGetsTheFileAndEachGoodEditWhileABadEditChangesNothing) {
   TempDir dir;
   std::string cfg = dir.path + "/intf.conf", sock = dir.path + "/config.sock";
   writeFile(cfg, "global load-interval=60\n"
                  "Ethernet1 admin=down mtu=9000 description=\"uplink to spine 1\"\n"
                  "Ethernet2 admin=up netns=blue\n");
   Configd agent({"--config", cfg, "--socket", sock});
   ASSERT_GT(agent.pid, 0);
   ASSERT_TRUE(agent.loop.runUntil([&] { return agent.errorSays("serving on " + sock); }, 5000))
         << agent.stderr_.text;
   // Off the journal, each line starts with the local time.
   EXPECT_TRUE(std::regex_search(agent.stderr_.text, std::regex("^20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-9]{2}:[0-9]{2}:"
                                                                 "[0-9]{2}\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2} "
                                                                 "INTF_CONFIG_LOADED NOTICE: ")))
         << agent.stderr_.text;

   Kel::NboAttrLog::Client client(agent.loop, sock, "");
   std::vector<std::string> closes;
   client.onClosed = [&](Kel::String8 const & why) { closes.push_back(why.str()); };
   ASSERT_TRUE(agent.loop.runUntil([&] { return client.synced() || !closes.empty(); }, 5000));
   ASSERT_TRUE(client.synced()) << closes[0];
   Mounted t = mounted(client.root());
   ASSERT_TRUE(t.complete());
   EXPECT_EQ(t.global->loadInterval(), LoadInterval(false, 60));
   auto e1 = t.intfs->intfConfig(IntfId("Ethernet1"));
   ASSERT_TRUE(e1);
   EXPECT_EQ(e1->mtu(), 9000u);
   EXPECT_EQ(e1->description(), "uplink to spine 1");
   EXPECT_EQ(e1->adminEnabledStateLocal(), IntfEnabledState::shutdown);
   auto e2 = t.intfs->intfConfig(IntfId("Ethernet2"));
   ASSERT_TRUE(e2);
   EXPECT_EQ(e2->adminEnabledStateLocal(), IntfEnabledState::enabled);
   EXPECT_EQ(e2->mtu(), 1500u);
   EXPECT_EQ(t.namespaces->intfNamespaceConfig(IntfId("Ethernet2"))->netNsName().name(), "blue");

   // A good edit: Ethernet1's MTU, Ethernet2 gone, Ethernet3 new.
   writeFile(cfg, "global load-interval=60\n"
                  "Ethernet1 admin=down mtu=1400 description=\"uplink to spine 1\"\n"
                  "Ethernet3 admin=up\n");
   ASSERT_TRUE(agent.loop.runUntil([&] { return e1->mtu() == 1400 && t.intfs->intfConfig(IntfId("Ethernet3")); }, 5000))
         << agent.stderr_.text;
   EXPECT_EQ(t.intfs->intfConfig(IntfId("Ethernet1")), e1);  // the same entity, edited
   EXPECT_EQ(e1->description(), "uplink to spine 1");
   EXPECT_FALSE(t.intfs->intfConfig(IntfId("Ethernet2")));
   EXPECT_FALSE(t.namespaces->intfNamespaceConfig(IntfId("Ethernet2")));
   ASSERT_TRUE(agent.loop.runUntil([&] { return agent.errorSays("1 added, 1 changed, 1 removed"); }, 5000))
         << agent.stderr_.text;

   // A bad edit (its second line) that would also change line 1: reported
   // with the line, and not one attribute moves.
   uint32_t e1Count = e1->modificationCount(), dirCount = t.intfs->modificationCount();
   writeFile(cfg, "Ethernet1 mtu=2000\nEthernet3 mtu=0\n");
   ASSERT_TRUE(agent.loop.runUntil([&] { return agent.errorSays(cfg + ":2: "); }, 5000)) << agent.stderr_.text;
   agent.loop.runUntil([] { return false; }, 200);  // room for anything that would wrongly follow
   EXPECT_EQ(e1->mtu(), 1400u);
   EXPECT_EQ(e1->modificationCount(), e1Count);
   EXPECT_EQ(t.intfs->modificationCount(), dirCount);
   EXPECT_TRUE(client.synced());
   EXPECT_TRUE(closes.empty()) << closes[0];

   // SIGTERM: a clean exit that takes its socket file along.
   ASSERT_EQ(::kill(agent.pid, SIGTERM), 0);
   EXPECT_EQ(agent.exitStatus(), 0);
   struct stat st;
   EXPECT_NE(::stat(sock.c_str(), &st), 0);
   EXPECT_TRUE(agent.loop.runUntil([&] { return !closes.empty(); }, 5000));
}

TEST(IntfConfigd, TheCheckModeAndTheStartRefuseAnUnusableFile) {
   TempDir dir;
   std::string good = dir.path + "/good.conf", bad = dir.path + "/bad.conf";
   std::string missing = dir.path + "/missing.conf", sock = dir.path + "/config.sock";
   writeFile(good, "Ethernet1 admin=up mtu=9000\nEthernet2 netns=blue description=\"a \\\"b\\\"\"\n");
   writeFile(bad, "# fine\nEthernet1 mtu=9000\nEthernet2 admin=sideways\n");
   struct Case {
      std::vector<std::string> args;
      int status;
      bool wholeOut;         // out is all of stdout, not a part
      std::string out, err;  // what stdout and stderr contain
   } cases[] = {
      {{"--once", "--config", good}, 0, true,
       good + ": 2 interfaces (1 admin up, 0 admin down, 1 admin unset), 1 outside the default namespace\n"
              "global load-interval=default link-status-logging=on\n"
              "Ethernet1 admin=up mtu=9000 load-interval=default netns=default\n"
              "Ethernet2 admin=unset mtu=unset load-interval=default netns=blue description=\"a \\\"b\\\"\"\n",
       ""},
      {{"--once", "--config", bad}, 1, false, "", bad + ":3: "},
      {{"--config=" + missing, "--once"}, 1, false, "", missing + ":0: "},
      {{"--config", bad, "--socket", sock}, 1, false, "", bad + ":3: "},
      {{"--config", missing, "--socket", sock}, 1, false, "", missing + ":0: "},
      {{"--once"}, 2, false, "", "--config FILE is required"},
      {{"--help"}, 0, false, "usage: intf-configd --config FILE", ""},
      {{"--version"}, 0, true, "intf-configd 0.1.0\n", ""},
      {{"--config", good, "--log-level", "loud"}, 2, false, "",
       "--log-level takes one of emerg, alert, crit, err, warning, notice, info, debug, not \"loud\""},
      {{"--config", good, "--allow-user", "no-such-user-here"}, 1, false, "", "no user \"no-such-user-here\""},
      {{"--config", good, "--allow-group", "no-such-group-here"}, 1, false, "", "no group \"no-such-group-here\""},
      {{"--config", good, "--once=yes"}, 2, false, "", "--once takes no value"},
   };
   for (auto const & c : cases) {
      std::string what;
      for (auto const & a : c.args) what += a + " ";
      SCOPED_TRACE(what);
      Configd run(c.args);
      EXPECT_EQ(run.exitStatus(), c.status);
      if (c.wholeOut) {
         EXPECT_EQ(run.stdout_.text, c.out);
      } else {
         EXPECT_NE(run.stdout_.text.find(c.out), std::string::npos) << run.stdout_.text;
      }
      EXPECT_NE(run.stderr_.text.find(c.err), std::string::npos) << run.stderr_.text;
   }
   struct stat st;
   EXPECT_NE(::stat(sock.c_str(), &st), 0);  // refused before serving
}

TEST(ProgramLog, LinesAreTimedUnlessStandardErrorIsTheJournals) {
   struct stat st;
   ASSERT_EQ(::fstat(2, &st), 0);
   std::string own = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
   for (auto const & [value, journal] : {std::pair{own, true}, std::pair{own + "1", false}, std::pair{std::string("x"), false}}) {
      ::setenv("JOURNAL_STREAM", value.c_str(), 1);
      EXPECT_EQ(IntfApp::underJournal(), journal) << value;
   }
   ::unsetenv("JOURNAL_STREAM");
   EXPECT_FALSE(IntfApp::underJournal());
}
