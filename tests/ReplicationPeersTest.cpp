// Replication against peers that misbehave: readers that leave early, ask
// for paths outside what is served or never read; writers that send too
// much, cycles, references to the reader's own entities, no root of their
// own or half-valid messages; peers that die; peers that connect and stay
// silent, too many of them or when descriptors run out; servers that
// accept nobody; trees deeper than any stack. Each costs the misbehaving
// connection and nothing else.
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Kel/Log.h>
#include <Kel/Stream.h>

#include "ChildProcess.h"
#include "Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using Kel::ActivityLoop;
using Kel::Dir;
using Kel::Name;
using Kel::String8;
using Kel::NboAttrLog::ConnectionLimits;
using Kel::NboAttrLog::Out;
using Kel::NboAttrLog::Reader;
using Kel::NboAttrLog::Writer;
namespace Log = Kel::NboAttrLog;

namespace {

struct SocketPair {
   SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
   ~SocketPair() {
      for (int f : fd) {
         if (f >= 0) ::close(f);
      }
   }
   void closeEnd(int i) {
      ::close(fd[i]);
      fd[i] = -1;
   }
   int fd[2];
};

// A tree of plain directories: root/<sub>/leaf0 ... leafN.
Dir::Ptr makeTree(int leaves, std::string const & sub = "served") {
   Kel::registerTypes<Dir>();
   auto root = Kel::makePtr<Dir>(Name("top"));
   auto served = root->mkdir(sub);
   for (int i = 0; i < leaves; ++i) served->mkdir("leaf" + std::to_string(i));
   root->mkdir("secret")->mkdir("inside");
   return root;
}

// Runs a writer against a reader over a socket pair in this process until
// the reader is synced or either side closed.
struct Link {
   Link(Kel::Ptr<Kel::Entity> served, std::string const & path, ConnectionLimits limits = {})
         : writer(p.fd[0], served, "w", limits), reader(p.fd[1], String8(path)) {
      loop.add(&writer);
      loop.add(&reader);
   }
   void run(int ms = 5000) {
      loop.runUntil([&] { return reader.synced() || reader.closed(); }, ms);
   }
   SocketPair p;
   Writer writer;
   Reader reader;
   ActivityLoop loop;
};

// Hand-made writer streams.
struct Stream {
   Out o;
   void frame(uint8_t type, std::function<void(Out &)> body) {
      size_t f = Log::beginFrame(o, type);
      body(o);
      Log::endFrame(o, f);
   }
   void hello(std::string const & name) {
      frame(Log::msgHello, [&](Out & m) { m.putString(name); });
   }
   void dir(uint32_t id, std::string const & name) {
      frame(Log::msgCreate, [&](Out & m) {
         m.putU32(id);
         m.putString("Kel::Dir");
         m.putU8(0);  // no base types
         m.putString(name);
      });
   }
   void root(uint32_t id) {
      frame(Log::msgRoot, [&](Out & m) {
         m.putU8(1);
         m.putU32(id);
      });
   }
   // Member `key` of dir `id`'s entries: by id (kind 1) or by name (kind 2).
   void entry(uint32_t id, std::string const & key, uint32_t child, std::string const & byName = {}) {
      frame(Log::msgMember, [&](Out & m) {
         Log::putAttrHead(m, id, Dir::kelId_entry);
         Log::Nbo<Name>::write(m, Name(key), nullptr);
         m.put(true);
         if (byName.empty()) {
            m.putU8(1);
            m.putU32(child);
         } else {
            m.putU8(2);
            m.putString(byName);
         }
         m.putU8(Log::tokenEnd);
      });
   }
   void sync() {
      frame(Log::msgSyncDone, [](Out &) {});
   }
   std::string bytes() const { return std::string(o.data(), o.size()); }
};

struct DevNull {
   DevNull() : fd(::open("/dev/null", O_RDWR)) {}
   ~DevNull() { ::close(fd); }
   int fd;
};

} // namespace

// ---- hostile readers ---------------------------------------------------------------------------

