// Serving and mounting with one call: a server process, a client that hears
// the synced tree, the server's death with its reason, reconnection with a
// fresh initial state when the server is back, and a mount of nothing.
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>

#include "ChildProcess.h"
#include "Pipe.h"

#include <Kel/Log.h>
#include <Kel/Trace.h>

#include <gtest/gtest.h>

#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

using namespace std::chrono_literals;
using Kel::NboAttrLog::Client;
using Kel::NboAttrLog::Server;

namespace {

// A configuration agent serving Ethernet1..N, in its own process.
pid_t serve(std::string const & path, int intfs, Pipe & ready) {
   pid_t pid = IntfTest::forkChild();
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

// Descriptor 0 free while it lives, as in a program started without stdin:
// the descriptor that gets it is one like any other.
struct StdinClosed {
   int in = ::dup(0);
   StdinClosed() { ::close(0); }
   ~StdinClosed() {
      ::dup2(in, 0);
      ::close(in);
   }
};

} // namespace

TEST(ServeMount, AClientHearsTheTreeTheServersDeathOnceAndTheTreeAgainAfterBackingOff) {
   std::string path = "/tmp/intf-serve-" + std::to_string(::getpid()) + ".sock";
   Pipe ready;
   pid_t first = serve(path, 2, ready);
   ASSERT_EQ(ready.receive(), "listening");

   Kel::ActivityLoop loop;
   Client::Options o;
   o.reconnect = true;
   o.minBackoff = 20ms;
   o.maxBackoff = 80ms;
   Client client(loop, path, "", o);
   std::vector<size_t> syncs;
   std::vector<std::string> closes, failures;
   std::vector<long> delays;  // the wait before each retry, as each failure is told
   client.onSynced = [&](Kel::Ptr<Kel::Entity> root) {
      auto dir = Kel::dynamicCast<Interface::AllIntfConfigDir>(root);
      syncs.push_back(dir ? dir->intfConfigSize() : 0);
   };
   client.onClosed = [&](Kel::String8 const & why) { closes.push_back(why.str()); };
   client.onAttemptFailed = [&](Kel::String8 const & why) {
      failures.push_back(why.str());
      delays.push_back(long(client.retryDelay().count()));
   };
   ASSERT_TRUE(loop.runUntil([&] { return syncs.size() == 1; }, 5000));
   EXPECT_EQ(syncs[0], 2u);
   EXPECT_EQ(client.retryDelay(), 0ms);  // connected: no attempt is due

   // The server dies: told once, and the first reconnection waits the
   // shortest back-off.
   ::kill(first, SIGKILL);
   ::waitpid(first, nullptr, 0);
   ASSERT_TRUE(loop.runUntil([&] { return !closes.empty(); }, 5000));
   EXPECT_EQ(closes[0], "writer went away");
   EXPECT_EQ(client.retryDelay(), 20ms);
   EXPECT_TRUE(client.root());  // the last tree stays readable

   // While the server is away, every attempt fails with its reason and
   // waits twice as long as the last, up to the longest back-off; onClosed
   // hears nothing more.
   std::vector<std::string> traced;  // failures, each with its level
   Kel::traceLevelIs("Kel::Agent", 2);
   Kel::traceSinkIs([&](char const * facility, int level, Kel::String8 const & msg) {
      if (std::string(facility) == "Kel::Agent" && msg.str().rfind("attempt ", 0) == 0) {
         traced.push_back(std::to_string(level) + " " + msg.str().substr(0, 10));
      }
   });
   ASSERT_TRUE(loop.runUntil([&] { return failures.size() >= 5; }, 5000));
   Kel::traceSinkIs(nullptr);
   Kel::traceLevelIs("Kel::Agent", 0);
   // Attempts 1, 2, 4, 8, ... at level 0, so that a long outage writes few
   // lines; the others for whoever traces more.
   ASSERT_GE(traced.size(), 5u);
   EXPECT_EQ(std::vector<std::string>(traced.begin(), traced.begin() + 5),
             (std::vector<std::string>{"0 attempt 1 ", "0 attempt 2 ", "2 attempt 3 ", "0 attempt 4 ", "2 attempt 5 "}));
   EXPECT_EQ(failures[0], "cannot connect to " + path + ": " + std::strerror(ECONNREFUSED));
   EXPECT_EQ(delays[0], 40);
   EXPECT_EQ(delays[1], 80);
   EXPECT_EQ(delays[3], 80);
   EXPECT_EQ(client.failedAttempts(), failures.size());
   EXPECT_EQ(closes.size(), 1u);

   // Back after a long outage, then gone again: the first reconnection
   // waits the shortest back-off once more.
   pid_t second = serve(path, 10, ready);
   ASSERT_EQ(ready.receive(), "listening");
   ASSERT_TRUE(loop.runUntil([&] { return syncs.size() == 2; }, 10000));
   EXPECT_EQ(syncs[1], 10u);
   EXPECT_EQ(client.failedAttempts(), 0u);
   EXPECT_EQ(client.retryDelay(), 0ms);

   // A mount of a path that names nothing gets the server's reason, which
   // names the first few entities there are, in order.
   Client lost(loop, path, "Ethernet19");
   loop.runUntil([&] { return !lost.lastClose().empty(); }, 5000);
   EXPECT_EQ(lost.lastClose(), "writer closed the connection: no entity at Ethernet19: the served entity holds "
                               "Ethernet1, Ethernet10, Ethernet2, Ethernet3, Ethernet4, Ethernet5, Ethernet6, "
                               "Ethernet7 and 2 more");
   ::kill(second, SIGKILL);
   ::waitpid(second, nullptr, 0);
   ASSERT_TRUE(loop.runUntil([&] { return closes.size() == 2; }, 5000));
   EXPECT_EQ(client.retryDelay(), 20ms);
   ::unlink(path.c_str());
}

TEST(ServeMount, AMountOfAPathThatNamesNothingReachesTheClientWithTheServersReason) {
   std::string path = "@intf-serve-" + std::to_string(::getpid());  // abstract: no file
   auto dir = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("config"));
   Kel::ActivityLoop loop;
   Server server(loop, path, dir, "configAgent");
   ASSERT_TRUE(server.valid()) << server.error();
   Client client(loop, path, "Ethernet9");
   std::string why;
   client.onClosed = [&](Kel::String8 const & r) { why = r.str(); };
   loop.runUntil([&] { return !why.empty() && server.connections() == 0; }, 5000);
   EXPECT_EQ(why, "writer closed the connection: no entity at Ethernet9: the served entity holds no entities");
   EXPECT_EQ(server.connections(), 0u);  // its writer went with the connection

