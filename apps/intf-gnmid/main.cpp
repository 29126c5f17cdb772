// intf-gnmid: the gNMI telemetry server of the interface agents. It mounts
// the host agent's tree (and the configuration agent's, when it answers),
// reads counters from the agent's shared-memory table, and serves the
// OpenConfig interfaces model to gNMI collectors: Capabilities, Get,
// Subscribe (STREAM, ONCE, POLL); Set is refused. It changes nothing on
// the host. See Engine.h and Service.h.
#include "AgentTree.h"
#include "Engine.h"
#include "GnmidLog.h"
#include "Inbox.h"
#include "Paths.h"
#include "Service.h"
#include "Signals.h"

#include <Kel/Trace.h>
#include <Smash/Table.h>

#include <grpcpp/grpcpp.h>
#include <grpcpp/security/server_credentials.h>

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

constexpr char const * program = "intf-gnmid";

void usage(std::FILE * to) {
   std::fprintf(to,
                "usage: %s [--listen ADDRESS:PORT] [--socket PATH] [--config-socket PATH] [--shm-prefix PREFIX]\n"
                "          [--tls-cert FILE --tls-key FILE [--tls-client-ca FILE]] [--insecure]\n"
                "          [--client-queue-bytes N]\n"
                "Serves the interfaces the host agent models to gNMI collectors (OpenConfig paths).\n"
                "  --listen ADDRESS:PORT  where to serve (default 127.0.0.1:9339; port 0 picks a free\n"
                "                         one, named in the start message)\n"
                "  --socket PATH          the host agent's socket (default %s)\n"
                "  --config-socket PATH   the configuration agent's socket, for descriptions, MTUs\n"
                "                         and admin states (default %s; \"\" for none)\n"
                "  --shm-prefix PREFIX    the agents' shared-memory prefix\n"
                "  --tls-cert FILE, --tls-key FILE  serve TLS with this certificate and key (PEM)\n"
                "  --tls-client-ca FILE   also require client certificates signed by these CAs\n"
                "  --insecure             allow plain text on an address that is not loopback\n"
                "  --client-queue-bytes N what one collector may have waiting before its stream is\n"
                "                         ended (default 16777216)\n"
                "SIGTERM or SIGINT stop it. Exit status: 0 stopped, 1 cannot start, 2 bad arguments.\n",
                program, IntfApp::agentSocketPath().c_str(), IntfApp::defaultConfigSocket().c_str());
}

struct Options {
   std::string listen = "127.0.0.1:9339";
   std::string socket = IntfApp::agentSocketPath();
   std::string configSocket = IntfApp::defaultConfigSocket();
   std::string shmPrefix, cert, key, clientCa, queueText;
   bool insecure = false;
   size_t queueBytes = 16u << 20;
};

int bad(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 2;
}

// The host part of ADDRESS:PORT names this machine's loopback.
bool loopback(std::string const & listen) {
   size_t colon = listen.rfind(':');
   std::string host = colon == std::string::npos ? listen : listen.substr(0, colon);
   if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
   return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

// Returns 0 to go on, else the exit status (-1 after --help).
int parseArgs(int argc, char ** argv, Options * o) {
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      if (a == "--help" || a == "-h") {
         usage(stdout);
         return -1;
      }
      if (a == "--insecure") {
         o->insecure = true;
         continue;
      }
      std::string * target = a == "--listen"             ? &o->listen
                           : a == "--socket"             ? &o->socket
                           : a == "--config-socket"      ? &o->configSocket
                           : a == "--shm-prefix"         ? &o->shmPrefix
                           : a == "--tls-cert"           ? &o->cert
                           : a == "--tls-key"            ? &o->key
                           : a == "--tls-client-ca"      ? &o->clientCa
                           : a == "--client-queue-bytes" ? &o->queueText
                                                         : nullptr;
      if (!target) {
         usage(stderr);
         return bad("unknown argument " + a);
      }
      if (i + 1 == argc) return bad(a + " needs a value");
      *target = argv[++i];
      if (target != &o->configSocket && target->empty()) return bad(a + " needs a value");
   }
   if (o->cert.empty() != o->key.empty()) return bad("--tls-cert and --tls-key go together");
   if (!o->clientCa.empty() && o->cert.empty()) return bad("--tls-client-ca needs --tls-cert and --tls-key");
   if (o->listen.find(':') == std::string::npos) return bad("--listen takes ADDRESS:PORT, not " + o->listen);
   if (o->cert.empty() && !o->insecure && !loopback(o->listen)) {
      return bad("refusing plain text on " + o->listen +
                 ": collectors would be unauthenticated; give --tls-cert and --tls-key, or --insecure");
   }
   if (!o->queueText.empty()) {
      char * end = nullptr;
      errno = 0;
      unsigned long long n = std::strtoull(o->queueText.c_str(), &end, 10);
      if (errno || *end || n < 4096 || n > (1ull << 32)) {
         return bad("--client-queue-bytes takes 4096 to 4294967296, not " + o->queueText);
      }
      o->queueBytes = size_t(n);
   }
   if (!o->shmPrefix.empty() &&
       (o->shmPrefix[0] != '/' || o->shmPrefix.find('/', 1) != std::string::npos || o->shmPrefix.size() > 100)) {
      return bad("--shm-prefix must start with '/', hold no other '/' and be at most 100 bytes");
   }
   return 0;
}