TEST(ReplicationPeers, AReaderLeavingDuringTheInitialStateCostsOnlyItsConnection) {
   auto tree = makeTree(3000);
   tree->mkdir("served/" + std::string(60000, 'n'));  // a long name: a large first burst
   // The hostile reader: a mount request, then gone.
   SocketPair bad;
   Out mount;
   mount.putU32(0);
   mount.putU8(Log::msgMount);
   mount.putString("served");
   mount.patchU32(0, uint32_t(mount.size() - 4));
   ASSERT_EQ(::write(bad.fd[1], mount.data(), mount.size()), ssize_t(mount.size()));
   bad.closeEnd(1);
   String8 heard;
   Writer leaving(bad.fd[0], tree, "w", 4096);
   leaving.closeHandlerIs([&](String8 const & why) { heard = why; });
   Link good(tree, "served");
   good.loop.add(&leaving);
   good.run();
   good.loop.runUntil([&] { return leaving.closed() && good.loop.sources() == 2; }, 5000);
   EXPECT_TRUE(good.reader.synced()) << good.reader.closeReason();
   EXPECT_EQ(Kel::dynamicCast<Dir>(good.reader.root())->entrySize(), 3001u);
   EXPECT_TRUE(leaving.closed());
   EXPECT_EQ(heard, "peer went away");
   EXPECT_EQ(leaving.adapters(), 0u);  // freed once nothing was using them
}

TEST(ReplicationPeers, MountPathsOutsideTheServedTreeAreRefusedWithTheReason) {
   struct Case {
      std::string path, reason;
   } const cases[] = {
      {"/secret", "mount path must name entities below the served root: /secret"},
      {"..", "mount path must name entities below the served root: .."},
      {"../secret", "mount path must name entities below the served root: ../secret"},
      {"leaf1/../../secret",
       "mount path must name entities below the served root: leaf1/../../secret"},
      {"leaf1//x", "mount path must name entities below the served root: leaf1//x"},
      {"leaf1/", "mount path must name entities below the served root: leaf1/"},
      {"./leaf1", "mount path must name entities below the served root: ./leaf1"},
      // Eight names are all named; ten are cut (tests/ServeMountTest.cpp).
      {"nosuch", "no entity at nosuch: the served entity holds leaf0, leaf1, leaf2, leaf3, leaf4, leaf5, leaf6, leaf7"},
      {"leaf1/x/y", "no entity at leaf1/x/y: leaf1 holds no entities"},
   };
   auto tree = makeTree(8);
   auto served = tree->entity("served");
   for (auto const & c : cases) {
      Link l(served, c.path);
      l.run();
      EXPECT_FALSE(l.reader.synced()) << c.path;
      EXPECT_EQ(l.reader.closeReason(), "writer closed the connection: " + c.reason) << c.path;
      EXPECT_EQ(l.writer.closeReason(), String8(c.reason));
      EXPECT_EQ(l.reader.peerName(), "w");  // who refused is named even before serving
   }
   Link fine(served, "leaf2");
   fine.run();
   EXPECT_TRUE(fine.reader.synced()) << fine.reader.closeReason();
   EXPECT_EQ(fine.reader.root()->name(), "leaf2");
}

TEST(ReplicationPeers, AnOversizedMountRequestIsRefusedAtItsHeaderWithAShortReason) {
   auto tree = makeTree(1);
   std::string huge;
   for (int i = 0; i < 100000; ++i) huge += "leaf0/../";
   Link big(tree->entity("served"), huge);
   big.run();
   EXPECT_EQ(big.writer.closeReason(), "mount request of 900005 bytes exceeds the limit of 4112");
   // Within the limit, a missing path is named, cut short.
   std::string deep;
   for (int i = 0; i < 400; ++i) deep += "missing/";
   deep += "x";
   Link miss(tree->entity("served"), deep);
   miss.run();
   EXPECT_LT(miss.writer.closeReason().size(), 200u);
   EXPECT_EQ(miss.writer.closeReason().view().substr(0, 20), "no entity at missing");
}

TEST(ReplicationPeers, AReaderThatNeverReadsCostsTheWriterOnlyItsBuffer) {
   auto tree = makeTree(20000);
   SocketPair p;
   Writer writer(p.fd[0], tree->entity("served"), "w", 64 * 1024);
   Reader mountOnly(p.fd[1], "");  // sends the mount request, then never reads
   ActivityLoop loop;
   loop.add(&writer);
   for (int i = 0; i < 200; ++i) loop.runOnce(1);
   EXPECT_TRUE(writer.serving());
   EXPECT_FALSE(writer.synced());
   EXPECT_LE(writer.pending(), 64u * 1024 + 256);
   // Only what was sent or is waiting is known to the writer, not the tree.
   EXPECT_LT(writer.adapters(), 10000u);
}

// ---- hostile writers ---------------------------------------------------------------------------

