// The host interface agent as its readers meet it: the real intf-agent in a
// child process, its tree mounted over its socket, the loopback device's
// status and live counters (through the status's counter look-up into the
// agent's shared-memory table), the metrics page, a restart after kill -9
// under a reader that keeps reading, and, as root, a namespace that appears
// under the running agent, gets its configuration from intf-configd and
// goes away again.
#include "ChildProcess.h"
#include "HostIntfStatusDir.h"
#include "NetNs.h"
#include "Paths.h"
#include "ShmTestPrefix.h"

#include <Intf/IntfStatusDir.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Agent.h>
#include <Zenet/SocketAt.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using namespace Interface;
using Zenet::IntfId;

using namespace IntfTest;

namespace {

// The agent's tree as a reader finds it.
struct Tree {
   explicit Tree(Kel::Ptr<Kel::Entity> const & root)
         : status(Kel::dynamicCast<IntfApp::HostIntfStatusDir>(root->entity("interface/status/eth/intf"))),
           local(Kel::dynamicCast<AllIntfStatusLocalDir>(root->entity("interface/status/local"))),
           kernel(Kel::dynamicCast<KernelIntfStatusDir>(root->entity("interface/status/kernel"))),
           device(Kel::dynamicCast<DeviceIntfStatusDir>(root->entity("interface/status/device"))) {}
   bool complete() const { return status && local && kernel && device; }
   Kel::Ptr<IntfApp::HostIntfStatusDir> status;
   Kel::Ptr<AllIntfStatusLocalDir> local;
   Kel::Ptr<KernelIntfStatusDir> kernel;
   Kel::Ptr<DeviceIntfStatusDir> device;
};

// Whether the agent's counter table holds a row for `id`, read through the
// table its tree names.
bool hasRow(Kel::Ptr<Kel::Entity> const & root, IntfId id) {
   auto dir = Kel::dynamicCast<SmashIntfCounterDirDir>(root->entity("interface/counter/eth/intf"));
   Smash::Interface::IntfCounter row;
   return dir && dir->table() && dir->table()->counterFind(id, &row);
}

class IntfAgent : public ::testing::Test {
 protected:
   void SetUp() override {
      IntfApp::registerAppTypes();
      shm.table(IntfApp::agentCounterTablePath);
      sock = dir.path + "/agent.sock";
   }
   std::vector<std::string> args(std::vector<std::string> more = {}) {
      std::vector<std::string> a{"--socket", sock, "--config-socket", dir.path + "/config.sock",
                                 "--interval", "0.2", "--shm-prefix", Smash::shmPrefix()};
      a.insert(a.end(), more.begin(), more.end());
      return a;
   }
   std::unique_ptr<Child> startAgent(std::vector<std::string> more = {}) {
      auto c = std::make_unique<Child>(loop, INTF_AGENT, args(more));
      EXPECT_GT(c->pid, 0);
      EXPECT_TRUE(c->waitFor("INTF_AGENT_STARTED")) << c->stderr_.text;
      return c;
   }
   bool until(std::function<bool()> const & done, int ms = 5000) { return loop.runUntil(done, ms); }