bool readFile(std::string const & path, std::string * out) {
   std::ifstream f(path);
   if (!f) return false;
   std::ostringstream s;
   s << f.rdbuf();
   *out = s.str();
   return bool(f) || f.eof();
}

int fatal(std::string const & why) {
   std::fprintf(stderr, "%s: %s\n", program, why.c_str());
   return 1;
}

int run(Options const & o) {
   ::signal(SIGPIPE, SIG_IGN);
   if (!o.shmPrefix.empty()) Smash::shmPrefixIs(o.shmPrefix);
   // A missing agent is retried quietly; the collectors see no interfaces meanwhile.
   Kel::traceLevelIs("Kel::NboAttrLog", -1);
   Kel::traceLevelIs("Kel::Agent", -1);

   std::shared_ptr<grpc::ServerCredentials> creds;
   std::string security = "plain text";
   if (!o.cert.empty()) {
      grpc::SslServerCredentialsOptions ssl;
      grpc::SslServerCredentialsOptions::PemKeyCertPair pair;
      if (!readFile(o.key, &pair.private_key)) return fatal("cannot read " + o.key + ": " + std::strerror(errno));
      if (!readFile(o.cert, &pair.cert_chain)) return fatal("cannot read " + o.cert + ": " + std::strerror(errno));
      ssl.pem_key_cert_pairs.push_back(pair);
      security = "TLS";
      if (!o.clientCa.empty()) {
         if (!readFile(o.clientCa, &ssl.pem_root_certs)) {
            return fatal("cannot read " + o.clientCa + ": " + std::strerror(errno));
         }
         ssl.client_certificate_request = GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY;
         security = "TLS, client certificates required";
      }
      creds = grpc::SslServerCredentials(ssl);
   } else {
      creds = grpc::InsecureServerCredentials();
   }

   IntfApp::Signals signals;
   if (!signals.valid()) return fatal(std::string("signalfd: ") + std::strerror(errno));
   Kel::ActivityLoop loop;
   Gnmi::Inbox inbox;
   if (!inbox.valid()) return fatal(std::string("eventfd: ") + std::strerror(errno));
   Gnmi::Engine engine(loop, {o.socket, o.configSocket});
   Gnmi::Service service(inbox, engine, {o.queueBytes});

   grpc::ServerBuilder builder;
   int port = 0;
   builder.AddListeningPort(o.listen, creds, &port);
   builder.RegisterService(&service);
   builder.SetMaxReceiveMessageSize(1 << 20);
   std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
   if (!server || port == 0) return fatal("cannot serve on " + o.listen);
   std::string at = o.listen.substr(0, o.listen.rfind(':')) + ":" + std::to_string(port);

   loop.add(&signals);
   loop.add(&inbox);
   Kel::logEvent(Gnmi::gnmidStartedMessage(), at, security, o.socket);
   while (!signals.stop()) {
      loop.runOnce(-1);
      engine.settle();
   }
   Kel::logEvent(Gnmi::gnmidStoppingMessage(), std::string(::strsignal(signals.stop())));
   // The server's shutdown waits for the calls to end, and ending them
   // takes the loop (requests are answered there): keep it turning.
   std::atomic<bool> down{false};
   std::thread stopper([&] {
      server->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(2));
      down = true;
      inbox.post([] {});
   });
   while (!down) {
      loop.runOnce(100);
      engine.settle();
   }
   stopper.join();
   loop.runOnce(0);
   engine.settle();
   loop.remove(&inbox);
   loop.remove(&signals);
   return 0;
}

} // namespace

int main(int argc, char ** argv) {
   Options o;
   if (int status = parseArgs(argc, argv, &o)) return status < 0 ? 0 : status;
   return run(o);
}