TEST(ReplicationPeers, PeerSuppliedSizesPastTheLimitsCloseTheConnection) {
   Kel::registerTypes<Dir>();
   DevNull n;
   ConnectionLimits small;
   small.entities = 3;
   small.entityNameBytes = 100;
   struct Case {
      char const * what;
      std::function<void(Stream &)> build;
      std::string reason;
   } const cases[] = {
      {"long writer name", [](Stream & s) { s.hello(std::string(5000, 'w')); },
       "writer name of 5000 bytes exceeds the limit of 1024"},
      {"frame header over the limit, body never sent",
       [](Stream & s) {
          s.o.putU32(64u << 20);
          s.o.putU8(Log::msgHello);
       },
       "message of 67108864 bytes exceeds the limit of 4194304"},
      {"too many entities",
       [](Stream & s) {
          s.hello("w");
          for (uint32_t i = 1; i <= 4; ++i) s.dir(i, "d" + std::to_string(i));
       },
       "more than 3 entities from one writer"},
      {"too many entities, each forgotten once placed in the tree",
       [](Stream & s) {
          s.hello("w");
          s.dir(1, "top");
          s.root(1);
          for (uint32_t i = 2; i <= 6; ++i) {
             s.dir(i, "d" + std::to_string(i));
             s.entry(1, "d" + std::to_string(i), i);
             s.frame(Log::msgForget, [&](Out & m) { m.putU32(i); });
          }
       },
       "more than 3 entities from one writer"},
      {"long entity names",
       [](Stream & s) {
          s.hello("w");
          s.dir(1, std::string(60, 'a'));
          s.dir(2, std::string(41, 'b'));  // 101 bytes held
       },
       "entity names of one writer exceed 100 bytes"},
      {"long entity names, each forgotten once placed in the tree",
       [](Stream & s) {
          s.hello("w");
          s.dir(1, "top");
          s.root(1);
          for (uint32_t i = 2; i <= 3; ++i) {
             std::string name = std::string(50, 'n') + std::to_string(i);  // 3 + 51 + 51 held
             s.dir(i, name);
             s.entry(1, name, i);
             s.frame(Log::msgForget, [&](Out & m) { m.putU32(i); });
          }
       },
       "entity names of one writer exceed 100 bytes"},
   };
   for (auto const & c : cases) {
      Stream s;
      c.build(s);
      Reader r(n.fd, "", small);
      r.receive(s.o.data(), s.o.size());
      EXPECT_TRUE(r.closed()) << c.what;
      EXPECT_EQ(r.closeReason(), String8(c.reason)) << c.what;
      EXPECT_EQ(r.entities(), 0u) << c.what;
   }
}

TEST(ReplicationPeers, AForgottenReplicaCountsAgainstTheLimitOnlyUntilItGoes) {
   Kel::registerTypes<Dir>();
   DevNull n;
   ConnectionLimits small;
   small.entities = 3;
   small.entityNameBytes = 12;  // "top" and two of the names below at most
   Stream s;
   s.hello("w");
   s.dir(1, "top");
   s.root(1);
   // A writer under flow control forgets an entity before the removal of
   // its member reaches the reader: many times over, never more than the
   // limits held at once.
   for (uint32_t i = 2; i < 40; ++i) {
      std::string key = "d" + std::to_string(i);
      s.dir(i, key);
      s.entry(1, key, i);
      s.frame(Log::msgForget, [&](Out & m) { m.putU32(i); });
      s.frame(Log::msgMember, [&](Out & m) {
         Log::putAttrHead(m, 1, Dir::kelId_entry);
         Log::Nbo<Name>::write(m, Name(key), nullptr);
         m.put(false);
         m.putU8(Log::tokenEnd);
      });
   }
   s.sync();
   Reader r(n.fd, "", small);
   r.receive(s.o.data(), s.o.size());
   EXPECT_TRUE(r.synced()) << r.closeReason();
   EXPECT_EQ(Kel::dynamicCast<Dir>(r.root())->entrySize(), 0u);
}