   ShmTestPrefix shm;
   TempDir dir;
   std::string sock;
   Kel::ActivityLoop loop;
};

std::string metricLine(std::string const & page, std::string const & head) {
   size_t at = page.find("\n" + head + " ");
   if (at == std::string::npos) return "";
   size_t end = page.find('\n', at + 1);
   return page.substr(at + 1, end - at - 1);
}

TEST_F(IntfAgent, LoopbackHasAStatusAndLiveCountersThatSurviveARestart) {
   int port = freePort();
   ASSERT_GT(port, 0);
   auto agent = startAgent({"--metrics", "127.0.0.1:" + std::to_string(port)});

   Kel::NboAttrLog::Client::Options reconnecting;
   reconnecting.reconnect = true;
   reconnecting.maxBackoff = std::chrono::milliseconds(200);
   Kel::NboAttrLog::Client client(loop, sock, "", reconnecting);
   ASSERT_TRUE(until([&] { return client.synced(); })) << agent->stderr_.text;
   Tree t(client.root());
   ASSERT_TRUE(t.complete());

   // The default namespace's loopback device, in every directory that holds it.
   IntfId lo0("Loopback0");
   ASSERT_TRUE(until([&] { return bool(t.status->intfStatus(lo0)); }));
   auto lo = t.status->intfStatus(lo0);
   EXPECT_EQ(lo->deviceName(), "lo");
   std::ifstream mtuFile("/sys/class/net/lo/mtu");
   uint32_t kernelMtu = 0;
   mtuFile >> kernelMtu;
   EXPECT_EQ(lo->mtu(), kernelMtu);
   EXPECT_EQ(lo->operStatus(), IntfOperStatus::intfOperUp);  // lo is up wherever tests run
   EXPECT_EQ(t.kernel->intfStatus("lo"), lo);
   unsigned ifindex = ::if_nametoindex("lo");
   EXPECT_EQ(t.device->intfStatusByIfIndex(ifindex).intfStatus(), lo);
   EXPECT_EQ(t.device->intfStatusAndDeviceName(lo0).deviceName(), "lo");
   ASSERT_TRUE(t.local->intfStatusLocal(lo0));
   EXPECT_EQ(t.local->intfStatusLocal(lo0)->netNsName(), Zenet::NamespaceName::defaultNamespace());

   // Its counters through the status, growing with the traffic sent.
   Kel::Ptr<IntfCounter> counter;
   ASSERT_TRUE(until([&] { return bool(counter = lo->counter()); }));
   uint64_t before = counter->statistics().inOctets();
   sendUdp(20, 1000);
   EXPECT_TRUE(until([&] { return counter->statistics().inOctets() >= before + 20 * 1000; }))
         << before << " -> " << counter->statistics().inOctets();
   EXPECT_GE(counter->statistics().inUcastPkts(), 20u);
   EXPECT_GT(counter->statistics().lastUpdate(), 0.0);

   // The metrics page.
   std::string page = httpGet(port, "/metrics");
   ASSERT_NE(page.find("200 OK"), std::string::npos) << page;
   std::string labels = "{interface=\"Loopback0\",device=\"lo\",namespace=\"default\"}";
   std::string octets = metricLine(page, "intf_in_octets_total" + labels);
   ASSERT_FALSE(octets.empty()) << page;
   EXPECT_GE(std::stoull(octets.substr(octets.rfind(' ') + 1)), before + 20 * 1000);
   EXPECT_EQ(metricLine(page, "intf_mtu" + labels), "intf_mtu" + labels + " " + std::to_string(kernelMtu));
   EXPECT_EQ(metricLine(page, "intf_oper_up" + labels), "intf_oper_up" + labels + " 1");
   EXPECT_FALSE(metricLine(page, "intf_in_bits_per_second" + labels).empty());
   EXPECT_NE(page.find("# TYPE intf_in_octets_total counter"), std::string::npos);

   // Readers that vanish, one mid-sync and one speaking nonsense, cost the
   // agent nothing: a new reader mounts as before.
   {
      Kel::NboAttrLog::Client gone(loop, sock, "interface/status");
      loop.runOnce(10);
   }
   {
      int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::strncpy(a.sun_path, sock.c_str(), sizeof a.sun_path - 1);
      ASSERT_EQ(::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
      char junk[64];
      std::memset(junk, 0xff, sizeof junk);
      ::send(s, junk, sizeof junk, MSG_NOSIGNAL);
      ::close(s);
   }
   Kel::NboAttrLog::Client late(loop, sock, "interface/status/eth/intf");
   ASSERT_TRUE(until([&] { return late.synced(); })) << agent->stderr_.text;
   auto lateDir = Kel::dynamicCast<IntfApp::HostIntfStatusDir>(late.root());
   ASSERT_TRUE(lateDir);
   EXPECT_EQ(lateDir->intfStatus(lo0)->deviceName(), "lo");
   EXPECT_EQ(::kill(agent->pid, 0), 0);

   // Killed without warning and started again: the new agent takes the
   // table over, and the reader's counter keeps moving without a look-up.
   agent->kill9();
   uint64_t atKill = counter->statistics().inOctets();
   agent = startAgent();
   sendUdp(20, 1000);
   EXPECT_TRUE(until([&] { return counter->statistics().inOctets() >= atKill + 20 * 1000; }))
         << atKill << " -> " << counter->statistics().inOctets() << "\n" << agent->stderr_.text;
   EXPECT_TRUE(until([&] { return client.connects() >= 2 && client.synced(); }));

   // A clean stop takes the socket file along.
   ASSERT_EQ(::kill(agent->pid, SIGTERM), 0);
   EXPECT_EQ(agent->exitStatus(), 0);
   EXPECT_TRUE(agent->says("INTF_AGENT_STOPPING"));
   struct stat st;
   EXPECT_NE(::stat(sock.c_str(), &st), 0);
}

TEST_F(IntfAgent, BadArgumentsAreRefusedBeforeAnythingStarts) {
   struct Case {
      std::vector<std::string> args;
      int status;
      std::string err;
   } cases[] = {
      {{"--interval", "0"}, 2, "--interval takes seconds"},
      {{"--interval=soon"}, 2, "--interval takes seconds"},
      {{"--shm-prefix", "no-slash"}, 2, "--shm-prefix must start with '/'"},
      {{"--bogus"}, 2, "unknown option --bogus"},
      {{"--socket"}, 2, "--socket needs a value"},
      {{"--config", "/nonexistent/intf.conf"}, 1, "/nonexistent/intf.conf:0: "},
      {{"--metrics", "127.0.0.1:notaport"}, 1, "metrics: "},
   };
   for (auto const & c : cases) {
      std::string what;
      for (auto const & a : c.args) what += a + " ";
      SCOPED_TRACE(what);
      std::vector<std::string> a = args(c.args);
      Child run(loop, INTF_AGENT, a);
      EXPECT_EQ(run.exitStatus(), c.status);
      loop.runUntil([&] { return run.stderr_.eof; }, 2000);
      EXPECT_TRUE(run.says(c.err)) << run.stderr_.text;
   }
   struct stat st;
   EXPECT_NE(::stat(sock.c_str(), &st), 0);  // refused before serving
}

TEST_F(IntfAgent, AKernelRefusalIsLoggedOnceAndTheAgentCarriesOn) {
   // Without CAP_NET_ADMIN (root's test runs the agent as nobody) the
   // configured MTU of the loopback device is refused.
   uid_t runAs = ::geteuid() == 0 ? 65534 : uid_t(-1);
   ASSERT_EQ(::chmod(dir.path.c_str(), 0777), 0);
   uint32_t kernelMtu = 0;
   std::ifstream("/sys/class/net/lo/mtu") >> kernelMtu;
   ASSERT_GT(kernelMtu, 68u);
   std::string cfg = dir.path + "/intf.conf", configSock = dir.path + "/config.sock";
   std::ofstream(cfg) << "Loopback0 mtu=" << kernelMtu - 1 << "\n";
   Child configd(loop, INTF_CONFIGD, {"--config", cfg, "--socket", configSock, "--allow-user", "65534"});
   ASSERT_TRUE(configd.waitFor("serving on")) << configd.stderr_.text;
   Child agent(loop, INTF_AGENT, args(), runAs);
   ASSERT_TRUE(agent.waitFor("INTF_AGENT_STARTED")) << agent.stderr_.text;
   std::string refused = "INTF_AGENT_KERNEL_REFUSED ERR: Loopback0: the kernel refused MTU " +
                         std::to_string(kernelMtu - 1) + " on device lo in namespace default: ";
   ASSERT_TRUE(agent.waitFor(refused)) << agent.stderr_.text;
   EXPECT_TRUE(agent.says(refused + std::strerror(EPERM))) << agent.stderr_.text;

   // Several intervals later: said once, not tried again, and still serving.
   loop.runUntil([] { return false; }, 1000);
   auto const & text = agent.stderr_.text;
   size_t first = text.find("INTF_AGENT_KERNEL_REFUSED");
   EXPECT_EQ(text.find("INTF_AGENT_KERNEL_REFUSED", first + 1), std::string::npos) << text;
   Kel::NboAttrLog::Client::Options trusting;  // the agent runs as nobody
   trusting.servers.uids = {runAs};
   Kel::NboAttrLog::Client client(loop, sock, "", trusting);
   ASSERT_TRUE(until([&] { return client.synced(); })) << text;
   Tree t(client.root());
   ASSERT_TRUE(t.complete());
   ASSERT_TRUE(until([&] { return bool(t.status->intfStatus(IntfId("Loopback0"))); }));
   EXPECT_EQ(t.status->intfStatus(IntfId("Loopback0"))->mtu(), kernelMtu);
   ASSERT_EQ(::kill(agent.pid, SIGTERM), 0);
   EXPECT_EQ(agent.exitStatus(), 0);
}

TEST_F(IntfAgent, ANamespaceThatAppearsIsModelledConfiguredAndForgottenWhenItGoes) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root: makes a network namespace and changes its devices";
   std::string ns = "intf-agent-test-" + std::to_string(::getpid());
   // The namespace's loopback device, mapped explicitly and configured up
   // with a jumbo MTU (a fresh namespace's lo is down, MTU 65536).
   std::string cfg = dir.path + "/intf.conf";
   std::ofstream(cfg) << "Loopback77 device=lo netns=" << ns << " admin=up mtu=9000\n";
   std::string configSock = dir.path + "/config.sock";
   Child configd(loop, INTF_CONFIGD, {"--config", cfg, "--socket", configSock});
   ASSERT_TRUE(configd.waitFor("serving on")) << configd.stderr_.text;
   auto agent = startAgent({"--config", cfg});
   ASSERT_TRUE(agent->waitFor("INTF_AGENT_CONFIG_MOUNTED")) << agent->stderr_.text;

   Kel::NboAttrLog::Client client(loop, sock, "");
   ASSERT_TRUE(until([&] { return client.synced(); })) << agent->stderr_.text;
   Tree t(client.root());
   ASSERT_TRUE(t.complete());
   IntfId lo77("Loopback77");
   EXPECT_FALSE(t.status->intfStatus(lo77));

   auto netns = std::make_unique<NetNs>(ns);
   ASSERT_TRUE(netns->ok()) << netns->error();
   ASSERT_TRUE(until([&] { return bool(t.status->intfStatus(lo77)); })) << agent->stderr_.text;
   auto lo = t.status->intfStatus(lo77);
   EXPECT_EQ(lo->deviceName(), "lo");
   EXPECT_EQ(t.kernel->intfStatus(Kel::String8(ns + "/lo")), lo);
   ASSERT_TRUE(t.local->intfStatusLocal(lo77));
   EXPECT_EQ(t.local->intfStatusLocal(lo77)->netNsName().name(), ns);
   // The default namespace's lo keeps its own interface.
   EXPECT_EQ(t.kernel->intfStatus("lo"), t.status->intfStatus(IntfId("Loopback0")));

   // The configuration reaches the device, and the status follows the kernel.
   EXPECT_TRUE(until([&] { return lo->mtu() == 9000 && lo->operStatus() == IntfOperStatus::intfOperUp; }))
         << "mtu " << lo->mtu() << " oper " << lo->operStatus() << "\n" << agent->stderr_.text;
   uint32_t mtu = 0;
   bool up = false;
   ASSERT_TRUE(deviceState(ns, "lo", &mtu, &up));
   EXPECT_EQ(mtu, 9000u);
   EXPECT_TRUE(up);
   EXPECT_EQ(lo->operStatusChange().count(), 1u);
   EXPECT_GT(lo->operStatusChange().time(), 0.0);
   EXPECT_TRUE(until([&] { return bool(lo->counter()); }));
   EXPECT_TRUE(hasRow(client.root(), lo77));
   EXPECT_TRUE(agent->says("INTF_LINK_STATUS")) << agent->stderr_.text;

   // The namespace goes: so does everything of its device.
   netns.reset();
   EXPECT_TRUE(until([&] { return !t.status->intfStatus(lo77); })) << agent->stderr_.text;
   EXPECT_FALSE(t.kernel->intfStatus(Kel::String8(ns + "/lo")));
   EXPECT_FALSE(t.local->intfStatusLocal(lo77));
   EXPECT_FALSE(hasRow(client.root(), lo77));
   EXPECT_TRUE(t.status->intfStatus(IntfId("Loopback0")));
   EXPECT_TRUE(hasRow(client.root(), IntfId("Loopback0")));
   EXPECT_TRUE(agent->waitFor("INTF_AGENT_NAMESPACE_REMOVED"));
}

} // namespace
