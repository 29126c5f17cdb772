// The three programs together against a throwaway namespace, as an
// operator meets them: intf-configd serving a file, intf-agent modelling
// the namespace's loopback device, intf-show --json reading counters and
// statuses, and intf-watch (the reader built from the docs alone) following
// oper changes and rates; traffic, an MTU change, the device going down,
// and the agent killed and started again. Needs root (namespaces, MTUs).
#include "ChildProcess.h"
#include "NetNs.h"

#include "LinkSocket.h"

#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Smash/Table.h>

#include <gtest/gtest.h>

#include <linux/netlink.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

using namespace IntfTest;

namespace {

// Everything a program prints, and its exit status.
struct Shown {
   int status = -1;
   std::string out;
};
Shown run(char const * program, std::string const & args) {
   Shown s;
   std::string cmd = std::string(program) + " " + args + " 2>&1";
   FILE * f = ::popen(cmd.c_str(), "r");
   if (!f) return s;
   char buf[4096];
   size_t n;
   while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.out.append(buf, n);
   int st = ::pclose(f);
   s.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
   return s;
}
Shown show(std::string const & args) { return run(INTF_SHOW, args); }

// A number field of one interface's JSON object ("inOctets": 123).
double field(std::string const & json, std::string const & intf, std::string const & name) {
   size_t at = json.find("\"" + intf + "\"");
   if (at == std::string::npos) return -1;
   size_t f = json.find("\"" + name + "\":", at);
   if (f == std::string::npos) return -1;
   return std::strtod(json.c_str() + f + name.size() + 3, nullptr);
}
std::string textField(std::string const & json, std::string const & intf, std::string const & name) {
   size_t at = json.find("\"" + intf + "\"");
   if (at == std::string::npos) return {};
   std::smatch m;
   std::string rest = json.substr(at);
   if (!std::regex_search(rest, m, std::regex("\"" + name + "\": *\"([^\"]*)\""))) return {};
   return m[1];
}

bool setUp(std::string const & ns, bool up) {
   int fd = Zenet::socketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE, ns.c_str());
   if (fd < 0) return false;
   IntfApp::LinkSocket link(fd, false);
   return link.valid() && link.setUp(1, up) == 0;  // lo is ifindex 1 in a new namespace
}

} // namespace