   // A callback may delete its client.
   Client::Options o;
   o.reconnect = true;
   o.minBackoff = 1ms;
   auto doomed = std::make_unique<Client>(loop, path + "-nobody", "", o);
   doomed->onClosed = [&](Kel::String8 const &) { doomed.reset(); };
   doomed->onAttemptFailed = [&](Kel::String8 const &) { ADD_FAILURE() << "called on a deleted client"; };
   EXPECT_TRUE(loop.runUntil([&] { return !doomed; }, 5000));
   loop.runUntil([] { return false; }, 20);  // no retry of the deleted client comes
}

namespace {

// Runs `body` in a child process as the user nobody (with `groups` as its
// supplementary groups); what the body returns is sent back on `out`.
pid_t asNobody(Pipe & out, std::function<std::string()> body, std::vector<gid_t> groups = {}) {
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) {
         out.send("cannot become nobody");
         ::_exit(1);
      }
      out.send(body());
      ::_exit(0);
   }
   return pid;
}

// What a client as nobody is told when it mounts from `path`.
std::string mountAsNobody(std::string const & path) {
   Kel::ActivityLoop loop;
   Client c(loop, path, "");
   loop.runUntil([&] { return c.synced() || !c.lastClose().empty(); }, 5000);
   return c.synced() ? "synced" : c.lastClose().str();
}

} // namespace

