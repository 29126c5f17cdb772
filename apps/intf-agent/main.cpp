// intf-agent: the host interface agent. It models the kernel's network
// devices (of the default namespace and of every named namespace) as
// interfaces, publishes their statuses and counters to the other agents
// over a Unix-domain socket and a shared-memory counter table, applies the
// interfaces' configuration from intf-configd to the devices, and answers
// monitoring scrapes. The served tree is described in ServedTree.h.
#include "ConfigFile.h"
#include "ConfigMount.h"
#include "AgentLog.h"
#include "HostAgent.h"
#include "MetricsServer.h"
#include "NsSocket.h"
#include "Paths.h"
#include "Signals.h"

#include <Kel/Agent.h>
#include <Smash/Table.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace {

constexpr char const * program = "intf-agent";

void usage(std::FILE * to) {
   std::fprintf(to,
                "usage: %s [--socket PATH] [--config-socket PATH] [--config FILE] [--interval SECONDS]\n"
                "          [--metrics ADDRESS:PORT] [--netns-dir DIR] [--shm-prefix PREFIX]\n"
                "Models the kernel's network devices as interfaces and serves their status and\n"
                "counters to the interface agents.\n"
                "  --socket PATH         where to serve (default %s); a path\n"
                "                        starting with '@' is an abstract socket\n"
                "  --config-socket PATH  intf-configd's socket, whose configuration is applied\n"
                "                        to the devices (default %s)\n"
                "  --config FILE         a configuration file whose device= settings map devices\n"
                "                        to interfaces (read at start)\n"
                "  --interval SECONDS    how often counters are sampled (default 1; fractions allowed)\n"
                "  --metrics ADDRESS:PORT  answer GET /metrics there (\"127.0.0.1:9100\", \":9100\",\n"
                "                        \"[::1]:9100\")\n"
                "  --netns-dir DIR       where named network namespaces are (default %s)\n"
                "  --shm-prefix PREFIX   name prefix of the shared-memory counter table (\"/name-\")\n"
                "  --help                this text\n"
                "SIGTERM or SIGINT stop the agent. Exit status: 0 stopped, 1 cannot start,\n"
                "2 bad arguments.\n",
                program, IntfApp::agentSocketPath().c_str(), IntfApp::defaultConfigSocket().c_str(),
                IntfApp::standardNetNsDir);
}

struct Options {
   std::string socket, configSocket, config, metrics, shmPrefix;
   std::string netNsDir = IntfApp::standardNetNsDir;
   double interval = 1;
   std::string intervalText = "1";
};

int bad(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 2;
}

// Returns 0 to go on, else the exit status (-1 after --help).
int parseArgs(int argc, char ** argv, Options * o) {
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      std::string value;
      bool inlineValue = false;
      if (size_t eq = a.find('='); a.rfind("--", 0) == 0 && eq != std::string::npos) {
         value = a.substr(eq + 1);
         a.resize(eq);
         inlineValue = true;
      }
      if ((a == "--help" || a == "-h") && !inlineValue) {
         usage(stdout);
         return -1;
      }
      std::string * target = a == "--socket"          ? &o->socket
                           : a == "--config-socket" ? &o->configSocket
                           : a == "--config"        ? &o->config
                           : a == "--metrics"       ? &o->metrics
                           : a == "--shm-prefix"    ? &o->shmPrefix
                           : a == "--netns-dir"     ? &o->netNsDir
                           : a == "--interval"      ? &o->intervalText
                                                    : nullptr;
      if (!target) {
         usage(stderr);
         return bad("unknown argument " + std::string(argv[i]));
      }
      if (!inlineValue) {
         if (i + 1 == argc) return bad(a + " needs a value");
         value = argv[++i];
      }
      if (value.empty()) return bad(a + " needs a value");
      *target = value;
   }
   char * end = nullptr;
   errno = 0;
   o->interval = std::strtod(o->intervalText.c_str(), &end);
   if (errno || *end || !std::isfinite(o->interval) || o->interval < 0.01 || o->interval > 3600) {
      return bad("--interval takes seconds from 0.01 to 3600, not " + o->intervalText);
   }
   if (!o->shmPrefix.empty() &&
       (o->shmPrefix[0] != '/' || o->shmPrefix.find('/', 1) != std::string::npos || o->shmPrefix.size() > 100)) {
      return bad("--shm-prefix must start with '/', hold no other '/' and be at most 100 bytes");
   }
   while (o->netNsDir.size() > 1 && o->netNsDir.back() == '/') o->netNsDir.pop_back();
   return 0;
}

int fatal(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 1;
}

int run(Options const & o) {
   ::signal(SIGPIPE, SIG_IGN);
   if (!o.shmPrefix.empty()) Smash::shmPrefixIs(o.shmPrefix);

   IntfApp::ConfigFile deviceConfig;
   if (!o.config.empty()) {
      try {
         deviceConfig = IntfApp::readConfigFile(o.config);
      } catch (std::exception const & e) {
         return fatal(e.what());
      }
   }
   std::string socket = o.socket, configSocket = o.configSocket;
   if (socket.empty() || configSocket.empty()) {
      std::string why = IntfApp::makeRuntimeDir(IntfApp::runtimeDir());
      if (!why.empty() && socket.empty()) return fatal(why);
      if (socket.empty()) socket = IntfApp::agentSocketPath();
      if (configSocket.empty()) configSocket = IntfApp::defaultConfigSocket();
   }
   IntfApp::Signals signals;
   if (!signals.valid()) return fatal(std::string("signalfd: ") + std::strerror(errno));
   if (IntfApp::someoneListens(socket)) return fatal("another server is listening on " + socket);

   Kel::ActivityLoop loop;
   IntfApp::HostAgent * agentPtr = nullptr;
   IntfApp::ConfigMount config(loop, configSocket, [&] {
      if (agentPtr) agentPtr->configChanged();
   });
   std::optional<IntfApp::HostAgent> agent;
   try {
      agent.emplace(loop, o.netNsDir, deviceConfig, &config);
   } catch (std::exception const & e) {
      return fatal(std::string("counter table: ") + e.what());
   }
   agentPtr = &*agent;
   std::string why;
   if (!agent->start(&why)) return fatal(why);

   std::optional<IntfApp::MetricsServer> metrics;
   std::string metricsAt = "off";
   if (!o.metrics.empty()) {
      metrics.emplace(o.metrics, [&] { return agent->metricsText(); });
      if (!metrics->valid()) return fatal("metrics: " + metrics->error());
      loop.add(&*metrics);
      metricsAt = "on " + o.metrics.substr(0, o.metrics.rfind(':')) + ":" + std::to_string(metrics->port());
   }
   Kel::NboAttrLog::Server server(loop, socket, agent->root(), program);
   if (!server.valid()) {
      if (metrics) loop.remove(&*metrics);
      return fatal(server.error());
   }
   auto period = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(o.interval));
   auto timer = loop.timerIs(period, [&] { agent->sample(); }, period);
   loop.add(&signals);
   Kel::logEvent(IntfApp::agentStartedMessage(), socket, o.intervalText, metricsAt);

   while (!signals.stop()) {
      loop.runOnce(-1);
      agent->settle();
   }
   Kel::logEvent(IntfApp::agentStoppingMessage(), std::string(::strsignal(signals.stop())));
   loop.timerDel(timer);
   loop.remove(&signals);
   if (metrics) loop.remove(&*metrics);
   return 0;  // the server's destructor removes the socket file
}

} // namespace

int main(int argc, char ** argv) {
   Options o;
   if (int status = parseArgs(argc, argv, &o)) return status < 0 ? 0 : status;
   return run(o);
}
