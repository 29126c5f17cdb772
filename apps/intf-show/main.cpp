// intf-show: the operator's view of the interfaces the host agent models.
//
//   intf-show [options] status | counters | rates | interface NAME
//   intf-show [options] clear counters [NAME ...]
//
// It mounts the agent's tree once and reads counters straight from shared
// memory: status->counter() finds each interface's row of the agent's
// counter table, and every read takes the row as it is now. No request
// goes to the agent per read. The configuration agent's tree, when it
// answers, adds descriptions, configured admin states, load intervals and
// the interfaces configured for devices that do not exist.
//
// Counts are since the last clear (CounterClear.h): a clear records the
// live counters as baselines in the agent's snapshot table, which every
// reader shares; the live counters are never written.
#include "CommandLine.h"
#include "CounterClear.h"
#include "IntfNameInput.h"
#include "Paths.h"
#include "ShowFormat.h"

#include <Intf/Counter>
#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Kel/Log.h>
#include <Smash/Table.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

volatile std::sig_atomic_t interrupted = 0;

IntfApp::CommandLine commandLine() {
   return IntfApp::CommandLine(
         "intf-show", "[options] status | counters | rates | interface NAME | clear counters [NAME ...]",
         "Shows the interfaces intf-agent models: their state, counters and rates.\n"
         "Counters count from their last clear; \"clear counters\" clears those of\n"
         "the interfaces named, or of all.\n"
         "NAME is an interface's name (Ethernet4), a short form of it (Et4) or the\n"
         "kernel device that carries it (eth0, or NAMESPACE/DEVICE).",
         {
            {"--socket", "PATH", "the host agent's socket (default " + IntfApp::agentSocketPath() + ")"},
            {"--config-socket", "PATH",
             "the configuration agent's socket, for descriptions and configured\nstates (default " +
                   IntfApp::defaultConfigSocket() + "; left out when nothing answers; \"\" for none)",
             false, true},
            {"--json", "", "one JSON document per command (and per line with --watch),\nwith a \"version\" field"},
            {"--watch", "SECONDS", "show again every SECONDS until interrupted"},
            {"--raw", "", "absolute counters rather than since the last clear"},
            {"--shm-prefix", "PREFIX", "the host agent's shared-memory prefix (default \"" + Smash::shmPrefix() + "\")"},
         },
         "Exit status: 0 shown (or cleared), 1 no agent, no such interface or nothing\ncleared, 2 bad arguments.");
}

// A mounted tree, or why there is none.
struct Mount {
   Mount(Kel::ActivityLoop & loop, std::string const & socket, int timeoutMs) : client(loop, socket, "") {
      client.onClosed = [this](Kel::String8 const & why) { reason = why.str(); };
      reason = client.lastClose().str();  // a connection refused at once
      auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      while (!client.synced() && reason.empty() && std::chrono::steady_clock::now() < end) loop.runOnce(20);
      if (!client.synced() && reason.empty()) reason = "no answer in " + std::to_string(timeoutMs) + " ms";
   }
   Kel::NboAttrLog::Client client;
   std::string reason;
};

// What to tell an operator whose agent did not answer: only when nothing
// listens is it a matter of starting the agent.
std::string advice(Mount const & m) {
   int err = m.client.lastConnectError();
   if (err == ENOENT || err == ECONNREFUSED) return "Is intf-agent running? Start it, or name its socket with --socket.";
   if (err == EACCES || m.reason.find("not allowed") != std::string::npos) {
      return "You may not read it: ask for --allow-user or --allow-group on intf-agent.";
   }
   if (err == EAGAIN || m.reason.find("connections") != std::string::npos) {
      return "The agent holds as many connections as it allows: try again.";
   }
   return "";
}

template <class T>
Kel::Ptr<T> at(Kel::Ptr<Kel::Entity> const & root, const char * path) {
   if (!root) return nullptr;
   return Kel::Ptr<T>(dynamic_cast<T *>(root->entity(path).ptr()));
}

std::optional<bool> configuredAdmin(Interface::IntfConfig const & c) {
   auto st = c.adminEnabledStateLocal();
   if (st == Interface::IntfEnabledState::unknownEnabledState) return std::nullopt;
   return st == Interface::IntfEnabledState::enabled;
}

// The agent's table of clears, as its tree names it.
Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> snapshots(Kel::Ptr<Kel::Entity> const & agent) {
   return at<Smash::Interface::AllIntfCounterSnapshotDir>(agent, "interface/counter/eth/snapshot");
}

