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
// The file is re-read whenever it is written or replaced, and on SIGHUP; a
// file that cannot be used is reported with its line and changes nothing,
// so readers keep the last good configuration. Only what an edit changed
// travels to the readers.
#include "ConfigApply.h"
#include "ConfigFile.h"
#include "FileWatch.h"
#include "Paths.h"
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

void usage(std::FILE * to) {
   std::fprintf(to,
                "usage: %s --config FILE [--socket PATH] [--once]\n"
                "Serves the interface configuration of FILE to the interface agents.\n"
                "  --config FILE   the configuration file\n"
                "  --socket PATH   where to serve (default %s); a path starting\n"
                "                  with '@' is an abstract socket\n"
                "  --once          check FILE: read and apply it, print what it configures\n"
                "                  and exit (0 when usable, 1 when not)\n"
                "  --help          this text\n"
                "FILE is re-read when it changes and on SIGHUP; a file that cannot be used is\n"
                "reported with its line and the previous configuration stays. SIGTERM or\n"
                "SIGINT stop the agent. Exit status: 0 stopped, 1 unusable file or cannot\n"
                "serve, 2 bad arguments.\n",
                program, IntfApp::defaultConfigSocket().c_str());
}

struct Options {
   std::string config;
   std::string socket;
   bool once = false;
};

// Returns 0 to go on, else the exit status (after --help or a bad argument).
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
      if (a == "--help" || a == "-h") {
         usage(stdout);
         return -1;
      }
      if (a == "--once" && !inlineValue) {
         o->once = true;
         continue;
      }
      if (a == "--config" || a == "--socket") {
         if (!inlineValue) {
            if (i + 1 == argc) {
               std::fprintf(stderr, "%s: %s needs a value\n", program, a.c_str());
               return 2;
            }
            value = argv[++i];
         }
         if (value.empty()) {
            std::fprintf(stderr, "%s: %s needs a value\n", program, a.c_str());
            return 2;
         }
         (a == "--config" ? o->config : o->socket) = value;
         continue;
      }
      std::fprintf(stderr, "%s: unknown argument %s\n", program, argv[i]);
      usage(stderr);
      return 2;
   }
   if (o->config.empty()) {
      std::fprintf(stderr, "%s: --config FILE is required\n", program);
      usage(stderr);
      return 2;
   }
   return 0;
}

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
      std::printf("%s admin=%s mtu=%u load-interval=%s netns=%s", s.intfId.stringValue().charPtr(),
                  st == IntfEnabledState::enabled ? "up" : st == IntfEnabledState::shutdown ? "down" : "unset",
                  c->mtu(), interval(c->loadInterval()).c_str(),
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

int run(Options const & o) {
   ::signal(SIGPIPE, SIG_IGN);
   Tree tree;
   Kel::ActivityLoop loop;
   // Watching starts before the first read, so an edit made while the
   // agent starts is not missed.
   bool changed = false;
   std::optional<IntfApp::FileWatch> watch;
   if (!o.once) {
      watch.emplace(o.config, [&] { changed = true; });
      if (!watch->valid()) return fatal(watch->error());
   }

   IntfApp::ConfigFile cfg;
   try {
      cfg = IntfApp::readConfigFile(o.config);
      IntfApp::applyConfig(cfg, tree);
   } catch (std::exception const & e) {
      return fatal(e.what());
   }
   if (o.once) {
      printSummary(o.config, cfg, tree);
      return 0;
   }

   std::string socket = o.socket;
   if (socket.empty()) {
      socket = IntfApp::defaultConfigSocket();
      std::string why = IntfApp::makeRuntimeDir(IntfApp::runtimeDir());
      if (!why.empty()) return fatal(why);
   }
   IntfApp::Signals signals(true);
   if (!signals.valid()) return fatal(std::string("signalfd: ") + std::strerror(errno));
   if (IntfApp::someoneListens(socket)) return fatal("another server is listening on " + socket);
   Kel::NboAttrLog::Server server(loop, socket, tree.root, program);
   if (!server.valid()) return fatal(server.error());
   loop.add(&signals);
   loop.add(&*watch);
   Kel::logEvent(loadedMessage(), o.config, cfg.intfs.size(), socket);

   auto reload = [&] {
      IntfApp::ConfigFile next;
      try {
         next = IntfApp::readConfigFile(o.config);
      } catch (IntfApp::ConfigError const & e) {
         Kel::logEvent(rejectedMessage(), e.what());
         return;
      }
      // A parsed file holds only valid settings, so applying it does not fail
      // half-way; should it, the reason is reported like a bad file's.
      try {
         auto c = IntfApp::applyConfig(next, tree);
         Kel::logEvent(reloadedMessage(), o.config, c.added, c.changed, c.removed);
      } catch (std::exception const & e) {
         Kel::logEvent(rejectedMessage(), o.config + ": " + e.what());
      }
   };
   while (!signals.stop()) {
      loop.runOnce(-1);
      if (signals.stop()) break;
      if (signals.reloadRequested()) changed = true;
      if (changed) {
         changed = false;
         reload();
      }
   }
   Kel::logEvent(stoppingMessage(), std::string(::strsignal(signals.stop())));
   loop.remove(&*watch);
   loop.remove(&signals);
   return 0;  // the server's destructor removes the socket file
}

} // namespace

int main(int argc, char ** argv) {
   Options o;
   if (int status = parseArgs(argc, argv, &o)) return status < 0 ? 0 : status;
   return run(o);
}
