// Metrics for monitoring servers: the exposition text, request heads, and
// the server answering real TCP clients without ever blocking its loop.
#include "MetricsServer.h"
#include "MetricsText.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <limits>

using IntfApp::MetricsServer;
using IntfApp::MetricsText;
using IntfApp::parseHttpRequestHead;

TEST(MetricsText, FamiliesAndSamplesWithEscapedLabels) {
   MetricsText m;
   m.family("intf_in_octets_total", "counter", "Octets received.\nBy the device \\ kernel.");
   m.sample("intf_in_octets_total", {{"interface", "Ethernet1"}, {"description", "a \"b\"\\c\nd"}},
            std::numeric_limits<uint64_t>::max());
   m.family("intf_in_bps", "gauge", "Receive rate.");
   m.sample("intf_in_bps", {}, 0.1);
   m.sample("intf_in_bps", {{"interface", "x"}}, std::nan(""));
   m.sample("intf_in_bps", {{"interface", "y"}}, -HUGE_VAL);
   m.sample("intf_in_bps", {{"interface", "z"}}, 1e21);
   EXPECT_EQ(m.text(),
             "# HELP intf_in_octets_total Octets received.\\nBy the device \\\\ kernel.\n"
             "# TYPE intf_in_octets_total counter\n"
             "intf_in_octets_total{interface=\"Ethernet1\",description=\"a \\\"b\\\"\\\\c\\nd\"} "
             "18446744073709551615\n"
             "# HELP intf_in_bps Receive rate.\n"
             "# TYPE intf_in_bps gauge\n"
             "intf_in_bps 0.1\n"
             "intf_in_bps{interface=\"x\"} NaN\n"
             "intf_in_bps{interface=\"y\"} -Inf\n"
             "intf_in_bps{interface=\"z\"} 1e+21\n");
}

TEST(MetricsServer, RequestHeadsAreReadOrRefusedWithTheirStatus) {
   struct Case {
      char const * head;
      std::string method, path, error;
      int status;
   } const cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "GET", "/metrics", "", 0},
      {"HEAD /metrics?x=1 HTTP/1.0\n\n", "HEAD", "/metrics", "", 0},
      {"GET /metrics HTTP/2.0\r\n\r\n", "", "", "unsupported HTTP version", 505},
      {"GET  /metrics HTTP/1.1\r\n\r\n", "", "", "malformed request line", 400},
      {"GET /metrics\r\n\r\n", "", "", "malformed request line", 400},
      {"get /metrics HTTP/1.1\r\n\r\n", "", "", "malformed method", 400},
      {"GET metrics HTTP/1.1\r\n\r\n", "", "", "malformed target", 400},
      {"GET /metrics HTTP/1.1", "", "", "no request line", 400},
   };
   for (auto const & c : cases) {
      auto r = parseHttpRequestHead(c.head);
      EXPECT_EQ(r.method, c.method) << c.head;
      EXPECT_EQ(r.path, c.path) << c.head;
      EXPECT_EQ(r.error, c.error) << c.head;
      EXPECT_EQ(r.status, c.status) << c.head;
   }
}

namespace {

int connectTo(int port) {
   int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_port = htons(uint16_t(port));
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
      ::close(fd);
      return -1;
   }
   return fd;
}

// Sends `request`, runs the server's loop until the server closes, returns
// what came back.
std::string exchange(Kel::ActivityLoop & loop, int port, std::string const & request) {
   int fd = connectTo(port);
   if (fd < 0) return "no connection";
   ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
   std::string got;
   for (int i = 0; i < 500; ++i) {
      loop.runOnce(10);
      char buf[4096];
      ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) got.append(buf, size_t(n));
      if (n == 0) break;
   }
   ::close(fd);
   return got;
}

std::string firstLine(std::string const & s) { return s.substr(0, s.find("\r\n")); }

} // namespace