TEST(ReplicationPeers, ADirectoryCannotContainItselfOrAnAncestor) {
   Kel::registerTypes<Dir>();
   auto a = Kel::makePtr<Dir>(Name("a"));
   auto b = a->mkdir("b");
   EXPECT_THROW(a->entryIs(a), Kel::RangeException);
   EXPECT_THROW(b->entryIs(a), Kel::RangeException);
   EXPECT_EQ(a->parentRaw(), nullptr);
   EXPECT_EQ(b->entrySize(), 0u);
   EXPECT_EQ(a->fullName(), "a");

   // The same from a writer: the reader refuses and closes, and survives.
   DevNull n;
   Stream s;
   s.hello("w");
   s.dir(1, "top");
   s.dir(2, "sub");
   s.root(1);
   s.entry(1, "sub", 2);
   s.entry(2, "top", 1);  // top inside its own child
   Reader r(n.fd, "");
   r.receive(s.o.data(), s.o.size());
   EXPECT_TRUE(r.closed());
   EXPECT_EQ(r.closeReason(), "Entity top cannot be placed in sub: it is that entity or one of its ancestors");
}

TEST(ReplicationPeers, AReferenceByNameNeverMovesAnEntityOfTheReader) {
   Kel::registerTypes<Dir>();
   auto mine = Kel::globalDir()->mkdir("replicationPeersTest/mine");
   DevNull n;
   Stream s;
   s.hello("w");
   s.dir(1, "top");
   s.root(1);
   s.entry(1, "mine", 0, "/replicationPeersTest/mine");
   Reader r(n.fd, "");
   r.receive(s.o.data(), s.o.size());
   EXPECT_TRUE(r.closed());
   EXPECT_EQ(mine->parentRaw(), Kel::globalDir()->entity("replicationPeersTest").ptr());
   EXPECT_EQ(mine->fullName(), "/replicationPeersTest/mine");
   Kel::globalDir()->entryDel(Name("replicationPeersTest"));
}

TEST(ReplicationPeers, AReferenceOutsideTheMountIsFoundByItsFullNameOrRefusedSayingWhereItLeads) {
   for (bool inThisProcess : {true, false}) {  // a tree under the root directory has names the reader finds
      auto top = inThisProcess ? Kel::globalDir()->mkdir("refTest") : Kel::makePtr<Dir>(Name("refTest"));
      auto kernel = Kel::makePtr<Interface::KernelIntfStatusDir>(Name("kernel"));
      top->entryIs(kernel);
      kernel->intfStatusIs("et1", Interface::intfStatusFactory(Zenet::IntfId("Ethernet1"), nullptr, 0));
      top->mkdir("status")->entryIs(kernel->intfStatus("et1"));
      Link l(top, "kernel");
      l.run();
      auto replica = Kel::dynamicCast<Interface::KernelIntfStatusDir>(l.reader.root());
      EXPECT_EQ(replica ? replica->intfStatus("et1") : nullptr, inThisProcess ? kernel->intfStatus("et1") : nullptr);
      EXPECT_EQ(l.reader.closeReason(), inThisProcess ? "" : "kernel: intfStatus refers to refTest/status/Ethernet1, "
                                                             "outside the mounted path; mount an entity that holds both");
      if (inThisProcess) Kel::globalDir()->entryDel(Name("refTest"));
   }
}

namespace {
// Writes to another replica from inside a replica's notification.
struct CrossWriter : Dir::NotifieeConst {
   Dir::Ptr other;
   std::string seen;
   void onEntry(Name k) override {
      try {
         other->entryIs(Kel::makePtr<Dir>(Name("planted")));
         seen += "accepted " + k.str() + ";";
      } catch (Kel::Exception const &) {
         seen += "refused " + k.str() + ";";
      }
   }
};
} // namespace

TEST(ReplicationPeers, AReactorCannotWriteAReplicaWhileAnUpdateIsApplied) {
   Kel::registerTypes<Dir>();
   DevNull n;
   Stream s;
   s.hello("w");
   s.dir(1, "top");
   s.dir(2, "other");
   s.root(1);
   s.entry(1, "other", 2);
   s.sync();
   Reader r(n.fd, "");
   r.receive(s.o.data(), s.o.size());
   ASSERT_TRUE(r.synced()) << r.closeReason();
   auto top = Kel::dynamicCast<Dir>(r.root());
   auto cross = Kel::makePtr<CrossWriter>();
   cross->other = Kel::dynamicCast<Dir>(top->entry(Name("other")));
   cross->notifierIs(top);
   Stream more;
   more.dir(3, "late");
   more.entry(1, "late", 3);
   r.receive(more.o.data(), more.o.size());
   EXPECT_FALSE(r.closed()) << r.closeReason();
   EXPECT_EQ(cross->seen, "refused late;");
   EXPECT_EQ(cross->other->entrySize(), 0u);
   EXPECT_TRUE(top->entry(Name("late")));  // the update itself was applied
}

