// intf-traffic: a small traffic generator for trying the agents: sends UDP
// datagrams to an address for a while, optionally from inside a network
// namespace, so that a device's counters and rates move.
//
//   intf-traffic [--netns NAME] [--to ADDRESS] [--port N] [--seconds S]
//                [--rate PACKETS_PER_SECOND] [--size BYTES]
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
   std::string netns, to = "127.0.0.1";
   int port = 9, size = 1000;
   double seconds = 5, rate = 20000;
   for (int i = 1; i < argc; ++i) {
      std::string a = argv[i];
      bool hasValue = i + 1 < argc;
      if (a == "--netns" && hasValue) netns = argv[++i];
      else if (a == "--to" && hasValue) to = argv[++i];
      else if (a == "--port" && hasValue) port = std::atoi(argv[++i]);
      else if (a == "--seconds" && hasValue) seconds = std::atof(argv[++i]);
      else if (a == "--rate" && hasValue) rate = std::atof(argv[++i]);
      else if (a == "--size" && hasValue) size = std::atoi(argv[++i]);
      else {
         std::cerr << "usage: intf-traffic [--netns NAME] [--to ADDRESS] [--port N] [--seconds S]\n"
                      "                    [--rate PACKETS_PER_SECOND] [--size BYTES]\n";
         return a == "--help" ? 0 : 2;
      }
   }
   if (size < 1 || size > 65000 || port < 1 || port > 65535 || !(rate > 0) || !(seconds > 0)) {
      std::cerr << "intf-traffic: size 1..65000, port 1..65535, rate and seconds above 0\n";
      return 2;
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