TEST(MetricsServer, AnswersEachKindOfRequestOverRealConnections) {
   int renders = 0;
   MetricsServer server("127.0.0.1:0", [&] {
      ++renders;
      return std::string("intf_up 1\n");
   });
   ASSERT_TRUE(server.valid()) << server.error();
   Kel::ActivityLoop loop;
   loop.add(&server);
   std::string ok = exchange(loop, server.port(), "GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n");
   EXPECT_EQ(firstLine(ok), "HTTP/1.1 200 OK");
   EXPECT_NE(ok.find("Content-Type: text/plain; version=0.0.4"), std::string::npos);
   EXPECT_NE(ok.find("Content-Length: 10\r\n"), std::string::npos);
   EXPECT_EQ(ok.substr(ok.size() - 10), "intf_up 1\n");
   std::string head = exchange(loop, server.port(), "HEAD /metrics HTTP/1.0\r\n\r\n");
   EXPECT_EQ(firstLine(head), "HTTP/1.1 200 OK");
   EXPECT_EQ(head.substr(head.size() - 4), "\r\n\r\n");  // no body
   EXPECT_EQ(firstLine(exchange(loop, server.port(), "GET / HTTP/1.1\r\n\r\n")),
             "HTTP/1.1 404 Not Found");
   EXPECT_EQ(firstLine(exchange(loop, server.port(), "POST /metrics HTTP/1.1\r\n\r\n")),
             "HTTP/1.1 405 Method Not Allowed");
   EXPECT_EQ(firstLine(exchange(loop, server.port(), "GET /metrics HTTP/1.1\r\nX: " +
                                                        std::string(9000, 'x'))),
             "HTTP/1.1 431 Request Header Fields Too Large");
   EXPECT_EQ(renders, 2);  // only the two requests for the metrics made them
   EXPECT_EQ(server.connections(), 0u);
}

TEST(MetricsServer, AScrapeIsAnsweredWhileIdleAndTricklingClientsHoldEveryConnection) {
   MetricsServer::Limits limits;
   limits.request = std::chrono::milliseconds(300);
   MetricsServer server("127.0.0.1:0", [] { return std::string("x 1\n"); }, limits);
   ASSERT_TRUE(server.valid()) << server.error();
   Kel::ActivityLoop loop;
   loop.add(&server);
   // 500 idle clients: the server holds its limit, the newest ones.
   std::vector<int> held;
   for (int i = 0; i < 500; ++i) {
      held.push_back(connectTo(server.port()));
      if (i % 50 == 0) loop.runOnce(0);
   }
   for (int i = 0; i < 20; ++i) loop.runOnce(1);
   EXPECT_EQ(server.connections(), limits.connections);
   EXPECT_EQ(firstLine(exchange(loop, server.port(), "GET /metrics HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
   // 100 clients sending their requests a byte at a time.
   std::vector<int> trickling;
   for (int i = 0; i < 100; ++i) trickling.push_back(connectTo(server.port()));
   for (char c : std::string("GET /met")) {
      for (int fd : trickling) ::send(fd, &c, 1, MSG_NOSIGNAL);
      loop.runOnce(1);
   }
   EXPECT_EQ(firstLine(exchange(loop, server.port(), "GET /metrics HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
   EXPECT_LE(server.connections(), limits.connections);
   // Past the request deadline, clients that never finished are dropped.
   loop.runUntil([&] { return server.connections() == 0; }, 5000);
   EXPECT_EQ(server.connections(), 0u);
   for (int fd : held) ::close(fd);
   for (int fd : trickling) ::close(fd);

   // Only when every connection is being answered (to clients that do not
   // read a large page) is a newcomer refused.
   limits.connections = 2;
   MetricsServer busy("127.0.0.1:0", [] { return std::string(8 << 20, 'x'); }, limits);
   loop.add(&busy);
   std::vector<int> readers;
   for (int i = 0; i < 2; ++i) {
      readers.push_back(connectTo(busy.port()));
      std::string request = "GET /metrics HTTP/1.1\r\n\r\n";
      ::send(readers.back(), request.data(), request.size(), MSG_NOSIGNAL);
      for (int r = 0; r < 5; ++r) loop.runOnce(1);
   }
   EXPECT_EQ(firstLine(exchange(loop, busy.port(), "GET /metrics HTTP/1.1\r\n\r\n")),
             "HTTP/1.1 503 Service Unavailable");
   for (int fd : readers) ::close(fd);
   loop.remove(&busy);
}

TEST(MetricsServer, ABadAddressIsRefusedWithItsReason) {
   for (auto [address, error] : {std::pair{"localhost", "address must be HOST:PORT, [IPv6]:PORT or :PORT, not \"localhost\""},
                                 std::pair{"host:99999", "address must be HOST:PORT, [IPv6]:PORT or :PORT, not \"host:99999\""},
                                 std::pair{"example:80", "not an IP address: \"example\""}}) {
      EXPECT_EQ(MetricsServer(address, [] { return std::string(); }).error(), error);
   }
   // IPv6 literals are taken as such (binding may still fail where IPv6 is off).
   EXPECT_NE(MetricsServer("[::1]:0", [] { return std::string(); }).error(), "not an IP address: \"::1\"");
   MetricsServer any(":0", [] { return std::string(); });
   EXPECT_TRUE(any.valid()) << any.error();
   EXPECT_GT(any.port(), 0);
}