TEST(ReplicationPeers, AWholeCollectionMessageThatFailsPartWayChangesNothing) {
   Kel::registerTypes<Dir>();
   DevNull n;
   Stream s;
   s.hello("w");
   s.dir(1, "top");
   s.dir(2, "a");
   s.dir(3, "b");
   s.root(1);
   s.sync();
   s.frame(Log::msgCollAll, [](Out & m) {
      Log::putAttrHead(m, 1, Dir::kelId_entry);
      m.putU32(3);
      for (auto [key, id] : {std::pair{"a", 2u}, {"b", 3u}, {"c", 99u}}) {  // 99 was never created
         Log::Nbo<Name>::write(m, Name(key), nullptr);
         m.putU8(1);
         m.putU32(id);
      }
      m.putU8(Log::tokenEnd);
   });
   Reader r(n.fd, "");
   Kel::Ptr<Kel::Entity> keep;
   r.receive(s.o.data(), s.o.size());
   EXPECT_TRUE(r.closed());
   EXPECT_EQ(r.closeReason(), "unknown entity 99");
   auto top = Kel::dynamicCast<Dir>(r.root());
   ASSERT_TRUE(top);  // synced before: the replica stays as last known
   EXPECT_EQ(top->entrySize(), 0u);
}

TEST(ReplicationPeers, AnInitialStateWithoutARootOfItsOwnNeverReportsSynced) {
   Kel::registerTypes<Dir>();
   Kel::globalDir()->mkdir("replicationPeersRoot");  // a root a writer must not name
   DevNull n;
   struct Case {
      char const * what;
      std::function<void(Stream &)> build;
      std::string reason;
   } const cases[] = {
      {"no root named", [](Stream & s) { s.dir(1, "top"); },
       "the initial state ended without a root"},
      {"a null root",
       [](Stream & s) {
          s.frame(Log::msgRoot, [](Out & m) { m.putU8(0); });
       },
       "the root must be an entity of the stream"},
      {"an entity of the reader's process as the root",
       [](Stream & s) {
          s.frame(Log::msgRoot, [](Out & m) {
             m.putU8(2);
             m.putString("/replicationPeersRoot");
          });
       },
       "the root must be an entity of the stream"},
      {"a second root",
       [](Stream & s) {
          s.dir(1, "top");
          s.dir(2, "other");
          s.root(1);
          s.root(2);
       },
       "the root was named twice"},
   };
   for (auto const & c : cases) {
      Stream s;
      s.hello("w");
      c.build(s);
      s.sync();
      Reader r(n.fd, "");
      bool told = false;
      r.syncHandlerIs([&] { told = true; });
      r.receive(s.o.data(), s.o.size());
      r.onRoundEnd();
      EXPECT_TRUE(r.closed()) << c.what;
      EXPECT_EQ(r.closeReason(), String8(c.reason)) << c.what;
      EXPECT_FALSE(r.synced()) << c.what;
      EXPECT_FALSE(told) << c.what;
      EXPECT_EQ(r.root(), nullptr) << c.what;
   }
   Kel::globalDir()->entryDel(Name("replicationPeersRoot"));
}

// ---- peers that die ----------------------------------------------------------------------------

TEST(ReplicationPeers, AWriterDyingMidSyncTellsTheReaderAndLeavesNothingHeld) {
   Kel::registerTypes<Dir>();
   SocketPair p;
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      // Half an initial state, then killed.
      Stream s;
      s.hello("dying");
      s.dir(1, "top");
      s.root(1);
      for (uint32_t i = 2; i < 500; ++i) {
         s.dir(i, "d" + std::to_string(i));
         s.entry(1, "d" + std::to_string(i), i);
      }
      (void)!::write(p.fd[1], s.o.data(), s.o.size());
      ::pause();
      ::_exit(0);
   }
   p.closeEnd(1);
   Reader reader(p.fd[0], "");
   String8 heard;
   bool handled = false;
   reader.closeHandlerIs([&](String8 const & why) {
      heard = why;
      handled = true;
   });
   ActivityLoop loop;
   loop.add(&reader);
   loop.runUntil([&] { return reader.entities() >= 499; }, 5000);
   EXPECT_EQ(reader.entities(), 499u);
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   loop.runUntil([&] { return handled; }, 5000);
   EXPECT_EQ(heard, "writer went away");
   EXPECT_FALSE(reader.synced());
   EXPECT_EQ(reader.root(), nullptr);
   EXPECT_EQ(reader.entities(), 0u);
   EXPECT_EQ(loop.sources(), 0u);
   EXPECT_EQ(loop.runOnce(0), 0);  // nothing left to spin on
}

