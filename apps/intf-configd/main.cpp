// intf-configd: the configuration agent of the interface model. It reads the
// operator's configuration file (format in ConfigFile.h), turns it into the
// model's configuration entities and serves them to the other agents over a
// Unix-domain socket. The served tree is a Kel::Dir named "config" with
//
//   global     Interface::GlobalIntfConfig
//   intf       Interface::AllIntfConfigDir, an IntfConfig per interface
//   namespace  Interface::AllIntfNamespaceConfigDir, an IntfNamespaceConfig
//              per interface
//
// so a reader mounts "" for all of it or "intf" for the interfaces alone.
// The file is re-read when a write to it is finished and on SIGHUP (see
// ConfigReload.h); a file that cannot be used is reported with its line
// and changes nothing, so readers keep the last good configuration. Only
// what an edit changed travels to the readers. Readers are root, the
// agent's own user and those allowed on the command line.
#include "CommandLine.h"
#include "ConfigApply.h"
#include "ConfigFile.h"
#include "ConfigReload.h"
#include "Paths.h"
#include "PeerOptions.h"
#include "ProgramLog.h"
#include "Signals.h"

#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Kel/Log.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

namespace {

constexpr char const * program = "intf-configd";

// The operator-visible events. Each reload is an operator's edit, so none of
// them is rate-limited.
Kel::LogMessage const & loadedMessage() {
   static auto const & m = Kel::registerLogMessage(
         {"INTF_CONFIG_LOADED", Kel::LogSeverity::notice, "%s: %s interfaces configured, serving on %s",
          "The configuration agent read its file and serves it to the interface agents.", "", 0});
   return m;
}
Kel::LogMessage const & reloadedMessage() {
   static auto const & m = Kel::registerLogMessage(
         {"INTF_CONFIG_RELOADED", Kel::LogSeverity::notice, "%s: %s added, %s changed, %s removed",
          "The configuration file changed and was applied; the interfaces it added, changed and "
          "removed reach the interface agents.",
          "", 0});
   return m;
}
Kel::LogMessage const & rejectedMessage() {
   static auto const & m = Kel::registerLogMessage(
         {"INTF_CONFIG_REJECTED", Kel::LogSeverity::error, "%s",
          "The configuration file could not be used. Nothing was changed: the interface agents "
          "keep the previous configuration.",
          "Correct the named line of the file; it is read again when saved.", 0});
   return m;
}
Kel::LogMessage const & stoppingMessage() {
   static auto const & m = Kel::registerLogMessage(
         {"INTF_CONFIG_STOPPING", Kel::LogSeverity::notice, "stopping on %s",
          "The configuration agent was asked to stop; its readers lose their connection.", "", 0});
   return m;
}

struct Tree : IntfApp::ConfigTree {
   Kel::Dir::Ptr root = Kel::makePtr<Kel::Dir>(Kel::Name("config"));
   Tree() {
      global = Kel::makePtr<Interface::GlobalIntfConfig>(Kel::Name("global"));
      intfs = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("intf"));
      namespaces = Kel::makePtr<Interface::AllIntfNamespaceConfigDir>(Kel::Name("namespace"));
      root->entryIs(global);
      root->entryIs(intfs);
      root->entryIs(namespaces);
   }
};

std::string quoted(std::string const & s) {
   std::string q = "\"";
   for (char c : s) {
      if (c == '"' || c == '\\') q += '\\';
      q += c;
   }
   return q + "\"";
}

std::string interval(Interface::LoadInterval const & li) {
   if (li.useDefault()) return "default";
   char buf[32];
   std::snprintf(buf, sizeof buf, "%g", double(li.val()));
   return buf;
}

// What --once prints: the configuration as the agents will see it, every
// setting with the value it ends up with.
void printSummary(std::string const & path, IntfApp::ConfigFile const & cfg, Tree const & t) {
   using Interface::IntfEnabledState;
   unsigned up = 0, down = 0, unset = 0, otherNs = 0;
   for (auto const & s : cfg.intfs) {
      auto c = t.intfs->intfConfig(s.intfId);
      auto st = c->adminEnabledStateLocal();
      ++(st == IntfEnabledState::enabled ? up : st == IntfEnabledState::shutdown ? down : unset);
      if (t.namespaces->intfNamespaceConfig(s.intfId)->netNsName() !=
          Zenet::NamespaceName::defaultNamespace()) {
         ++otherNs;
      }
   }
   std::printf("%s: %zu interfaces (%u admin up, %u admin down, %u admin unset), %u outside the "
               "default namespace\n",
               path.c_str(), cfg.intfs.size(), up, down, unset, otherNs);
   std::printf("global load-interval=%s link-status-logging=%s\n", interval(t.global->loadInterval()).c_str(),
               t.global->linkStatusLogging() == Interface::IntfLoggingMode::off ? "off" : "on");
   for (auto const & s : cfg.intfs) {
      auto c = t.intfs->intfConfig(s.intfId);
      auto st = c->adminEnabledStateLocal();
      std::printf("%s admin=%s mtu=%s load-interval=%s netns=%s", s.intfId.stringValue().charPtr(),
                  st == IntfEnabledState::enabled ? "up" : st == IntfEnabledState::shutdown ? "down" : "unset",
                  IntfApp::setsMtu(*c) ? std::to_string(c->mtu()).c_str() : "unset",
                  interval(c->loadInterval()).c_str(),
                  t.namespaces->intfNamespaceConfig(s.intfId)->netNsName().name().charPtr());
      if (s.device) std::printf(" device=%s", s.device->c_str());
      if (!c->description().empty()) std::printf(" description=%s", quoted(c->description().str()).c_str());
      std::printf("\n");
   }
}

