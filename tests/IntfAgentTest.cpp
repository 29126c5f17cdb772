// The host interface agent as its readers meet it: the real intf-agent in a
// child process, its tree mounted over its socket, every path docs/AGENTS.md
// gives (of intf-configd's tree too, and of README's configuration agent,
// which the agent reads), the loopback device's status and live counters
// (through the status's counter look-up into the agent's shared-memory
// table, under a prefix other than the reader's), the metrics page, a
// restart after kill -9 under a reader that keeps reading, and, as root, a
// namespace that appears under the running agent, gets its configuration
// from intf-configd and goes away again, and cleared counters as intf-show,
// the metrics and restarts of either agent see them.
#include "ChildProcess.h"
#include "NetNs.h"
#include "Paths.h"
#include "ShmTestPrefix.h"

#include <Intf/IntfStatusDir.h>
#include <Intf/SmashIntfCounter.h>
#include <Intf/SyncMtu.h>
#include <Kel/Agent.h>

#include <gtest/gtest.h>

#include <net/if.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

using namespace Interface;
using Zenet::IntfId;

using namespace IntfTest;

namespace {

// The agent's tree as a reader finds it.
struct Tree {
   explicit Tree(Kel::Ptr<Kel::Entity> const & root)
         : status(Kel::dynamicCast<AgentIntfStatusDir>(root->entity("interface/status/eth/intf"))),
           local(Kel::dynamicCast<AllIntfStatusLocalDir>(root->entity("interface/status/local"))),
           kernel(Kel::dynamicCast<KernelIntfStatusDir>(root->entity("interface/status/kernel"))),
           device(Kel::dynamicCast<DeviceIntfStatusDir>(root->entity("interface/status/device"))) {}
   bool complete() const { return status && local && kernel && device; }
   Kel::Ptr<AgentIntfStatusDir> status;
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
      // The agent's prefix is not this reader's: readers find the table by
      // what the tree tells them.
      shm.table(agentPrefix + IntfApp::agentCounterTablePath);
      shm.table(agentPrefix + IntfApp::agentSnapshotTablePath);
      sock = dir.path + "/agent.sock";
   }
   std::vector<std::string> args(std::vector<std::string> more = {}) {
      std::vector<std::string> a{"--socket", sock, "--config-socket", dir.path + "/config.sock",
                                 "--interval", "0.2", "--shm-prefix", agentPrefix};
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
   // intf-show run against this agent: its exit status, and what it wrote (output, then errors).
   std::vector<std::string> showArgs(std::vector<std::string> more) {
      std::vector<std::string> a{"--socket", sock, "--config-socket", dir.path + "/config.sock"};
      a.insert(a.end(), more.begin(), more.end());
      return a;
   }
   std::pair<int, std::string> show(std::vector<std::string> more, uid_t runAs = uid_t(-1)) {
      Child c(loop, INTF_SHOW, showArgs(more), runAs);
      int status = c.exitStatus();
      return {status, c.stdout_.text + c.stderr_.text};
   }

   ShmTestPrefix shm;
   std::string agentPrefix = Smash::shmPrefix() + "agent-";
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
   std::string mtu = std::to_string(kernelMtu);
   for (auto [metric, value] : {std::pair<char const *, char const *>{"intf_mtu", mtu.c_str()}, {"intf_oper_up", "1"},
                                {"intf_present", "1"}, {"intf_admin_up", "1"}, {"intf_in_bytes_per_second", ""}}) {
      std::string line = metricLine(page, metric + labels);  // any value where none is given
      EXPECT_TRUE(!line.empty() && (!*value || line.substr(line.rfind(' ') + 1) == value)) << metric << "\n" << page;
   }
   std::string packets = metricLine(page, "intf_in_packets_total" + labels);
   ASSERT_FALSE(packets.empty()) << page;
   EXPECT_GE(std::stoull(packets.substr(packets.rfind(' ') + 1)), 20u);
   EXPECT_NE(page.find("# TYPE intf_in_octets_total counter"), std::string::npos);

   // Killed without warning and started again: the new agent takes the
   // table over, and the reader's counter keeps moving without a look-up.
   agent->kill9();
   uint64_t atKill = counter->statistics().inOctets();
   double lastUpdate = counter->statistics().lastUpdate();
   ASSERT_GT(counter->rates().inPktsRate(), 0.0);
   agent = startAgent();
   // Its first sample goes on from the row's rates rather than from 0.
   ASSERT_TRUE(until([&] { return counter->statistics().lastUpdate() > lastUpdate; }));
   EXPECT_GT(counter->rates().inPktsRate(), 0.0);
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

// A number of one interface's object in intf-show's JSON; -1 for null, -2 when absent.
double jsonField(std::string const & json, std::string const & intf, std::string const & name) {
   std::smatch m;
   std::regex re("\"" + intf + "\": \\{[^}]*\"" + name + "\": ([0-9.e+]+|null|true)");
   return !std::regex_search(json, m, re) ? -2 : m[1] == "null" ? -1 : m[1] == "true" ? 1 : std::stod(m[1]);
}

TEST_F(IntfAgent, ClearedCountersAreOneStoreForEveryReaderKeptAcrossRestartsAndNeverNegative) {
   ASSERT_EQ(::chmod(dir.path.c_str(), 0755), 0);  // nobody reaches the socket too
   int port = freePort();
   std::string cfg = dir.path + "/intf.conf";
   std::ofstream(cfg) << "Loopback0 description=\"cleared\"\n";
   std::vector<std::string> configdArgs{"--config", cfg, "--socket", dir.path + "/config.sock"};
   auto configd = std::make_unique<Child>(loop, INTF_CONFIGD, configdArgs);
   std::vector<std::string> agentArgs{"--config", cfg, "--metrics", "127.0.0.1:" + std::to_string(port), "--allow-user", "65534"};
   auto agent = startAgent(agentArgs);
   auto counters = [&](std::string const & field, std::vector<std::string> args = {"--json", "counters"}) {
      auto [status, out] = show(args);
      EXPECT_EQ(status, 0) << out;
      return jsonField(out, "Loopback0", field);
   };
   ASSERT_TRUE(until([&] { return counters("inOctets") >= 0; }));
   // Never cleared: the absolute counts, and said so.
   EXPECT_NE(show({"counters"}).second.find("Last clearing of counters never\n"), std::string::npos);
   // Refused, changing nothing: a name that is no interface, no agent answering, another user's clear.
   struct Refusal {
      std::vector<std::string> args;
      uid_t runAs;
      std::string says;
   } const refusals[] = {
      {{"clear", "counters", "lo0", "Ethernet999999"}, uid_t(-1), "no interface or device named \"Ethernet999999\"; nothing cleared"},
      {{"--socket", dir.path + "/none.sock", "clear", "counters"}, uid_t(-1), "no interface agent answers"},
      {{"clear", "counters", "lo0"}, ::geteuid() == 0 ? 65534 : uid_t(-1),
       ::geteuid() == 0 ? "Permission denied (only the user intf-agent runs as may clear counters); nothing cleared" : ""},
   };
   for (auto const & r : refusals) {
      auto [status, said] = show(r.args, r.runAs);
      EXPECT_TRUE(r.says.empty() || (status == 1 && said.find(r.says) != std::string::npos)) << said;
   }
   EXPECT_EQ(counters("lastClear"), -1);

   // Many clears at once, of all and of one, while the agent writes: each done.
   double before = double(std::time(nullptr)), rawBefore = counters("inOctets", {"--raw", "--json", "counters"});
   std::vector<std::unique_ptr<Child>> clears;
   for (int i = 0; i < 6; ++i) {
      clears.push_back(std::make_unique<Child>(loop, INTF_SHOW, showArgs({"clear", "counters", i % 2 ? "Loopback0" : "--raw"})));
   }
   for (auto & c : clears) EXPECT_EQ(c->exitStatus(), 0) << c->stderr_.text;
   EXPECT_EQ(show({"--json", "counters"}).second.find("\"lastClear\": null"), std::string::npos);
   // Counted from the clear, never above the absolute counter, which goes on.
   sendUdp(20, 1000);
   double since = 0;
   ASSERT_TRUE(until([&] { return (since = counters("inOctets")) >= 20 * 1000; }));
   double raw = counters("inOctets", {"--raw", "--json", "counters"});
   EXPECT_TRUE(since <= raw && raw >= rawBefore + 20 * 1000) << since << " " << raw;
   // The same clear for every show command and the metrics.
   double when = counters("lastClear");
   EXPECT_GE(when, before);
   EXPECT_EQ(counters("lastClear", {"--json", "interface", "Loopback0"}), when);
   EXPECT_NE(show({"interface", "Loopback0"}).second.find("  Last clearing of counters 0:00:"), std::string::npos);
   std::string metric = metricLine(httpGet(port, "/metrics"),
                                   "intf_counters_last_clear_timestamp_seconds{interface=\"Loopback0\",device=\"lo\",namespace=\"default\"}");
   EXPECT_NEAR(std::stod("0" + metric.substr(metric.rfind(' ') + 1)), when, 1e-3) << metric;

   // Restarts of either agent and a reload keep the clear and its baseline.
   agent->kill9();
   agent = startAgent(agentArgs);
   configd.reset();
   configd = std::make_unique<Child>(loop, INTF_CONFIGD, configdArgs);
   EXPECT_TRUE(configd->waitFor("serving on"));
   ASSERT_EQ(::kill(agent->pid, SIGHUP), 0);
   EXPECT_TRUE(agent->waitFor("INTF_AGENT_MAPPING_RELOADED"));
   ASSERT_TRUE(until([&] { return counters("inOctets") >= since; }));
   EXPECT_EQ(counters("lastClear"), when);
   EXPECT_EQ(counters("baselineDropped"), -2);
   EXPECT_LT(counters("inOctets"), counters("inOctets", {"--raw", "--json", "counters"}));

   // The agent makes the row again from the kernel's counters: that
   // baseline is dropped for good, whatever the counters do next.
   ASSERT_EQ(show({"clear", "counters", "lo0"}), std::make_pair(0, std::string("Cleared the counters of Loopback0\n")));
   when = counters("lastClear");
   agent->kill9();
   Smash::removeTable(agentPrefix + IntfApp::agentCounterTablePath);
   agent = startAgent(agentArgs);
   EXPECT_TRUE(until([&] { return counters("baselineDropped") == 1; }));
   EXPECT_EQ(counters("lastClear"), when);
}

TEST_F(IntfAgent, EveryDocumentedPathMountsAsDocumentedAndReadmesAgentServesWhatIntfConfigdServes) {
   std::string cfg = dir.path + "/intf.conf", configdSock = dir.path + "/configd.sock";
   std::ofstream(cfg) << "Ethernet1 description=\"uplink to spine 1\"\n";  // no device: nothing in the kernel
   Child configd(loop, INTF_CONFIGD, {"--config", cfg, "--socket", configdSock});
   ASSERT_TRUE(configd.waitFor("serving on")) << configd.stderr_.text;
   // README's agent where the host agent looks for its configuration.
   Child readmeAgent(loop, README_CONFIG_AGENT, {dir.path + "/config.sock"});
   auto agent = startAgent();
   EXPECT_TRUE(agent->waitFor("1 interfaces configured")) << agent->stderr_.text;

   // The type of what is at `below` when `path` is mounted, or why the mount was refused.
   auto mounted = [&](std::string const & socket, std::string const & path, std::string const & below = "") {
      Kel::NboAttrLog::Client c(loop, socket, Kel::String8(path));
      until([&] { return c.synced() || !c.lastClose().empty(); });
      auto e = c.synced() ? c.root()->entity(below) : nullptr;
      return e ? e->fwkType()->name().str() : "refused: " + c.lastClose().str();
   };
   std::map<std::string, std::vector<std::string>> sockets{{"intf-configd", {configdSock, dir.path + "/config.sock"}},
                                                          {"intf-agent", {sock}}};
   // Each row of the table under each program's heading: path ("" for the root), type, what it holds.
   std::ifstream doc(AGENTS_DOC);
   std::regex heading("^### (\\S+)$"), row("^\\| (?:`([^`]*)`|\\(the root\\)) \\| `([^`]+)` \\| (.*) \\|$");
   std::string line, program;
   std::smatch m, parent;
   int rows = 0;
   while (std::getline(doc, line)) {
      if (std::regex_match(line, m, heading)) program = m[1];
      if (program.empty() || !std::regex_match(line, m, row)) continue;
      std::string path = m[1], type = m[2], text = m[3];
      ++rows;
      // A path documented as read with its parent is refused alone.
      bool withParent = std::regex_search(text, parent, std::regex("mount `([^`]+)` or above"));
      for (auto const & socket : sockets.at(program)) {
         SCOPED_TRACE(socket + " " + path);
         std::string alone = mounted(socket, path);
         EXPECT_TRUE(!withParent || alone.find("outside the mounted path; mount an entity") != alone.npos) << alone;
         EXPECT_EQ(withParent ? mounted(socket, parent[1], path.substr(parent[1].length() + 1)) : alone, type);
      }
   }
   EXPECT_GE(rows, 10);
   // The watcher of the docs, pointed at a server that is not intf-agent.
   Child watch(loop, INTF_WATCH, {"--socket", configdSock});
   EXPECT_TRUE(watch.exitStatus() == 1 && watch.says("serves no interface/status/eth/intf")) << watch.stderr_.text;
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
   Child agent(loop, INTF_AGENT, args({"--log-level", "err"}), runAs);
   std::string refused = "INTF_AGENT_KERNEL_REFUSED ERR: Loopback0: the kernel refused MTU " +
                         std::to_string(kernelMtu - 1) + " on device lo in namespace default: ";
   ASSERT_TRUE(agent.waitFor(refused)) << agent.stderr_.text;
   EXPECT_TRUE(agent.says(refused + std::strerror(EPERM))) << agent.stderr_.text;

   // Several intervals and a change elsewhere in the configuration later:
   // said once, not tried again, and still serving.
   std::ofstream(cfg + ".new") << "Loopback0 mtu=" << kernelMtu - 1 << " description=\"edited\"\n";
   ASSERT_EQ(::rename((cfg + ".new").c_str(), cfg.c_str()), 0);
   ASSERT_TRUE(configd.waitFor("0 added, 1 changed")) << configd.stderr_.text;
   loop.runUntil([] { return false; }, 1000);
   auto const & text = agent.stderr_.text;
   size_t first = text.find("INTF_AGENT_KERNEL_REFUSED");
   EXPECT_EQ(text.find("INTF_AGENT_KERNEL_REFUSED", first + 1), std::string::npos) << text;
   EXPECT_FALSE(agent.says("NOTICE")) << "less severe than the level asked for";
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

TEST_F(IntfAgent, OnAHostItChangesOnlyWhatIsConfiguredTrustsOnlyItsPeersAndFollowsRemaps) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root: makes network namespaces and changes their devices";
   std::string tag = std::to_string(::getpid());
   NetNs ns1("intf-agent-a-" + tag);
   ASSERT_TRUE(ns1.ok()) << ns1.error();
   auto device = [](NetNs const & ns) {
      uint32_t mtu = 0;
      bool up = false;
      EXPECT_TRUE(deviceState(ns.name(), "lo", &mtu, &up));
      return std::to_string(mtu) + (up ? " up" : " down");
   };
   // A fresh namespace's lo: down, MTU 65536.
   std::string before = device(ns1);
   std::string cfg = dir.path + "/intf.conf", configSock = "@intf-agent-config-" + tag;
   auto configure = [&](std::string const & line) {
      std::ofstream(cfg + ".new") << "Loopback77 device=lo " << line << "\n";
      std::rename((cfg + ".new").c_str(), cfg.c_str());
   };
   configure("netns=" + ns1.name() + " admin=down mtu=1280");
   ASSERT_EQ(::chmod(dir.path.c_str(), 0755), 0);  // nobody reads the file too

   // Another user's configuration server on the agent's socket name is
   // refused (logged with its uid and pid) and its file never applied.
   auto impostor = std::make_unique<Child>(loop, INTF_CONFIGD,
                                           std::vector<std::string>{"--config", cfg, "--socket", configSock}, 65534);
   ASSERT_TRUE(impostor->waitFor("serving on")) << impostor->stderr_.text;
   int port = freePort();
   auto agent = startAgent({"--config", cfg, "--config-socket", configSock, "--metrics", "127.0.0.1:" + std::to_string(port)});
   std::string refused = "KEL_PEER_REFUSED WARNING: client of " + configSock + ": refused peer uid 65534 gid 65534 pid " +
                         std::to_string(impostor->pid) + ": uid 65534 is not root";
   ASSERT_TRUE(agent->waitFor(refused)) << agent->stderr_.text;
   EXPECT_TRUE(agent->waitFor("INTF_AGENT_CONFIG_WAITING"));
   impostor.reset();

   // The real one (root's): a line without settings leaves the device as it is.
   configure("netns=" + ns1.name() + " description=\"nothing set\"");
   Child configd(loop, INTF_CONFIGD, {"--config", cfg, "--socket", configSock});
   ASSERT_TRUE(agent->waitFor("INTF_AGENT_CONFIG_MOUNTED")) << agent->stderr_.text;
   Kel::NboAttrLog::Client client(loop, sock, "");
   ASSERT_TRUE(until([&] { return client.synced(); })) << agent->stderr_.text;
   Tree t(client.root());
   ASSERT_TRUE(t.complete());
   IntfId lo77("Loopback77");
   ASSERT_TRUE(until([&] { return t.status->intfStatus(lo77) && t.status->intfStatus(lo77)->counter(); }));
   auto lo = t.status->intfStatus(lo77);
   std::string afterAgent = device(ns1);
   EXPECT_EQ(afterAgent, before);
   EXPECT_FALSE(lo->active());  // what the device has: not up
   // Changed by hand, it stays as the operator left it.
   ASSERT_EQ(Interface::setMtuInNs("lo", 1500, Zenet::NamespaceName(Kel::String8(ns1.name())), -1), 0);
   ASSERT_TRUE(until([&] { return lo->mtu() == 1500; }));
   loop.runUntil([] { return false; }, 600);  // three samples
   EXPECT_EQ(device(ns1), "1500 down");
   std::cout << "unconfigured lo of a namespace: " << before << " before the agent, " << afterAgent
             << " with it running, " << device(ns1) << " after a hand change under it\n";

   // Set in the file: applied, 65536 included.
   configure("netns=" + ns1.name() + " admin=up mtu=65536");
   EXPECT_TRUE(until([&] { return lo->mtu() == 65536 && lo->active(); })) << agent->stderr_.text;
   EXPECT_EQ(device(ns1), "65536 up");
   EXPECT_EQ(lo->operStatus(), IntfOperStatus::intfOperUp);

   // A namespace that appears, and the interface remapped into it: its
   // device gets the settings, the device left behind keeps what it has and
   // goes back to the automatic name.
   auto ns2 = std::make_unique<NetNs>("intf-agent-b-" + tag);
   ASSERT_TRUE(ns2->ok()) << ns2->error();
   configure("netns=" + ns2->name() + " admin=up mtu=9000");
   ASSERT_TRUE(until([&] {
      auto l = t.local->intfStatusLocal(lo77);
      return l && l->netNsName().name() == ns2->name() && t.status->intfStatus(lo77)->mtu() == 9000;
   })) << agent->stderr_.text;
   EXPECT_EQ(device(*ns2), "9000 up");
   EXPECT_EQ(device(ns1), "65536 up");
   auto left = t.kernel->intfStatus(Kel::String8(ns1.name() + "/lo"));
   ASSERT_TRUE(left);
   EXPECT_NE(left->intfId(), lo77);
   EXPECT_TRUE(until([&] { return hasRow(client.root(), lo77); }));

   // Signals: HUP reads the file again, USR1 and USR2 change nothing.
   auto reloads = [&] {
      std::string const & text = agent->stderr_.text;
      size_t n = 0;
      for (size_t at = 0; (at = text.find("INTF_AGENT_MAPPING_RELOADED", at)) != std::string::npos; ++at) ++n;
      return n;
   };
   size_t heard = reloads();
   for (int sig : {SIGHUP, SIGUSR1, SIGUSR2}) ASSERT_EQ(::kill(agent->pid, sig), 0);
   EXPECT_TRUE(until([&] { return reloads() == heard + 1; }));
   loop.runUntil([] { return false; }, 200);
   EXPECT_EQ(::kill(agent->pid, 0), 0);

   // The namespace goes: so does everything of its device.
   ns2.reset();
   EXPECT_TRUE(until([&] { return !t.status->intfStatus(lo77); })) << agent->stderr_.text;
   EXPECT_FALSE(t.local->intfStatusLocal(lo77));
   EXPECT_TRUE(until([&] { return !hasRow(client.root(), lo77); }));
   // Configured still: listed as not present rather than left out.
   std::string gone = "{interface=\"Loopback77\",device=\"\",namespace=\"\"}";
   std::string page = httpGet(port, "/metrics");
   EXPECT_EQ(metricLine(page, "intf_present" + gone), "intf_present" + gone + " 0") << page;
   EXPECT_EQ(metricLine(page, "intf_oper_up" + gone), "intf_oper_up" + gone + " 0") << page;
   EXPECT_TRUE(agent->waitFor("INTF_AGENT_NAMESPACE_REMOVED"));
   EXPECT_FALSE(agent->says("cannot watch namespace .")) << "the directory's own entries are no namespaces";

   // SIGQUIT stops it as SIGTERM does, socket file and all.
   ASSERT_EQ(::kill(agent->pid, SIGQUIT), 0);
   EXPECT_EQ(agent->exitStatus(), 0);
   struct stat st;
   EXPECT_NE(::stat(sock.c_str(), &st), 0);
}

} // namespace