TEST(ReplicationPeers, AClosedWriterShutsItsDescriptorSoThePeerSeesTheEnd) {
   auto tree = makeTree(1);
   SocketPair p;
   Writer writer(p.fd[0], tree, "w");
   ActivityLoop loop;
   loop.add(&writer);
   char junk[] = "\x00\x00\x00\x03\x63zz";  // a frame of an unknown kind
   ASSERT_EQ(::write(p.fd[1], junk, 7), 7);
   loop.runUntil([&] { return loop.sources() == 0; }, 5000);
   EXPECT_EQ(writer.closeReason(), "unexpected message from reader");
   // What the writer sent last is its reason, then the end of the stream.
   std::string got;
   char buf[256];
   ssize_t n;
   while ((n = ::read(p.fd[1], buf, sizeof buf)) > 0) got.append(buf, size_t(n));
   EXPECT_EQ(n, 0);
   EXPECT_NE(got.find("unexpected message from reader"), std::string::npos);
}

TEST(ReplicationPeers, ADescriptorClosedUnderItsSourceEndsTheSourceInsteadOfSpinningTheLoop) {
   // A connection whose descriptor is closed underneath it closes on the
   // next round; a bare source that cannot tell leaves the loop.
   struct Bare : ActivityLoop::Source {
      explicit Bare(int fd) : fd_(fd) {}
      int fd() const override { return fd_; }
      int fd_;
   };
   SocketPair p, q;
   Kel::NboAttrLog::Reader reader(p.fd[0], "served");
   Bare bare(q.fd[0]);
   ActivityLoop loop;
   loop.add(&reader);
   loop.add(&bare);
   ::close(p.fd[0]);
   ::close(q.fd[0]);
   p.fd[0] = q.fd[0] = -1;
   // Each round returns at once while a closed descriptor stays polled.
   for (int i = 0; i < 3; ++i) loop.runOnce(50);
   EXPECT_TRUE(reader.closed());
   EXPECT_EQ(loop.sources(), 0u);
}

TEST(ReplicationPeers, SendingToAPipeWhoseReaderIsGoneNeverRaisesSigpipe) {
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      ::signal(SIGPIPE, SIG_DFL);  // as in a program that did not ask otherwise
      int p[2];
      if (::pipe(p) != 0) ::_exit(2);
      ::close(p[0]);
      Reader r(p[1], "served");  // sends its mount request at once
      ActivityLoop loop;
      loop.add(&r);
      loop.runUntil([&] { return r.closed(); }, 5000);
      ::_exit(r.closed() ? 0 : 1);
   }
   IntfTest::Reap reap{pid};
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   reap.pid = -1;
   EXPECT_FALSE(WIFSIGNALED(status)) << "killed by signal " << WTERMSIG(status);
   EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
}

// ---- many peers at one server ------------------------------------------------------------------

