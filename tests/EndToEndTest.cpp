// The three programs together against a throwaway namespace, as an
// operator meets them: intf-configd serving a file, intf-agent modelling
// the namespace's loopback device, intf-show --json reading counters and
// statuses, and intf-watch (the reader built from the docs alone) following
// oper changes and rates; traffic, an MTU change, the device going down,
// and the agent killed and started again. Needs root (namespaces, MTUs).
#include "ChildProcess.h"
#include "NetNs.h"

#include "LinkSocket.h"

#include <Smash/Table.h>

#include <gtest/gtest.h>

#include <linux/netlink.h>

#include <cstdio>
#include <fstream>
#include <regex>

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
      }
   } removeTables{prefix};
   std::string cfg = dir.path + "/intf.conf", configSock = dir.path + "/config.sock",
               agentSock = dir.path + "/agent.sock";
   auto writeConfig = [&](int mtu) {
      std::ofstream(cfg + ".new") << "global load-interval=5\nLoopback7 device=lo netns=" << ns.name()
                                  << " mtu=" << mtu << " description=\"e2e\"\n";
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

   // Killed and started again, the agent answers the show command again.
   agent->kill9();
   ASSERT_TRUE(watch.waitFor("cannot connect to " + agentSock)) << watch.stderr_.text;  // an attempt failed
   agent = startAgent();
   EXPECT_TRUE(until([&] {
      s = show(showArgs + " --json counters");
      return s.status == 0 && field(s.out, "Loopback7", "inOctets") >= before + sentBytes;
   })) << s.out << agent->stderr_.text;
   // The watcher lost the agent once (not once per attempt) and mounts the
   // new one's tree by itself.
   auto const & out = watch.stdout_.text;
   EXPECT_TRUE(until([&] { return out.find("\nmounted " + agentSock, out.find("\nlost: ")) != out.npos; })) << out;
   EXPECT_EQ(out.find("\nlost: "), out.rfind("\nlost: ")) << out;
}

TEST(EndToEnd, TheShowCommandAndTheWatcherSayWhatIsWrong) {
   TempDir dir;
   for (char const * bad : {"--interval soon", "--bogus x", "--socket"}) {
      Shown w = run(INTF_WATCH, bad);
      EXPECT_EQ(w.status, 2);
      EXPECT_NE(w.out.find("usage: intf-watch"), std::string::npos) << w.out;
   }
   Shown s = show("--socket " + dir.path + "/nobody.sock --config-socket '' status");
   EXPECT_EQ(s.status, 1);
   EXPECT_NE(s.out.find("no interface agent answers at " + dir.path + "/nobody.sock"), std::string::npos) << s.out;
   EXPECT_NE(s.out.find("Is intf-agent running?"), std::string::npos) << s.out;
   s = show("--socket x bogus");
   EXPECT_EQ(s.status, 2);
   EXPECT_NE(s.out.find("unknown command \"bogus\""), std::string::npos) << s.out;
}
