// intf-show: the operator's view of the interfaces the host agent models.
//
//   intf-show [options] status | counters | rates | interface NAME
//     --socket PATH          the host agent's socket (default: see Paths.h)
//     --config-socket PATH   the configuration agent's socket, for
//                            descriptions, admin states and load intervals
//                            (optional: left out when nothing answers)
//     --json                 JSON for scripts instead of tables
//     --watch SECONDS        redraw in place every SECONDS until interrupted
//     --shm-prefix PREFIX    the agents' shared-memory prefix
//
// It mounts the agent's tree once and reads counters straight from shared
// memory: status->counter() finds each interface's row of the agent's
// counter table, and every read takes the row as it is now. No request
// goes to the agent per read.
#include "Paths.h"
#include "ShowFormat.h"

#include <Intf/Counter>
#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Smash/Table.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

volatile std::sig_atomic_t interrupted = 0;

struct Options {
   std::string socket = IntfApp::agentSocketPath();
   std::string configSocket = IntfApp::defaultConfigSocket();
   std::string command;
   std::string name;
   bool json = false;
   double watch = 0;
};

int usage(std::ostream & os, int rc) {
   os << "usage: intf-show [--socket PATH] [--config-socket PATH] [--json] [--watch SECONDS]\n"
         "                 [--shm-prefix PREFIX] status | counters | rates | interface NAME\n";
   return rc;
}

std::optional<Options> parse(int argc, char ** argv, int * rc) {
   Options o;
   std::vector<std::string> words;
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      auto value = [&](std::string & out) {
         if (i + 1 >= argc) return false;
         out = argv[++i];
         return true;
      };
      std::string v;
      if (a == "--help" || a == "-h") {
         *rc = usage(std::cout, 0);
         return std::nullopt;
      } else if (a == "--json") {
         o.json = true;
      } else if (a == "--socket" && value(v)) {
         o.socket = v;
      } else if (a == "--config-socket" && value(v)) {
         o.configSocket = v;
      } else if (a == "--shm-prefix" && value(v)) {
         Smash::shmPrefixIs(v);
      } else if (a == "--watch" && value(v)) {
         char * end = nullptr;
         o.watch = std::strtod(v.c_str(), &end);
         if (*end || !(o.watch > 0)) {
            std::cerr << "intf-show: --watch wants a number of seconds above 0, not \"" << v << "\"\n";
            *rc = 2;
            return std::nullopt;
         }
      } else if (a.rfind("--", 0) == 0) {
         std::cerr << "intf-show: unknown option " << a << "\n";
         *rc = usage(std::cerr, 2);
         return std::nullopt;
      } else {
         words.push_back(a);
      }
   }
   if (words.empty()) {
      *rc = usage(std::cerr, 2);
      return std::nullopt;
   }
   o.command = words[0];
   bool known = o.command == "status" || o.command == "counters" || o.command == "rates" ||
                o.command == "interface";
   if (!known || (o.command == "interface") != (words.size() == 2) || words.size() > 2) {
      std::cerr << "intf-show: " << (known ? "interface takes one name" : "unknown command \"" + o.command + "\"")
                << "\n";
      *rc = usage(std::cerr, 2);
      return std::nullopt;
   }
   if (words.size() == 2) o.name = words[1];
   return o;
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

template <class T>
Kel::Ptr<T> at(Kel::Ptr<Kel::Entity> const & root, const char * path) {
   if (!root) return nullptr;
   return Kel::Ptr<T>(dynamic_cast<T *>(root->entity(path).ptr()));
}