namespace {

// A connection to the server at `name` (abstract) that sends `bytes` and
// then nothing; -1 when the connection was refused.
int idlePeer(std::string const & name, std::string const & bytes = {}) {
   socklen_t len;
   sockaddr_un a = IntfTest::abstractAddress(name, &len);
   int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (::connect(s, reinterpret_cast<sockaddr *>(&a), len) != 0) {
      ::close(s);
      return -1;
   }
   if (!bytes.empty()) {
      EXPECT_EQ(::send(s, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
   }
   return s;
}

// Descriptors closed on every path of a test.
struct Fds {
   ~Fds() {
      for (int f : fd) {
         if (f >= 0) ::close(f);
      }
   }
   std::vector<int> fd;
};

// Everything the peer sent until it ended the stream, or "(open)" when it
// has not ended it yet.
std::string drain(int s) {
   std::string got;
   char buf[4096];
   ssize_t n;
   while ((n = ::recv(s, buf, sizeof buf, MSG_DONTWAIT)) > 0) got.append(buf, size_t(n));
   return n == 0 ? got : "(open)";
}

} // namespace

TEST(ReplicationPeers, PeersThatNeverAskForAMountAreClosedWhileOthersAreServed) {
   auto tree = makeTree(2);
   std::string name = "intf-peers-idle-" + std::to_string(::getpid());
   ConnectionLimits limits;
   limits.mountWait = std::chrono::milliseconds(200);
   ActivityLoop loop;
   int ticks = 0;  // a timer of the agent's own, which closing connections leave alone
   loop.timerIs(std::chrono::milliseconds(10), [&] { ++ticks; }, std::chrono::milliseconds(10));
   Log::Server server(loop, "@" + name, tree, "w", limits);
   ASSERT_TRUE(server.valid()) << server.error();
   // Nothing, half a header, a whole header and no body.
   Fds idle{{idlePeer(name), idlePeer(name, std::string("\0\0", 2)),
             idlePeer(name, std::string("\0\0\0\x10\x01", 5))}};
   for (int s : idle.fd) ASSERT_GE(s, 0);
   Log::Client client(loop, "@" + name, "served");
   loop.runUntil([&] { return client.synced(); }, 5000);
   EXPECT_TRUE(client.synced()) << client.lastClose();
   loop.runUntil([&] { return server.connections() == 1; }, 5000);
   EXPECT_EQ(server.connections(), 1u);  // the client's
   for (int s : idle.fd) {
      std::string got = drain(s);
      EXPECT_NE(got.find("no mount request within 200 ms"), std::string::npos) << got;
   }
   EXPECT_TRUE(client.synced());
   int before = ticks;
   EXPECT_TRUE(loop.runUntil([&] { return ticks > before + 2; }, 5000));
}

TEST(ReplicationPeers, AFullServerLetsANewPeerInPlaceOfTheOldestIdleOneAndRefusesOnlyWhenAllAreMounted) {
   auto tree = makeTree(2);
   std::string name = "intf-peers-many-" + std::to_string(::getpid());
   ConnectionLimits limits;
   limits.connections = 3;
   ActivityLoop loop;
   Log::Server server(loop, "@" + name, tree, "w", limits);
   ASSERT_TRUE(server.valid()) << server.error();
   auto log = std::make_shared<Kel::CapturingLogSink>();
   Kel::logSinkIs(log);
   Kel::logClockIs(nullptr);  // a fresh rate-limit window
   Fds peers;
   for (int i = 0; i < 6; ++i) {
      peers.fd.push_back(idlePeer(name));
      ASSERT_GE(peers.fd.back(), 0);
      loop.runOnce(0);
      EXPECT_LE(server.connections(), 3u);
   }
   for (int i = 0; i < 6; ++i) {
      std::string got = drain(peers.fd[i]);
      if (i < 3) {
         EXPECT_NE(got.find("closed for a newer connection: more than 3 connections"), std::string::npos)
               << i << ": " << got;
      } else {
         EXPECT_EQ(got, "(open)") << i;
      }
   }
   // Readers that mount take the idle peers' places; once every connection
   // is mounted, a newcomer is the one refused.
   std::vector<std::unique_ptr<Log::Client>> readers;
   for (int i = 0; i < 3; ++i) {
      readers.push_back(std::make_unique<Log::Client>(loop, "@" + name, "served"));
      loop.runUntil([&] { return readers.back()->synced() || !readers.back()->lastClose().empty(); }, 5000);
      EXPECT_TRUE(readers.back()->synced()) << readers.back()->lastClose();
   }
   int late = idlePeer(name);
   peers.fd.push_back(late);
   std::string told;
   loop.runUntil([&] {
      char buf[512];
      ssize_t n;
      while ((n = ::recv(late, buf, sizeof buf, MSG_DONTWAIT)) > 0) told.append(buf, size_t(n));
      return n == 0;
   }, 5000);
   EXPECT_NE(told.find("more than 3 connections"), std::string::npos) << told;
   EXPECT_EQ(server.connections(), 3u);
   for (auto const & r : readers) EXPECT_TRUE(r->synced());
   Kel::logSinkIs(nullptr);
   // Logged through the structured log, one event per window.
   ASSERT_EQ(log->events.size(), 1u);
   EXPECT_EQ(Kel::logLine(log->events[0]), "KEL_SERVER_FULL WARNING: server on @" + name +
                                                " holds 3 connections: closed an idle connection of uid " +
                                                std::to_string(::getuid()) + " pid " + std::to_string(::getpid()));
}

TEST(ReplicationPeers, AClientDoesNotWaitOnAServerThatAcceptsNobody) {
   std::string name = "intf-peers-deaf-" + std::to_string(::getpid());
   socklen_t len;
   sockaddr_un a = IntfTest::abstractAddress(name, &len);
   Fds held;
   int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   held.fd.push_back(listener);
   ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&a), len), 0);
   ASSERT_EQ(::listen(listener, 0), 0);
   // Fill the backlog of a server that never accepts.
   for (int i = 0; i < 64; ++i) {
      int s = idlePeer(name);
      if (s < 0) break;
      held.fd.push_back(s);
   }
   ASSERT_LT(held.fd.size(), 65u);
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      ::alarm(20);  // a client stuck in connect dies of this instead
      ActivityLoop loop;
      Log::Client client(loop, "@" + name, "");
      ::_exit(client.lastClose().view().substr(0, 14) == "cannot connect" ? 0 : 1);
   }
   IntfTest::Reap reap{pid};
   int status = 0;
   ASSERT_EQ(::waitpid(pid, &status, 0), pid);
   reap.pid = -1;
   EXPECT_TRUE(WIFEXITED(status)) << "the client was stopped by signal " << WTERMSIG(status);
   EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
}