TEST(ServeMount, OnlyTrustedPeersMountOrServeAndEachRefusedPeerIsLoggedOnce) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root: runs a peer as the user nobody";
   auto dir = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("config"));
   std::string name = "@intf-trust-" + std::to_string(::getpid());
   Kel::ActivityLoop loop;
   auto sink = std::make_shared<Kel::CapturingLogSink>();
   Kel::logSinkIs(sink);
   Kel::logClockIs(nullptr);
   auto logged = [&] {
      std::vector<std::string> l;
      for (auto const & e : sink->events) l.push_back(Kel::logLine(e).str());
      return l;
   };
   std::string refusedNobody = "refused peer uid 65534 gid 65534 pid ";

   // A reader as nobody is refused, told why, and logged once however often it comes.
   {
      Server::Options others;
      others.readers.uids = {4243};
      others.readers.gids = {4242};
      Server server(loop, name, dir, "configAgent", others);
      ASSERT_TRUE(server.valid()) << server.error();
      Pipe told;
      IntfTest::Reap child{asNobody(told, [&] { return mountAsNobody(name) + "|" + mountAsNobody(name); })};
      loop.runUntil([&] { return ::waitpid(child.pid, nullptr, WNOHANG) == child.pid; }, 5000);
      std::string why = "uid 65534 is not root, not an allowed user, not in an allowed group";
      std::string refused = "writer closed the connection: not allowed: " + why;
      EXPECT_EQ(told.receive(), refused + "|" + refused);
      EXPECT_EQ(logged(),
                std::vector<std::string>{"KEL_PEER_REFUSED WARNING: server on " + name + ": " + refusedNobody +
                                         std::to_string(child.pid) + ": " + why});
      child.pid = -1;
   }
   // Admitted by its group, it mounts.
   {
      Server::Options readers;
      readers.readers.gids = {4242};
      Server server(loop, name, dir, "configAgent", readers);
      Pipe told;
      IntfTest::Reap child{asNobody(told, [&] { return mountAsNobody(name); }, {4242})};
      loop.runUntil([&] { return ::waitpid(child.pid, nullptr, WNOHANG) == child.pid; }, 5000);
      child.pid = -1;
      EXPECT_EQ(told.receive(), "synced");
   }
   // A server run by nobody is not mounted from (that it is logged, and
   // that a client trusting its user mounts, the agents' tests show).
   Pipe ready;
   IntfTest::Reap server{asNobody(ready, [&] {
      Kel::ActivityLoop own;
      Server s(own, name, dir, "impostor");
      ready.send(s.valid() ? "listening" : s.error());
      for (;;) own.runOnce(100);
      return std::string();
   })};
   ASSERT_EQ(ready.receive(), "listening");
   Client refused(loop, name, "");
   EXPECT_EQ(refused.lastClose(), "the server at " + name + " is not trusted: uid 65534 is not root");
   EXPECT_FALSE(refused.synced());
   Kel::logSinkIs(nullptr);
}

TEST(ServeMount, ASocketFileGetsItsModeAndALiveServersPathIsNeitherTakenNorRemoved) {
   IntfTest::TempDir tmp;
   auto dir = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("config"));
   Kel::ActivityLoop loop;
   auto modeOf = [](std::string const & p) {
      struct stat st {};
      ::stat(p.c_str(), &st);
      return st.st_mode & 07777;
   };
   std::string path = tmp.path + "/config.sock";
   Server::Options group, anyone;
   group.readers.gids = {::getegid()};
   anyone.readers.anyone = true;
   struct Case {
      Server::Options options;
      mode_t mode;
   } cases[] = {{{}, 0600}, {group, 0660}, {anyone, 0666}};
   for (auto const & c : cases) {
      Server server(loop, path, dir, "configAgent", c.options);
      ASSERT_TRUE(server.valid()) << server.error();
      EXPECT_EQ(modeOf(path), c.mode);
   }
   // A leftover socket file nobody answers on is replaced; a live server's
   // path (or abstract name) is refused, and the live server keeps it.
   {
      int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
      ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
      ::close(stale);
   }
   for (std::string where : {path, "@intf-live-" + std::to_string(::getpid())}) {
      Server live(loop, where, dir, "configAgent");
      ASSERT_TRUE(live.valid()) << live.error();
      StdinClosed free0;
      {
         Server second(loop, where, dir, "configAgent");
         EXPECT_FALSE(second.valid());
         EXPECT_EQ(second.error(), "another server is listening on " + where);
      }
      Client client(loop, where, "");
      EXPECT_TRUE(loop.runUntil([&] { return client.synced(); }, 5000)) << client.lastClose();
   }
   std::string tooLong(sizeof(sockaddr_un::sun_path), 'x');
   EXPECT_EQ(Server(loop, tooLong, dir, "configAgent").error(), "socket path must be 1 to 107 bytes");
   EXPECT_EQ(Client(loop, tooLong, "").lastClose(), "socket path must be 1 to 107 bytes");
}

