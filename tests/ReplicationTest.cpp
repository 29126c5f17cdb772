// Replication between two real processes over a Unix socket: the writer
// serves a tree, the reader (a forked child) mounts it and reports what its
// reactors saw through a pipe.
#include "ChildProcess.h"
#include "TestTypes.h"

#include <Intf/IntfStatusDir.h>
#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include "Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>

using namespace KelTest;
using Kel::ActivityLoop;
using Kel::NboAttrLog::Reader;
using Kel::NboAttrLog::Writer;
using Zenet::IntfId;

namespace {

void registerTestTypes() {
   Kel::registerTypes<Thing, Leaf, Queue, SubThing>();
}

// Logs what a replica's reactors hear.
struct Watch : Thing::NotifieeConst {
   void onCount() override { log << "count=" << notifier()->count() << ";"; ++counts; }
   void onText() override { log << "text=" << notifier()->text() << ";"; }
   void onRequestor(Kel::String8 k) override {
      log << "requestor[" << k << "]=" << (notifier()->requestorIteratorConst(k) ? "set" : "gone")
          << ";";
   }
   void onLeaf(IntfId id) override {
      log << "leaf[" << id << "]=" << (notifier()->leaf(id) ? "set" : "gone") << ";";
   }
   std::ostringstream log;
   uint64_t counts = 0;
};


// Runs `reader` in a child process on one end of a socket pair and returns
// the socket end for the writer. The child reports through `result`.
struct Peer {
   explicit Peer(std::function<std::string(int fd, Pipe & ready, Pipe & go)> reader) {
      registerTestTypes();
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
      pid = IntfTest::forkChild();
      if (pid == 0) {
         ::close(sv[0]);
         std::string r;
         try {
            r = reader(sv[1], ready, go);
         } catch (std::exception const & e) {
            r = std::string("exception: ") + e.what();
         }
         result.send(r);
         ::_exit(0);
      }
      ::close(sv[1]);
   }
   std::string finish() {
      std::string r = result.receive();
      int status = 0;
      ::waitpid(pid, &status, 0);
      ::close(sv[0]);
      return r;
   }
   int fd() const { return sv[0]; }
   int sv[2];
   pid_t pid;
   Pipe ready, go, result;
};

Thing::Ptr makeTree() {
   auto t = Kel::makePtr<Thing>(1);
   t->countIs(5);
   t->textIs("hello");
   t->requestorIs("a", true);
   t->requestorIs("b", false);
   auto leaf = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   leaf->mtuIs(9000);
   t->leafIs(leaf);
   t->peerIs(leaf);
   t->queuesIs(3, Interface::PktType::mc)->pktsIs(77);
   t->intervalIs(Interface::LoadInterval(false, 30));
   return t;
}

std::string describe(Thing const & t) {
   std::ostringstream s;
   s << "count=" << t.count() << " text=" << t.text() << " interval=" << t.interval().val()
     << " requestors=" << t.requestorSize();
   for (auto it = t.requestorIteratorConst(); it; ++it) s << " " << it.key() << ":" << it.value();
   s << " leaves=" << t.leafSize();
   for (auto it = t.leafIteratorConst(); it; ++it) {
      s << " " << it.key() << "/mtu=" << it.ptr()->mtu() << "/parent=" << it.ptr()->parent()->name();
   }
   s << " peer=" << (t.peer() ? t.peer()->name().str() : "none");
   if (t.peer() && t.leafSize()) s << (t.peer() == t.leafIteratorConst().ptr() ? "(same)" : "(other)");
   auto q = t.queues(3);
   s << " queue3=" << (q ? std::to_string(q->pkts()) + "/" + stringValue(q->pktType()).str() : "none");
   return s.str();
}

} // namespace