TEST(EndToEnd, TrafficMtuLinkDownAndARestartAreSeenThroughTheShowCommand) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root: makes a network namespace and sets its MTU";
   NetNs ns("intf-e2e-" + std::to_string(::getpid()));
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(setUp(ns.name(), true));
   TempDir dir;
   std::string prefix = "/intf-e2e-" + std::to_string(::getpid()) + "-";
   struct RemoveTables {
      std::string prefix;
      ~RemoveTables() {
         Smash::shmPrefixIs(prefix);
         Smash::removeTable("interface/counter/eth/intf");
         Smash::removeTable("interface/counter/eth/snapshot");
      }
   } removeTables{prefix};
   std::string cfg = dir.path + "/intf.conf", configSock = dir.path + "/config.sock",
               agentSock = dir.path + "/agent.sock";
   auto writeConfig = [&](int mtu) {
      std::ofstream(cfg + ".new") << "global load-interval=5\nLoopback7 device=lo netns=" << ns.name()
                                  << " mtu=" << mtu << " description=\"e2e\"\nEthernet99 admin=up\n";
      std::rename((cfg + ".new").c_str(), cfg.c_str());
   };
   writeConfig(16000);

   Kel::ActivityLoop loop;
   Child configd(loop, INTF_CONFIGD, {"--config", cfg, "--socket", configSock});
   auto startAgent = [&] {
      return std::make_unique<Child>(
          loop, INTF_AGENT,
          std::vector<std::string>{"--socket", agentSock, "--config-socket", configSock, "--config", cfg,
                                   "--interval", "0.2", "--shm-prefix", prefix});
   };
   auto agent = startAgent();
   Child watch(loop, INTF_WATCH, {"--socket", agentSock, "--interval", "0.2"});
   std::string showArgs = "--socket " + agentSock + " --config-socket " + configSock + " --shm-prefix " + prefix;
   auto until = [&](auto done) { return loop.runUntil(done, 10000); };

   // The namespace's loopback, configured and up.
   Shown s;
   ASSERT_TRUE(until([&] {
      s = show(showArgs + " --json interface Loopback7");
      return s.status == 0 && field(s.out, "Loopback7", "mtu") == 16000;
   })) << s.out << configd.stderr_.text << agent->stderr_.text;
   uint32_t mtu = 0;
   bool up = false;
   ASSERT_TRUE(deviceState(ns.name(), "lo", &mtu, &up));
   EXPECT_EQ(mtu, 16000u);
   EXPECT_EQ(textField(s.out, "Loopback7", "operStatus"), "up");
   EXPECT_EQ(textField(s.out, "Loopback7", "namespace"), ns.name());
   EXPECT_EQ(textField(s.out, "Loopback7", "description"), "e2e");

   // Named by its device; a configured interface with no device is listed
   // as not present; a watch into a pipe writes one JSON line per showing
   // and no terminal escapes.
   EXPECT_EQ(textField(show(showArgs + " --json interface " + ns.name() + "/lo").out, "Loopback7", "description"),
             "e2e");
   s = show(showArgs + " --json status");
   EXPECT_EQ(textField(s.out, "Ethernet99", "operStatus"), "notPresent") << s.out;
   EXPECT_EQ(textField(s.out, "Ethernet99", "adminConfigured"), "up") << s.out;
   {
      Child watching(loop, INTF_SHOW,
                     {"--socket", agentSock, "--config-socket", configSock, "--shm-prefix", prefix, "--json",
                      "--watch", "0.1", "rates"});
      ASSERT_TRUE(loop.runUntil([&] { return std::count(watching.stdout_.text.begin(), watching.stdout_.text.end(), '\n') >= 3; }, 10000));
      ::kill(watching.pid, SIGINT);
      EXPECT_EQ(watching.exitStatus(), 0);
      std::istringstream lines(watching.stdout_.text);
      for (std::string line; std::getline(lines, line);) {
         EXPECT_EQ(line.rfind("{\"version\": 1, \"command\": \"rates\"", 0), 0u) << line;
      }
      EXPECT_EQ(watching.stdout_.text.find('\033'), std::string::npos);
   }

   // Traffic: the counters grow by what was sent, as the kernel counts it
   // (each datagram is 1000 bytes of payload plus its UDP and IP headers;
   // intf-traffic sends 3000 in the second).
   double before = field(show(showArgs + " --json counters").out, "Loopback7", "inOctets");
   ASSERT_GE(before, 0);
   Child traffic(loop, INTF_TRAFFIC,
                 {"--netns", ns.name(), "--seconds", "1", "--rate", "3000", "--size", "1000"});
   ASSERT_EQ(traffic.exitStatus(), 0) << traffic.stderr_.text;
   double sentBytes = 0;
   ASSERT_TRUE(until([&] {
      s = show(showArgs + " --json counters");
      sentBytes = field(s.out, "Loopback7", "inOctets") - before;
      return sentBytes >= 2900 * 1028;
   })) << s.out;
   // Nothing listens on the port, so the kernel answers datagrams with port
   // unreachable errors (at most 576 bytes each) over the same loopback.
   EXPECT_LE(sentBytes, 3100 * (1028 + 576)) << "only our datagrams and their errors cross this loopback";
   // The watcher reads the rates with no prefix or type of its own.
   auto watched = [&](std::string const & head) {
      size_t at = watch.stdout_.text.rfind(head);
      return at == std::string::npos ? -1 : std::strtod(watch.stdout_.text.c_str() + at + head.size(), nullptr);
   };
   EXPECT_TRUE(until([&] { return watched("rates Loopback7 in=") > 0; })) << watch.stdout_.text;

   // A new MTU in the file reaches the kernel and the status.
   writeConfig(9000);
   EXPECT_TRUE(until([&] { return deviceState(ns.name(), "lo", &mtu, &up) && mtu == 9000; })) << mtu;
   EXPECT_TRUE(until([&] {
      return field(show(showArgs + " --json interface Loopback7").out, "Loopback7", "mtu") == 9000;
   }));

   // The device goes down: oper status down, with a change record.
   ASSERT_TRUE(setUp(ns.name(), false));
   EXPECT_TRUE(until([&] {
      s = show(showArgs + " --json status");
      return textField(s.out, "Loopback7", "operStatus") == "down";
   })) << s.out;
   EXPECT_GE(field(s.out, "Loopback7", "operChanges"), 1) << s.out;
   EXPECT_GT(field(s.out, "Loopback7", "lastChange"), 0) << s.out;
   // Told of the change, the watcher reads its record: the count is this change's.
   EXPECT_TRUE(until([&] {
      return watched("oper Loopback7 intfOperDown changes=") == field(s.out, "Loopback7", "operChanges");
   })) << watch.stdout_.text;

   // Killed and started again (what the show command sees then is IntfAgent's test).
   agent->kill9();
   ASSERT_TRUE(watch.waitFor("cannot connect to " + agentSock)) << watch.stderr_.text;  // an attempt failed
   agent = startAgent();
   // The watcher lost the agent once (not once per attempt) and mounts the
   // new one's tree by itself.
   auto const & out = watch.stdout_.text;
   EXPECT_TRUE(until([&] { return out.find("\nmounted " + agentSock, out.find("\nlost: ")) != out.npos; })) << out;
   EXPECT_EQ(out.find("\nlost: "), out.rfind("\nlost: ")) << out;
}