TEST(ServeMount, AClientListsThePathsAndTypesAServerServes) {
   Kel::registerTypes<Kel::Dir>();
   auto root = Kel::makePtr<Kel::Dir>(Kel::Name("agent"));
   root->mkdir("interface/status")->entryIs(Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("intf")));
   root->mkdir("interface/counter");
   auto many = root->mkdir("many");  // an answer larger than one read
   for (int i = 0; i < 4000; ++i) many->mkdir("leaf" + std::to_string(i));
   std::string name = "@intf-list-" + std::to_string(::getpid());
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::ConnectionLimits small;
   small.bufferBytes = 47;  // the served root's entry, not the next one (but the one after)
   Server server(loop, name, root, "agent"), tight(loop, name + "-tight", root, "agent", small);
   // The server answers from this process's loop: list from another thread.
   struct Listing {
      std::vector<std::string> entries;
      std::string error;
      bool truncated = false;
   };
   auto list = [&](std::string const & at, std::string const & path, unsigned depth) {
      Listing l;
      std::atomic<bool> done{false};
      std::thread t([&] {
         Kel::String8 error;
         for (auto const & e : Kel::NboAttrLog::listServed(at, Kel::String8(path), depth, &error, &l.truncated)) {
            l.entries.push_back(e.path.str() + " " + e.type.str());
         }
         l.error = error.str();
         done = true;
      });
      while (!done) loop.runOnce(10);
      t.join();
      return l;
   };
   Listing all;
   {
      StdinClosed free0;
      all = list(name, "interface", 9);
   }
   EXPECT_EQ(all.entries, (std::vector<std::string>{" Kel::Dir", "counter Kel::Dir", "status Kel::Dir",
                                                     "status/intf Interface::AllIntfConfigDir"}));
   EXPECT_EQ(all.error, "");
   EXPECT_FALSE(all.truncated);
   Listing top = list(name, "", 1);
   EXPECT_EQ(top.entries, (std::vector<std::string>{" Kel::Dir", "many Kel::Dir", "interface Kel::Dir"}));  // the directory's order
   Listing large = list(name, "many", 1);
   EXPECT_EQ(large.entries.size(), 4001u) << large.error;
   // Cut short by the server's buffer: the first entries, none skipped.
   Listing cut = list(name + "-tight", "interface", 9);
   EXPECT_TRUE(cut.truncated);
   ASSERT_LT(cut.entries.size(), all.entries.size());
   EXPECT_TRUE(std::equal(cut.entries.begin(), cut.entries.end(), all.entries.begin()));
   Listing none = list(name, "interface/nothing", 1);
   EXPECT_TRUE(none.entries.empty());
   EXPECT_EQ(none.error, "the server closed the connection: no entity at interface/nothing: interface holds counter, "
                         "status");

   // A server that takes the request and closes without an answer has gone
   // away, which is said as such rather than waited out as silence.
   // A server of the test's own making, listening at an abstract "@name".
   auto listenAt = [](std::string const & at) {
      int l = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      socklen_t len;
      sockaddr_un a = IntfTest::abstractAddress(at.substr(1), &len);
      EXPECT_EQ(::bind(l, reinterpret_cast<sockaddr *>(&a), len), 0);
      EXPECT_EQ(::listen(l, 1), 0);
      return l;
   };
   std::string mute = name + "-mute";
   int l = listenAt(mute);
   Kel::String8 muteError;
   std::thread asker([&] { Kel::NboAttrLog::listServed(mute, Kel::String8(""), 1, &muteError); });
   int c = ::accept(l, nullptr, nullptr);
   char request[64];
   EXPECT_GT(::recv(c, request, sizeof request, 0), 0);
   ::close(c);
   asker.join();
   EXPECT_EQ(muteError, "the server at " + mute + " went away");
   // One that stays silent is waited for as long as the caller said.
   std::thread waiter([&] { Kel::NboAttrLog::listServed(mute, Kel::String8(""), 1, &muteError, nullptr, 50); });
   c = ::accept(l, nullptr, nullptr);
   waiter.join();
   ::close(c);
   ::close(l);
   EXPECT_EQ(muteError, "no answer from " + mute + " in 50 ms");

   // Answers as they arrive: a part waits for the rest, a bad one is refused.
   std::string answer("\0\0\0\x16\x0c\0\0\0\x01\0\0\0\0\0\0\0\x08Kel::Dir\x01", 26);
   struct Case {
      std::string bytes;
      bool decided;
      std::string error;
      size_t entries;
      size_t frameBytes = Kel::NboAttrLog::ConnectionLimits().frameBytes;
   } const cases[] = {
      {answer, true, "", 1},
      {answer.substr(0, 4), false, "", 0},  // a length, and no type yet
      {answer.substr(0, 20), false, "", 0},
      {answer.substr(0, 25), false, "", 0},  // all but its last byte
      {std::string("\0\0\0\x05\x0c\0\0\0\x02", 9), true, "malformed answer: truncated message", 0},
      {std::string("\0\0\0\x01\x07", 5), true, "malformed answer: message type 7", 0},
      // A refusal after the server's hello: who refuses, then why.
      {std::string("\0\0\0\x07\x02\0\0\0\x02" "ag\0\0\0\x07\x0a\0\0\0\x02no", 22), true,
       "the server closed the connection: no", 0},
      {std::string("\0\0\0\x07\x02\0\0\0\x02" "ag", 11), false, "", 0},
      {std::string("\x10\0\0\0\x0c", 5), true, "malformed answer: a frame of 268435456 bytes", 0},
      {answer, true, "", 1, 22},  // a frame of exactly the limit
      {answer, true, "malformed answer: a frame of 22 bytes", 0, 21},
   };
   for (auto const & c : cases) {
      std::vector<Kel::NboAttrLog::ServedEntry> entries;
      bool cut = false;
      Kel::String8 error;
      EXPECT_EQ(Kel::NboAttrLog::decodeListing(c.bytes, &entries, &cut, &error, c.frameBytes), c.decided) << c.error;
      EXPECT_EQ(error, c.error);
      EXPECT_EQ(entries.size(), c.entries) << c.error;
      EXPECT_EQ(cut, c.entries == 1) << c.error;
   }

   // An answer that arrives a byte at a time is read whole.
   std::string drip = name + "-drip";
   l = listenAt(drip);
   Kel::String8 dripError;
   std::vector<Kel::NboAttrLog::ServedEntry> dripped;
   std::thread reader([&] { dripped = Kel::NboAttrLog::listServed(drip, Kel::String8(""), 1, &dripError); });
   c = ::accept(l, nullptr, nullptr);
   EXPECT_GT(::recv(c, request, sizeof request, 0), 0);
   for (char b : answer) {
      EXPECT_EQ(::send(c, &b, 1, MSG_NOSIGNAL), 1);
      std::this_thread::sleep_for(1ms);
   }
   reader.join();
   ::close(c);
   ::close(l);
   EXPECT_EQ(dripError, "");
   EXPECT_EQ(dripped.size(), 1u);
}
