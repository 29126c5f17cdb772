// intf-traffic: a small traffic generator for trying the agents: sends UDP
// datagrams to an address for a while, optionally from inside a network
// namespace, so that a device's counters and rates move.
//
//   intf-traffic [--netns NAME] [--to ADDRESS] [--port N] [--seconds S]
//                [--rate PACKETS_PER_SECOND] [--size BYTES]  (--help says more)
#include "CommandLine.h"

#include <Zenet/SocketAt.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char ** argv) {
   IntfApp::CommandLine cl(
         "intf-traffic", "[options]",
         "Sends UDP datagrams for a while, optionally from inside a network namespace,\n"
         "so that a device's counters and rates move (nothing needs to listen).",
         {
            {"--netns", "NAME", "send from inside this network namespace (needs root)"},
            {"--to", "ADDRESS", "the IPv4 address to send to (default 127.0.0.1: the loopback device)"},
            {"--port", "N", "the UDP port (default 9)"},
            {"--seconds", "S", "how long to send (default 5)"},
            {"--rate", "PACKETS_PER_SECOND", "how many datagrams a second (default 20000)"},
            {"--size", "BYTES", "the payload of each datagram, 1 to 65000 (default 1000)"},
         },
         "Exit status: 0 sent, 1 no socket, 2 bad arguments.");
   if (int status = cl.parse(argc, argv)) return status < 0 ? 0 : status;
   if (!cl.words().empty()) return cl.bad("unexpected argument " + cl.words().front());
   std::string netns = cl.value("--netns"), to = cl.value("--to", "127.0.0.1");
   int port = std::atoi(cl.value("--port", "9").c_str()), size = std::atoi(cl.value("--size", "1000").c_str());
   double seconds = std::atof(cl.value("--seconds", "5").c_str()), rate = std::atof(cl.value("--rate", "20000").c_str());
   if (size < 1 || size > 65000 || port < 1 || port > 65535 || !(rate > 0) || !(seconds > 0)) {
      return cl.bad("size 1..65000, port 1..65535, rate and seconds above 0");
   }
   int fd = netns.empty() ? ::socket(AF_INET, SOCK_DGRAM, 0)
                          : Zenet::socketAt(AF_INET, SOCK_DGRAM, 0, netns.c_str());
   if (fd < 0) {
      std::cerr << "intf-traffic: no socket" << (netns.empty() ? "" : " in namespace " + netns) << ": "
                << std::strerror(errno) << "\n";
      return 1;
   }
   sockaddr_in dst{};
   dst.sin_family = AF_INET;
   dst.sin_port = htons(uint16_t(port));
   if (::inet_pton(AF_INET, to.c_str(), &dst.sin_addr) != 1) {
      std::cerr << "intf-traffic: not an IPv4 address: " << to << "\n";
      return 2;
   }
   std::vector<char> payload(size_t(size), 'x');
   using Clock = std::chrono::steady_clock;
   auto start = Clock::now();
   uint64_t sent = 0, failed = 0;
   for (;;) {
      double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
      if (elapsed >= seconds) break;
      // Send what the rate allows by now, then sleep a little.
      auto due = uint64_t(elapsed * rate);
      for (; sent + failed < due; ) {
         if (::sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst) < 0)
            ++failed;
         else
            ++sent;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   ::close(fd);
   std::cout << "intf-traffic: sent " << sent << " datagrams of " << size << " bytes"
             << (netns.empty() ? "" : " in namespace " + netns) << " to " << to << ":" << port;
   if (failed) std::cout << " (" << failed << " refused)";
   std::cout << "\n";
   return 0;
}