TEST(ReplicationPeers, APeerArrivingWhenTheServerIsOutOfDescriptorsIsToldAndTheLoopSleeps) {
   auto tree = makeTree(2);
   std::string name = "intf-peers-nofd-" + std::to_string(::getpid());
   Pipe result;
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      rlimit lim{256, 256};
      ::setrlimit(RLIMIT_NOFILE, &lim);
      {
         // Under the sanitizers, the first check of a writer's type as it
         // is destroyed needs descriptors of its own: done here, while
         // there are some, it is not repeated when there are none.
         SocketPair warm;
         Writer w(warm.fd[0], tree, "w");
         w.close("warm-up");
      }
      ActivityLoop loop;
      Log::Server server(loop, "@" + name, tree, "w");
      Fds peers;
      for (int i = 0; i < 20; ++i) peers.fd.push_back(idlePeer(name));
      loop.runOnce(0);
      // Every descriptor but one in use; the late peer takes that one.
      Fds hog;
      for (int f; (f = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) hog.fd.push_back(f);
      ::close(hog.fd.back());
      hog.fd.pop_back();
      int late = idlePeer(name);
      loop.runOnce(0);
      std::string told = drain(late);
      String8 why;  // none left for a client either: it says so
      Log::listServed("@" + name, "", 0, &why);
      int idle = 0;
      for (int i = 0; i < 10; ++i) idle += loop.runOnce(10) == 0;
      // With descriptors again, it listens again.
      for (int f : hog.fd) ::close(f);
      hog.fd.clear();
      Log::Client after(loop, "@" + name, "served");
      loop.runUntil([&] { return after.synced(); }, 5000);
      result.send((told.find("out of file descriptors") != std::string::npos ? "told" : "not told: " + told) +
                  (why.str() == "cannot connect to @" + name + ": " + std::strerror(EMFILE) ? "" : ", lister: " + why.str()) +
                  ", idle rounds " + std::to_string(idle) + " of 10" + (after.synced() ? ", served again" : ""));
      ::_exit(0);
   }
   IntfTest::Reap reap{pid};
   ::close(result.fd[1]);  // so that a child that dies ends the line
   result.fd[1] = -1;
   EXPECT_EQ(result.receive(), "told, idle rounds 10 of 10, served again");
}

// ---- depth -------------------------------------------------------------------------------------

TEST(ReplicationPeers, TreesDeeperThanAnyStackAreBuiltNamedServedAndDropped) {
   Kel::registerTypes<Dir>();
   constexpr int depth = 100000;
   auto top = Kel::makePtr<Dir>(Name("top"));
   Dir::Ptr cur = top;
   for (int i = 0; i < depth; ++i) {
      auto next = Kel::makePtr<Dir>(Name("d"));
      cur->entryIs(next);
      cur = next;
   }
   EXPECT_EQ(cur->fullName().size(), 3 + 2 * size_t(depth));
   // Served to a reader: every level arrives.
   {
      Link l(top, "");
      l.run(30000);
      ASSERT_TRUE(l.reader.synced()) << l.reader.closeReason() << l.writer.closeReason();
      Kel::Ptr<Kel::Entity> r = l.reader.root();
      int levels = 0;
      while (auto d = Kel::dynamicCast<Dir>(r)) {
         r = d->entry(Name("d"));
         if (!r) break;
         ++levels;
      }
      EXPECT_EQ(levels, depth);
   }
   cur = nullptr;
   top = nullptr;  // dropping the chain takes no stack per level
}