TEST(Replication, ReaderGetsTheWholeStateThenEveryChangeThroughItsReactors) {
   Peer peer([](int fd, Pipe & ready, Pipe &) {
      ActivityLoop loop;
      Reader reader(fd, "");
      loop.add(&reader);
      if (!loop.runUntil([&] { return reader.synced() || reader.closed(); }, 5000)) return std::string("no sync");
      auto root = Kel::dynamicCast<Thing>(reader.root());
      std::string initial = describe(*root);
      auto w = Kel::makePtr<Watch>();
      w->notifierIs(root);
      ready.send("synced");
      loop.runUntil([&] { return root->count() == 7 || reader.closed(); }, 5000);
      return initial + " | " + w->log.str() + " | " + describe(*root) + " | " +
             reader.closeReason().str();
   });
   auto tree = makeTree();
   ActivityLoop loop;
   Writer writer(peer.fd(), tree, "writer");
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving(); }, 5000);
   loop.runUntil([&] { return writer.pending() == 0; }, 5000);
   EXPECT_EQ(peer.ready.receive(), "synced");
   tree->countIs(6);
   tree->textIs("bye");
   tree->requestorIs("c", true);
   tree->requestorDel("a");
   tree->leaf(IntfId("Ethernet1"))->mtuIs(1400);
   tree->leafIs(Kel::makePtr<Leaf>(IntfId("Ethernet2")));
   tree->leafDel(IntfId("Ethernet1"));
   std::string delAll;  // removed one key at a time, in the writer's iteration order
   for (auto it = tree->requestorIteratorConst(); it; ++it) {
      delAll += "requestor[" + it.key().str() + "]=gone;";
   }
   tree->requestorDelAll();
   tree->countIs(7);
   loop.runUntil([&] { return writer.pending() == 0; }, 5000);
   std::string r = peer.finish();
   EXPECT_EQ(r,
             "count=5 text=hello interval=30 requestors=2 a:1 b:0 leaves=1 Ethernet1/mtu=9000/"
             "parent=thing1 peer=Ethernet1(same) queue3=77/mc | "
             "count=6;text=bye;requestor[c]=set;requestor[a]=gone;leaf[Ethernet2]=set;"
             "leaf[Ethernet1]=gone;" + delAll + "count=7; | "
             "count=7 text=bye interval=30 requestors=0 leaves=1 Ethernet2/mtu=1500/parent=thing1 "
             "peer=Ethernet1(other) queue3=77/mc | ");
}

TEST(Replication, AReplicaRefusesLocalWritesAndStaysUnchanged) {
   Peer peer([](int fd, Pipe &, Pipe &) {
      ActivityLoop loop;
      Reader reader(fd, "");
      loop.add(&reader);
      loop.runUntil([&] { return reader.synced(); }, 5000);
      auto root = Kel::dynamicCast<Thing>(reader.root());
      std::string r;
      try {
         root->countIs(99);
         r = "accepted";
      } catch (Kel::InternalException const & e) {
         r = e.message().str();
      }
      try {
         root->requestorIs("z", true);
      } catch (Kel::InternalException const &) {
         r += " + collection refused";
      }
      return r + " count=" + std::to_string(root->count()) +
             " requestors=" + std::to_string(root->requestorSize());
   });
   auto tree = makeTree();
   ActivityLoop loop;
   Writer writer(peer.fd(), tree, "agentA");
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving() && writer.pending() == 0; }, 5000);
   EXPECT_EQ(peer.finish(),
             "write-update from readonly proxy: thing1 peerName: agentA + collection refused "
             "count=5 requestors=2");
}