std::vector<IntfApp::IntfView> views(Kel::Ptr<Kel::Entity> const & agent, Kel::Ptr<Kel::Entity> const & config) {
   std::vector<IntfApp::IntfView> rows;
   auto statuses = at<Interface::AgentIntfStatusDir>(agent, "interface/status/eth/intf");
   if (!statuses) return rows;
   auto locals = at<Interface::AllIntfStatusLocalDir>(agent, "interface/status/local");
   auto configs = at<Interface::AllIntfConfigDir>(config, "intf");
   auto global = at<Interface::GlobalIntfConfig>(config, "global");
   for (auto const & m : statuses->intfStatusRange()) {
      Interface::IntfStatus::Ptr s = m.value();
      IntfApp::IntfView v;
      v.intfId = s->intfId();
      v.device = s->deviceName().str();
      v.mtu = s->mtu();
      v.maxMtu = s->maxMtu();
      v.operStatus = s->operStatus();
      v.lastChange = s->operStatusChange().time();
      v.changes = s->operStatusChange().count();
      if (locals) {
         if (auto l = locals->intfStatusLocal(v.intfId)) v.netNs = l->netNsName().name().str();
      }
      if (global) v.loadInterval = global->loadInterval().val();
      if (configs) {
         if (auto c = configs->intfConfig(v.intfId)) {
            v.description = c->description().str();
            v.adminUp = c->adminEnabled();
            if (!c->loadInterval().useDefault()) v.loadInterval = c->loadInterval().val();
         }
      }
      if (auto c = s->counter()) {
         v.hasCounters = true;
         if (auto const * row = dynamic_cast<Interface::SmashIntfCounter const *>(c.ptr())) {
            row->counters(&v.stats, &v.rates);
            v.countersStale = !row->available();
         } else {
            v.stats = c->statistics();
            v.rates = c->rates();
         }
      }
      rows.push_back(std::move(v));
   }
   return rows;
}

std::string render(Options const & o, std::vector<IntfApp::IntfView> rows, std::string * error) {
   if (o.command == "interface") {
      Zenet::IntfId id;
      try {
         id = Zenet::IntfId(std::string_view(o.name));
      } catch (std::exception const &) {
         *error = "not an interface name: \"" + o.name + "\"";
         return {};
      }
      std::vector<IntfApp::IntfView> one;
      for (auto & r : rows) {
         if (r.intfId == id) one.push_back(r);
      }
      if (one.empty()) {
         *error = "the agent models no interface " + id.stringValue().str();
         return {};
      }
      if (o.json) return IntfApp::toJson(one);
      return IntfApp::interfaceDetail(one[0], double(std::time(nullptr)));
   }
   if (o.json) return IntfApp::toJson(std::move(rows));
   if (o.command == "status") return IntfApp::statusTable(std::move(rows));
   if (o.command == "counters") return IntfApp::countersTable(std::move(rows));
   return IntfApp::ratesTable(std::move(rows));
}

} // namespace

int main(int argc, char ** argv) {
   int rc = 0;
   auto options = parse(argc, argv, &rc);
   if (!options) return rc;
   Options const & o = *options;
   std::signal(SIGPIPE, SIG_IGN);
   std::signal(SIGINT, [](int) { interrupted = 1; });
   std::signal(SIGTERM, [](int) { interrupted = 1; });
   // Connection failures are reported below, in the operator's words.
   Kel::traceLevelIs("Kel::NboAttrLog", -1);
   Kel::traceLevelIs("Kel::Agent", -1);

   Kel::ActivityLoop loop;
   Mount agent(loop, o.socket, 3000);
   if (!agent.client.synced()) {
      std::cerr << "intf-show: no interface agent answers at " << o.socket << " (" << agent.reason
                << ").\nIs intf-agent running? Start it, or name its socket with --socket.\n";
      return 1;
   }
   std::unique_ptr<Mount> config;
   if (!o.configSocket.empty()) {
      config = std::make_unique<Mount>(loop, o.configSocket, 500);
      if (!config->client.synced()) config.reset();  // descriptions and admin states are optional
   }
   for (;;) {
      std::string error;
      std::string out = render(o, views(agent.client.root(), config ? config->client.root() : nullptr), &error);
      if (!error.empty()) {
         std::cerr << "intf-show: " << error << "\n";
         return 1;
      }
      if (o.watch > 0) std::cout << "\033[H\033[2J";
      std::cout << out << std::flush;
      if (o.watch <= 0) return 0;
      // Keep the mounted tree current while waiting.
      auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(o.watch);
      while (!interrupted && std::chrono::steady_clock::now() < end) loop.runOnce(50);
      if (interrupted) return 0;
      if (!agent.reason.empty()) {
         std::cerr << "intf-show: the agent went away (" << agent.reason << ")\n";
         return 1;
      }
   }
}
