// The host agent at work: its processor time per interface per sample over
// many namespaces' devices, the time of a monitoring scrape of its
// metrics page against the host metrics exporter an operator would run
// otherwise (only its network-device collector, the same devices), and a
// scrape's time while idle and slow clients crowd the metrics port.
#include "Bench.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace IntfBench {

namespace {

double now() {
   timespec ts;
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

int sh(std::string const & cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

pid_t spawn(std::vector<std::string> args) {
   pid_t pid = ::fork();
   if (pid == 0) {
      int devnull = ::open("/dev/null", O_WRONLY);
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
      std::vector<char *> argv;
      for (auto & a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
   }
   return pid;
}

void stop(pid_t pid) {
   if (pid <= 0) return;
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
}

// User and system time of a process so far, in seconds.
double cpuOf(pid_t pid) {
   std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
   std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
   size_t close = s.rfind(')');
   if (close == std::string::npos) return 0;
   std::istringstream rest(s.substr(close + 2));
   std::string field;
   double utime = 0, stime = 0;
   for (int i = 3; i <= 15 && rest >> field; ++i) {
      if (i == 14) utime = std::stod(field);
      if (i == 15) stime = std::stod(field);
   }
   return (utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

// The whole answer to GET /metrics on loopback, or "".
std::string get(int port) {
   int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(uint16_t(port));
   std::string out;
   if (::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) {
      static char const req[] = "GET /metrics HTTP/1.1\r\nHost: bench\r\nConnection: close\r\n\r\n";
      if (::send(s, req, sizeof req - 1, MSG_NOSIGNAL) == ssize_t(sizeof req - 1)) {
         char buf[65536];
         ssize_t n;
         while ((n = ::recv(s, buf, sizeof buf, 0)) > 0) out.append(buf, size_t(n));
      }
   }
   ::close(s);
   return out;
}

bool waitServing(int port) {
   for (int i = 0; i < 100; ++i) {
      if (get(port).find(" 200 ") != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
   }
   return false;
}

std::string const shmPrefix = "/intf-bench-agent-" + std::to_string(::getpid()) + "-";

// Namespaces with dummy devices, removed at the end.
struct Namespaces {
   Namespaces(int count, int devices) {
      for (int n = 0; n < count; ++n) {
         std::string ns = "intf-bench-" + std::to_string(::getpid()) + "-" + std::to_string(n);
         if (sh("ip netns add " + ns) != 0) continue;
         names.push_back(ns);
         sh("ip -n " + ns + " link set lo up");
         for (int d = 0; d < devices; ++d) {
            sh("ip -n " + ns + " link add dum" + std::to_string(d) + " type dummy");
            sh("ip -n " + ns + " link set dum" + std::to_string(d) + " up");
         }
      }
   }
   ~Namespaces() {
      for (auto const & ns : names) sh("ip netns del " + ns);
   }
   std::vector<std::string> names;
};

double samplePerInterface() {
   if (::geteuid() != 0) {
      std::printf("agent.sample_us_per_intf: skipped: needs root to make namespaces and devices\n");
      return NAN;
   }
   constexpr int nsCount = 40, devices = 12;
   Namespaces spaces(nsCount, devices);
   int interfaces = int(spaces.names.size()) * (devices + 1);
   std::string dir = "/tmp/intf-bench-agent-" + std::to_string(::getpid());
   sh("mkdir -p " + dir);
   constexpr double interval = 0.1;
   pid_t agent = spawn({INTF_AGENT, "--socket", dir + "/agent.sock", "--config-socket", dir + "/none.sock",
                        "--interval", "0.1", "--shm-prefix", shmPrefix});
   // Let it find every device, then measure a window of samples.
   std::this_thread::sleep_for(std::chrono::seconds(2));
   double cpu0 = cpuOf(agent), t0 = now();
   std::this_thread::sleep_for(std::chrono::seconds(4));
   double cpu1 = cpuOf(agent), t1 = now();
   stop(agent);
   sh("rm -rf " + dir + " /dev/shm/" + shmPrefix.substr(1) + "*");
   // Interfaces of the default namespace count too.
   int host = 0;
   for (std::ifstream f("/proc/net/dev"); f;) {
      std::string line;
      if (std::getline(f, line) && line.find(':') != std::string::npos) ++host;
   }
   interfaces += host;
   double samples = (t1 - t0) / interval;
   double us = (cpu1 - cpu0) * 1e6 / (samples * interfaces);
   std::printf("agent.sample_us_per_intf: %.1f ms of processor time over %.0f samples of %d interfaces "
               "(%zu namespaces)\n",
               (cpu1 - cpu0) * 1e3, samples, interfaces, spaces.names.size());
   return us;
}

double versusNodeExporter() {
   char const * exporter = "/usr/bin/prometheus-node-exporter";
   if (::access(exporter, X_OK) != 0) {
      std::printf("agent.vs_node_exporter: skipped: no %s (Debian package prometheus-node-exporter)\n", exporter);
      return NAN;
   }
   std::string dir = "/tmp/intf-bench-agent-" + std::to_string(::getpid());
   sh("mkdir -p " + dir + "/netns");
   int ours = 39000 + ::getpid() % 1000, theirs = ours + 1000;
   // The same devices: both see the default namespace only.
   pid_t agent = spawn({INTF_AGENT, "--socket", dir + "/agent.sock", "--config-socket", dir + "/none.sock",
                        "--netns-dir", dir + "/netns", "--interval", "1", "--shm-prefix", shmPrefix,
                        "--metrics", "127.0.0.1:" + std::to_string(ours)});
   pid_t node = spawn({exporter, "--collector.disable-defaults", "--collector.netdev",
                       "--web.listen-address=127.0.0.1:" + std::to_string(theirs)});
   double ratio = NAN;
   if (waitServing(ours) && waitServing(theirs)) {
      auto timeScrapes = [](int port) {
         std::vector<double> t;
         for (int i = 0; i < 300; ++i) {
            double a = now();
            get(port);
            t.push_back(now() - a);
         }
         std::sort(t.begin(), t.end());
         return t[t.size() / 2];
      };
      // Interleaved rounds, medians of each.
      std::vector<double> o, n;
      for (int round = 0; round < 5; ++round) {
         o.push_back(timeScrapes(ours));
         n.push_back(timeScrapes(theirs));
      }
      std::sort(o.begin(), o.end());
      std::sort(n.begin(), n.end());
      ratio = o[2] / n[2];
      std::printf("agent.vs_node_exporter: scrape %.1f us ours (%zu bytes), %.1f us the exporter's network "
                  "collector (%zu bytes)\n",
                  o[2] * 1e6, get(ours).size(), n[2] * 1e6, get(theirs).size());
   } else {
      std::printf("agent.vs_node_exporter: a metrics server did not answer\n");
   }
   stop(agent);
   stop(node);
   sh("rm -rf " + dir + " /dev/shm/" + shmPrefix.substr(1) + "*");
   return ratio;
}

// A TCP connection to the agent's metrics port that sends nothing yet, or -1.
int idleClient(int port) {
   int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(uint16_t(port));
   if (::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
      ::close(s);
      return -1;
   }
   return s;
}

// The 99th percentile of 200 scrapes 10 ms apart, in milliseconds.
double scrapeP99(int port) {
   std::vector<double> t;
   for (int i = 0; i < 200; ++i) {
      double a = now();
      bool ok = get(port).find(" 200 ") != std::string::npos;
      t.push_back(ok ? now() - a : 1e9);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   std::sort(t.begin(), t.end());
   return t[t.size() * 99 / 100] * 1e3;
}

// The normal scrape's p99 while, on loopback and for a bounded time, 500
// clients hold connections open without a word, and then while 100 clients
// send their requests one byte every 0.5 s; the same scrapes without
// either are the baseline. The figure is the worse of the two attacks.
double scrapeUnderAttack() {
   std::string dir = "/tmp/intf-bench-agent-" + std::to_string(::getpid());
   sh("mkdir -p " + dir + "/netns");
   int port = 41000 + ::getpid() % 1000;
   pid_t agent = spawn({INTF_AGENT, "--socket", dir + "/agent.sock", "--config-socket", dir + "/none.sock",
                        "--netns-dir", dir + "/netns", "--interval", "1", "--shm-prefix", shmPrefix,
                        "--metrics", "127.0.0.1:" + std::to_string(port)});
   double worst = NAN;
   if (waitServing(port)) {
      double quiet = scrapeP99(port);
      std::vector<int> idle;
      for (int i = 0; i < 500; ++i) idle.push_back(idleClient(port));
      double idleP99 = scrapeP99(port);
      for (int fd : idle) ::close(fd);
      std::vector<int> slow;
      for (int i = 0; i < 100; ++i) slow.push_back(idleClient(port));
      std::atomic<bool> done{false};
      std::thread trickle([&] {
         static char const req[] = "GET /metrics HTTP/1.1\r\nHost: slow\r\n";
         for (size_t at = 0; !done; at = (at + 1) % (sizeof req - 1)) {
            for (int fd : slow) ::send(fd, req + at, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            for (int i = 0; i < 50 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
         }
      });
      double slowP99 = scrapeP99(port);
      done = true;
      trickle.join();
      for (int fd : slow) ::close(fd);
      worst = std::max(idleP99, slowP99);
      std::printf("agent.scrape_p99_ms_under_attack: p99 of 200 scrapes: %.2f ms with 500 idle connections, "
                  "%.2f ms with 100 clients sending a byte every 0.5 s, %.2f ms without either (baseline)\n",
                  idleP99, slowP99, quiet);
   } else {
      std::printf("agent.scrape_p99_ms_under_attack: the agent's metrics server did not answer\n");
   }
   stop(agent);
   sh("rm -rf " + dir + " /dev/shm/" + shmPrefix.substr(1) + "*");
   return worst;
}

} // namespace

void registerAgentBenches() {
   addFigure("agent.sample_us_per_intf", "5", &samplePerInterface);
   addFigure("agent.vs_node_exporter", "0.5", &versusNodeExporter);
   addFigure("agent.scrape_p99_ms_under_attack", "100", &scrapeUnderAttack);
}

} // namespace IntfBench