TEST(Replication, AStalledReaderCostsTheWriterBoundedMemoryAndGetsTheLatestValue) {
   Peer peer([](int fd, Pipe & ready, Pipe & go) {
      ActivityLoop loop;
      Reader reader(fd, "");
      loop.add(&reader);
      loop.runUntil([&] { return reader.synced(); }, 5000);
      auto root = Kel::dynamicCast<Thing>(reader.root());
      auto w = Kel::makePtr<Watch>();
      w->notifierIs(root);
      ready.send("synced");
      // Stall: read nothing until the writer has made all its writes.
      go.receive();
      loop.runUntil([&] { return root->count() == 1000000 || reader.closed(); }, 20000);
      // Only latest values travel: far fewer callbacks than writes.
      return "count=" + std::to_string(root->count()) + " coalesced:" +
             (w->counts < 50000 ? "yes" : "no, " + std::to_string(w->counts));
   });
   auto tree = makeTree();
   ActivityLoop loop;
   Writer writer(peer.fd(), tree, "writer", 64 * 1024);
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving() && writer.pending() == 0; }, 5000);
   EXPECT_EQ(peer.ready.receive(), "synced");
   size_t maxPending = 0;
   for (uint32_t i = 1; i <= 1000000; ++i) {
      tree->countIs(i);
      if ((i & 1023) == 0) {
         writer.pump();  // what the loop would do between activities
         maxPending = std::max(maxPending, writer.pending());
      }
   }
   EXPECT_TRUE(writer.flowOut());
   // Bounded: the buffer's size plus at most one message beyond it.
   EXPECT_LE(maxPending, 64u * 1024 + 64);
   peer.go.send("go");
   loop.runUntil([&] { return !writer.flowOut() && writer.pending() == 0; }, 20000);
   EXPECT_EQ(peer.finish(), "count=1000000 coalesced:yes");
}