// `raw`: the absolute counters, else counts since the last clear.
std::vector<IntfApp::IntfView> views(Kel::Ptr<Kel::Entity> const & agent, Kel::Ptr<Kel::Entity> const & config,
                                     bool raw) {
   std::vector<IntfApp::IntfView> rows;
   auto statuses = at<Interface::AgentIntfStatusDir>(agent, "interface/status/eth/intf");
   if (!statuses) return rows;
   Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const> clears = snapshots(agent);
   auto locals = at<Interface::AllIntfStatusLocalDir>(agent, "interface/status/local");
   auto configs = at<Interface::AllIntfConfigDir>(config, "intf");
   auto namespaces = at<Interface::AllIntfNamespaceConfigDir>(config, "namespace");
   auto global = at<Interface::GlobalIntfConfig>(config, "global");
   double globalInterval = global ? double(global->loadInterval().val()) : 300;
   auto fromConfig = [&](IntfApp::IntfView & v) {
      v.loadInterval = globalInterval;
      auto c = configs ? configs->intfConfig(v.intfId) : nullptr;
      if (!c) return;
      v.description = c->description().str();
      v.adminConfigured = configuredAdmin(*c);
      if (!c->loadInterval().useDefault()) v.loadInterval = c->loadInterval().val();
   };
   std::set<uint64_t> modelled;
   for (auto const & m : statuses->intfStatusRange()) {
      Interface::IntfStatus::Ptr s = m.value();
      IntfApp::IntfView v;
      v.intfId = s->intfId();
      modelled.insert(v.intfId.intfIdValue());
      v.device = s->deviceName().str();
      v.adminUp = s->active();
      v.mtu = s->mtu();
      v.maxMtu = s->maxMtu();
      v.operStatus = s->operStatus();
      v.lastChange = s->operStatusChange().time();
      v.changes = s->operStatusChange().count();
      if (locals) {
         if (auto l = locals->intfStatusLocal(v.intfId)) v.netNs = l->netNsName().name().str();
      }
      fromConfig(v);
      if (auto c = s->counter()) {
         v.hasCounters = true;
         if (auto const * row = dynamic_cast<Interface::SmashIntfCounter const *>(c.ptr())) {
            row->counters(&v.stats, &v.rates);
            v.countersStale = !row->available();
         } else {
            v.stats = c->statistics();
            v.rates = c->rates();
         }
         v.unmeasured = IntfApp::kernelUnmeasured;
         if (!raw) {
            Smash::Interface::IntfCounter snapshot;
            IntfApp::ClearState clear;
            v.stats = IntfApp::sinceClear(v.stats, IntfApp::snapshotOf(clears, v.intfId, &snapshot), &clear);
            v.clear = clear;
         }
      }
      rows.push_back(std::move(v));
   }
   // Configured, but carried by no device.
   if (configs) {
      for (auto const & m : configs->intfConfigRange()) {
         if (modelled.count(m.key().intfIdValue())) continue;
         IntfApp::IntfView v;
         v.intfId = m.key();
         v.present = false;
         v.operStatus = Interface::IntfOperStatus::intfOperNotPresent;
         if (namespaces) {
            if (auto n = namespaces->intfNamespaceConfig(v.intfId)) v.netNs = n->netNsName().name().str();
         }
         fromConfig(v);
         rows.push_back(std::move(v));
      }
   }
   return rows;
}

std::string render(std::string const & command, std::string const & name, bool json,
                   std::vector<IntfApp::IntfView> rows, std::string * error) {
   if (command == "interface") {
      int i = IntfApp::findInterface(rows, name, error);
      if (i < 0) return {};
      if (json) return IntfApp::toJson(command, {rows[size_t(i)]});
      return IntfApp::interfaceDetail(rows[size_t(i)], double(std::time(nullptr)));
   }
   if (json) return IntfApp::toJson(command, std::move(rows));
   if (command == "status") return IntfApp::statusTable(std::move(rows));
   if (command == "counters") return IntfApp::countersTable(std::move(rows), double(std::time(nullptr)));
   return IntfApp::ratesTable(std::move(rows));
}

