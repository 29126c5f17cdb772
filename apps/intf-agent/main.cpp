// intf-agent: the host interface agent. It models the kernel's network
// devices (of the default namespace and of every named namespace) as
// interfaces, publishes their statuses and counters to the other agents
// over a Unix-domain socket and a shared-memory counter table, applies the
// interfaces' configuration from intf-configd to the devices, and answers
// monitoring scrapes. The served tree is described in ServedTree.h.
// Its readers are root, its own user and those allowed on the command
// line; it takes configuration only from a server run by root, its own
// user or a user named with --config-user.
#include "AgentLog.h"
#include "CommandLine.h"
#include "ConfigFile.h"
#include "ConfigMount.h"
#include "ConfigReload.h"
#include "HostAgent.h"
#include "MetricsServer.h"
#include "NsSocket.h"
#include "Paths.h"
#include "PeerOptions.h"
#include "ProgramLog.h"
#include "Signals.h"

#include <Kel/Agent.h>
#include <Smash/Table.h>

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

IntfApp::CommandLine commandLine() {
   std::vector<IntfApp::OptionSpec> options = {
      {"--socket", "PATH",
       "where to serve (default " + IntfApp::agentSocketPath() + ");\na path starting with '@' is an abstract socket"},
      {"--config-socket", "PATH",
       "intf-configd's socket, whose configuration is applied to the devices\n(default " +
             IntfApp::defaultConfigSocket() + ")"},
      {"--config-user", "USER",
       "a user besides root and this agent's own whose configuration server\nis trusted (repeatable)",
       true},
      {"--config", "FILE",
       "a configuration file whose device= and netns= settings map devices to\ninterfaces (read again "
       "when it changes and on SIGHUP)"},
      {"--interval", "SECONDS", "how often counters are sampled (default 1; fractions allowed)"},
      {"--metrics", "ADDRESS:PORT",
       "answer GET /metrics there (\"127.0.0.1:9100\", \":9100\", \"[::1]:9100\")"},
      {"--netns-dir", "DIR", std::string("where named network namespaces are (default ") +
                                   IntfApp::standardNetNsDir + ")"},
      {"--shm-prefix", "PREFIX", "name prefix of the shared-memory counter table (\"/name-\", default \"" +
                                       Smash::shmPrefix() + "\")"},
      {"--log-level", "LEVEL",
       "the least severe log events written: " + std::string(IntfApp::logLevelNames) + "\n(default info)"},
   };
   for (auto & o : IntfApp::readerOptions("the status tree")) options.push_back(o);
   return IntfApp::CommandLine(
         program, "[options]",
         "Models the kernel's network devices as interfaces, serves their status and\n"
         "counters to the interface agents and applies their configured MTU and\n"
         "administrative state (only those the configuration sets).",
         options,
         "SIGHUP reads the --config file again; SIGTERM, SIGINT and SIGQUIT stop the\n"
         "agent, which removes its socket file; SIGUSR1 and SIGUSR2 are ignored. Log\n"
         "lines go to standard error, timed unless it is the journal. Exit status:\n"
         "0 stopped, 1 cannot start, 2 bad arguments.");
}

struct Options {
   std::string socket, configSocket, config, metrics, shmPrefix, netNsDir;
   double interval = 1;
   std::string intervalText;
   Kel::PeerTrust readers, configServers;
};

// Returns 0 to go on, else the exit status.
int check(IntfApp::CommandLine const & cl, Options * o) {
   if (!cl.words().empty()) return cl.bad("unexpected argument " + cl.words().front());
   o->socket = cl.value("--socket");
   o->configSocket = cl.value("--config-socket");
   o->config = cl.value("--config");
   o->metrics = cl.value("--metrics");
   o->shmPrefix = cl.value("--shm-prefix");
   o->netNsDir = cl.value("--netns-dir", IntfApp::standardNetNsDir);
   o->intervalText = cl.value("--interval", "1");
   char * end = nullptr;
   errno = 0;
   o->interval = std::strtod(o->intervalText.c_str(), &end);
   if (errno || *end || !std::isfinite(o->interval) || o->interval < 0.01 || o->interval > 3600) {
      return cl.bad("--interval takes seconds from 0.01 to 3600, not " + o->intervalText);
   }
   if (!o->shmPrefix.empty() &&
       (o->shmPrefix[0] != '/' || o->shmPrefix.find('/', 1) != std::string::npos || o->shmPrefix.size() > 100)) {
      return cl.bad("--shm-prefix must start with '/', hold no other '/' and be at most 100 bytes");
   }
   while (o->netNsDir.size() > 1 && o->netNsDir.back() == '/') o->netNsDir.pop_back();
   std::string why;
   if (!IntfApp::readersOf(cl, &o->readers, &why) ||
       !IntfApp::usersOf(cl.values("--config-user"), &o->configServers.uids, &why)) {
      return cl.bad(why);
   }
   why = IntfApp::logTo(cl.value("--log-level", "info"));
   if (!why.empty()) return cl.bad(why);
   return 0;
}

int fatal(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 1;
}

int run(Options const & o) {
   if (!o.shmPrefix.empty()) Smash::shmPrefixIs(o.shmPrefix);
   std::string socket = o.socket, configSocket = o.configSocket;
   if (socket.empty() || configSocket.empty()) {
      std::string why = IntfApp::makeRuntimeDir(IntfApp::runtimeDir());
      if (!why.empty() && socket.empty()) return fatal(why);
      if (socket.empty()) socket = IntfApp::agentSocketPath();
      if (configSocket.empty()) configSocket = IntfApp::defaultConfigSocket();
   }
   Kel::ActivityLoop loop;
   IntfApp::Signals signals;
   if (!signals.valid()) return fatal(std::string("signalfd: ") + std::strerror(errno));

   // The agent's own file: read now, followed from now on (watched before
   // it is read, so that an edit made meanwhile is not missed).
   IntfApp::HostAgent * agentPtr = nullptr;
   IntfApp::ConfigFile deviceConfig;
   std::string startError;
   std::optional<IntfApp::ConfigReload> mapping;
   if (!o.config.empty()) {
      mapping.emplace(
            loop, o.config,
            [&](IntfApp::ConfigFile const & cfg) {
               if (agentPtr) {
                  agentPtr->remap(cfg);
                  Kel::logEvent(IntfApp::mappingReloadedMessage(), o.config);
               } else {
                  deviceConfig = cfg;
               }
            },
            [&](IntfApp::ConfigError const & e) {
               if (agentPtr) {
                  Kel::logEvent(IntfApp::mappingRejectedMessage(), e.what());
               } else {
                  startError = e.what();
               }
            });
      mapping->load();
      if (!startError.empty()) return fatal(startError);
      if (!mapping->valid()) return fatal(mapping->error());
   }

   IntfApp::ConfigMount config(
         loop, configSocket, [&] {
            if (agentPtr) agentPtr->configChanged();
         },
         o.configServers);
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
   Kel::NboAttrLog::Server::Options access;
   access.readers = o.readers;
   Kel::NboAttrLog::Server server(loop, socket, agent->root(), program, access);
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
      if (signals.reloadRequested() && mapping && !signals.stop()) mapping->load();
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
   IntfApp::CommandLine cl = commandLine();
   if (int status = cl.parse(argc, argv)) return status < 0 ? 0 : status;
   Options o;
   if (int status = check(cl, &o)) return status;
   return run(o);
}