TEST(EndToEnd, TheShowCommandAndTheWatcherSayWhatIsWrong) {
   for (char const * bad : {"--interval soon", "--bogus x", "--socket"}) {
      Shown w = run(INTF_WATCH, bad);
      EXPECT_EQ(w.status, 2);
      EXPECT_NE(w.out.find("usage: intf-watch"), std::string::npos) << w.out;
   }
   TempDir dir;
   ASSERT_EQ(::chmod(dir.path.c_str(), 0755), 0);
   Kel::ActivityLoop loop;
   Kel::registerTypes<Kel::Dir>();
   auto tree = Kel::makePtr<Kel::Dir>(Kel::Name("agent"));
   // A server that holds as many connections as it may, all mounted.
   std::string full = "@intf-e2e-full-" + std::to_string(::getpid());
   Kel::NboAttrLog::ConnectionLimits one;
   one.connections = 1;
   Kel::NboAttrLog::Server busy(loop, full, tree, "agent", one);
   Kel::NboAttrLog::Client holder(loop, full, "");
   ASSERT_TRUE(loop.runUntil([&] { return holder.synced(); }, 5000));
   // Root's server, its socket file for root alone.
   Kel::NboAttrLog::Server rootOnly(loop, dir.path + "/root.sock", tree, "agent");
   bool root = ::geteuid() == 0;
   struct Case {
      std::vector<std::string> args;
      uid_t runAs;
      int status;
      std::string says;
      bool askToStart;
   } cases[] = {
      {{"--socket", dir.path + "/nobody.sock", "status"}, uid_t(-1), 1,
       "no interface agent answers at " + dir.path + "/nobody.sock", true},
      {{"--socket", full, "status"}, uid_t(-1), 1,
       "more than 1 connections).\nThe agent holds as many connections as it allows", false},
      {{"--socket", dir.path + "/root.sock", "status"}, root ? 65534 : uid_t(-1), 1,
       root ? "You may not read it" : "", false},
      {{"--socket", "x", "bogus"}, uid_t(-1), 2, "unknown command \"bogus\"", false},
      {{"--socket", "x", "clear", "everything"}, uid_t(-1), 2, "clear takes \"counters\" and interface names", false},
      {{"--socket", "x", "counters", "Ethernet1", "Ethernet2"}, uid_t(-1), 2, "counters takes no name", false},
   };
   for (auto & c : cases) {
      c.args.insert(c.args.begin(), {"--config-socket", ""});
      SCOPED_TRACE(c.args[3]);
      Child run(loop, INTF_SHOW, c.args, c.runAs);
      EXPECT_EQ(run.exitStatus(), c.status);
      if (c.says.empty()) continue;  // not root: the socket is this user's own
      EXPECT_TRUE(run.says(c.says)) << run.stderr_.text;
      EXPECT_EQ(run.says("Is intf-agent running?"), c.askToStart) << run.stderr_.text;
   }
}