double wallNow() {
   return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Clears the counters of the interfaces `names` names (all when none): every
// name is resolved before anything is written. "" or why nothing was.
std::string clear(Kel::Ptr<Kel::Entity> const & agent, std::vector<std::string> const & names, std::string * done) {
   auto table = snapshots(agent);
   if (!table) return "the agent keeps no cleared counters (interface/counter/eth/snapshot)";
   std::vector<IntfApp::IntfView> rows = views(agent, nullptr, true);
   std::vector<IntfApp::IntfView const *> chosen;
   for (auto const & n : names) {
      std::string why;
      int i = IntfApp::findInterface(rows, n, &why);
      if (i < 0) return why;
      chosen.push_back(&rows[size_t(i)]);
   }
   if (names.empty()) {
      for (auto const & v : rows) chosen.push_back(&v);
   }
   std::vector<Smash::Interface::IntfCounter> live;
   for (auto const * v : chosen) {
      if (v->countersStale) return v->intfId.stringValue().str() + ": its counters cannot be read just now";
      if (!v->hasCounters) {
         if (names.empty()) continue;
         return v->intfId.stringValue().str() + " has no counters";
      }
      Smash::Interface::IntfCounter row;
      row.keyIs(v->intfId);
      row.statisticsIs(v->stats);
      live.push_back(row);
   }
   std::string why = IntfApp::clearCounters(*table, live, wallNow(), 2000);
   if (!why.empty()) return why;
   *done = "Cleared the counters of " + (live.size() == 1 ? live[0].key().stringValue().str()
                                                          : std::to_string(live.size()) + " interfaces");
   return "";
}

} // namespace

int main(int argc, char ** argv) {
   IntfApp::CommandLine cl = commandLine();
   if (int status = cl.parse(argc, argv)) return status < 0 ? 0 : status;
   auto const & words = cl.words();
   std::string command = words.empty() ? "" : words[0];
   if (command == "clear" && (words.size() < 2 || words[1] != "counters")) {
      cl.usage(stderr);
      return cl.bad("clear takes \"counters\" and interface names");
   }
   bool known = command == "status" || command == "counters" || command == "rates" || command == "interface";
   if (command != "clear" && (!known || (command == "interface") != (words.size() == 2) || words.size() > 2)) {
      cl.usage(stderr);
      return cl.bad(!known ? (command.empty() ? "no command" : "unknown command \"" + command + "\"")
                           : command == "interface" ? "interface takes one name"
                                                    : command + " takes no name");
   }
   double watch = 0;
   if (cl.has("--watch")) {
      char * end = nullptr;
      std::string v = cl.value("--watch");
      watch = std::strtod(v.c_str(), &end);
      if (*end || !(watch > 0)) return cl.bad("--watch wants a number of seconds above 0, not \"" + v + "\"");
   }
   if (cl.has("--shm-prefix")) Smash::shmPrefixIs(cl.value("--shm-prefix"));
   bool json = cl.has("--json");
   std::string socket = cl.value("--socket", IntfApp::agentSocketPath());
   std::string configSocket = cl.value("--config-socket", IntfApp::defaultConfigSocket());
   std::signal(SIGPIPE, SIG_IGN);
   std::signal(SIGINT, [](int) { interrupted = 1; });
   std::signal(SIGTERM, [](int) { interrupted = 1; });
   // Connection failures are reported below, in the operator's words.
   Kel::traceLevelIs("Kel::NboAttrLog", -1);
   Kel::traceLevelIs("Kel::Agent", -1);
   struct Quiet : Kel::LogSink {
      void write(Kel::LogEvent const &) override {}
   };
   Kel::logSinkIs(std::make_shared<Quiet>());

   Kel::ActivityLoop loop;
   Mount agent(loop, socket, 3000);
   if (!agent.client.synced()) {
      std::cerr << "intf-show: no interface agent answers at " << socket << " (" << agent.reason << ").\n"
                << advice(agent) << "\n";
      return 1;
   }
   if (command == "clear") {
      std::string done;
      std::string why = clear(agent.client.root(), std::vector<std::string>(words.begin() + 2, words.end()), &done);
      if (!why.empty()) {
         std::cerr << "intf-show: clear counters: " << why << "; nothing cleared\n";
         return 1;
      }
      std::cout << done << "\n";
      return 0;
   }
   std::unique_ptr<Mount> config;
   if (!configSocket.empty()) {
      config = std::make_unique<Mount>(loop, configSocket, 500);
      if (!config->client.synced()) config.reset();  // descriptions and admin states are optional
   }
   // Redrawn in place on a terminal only; elsewhere each showing follows the last.
   bool terminal = ::isatty(1) && !json;
   for (;;) {
      std::string error;
      std::string out = render(command, words.size() == 2 ? words[1] : "", json,
                               views(agent.client.root(), config ? config->client.root() : nullptr, cl.has("--raw")), &error);
      if (!error.empty()) {
         std::cerr << "intf-show: " << error << "\n";
         return 1;
      }
      if (watch > 0 && terminal) std::cout << "\033[H\033[2J";
      std::cout << out << std::flush;
      if (watch <= 0) return 0;
      // Keep the mounted tree current while waiting.
      auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(watch);
      while (!interrupted && std::chrono::steady_clock::now() < end) loop.runOnce(50);
      if (interrupted) return 0;
      if (!agent.reason.empty()) {
         std::cerr << "intf-show: the agent went away (" << agent.reason << ")\n";
         return 1;
      }
   }
}
