// Serving and mounting with one call: a server process, a client that hears
// the synced tree, the server's death with its reason, reconnection with a
// fresh initial state when the server is back, and a mount of nothing.
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>

#include "Pipe.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;
using Kel::NboAttrLog::Client;
using Kel::NboAttrLog::Server;

namespace {

// A configuration agent serving Ethernet1..N, in its own process.
pid_t serve(std::string const & path, int intfs, Pipe & ready) {
   pid_t pid = ::fork();
   if (pid == 0) {
      auto dir = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("config"));
      for (int i = 1; i <= intfs; ++i) {
         dir->intfConfigIs(Interface::intfConfigFactory(Zenet::IntfId(std::string_view("Ethernet" + std::to_string(i)))));
      }
      Kel::ActivityLoop loop;
      Server server(loop, path, dir, "configAgent");
      ready.send(server.valid() ? "listening" : server.error());
      for (;;) loop.runOnce(100);
   }
   return pid;
}

} // namespace

TEST(ServeMount, AClientHearsTheTreeTheServersDeathAndTheTreeAgainAfterReconnecting) {
   std::string path = "/tmp/intf-serve-" + std::to_string(::getpid()) + ".sock";
   Pipe ready;
   pid_t first = serve(path, 2, ready);
   ASSERT_EQ(ready.receive(), "listening");

   Kel::ActivityLoop loop;
   Client::Options o;
   o.reconnect = true;
   o.minBackoff = 20ms;
   Client client(loop, path, "", o);
   std::vector<size_t> syncs;
   std::vector<std::string> closes;
   client.onSynced = [&](Kel::Ptr<Kel::Entity> root) {
      auto dir = Kel::dynamicCast<Interface::AllIntfConfigDir>(root);
      syncs.push_back(dir ? dir->intfConfigSize() : 0);
   };
   client.onClosed = [&](Kel::String8 const & why) { closes.push_back(why.str()); };
   ASSERT_TRUE(loop.runUntil([&] { return syncs.size() == 1; }, 5000));
   EXPECT_EQ(syncs[0], 2u);

   ::kill(first, SIGKILL);
   ::waitpid(first, nullptr, 0);
   ASSERT_TRUE(loop.runUntil([&] { return !closes.empty(); }, 5000));
   EXPECT_EQ(closes[0], "writer went away");
   EXPECT_TRUE(client.root());  // the last tree stays readable

   // While the server is away, attempts fail with their reason and back off.
   loop.runUntil([&] { return closes.size() >= 3; }, 5000);
   EXPECT_EQ(closes[1].rfind("cannot connect to " + path, 0), 0u);

   pid_t second = serve(path, 10, ready);
   ASSERT_EQ(ready.receive(), "listening");
   ASSERT_TRUE(loop.runUntil([&] { return syncs.size() == 2; }, 10000));
   EXPECT_EQ(syncs[1], 10u);

   // A mount of a path that names nothing gets the server's reason, which
   // names the first few entities there are, in order.
   Client lost(loop, path, "Ethernet19");
   loop.runUntil([&] { return !lost.lastClose().empty(); }, 5000);
   EXPECT_EQ(lost.lastClose(), "writer closed the connection: no entity at Ethernet19: the served entity holds "
                               "Ethernet1, Ethernet10, Ethernet2, Ethernet3, Ethernet4, Ethernet5, Ethernet6, "
                               "Ethernet7 and 2 more");
   ::kill(second, SIGKILL);
   ::waitpid(second, nullptr, 0);
   ::unlink(path.c_str());
}