TEST(Replication, DirtyBitsFollowTheDeclarationOrderPerTypeLevel) {
   registerTestTypes();
   int sv[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   auto sub = Kel::makePtr<SubThing>(2);
   // A tiny buffer: after the initial state everything goes to flow-out.
   Writer writer(sv[0], sub, "w", 1);
   Reader reader(sv[1], "");
   writer.onReadable();
   ASSERT_TRUE(writer.serving());
   // The initial state flows out one message at a time; let it all through
   // (the bytes are read and dropped: only the writer's bits matter here).
   for (int i = 0; i < 1000 && (writer.flowOut() || writer.pending() > 0); ++i) {
      writer.pump();
      char buf[4096];
      while (::read(sv[1], buf, sizeof buf) > 0) {
      }
   }
   ASSERT_TRUE(writer.synced()) << writer.closeReason();
   sub->textIs("x");  // written at once; unsent, it fills the one-byte buffer
   sub->countIs(1);         // Thing: second replicated attribute -> bit 2
   sub->mustIs(Kel::makePtr<Leaf>(IntfId("Ethernet1")));  // eighth -> byte 1, bit 0
   sub->extraIs(3);         // SubThing's own level: set 1, bit 1
   auto * a = writer.adapter(sub.ptr());
   ASSERT_TRUE(a);
   EXPECT_TRUE(writer.flowOut());
   EXPECT_EQ(a->dirtyBitSet(0), (std::vector<uint8_t>{0x04, 0x01}));
   EXPECT_EQ(a->dirtyBitSet(1), (std::vector<uint8_t>{0x02}));
   ::close(sv[0]);
   ::close(sv[1]);
}

TEST(Replication, ACaughtUpWriterKeepsNothingDirtySoTheNextCongestionSendsOnlyWhatChanged) {
   registerTestTypes();
   int sv[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   auto sub = Kel::makePtr<Thing>(2);
   Writer writer(sv[0], sub, "w", 1);
   Reader reader(sv[1], "");
   writer.onReadable();
   ASSERT_TRUE(writer.serving());
   auto drain = [&] {
      for (int i = 0; i < 1000 && (writer.flowOut() || writer.pending() > 0); ++i) {
         writer.pump();
         reader.onReadable();
      }
      reader.onReadable();
   };
   auto clean = [](std::vector<uint8_t> const & bits) {
      return std::all_of(bits.begin(), bits.end(), [](uint8_t b) { return b == 0; });
   };
   drain();
   ASSERT_TRUE(reader.synced()) << reader.closeReason();
   auto replica = Kel::dynamicCast<Thing>(reader.root());
   ASSERT_TRUE(replica);
   auto w = Kel::makePtr<Watch>();
   w->notifierIs(replica);

   // First congestion: text fills the buffer, count waits as a dirty bit.
   sub->textIs("x");
   sub->countIs(1);
   auto * a = writer.adapter(sub.ptr());
   ASSERT_TRUE(a);
   EXPECT_TRUE(writer.flowOut());
   drain();
   EXPECT_FALSE(writer.flowOut());
   EXPECT_TRUE(clean(a->dirtyBitSet(0)));
   EXPECT_EQ(replica->count(), 1u);

   // Second congestion changes another attribute: count must not travel again.
   sub->textIs("yy");
   sub->flagIs(true);  // the first replicated attribute: bit 1 of byte 0
   EXPECT_TRUE(writer.flowOut());
   auto bits = a->dirtyBitSet(0);
   ASSERT_FALSE(bits.empty());
   EXPECT_EQ(bits[0], 0x02);
   EXPECT_TRUE(clean(std::vector<uint8_t>(bits.begin() + 1, bits.end())));
   drain();
   EXPECT_TRUE(replica->flag());
   EXPECT_EQ(w->log.str(), "text=x;count=1;text=yy;");
   ::close(sv[0]);
   ::close(sv[1]);
}

namespace {

// The bytes a writer sends for `tree`, captured without a reader object.
std::string captureStream(Kel::Ptr<Kel::Entity> tree, std::function<void()> changes = {}) {
   int sv[2];
   EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   Writer writer(sv[0], tree, "w");
   Reader mountOnly(sv[1], "");  // sends the mount request
   writer.onReadable();
   if (changes) changes();
   writer.pump();
   std::string bytes;
   char buf[65536];
   ssize_t n;
   ::shutdown(sv[0], SHUT_WR);
   while ((n = ::read(sv[1], buf, sizeof buf)) > 0) bytes.append(buf, size_t(n));
   ::close(sv[0]);
   ::close(sv[1]);
   return bytes;
}

} // namespace

TEST(Replication, ACorruptStreamClosesOnlyItsOwnConnection) {
   registerTestTypes();
   std::string good = captureStream(makeTree());
   int devnull = ::open("/dev/null", O_RDWR);
   Reader healthy(devnull, "");
   healthy.receive(good.data(), good.size());
   ASSERT_TRUE(healthy.synced());
   EXPECT_FALSE(healthy.closed());

   // Flip each byte in turn (sampled): no crash, and a reader either
   // applies the damaged stream or closes with a reason.
   for (size_t i = 0; i < good.size(); i += 7) {
      std::string bad = good;
      bad[i] = char(bad[i] ^ 0x5a);
      Reader r(devnull, "");
      r.receive(bad.data(), bad.size());
      if (r.closed()) {
         EXPECT_FALSE(r.closeReason().empty());
      }
   }
   // An update whose transaction-end token is wrong closes that reader only.
   Kel::NboAttrLog::Out f;
   f.putU32(0);
   f.putU8(Kel::NboAttrLog::msgAttr);
   f.putU32(1);  // the served root
   f.putU32(Thing::kelId_count);
   f.putU8(Kel::NboAttrLog::tokenBegin);
   f.putU32(123);
   f.putU8(0);
   f.patchU32(0, uint32_t(f.size() - 4));
   Reader r(devnull, "");
   r.receive(good.data(), good.size());
   r.receive(f.data(), f.size());
   EXPECT_TRUE(r.closed());
   EXPECT_EQ(r.closeReason(), Kel::String8("missing transaction end"));
   EXPECT_FALSE(healthy.closed());
   // A frame cut short only waits for the rest.
   Reader partial(devnull, "");
   partial.receive(good.data(), good.size() - 3);
   EXPECT_FALSE(partial.closed());
   EXPECT_FALSE(partial.synced());
   ::close(devnull);
}

TEST(Replication, AnUnknownEnumerationNumberIsCountedAndTheStreamGoesOn) {
   registerTestTypes();
   auto tree = Kel::makePtr<Thing>(1);
   std::string bytes = captureStream(tree, [&] {
      tree->stateIs(Interface::IntfEnabledState(77));  // no name: the reader refuses it
      tree->countIs(12);
   });
   int devnull = ::open("/dev/null", O_RDWR);
   Reader r(devnull, "");
   r.receive(bytes.data(), bytes.size());
   ::close(devnull);
   EXPECT_FALSE(r.closed()) << r.closeReason();
   EXPECT_EQ(r.unknownEnums(), 1u);
   auto root = Kel::dynamicCast<Thing>(r.root());
   EXPECT_EQ(root->count(), 12u);
   EXPECT_EQ(root->state(), Interface::IntfEnabledState::unknownEnabledState);
}

namespace {

// Types no test registers, below a base the reader makes from a name.
#define KEL_ATTRS_PrivateBaseDir(X)
class PrivateBaseDir : public Interface::IntfStatusDirBase {
   KEL_ENTITY(PrivateBaseDir, Interface::IntfStatusDirBase, "KelTest::PrivateBaseDir", KEL_ATTRS_PrivateBaseDir)
 public:
   explicit PrivateBaseDir(Kel::Name n) : Interface::IntfStatusDirBase(std::move(n)) {}
};
#define KEL_ATTRS_PrivateStatusDir(X) X(Scalar, extra, Extra, uint32_t, 0)
class PrivateStatusDir : public PrivateBaseDir {
   KEL_ENTITY(PrivateStatusDir, PrivateBaseDir, "KelTest::PrivateStatusDir", KEL_ATTRS_PrivateStatusDir)
 public:
   explicit PrivateStatusDir(Kel::Name n) : PrivateBaseDir(std::move(n)) {}
};

} // namespace

TEST(Replication, AnEntityOfATypeTheReaderLacksIsReadAsTheNearestBaseItKnowsOrRefusedWithAWayOut) {
   registerTestTypes();
   std::vector<std::string> traced;
   Kel::traceSinkIs([&](const char *, int level, Kel::String8 const & m) {
      if (level == 0) traced.push_back(m.str());
   });
   int devnull = ::open("/dev/null", O_RDWR);
   auto top = Kel::makePtr<Kel::Dir>(Kel::Name("top"));
   auto a = Kel::makePtr<PrivateStatusDir>(Kel::Name("a")), b = Kel::makePtr<PrivateStatusDir>(Kel::Name("b"));
   top->entryIs(a);
   top->entryIs(b);
   std::string bytes = captureStream(top, [&] {
      b->extraIs(8);
      b->counterDirPathIs("elsewhere");
   });
   Reader r(devnull, "");
   r.receive(bytes.data(), bytes.size());
   EXPECT_FALSE(r.closed()) << r.closeReason();
   // The nearest base it knows, past one it does not: the base's rows go on, the type's own are skipped.
   auto base = Kel::dynamicCast<Interface::IntfStatusDirBase>(r.root()->entity("b"));
   ASSERT_TRUE(base);
   EXPECT_EQ(base->counterDirPath(), "elsewhere");
   EXPECT_EQ(r.root()->entity("a")->fwkType()->name(), "Interface::IntfStatusDirBase");
   EXPECT_EQ(traced, std::vector<std::string>{"KelTest::PrivateStatusDir is not registered here: read as its "
                                              "base Interface::IntfStatusDirBase, without the rows of its own"});

   bytes = captureStream(Kel::makePtr<Holder>(Kel::Name("h")));  // no test registers it; no base to stand in
   Reader refused(devnull, "");
   refused.receive(bytes.data(), bytes.size());
   EXPECT_EQ(refused.closeReason(), "unknown type KelTest::Holder: register it in this process "
                                    "(Kel::registerTypes) with the declaration its server publishes");
   Kel::traceSinkIs(nullptr);
   ::close(devnull);
}
