// A real monitoring server scrapes the host agent's --metrics page on
// loopback, its query interface returns the agent's values, and its
// checker finds nothing to say of the page.
#include "ChildProcess.h"
#include "CounterClear.h"

#include <Smash/Table.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>

using namespace IntfTest;

namespace {

char const * const server = "/usr/bin/prometheus";

// The value of the first sample of `metric` for Loopback0 in an exposition page.
double pageValue(std::string const & page, std::string const & metric) {
   std::smatch m;
   std::regex line("\\n" + metric + "\\{interface=\"Loopback0\"[^}]*\\} ([0-9.e+]+)");
   return std::regex_search(page, m, line) ? std::stod(m[1]) : -1;
}

// The value the server's instant query returns for Loopback0, or -1.
double queried(int port, std::string const & metric) {
   std::string q = "/api/v1/query?query=" + metric + "%7Binterface%3D%22Loopback0%22%7D";
   std::string answer = httpGet(port, q);
   std::smatch m;
   if (!std::regex_search(answer, m, std::regex("\"value\":\\[[0-9.]+,\"([0-9.e+]+)\"\\]"))) return -1;
   return std::stod(m[1]);
}

} // namespace

TEST(PrometheusScrape, TheMonitoringServerCollectsTheAgentsCountersAndGauges) {
   if (::access(server, X_OK) != 0) {
      GTEST_SKIP() << "no monitoring server at " << server
                   << " (Debian package prometheus; ./test.sh installs it where it can)";
   }
   TempDir dir;
   std::string prefix = "/intf-prom-" + std::to_string(::getpid()) + "-";
   struct RemoveTables {
      std::string prefix;
      ~RemoveTables() {
         Smash::shmPrefixIs(prefix);
         Smash::removeTable("interface/counter/eth/intf");
         Smash::removeTable("interface/counter/eth/snapshot");
      }
   } removeTables{prefix};
   int metricsPort = freePort(), serverPort = freePort();
   ASSERT_GT(metricsPort, 0);
   Kel::ActivityLoop loop;
   Child agent(loop, INTF_AGENT,
               {"--socket", dir.path + "/agent.sock", "--config-socket", dir.path + "/none.sock", "--interval",
                "0.2", "--shm-prefix", prefix, "--metrics", "127.0.0.1:" + std::to_string(metricsPort)});
   ASSERT_TRUE(agent.waitFor("INTF_AGENT_STARTED")) << agent.stderr_.text;

   std::ofstream(dir.path + "/prometheus.yml")
       << "global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n"
          "scrape_configs:\n  - job_name: intf\n    static_configs:\n      - targets: ['127.0.0.1:"
       << metricsPort << "']\n";
   Child prom(loop, server,
              {"--config.file=" + dir.path + "/prometheus.yml", "--storage.tsdb.path=" + dir.path + "/data",
               "--web.listen-address=127.0.0.1:" + std::to_string(serverPort)});
   auto until = [&](auto done) { return loop.runUntil(done, 30000); };
   ASSERT_TRUE(until([&] { return httpGet(serverPort, "/-/ready").find("200 OK") != std::string::npos; }))
       << prom.stderr_.text;

   sendUdp(50, 1000);
   double seen = -1;
   ASSERT_TRUE(until([&] {
      seen = queried(serverPort, "intf_in_octets_total");
      return seen >= 50 * 1000;
   })) << seen << "\n" << prom.stderr_.text.substr(0, 4000);
   // What the server stored is what the agent served: no more than the
   // page says now (counters only grow), and no less than was sent.
   double onPage = pageValue(httpGet(metricsPort, "/metrics"), "intf_in_octets_total");
   EXPECT_GE(onPage, seen);
   EXPECT_EQ(queried(serverPort, "intf_oper_up"), 1);
   double mtu = queried(serverPort, "intf_mtu");
   EXPECT_EQ(mtu, pageValue(httpGet(metricsPort, "/metrics"), "intf_mtu"));
   EXPECT_GT(mtu, 0);
   EXPECT_EQ(queried(serverPort, "intf_admin_up"), 1);  // lo is up wherever tests run

   // The format's own checker finds nothing to say of the page, a clear's time on it.
   auto clears = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
   clears->tablePathIs("interface/counter/eth/snapshot");
   clears->shmPrefixIs(prefix);
   Smash::Interface::IntfCounter lo;
   lo.keyIs(Zenet::IntfId("Loopback0"));
   ASSERT_EQ(IntfApp::clearCounters(*clears, {lo}, 1700000000, 2000), "");
   std::string page = httpGet(metricsPort, "/metrics");
   ASSERT_NE(page.find("\nintf_counters_last_clear_timestamp_seconds{"), std::string::npos) << page;
   std::ofstream(dir.path + "/page.txt") << page.substr(page.find("\r\n\r\n") + 4);
   FILE * lint = ::popen(("/usr/bin/promtool check metrics < " + dir.path + "/page.txt 2>&1").c_str(), "r");
   ASSERT_TRUE(lint);
   std::string said;
   char buf[4096];
   for (size_t n; (n = std::fread(buf, 1, sizeof buf, lint)) > 0;) said.append(buf, n);
   EXPECT_EQ(::pclose(lint), 0) << said;
   EXPECT_EQ(said, "");
}