int fatal(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 1;
}

IntfApp::CommandLine commandLine() {
   std::vector<IntfApp::OptionSpec> options = {
      {"--config", "FILE", "the configuration file (its format: docs/OPERATORS.md)"},
      {"--socket", "PATH",
       "where to serve (default " + IntfApp::defaultConfigSocket() + ");\na path starting with '@' is an abstract socket"},
      {"--once", "", "check FILE: read and apply it, print what it configures and exit\n(0 when usable, 1 when not)"},
      {"--log-level", "LEVEL",
       "the least severe log events written: " + std::string(IntfApp::logLevelNames) + "\n(default info)"},
   };
   for (auto & o : IntfApp::readerOptions("the configuration")) options.push_back(o);
   return IntfApp::CommandLine(
         program, "--config FILE [--socket PATH] [--once] [options]",
         "Serves the interface configuration of FILE to the interface agents.", options,
         "FILE is read again when a write to it is finished and on SIGHUP; a file that\n"
         "cannot be used is reported with its line and the previous configuration stays.\n"
         "SIGTERM, SIGINT and SIGQUIT stop the agent, which removes its socket file;\n"
         "SIGUSR1 and SIGUSR2 are ignored. Log lines go to standard error, timed unless\n"
         "it is the journal. Exit status: 0 stopped, 1 unusable file or cannot serve,\n"
         "2 bad arguments.");
}

int run(IntfApp::CommandLine const & cl) {
   std::string config = cl.value("--config"), socket = cl.value("--socket");
   Tree tree;
   if (cl.has("--once")) {
      try {
         IntfApp::ConfigFile cfg = IntfApp::readConfigFile(config);
         IntfApp::applyConfig(cfg, tree);
         printSummary(config, cfg, tree);
         return 0;
      } catch (std::exception const & e) {
         return fatal(e.what());
      }
   }
   if (socket.empty()) {
      socket = IntfApp::defaultConfigSocket();
      std::string why = IntfApp::makeRuntimeDir(IntfApp::runtimeDir());
      if (!why.empty()) return fatal(why);
   }
   Kel::ActivityLoop loop;
   IntfApp::Signals signals;
   if (!signals.valid()) return fatal(std::string("signalfd: ") + std::strerror(errno));
   // The file is watched from before its first reading, so that an edit
   // made while the agent starts is not missed.
   bool started = false;
   std::string startError;
   IntfApp::ConfigReload reload(
         loop, config,
         [&](IntfApp::ConfigFile const & next) {
            // A parsed file holds only valid settings, so applying it does
            // not fail half-way; should it, the reason is reported like a
            // bad file's.
            try {
               auto c = IntfApp::applyConfig(next, tree);
               if (started) Kel::logEvent(reloadedMessage(), config, c.added, c.changed, c.removed);
            } catch (std::exception const & e) {
               Kel::logEvent(rejectedMessage(), config + ": " + e.what());
            }
         },
         [&](IntfApp::ConfigError const & e) {
            if (started) {
               Kel::logEvent(rejectedMessage(), e.what());
            } else {
               startError = e.what();
            }
         });
   reload.load();
   if (!startError.empty()) return fatal(startError);
   if (!reload.valid()) return fatal(reload.error());
   started = true;
   Kel::NboAttrLog::Server::Options access;
   std::string why;
   if (!IntfApp::readersOf(cl, &access.readers, &why)) return fatal(why);
   Kel::NboAttrLog::Server server(loop, socket, tree.root, program, access);
   if (!server.valid()) return fatal(server.error());
   loop.add(&signals);
   Kel::logEvent(loadedMessage(), config, tree.intfs->intfConfigSize(), socket);

   while (!signals.stop()) {
      loop.runOnce(-1);
      if (signals.reloadRequested() && !signals.stop()) reload.load();
   }
   Kel::logEvent(stoppingMessage(), std::string(::strsignal(signals.stop())));
   loop.remove(&signals);
   return 0;  // the server's destructor removes the socket file
}

} // namespace

int main(int argc, char ** argv) {
   IntfApp::CommandLine cl = commandLine();
   if (int status = cl.parse(argc, argv)) return status < 0 ? 0 : status;
   if (!cl.words().empty()) return cl.bad("unexpected argument " + cl.words().front());
   if (!cl.has("--config")) {
      cl.usage(stderr);
      return cl.bad("--config FILE is required");
   }
   std::string why = IntfApp::logTo(cl.value("--log-level", "info"));
   if (!why.empty()) return cl.bad(why);
   return run(cl);
}
