// Queue counters whose values live in shared-memory cells: the entities'
// Cell rows, the place of the cell in the tree, the generation rules, and a
// reader in another process that mounts the writer's counters.
#include "ChildProcess.h"
#include "Pipe.h"
#include "ShmTestPrefix.h"

#include <Intf/IntfQueueCounter.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Kel/Exception.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>

namespace {

using namespace Interface;

Zenet::IntfId eth(int n) { return Zenet::IntfId(std::string_view("Ethernet" + std::to_string(n))); }

// Every level 9 message of the cell code, for one test.
struct CellTrace {
   CellTrace() {
      Kel::traceLevelIs("Brik::ShmemCounter", 9);
      Kel::traceSinkIs([this](const char * fac, int, Kel::String8 const & s) {
         if (std::string_view(fac) == "Brik::ShmemCounter") text += s.str() + "\n";
      });
   }
   ~CellTrace() {
      Kel::traceSinkIs(nullptr);
      Kel::traceLevelIs("Brik::ShmemCounter", 0);
   }
   bool has(std::string const & piece) const { return text.find(piece) != std::string::npos; }
   std::string text;
};

struct Cells : ShmTestPrefix {
   explicit Cells(std::string p) : path(std::move(p)) { clean(); }
   ~Cells() { clean(); }
   void clean() {
      Mavo::ShmemMan::remove(path + "/counters");
      Mavo::ShmemMan::remove(path + "/statistics");
   }
   // A counter tree whose managers are this process's own (a writer) or,
   // marked as another process's, readers.
   Kel::Ptr<AllIntfQueueCounterDir> tree(bool writer) {
      auto all = Kel::makePtr<AllIntfQueueCounterDir>("queueCounters");
      auto c = all->counterShmemManIs("counterShmemMan", path + "/counters", 208u);
      auto s = all->statisticsShmemManIs("statisticsShmemMan", path + "/statistics", 208u);
      if (!writer) {
         c->kelReadOnlyProxyIs(Kel::String8("writer"));
         s->kelReadOnlyProxyIs(Kel::String8("writer"));
      }
      return all;
   }
   std::string path;
};

Kel::Ptr<IntfQueueStatistics> queueOf(Kel::Ptr<AllIntfQueueCounterDir> const & all, int intf,
                                      unsigned char q) {
   return all->intfQueueCounterDirIs(eth(intf))->intfQueueCounterIs("current")->queuesIs(q, PktType::uc);
}

} // namespace

TEST(QueueCounter, QueuesAreKeyedByIndexInIndexOrderAndRefuseAnotherPacketTypeOrAnIndexPast17) {
   auto c = Kel::makePtr<IntfQueueCounter>("current");
   for (unsigned char q : {9, 17, 0, 4}) c->queuesIs(q, PktType::mc);
   std::vector<int> order;
   for (auto const & m : c->queuesRange()) order.push_back(m.key());
   EXPECT_EQ(order, (std::vector<int>{0, 4, 9, 17}));
   EXPECT_EQ(c->queues(17)->queueId(), 17);
   EXPECT_EQ(c->queues(17)->name(), Kel::Name("17"));
   EXPECT_EQ(c->queuesIs(17, PktType::mc), c->queues(17));
   auto refusal = [&](unsigned char q, PktType t) -> std::string {
      try {
         c->queuesIs(q, t);
      } catch (Kel::Exception const & e) {
         return e.message().str();
      }
      return "accepted";
   };
   EXPECT_EQ(refusal(17, PktType::uc),
             "Reinstantiating the entity with name 17 where constructor parameter attribute _pktType "
             "has a different value of 'uc' than the current value of 'mc' not allowed");
   for (unsigned char q : {18, 200, 255}) {
      EXPECT_EQ(refusal(q, PktType::uc), "IntfQueueStatistics::queueId < 0 or > Expr @Intf:498 not allowed")
          << int(q);
   }
   EXPECT_EQ(c->queuesSize(), 4u);
   EXPECT_EQ(c->queues(17)->pktType(), PktType::mc);
   // By reflection, the collection is indexed by the queue index too.
   IntfQueueCounter::GenericIf_ g(c);
   auto found = g.attributeAt("queues", Kel::toGeneric(uint8_t(9)));
   ASSERT_TRUE(found);
   EXPECT_EQ(Kel::fromGeneric<Kel::Ptr<IntfQueueStatistics>>(*found, "queues"), c->queues(9));
}

TEST(QueueCounter, AReaderTrustsACellOnlyInTheGenerationItHasSeen) {
   Cells cells("test/qc-gen");
   auto readerTree = cells.tree(false);
   auto reader = queueOf(readerTree, 1, 3);
   CellTrace trace;
   // No cell yet: reads are 0.
   EXPECT_EQ(reader->pkts(), 0u);

   // A cell of no generation yet is never read.
   auto writerTree = cells.tree(true);
   writerTree->statisticsShmemMan()->man().counterAddr("Ethernet1-current-3-uc", 208, false);
   EXPECT_EQ(reader->counterAddr(true), 0u);
   auto writer = queueOf(writerTree, 1, 3);
   writer->pktsIs(5);
   EXPECT_EQ(writer->counterGenId(), 1u);
   EXPECT_TRUE(trace.has("sync counterGenId to be 1")) << trace.text;
   EXPECT_TRUE(trace.has("key: Ethernet1-current-3-uc")) << trace.text;
   EXPECT_EQ(writer->pkts(), 5u);

   // The reader has seen no generation yet.
   EXPECT_EQ(reader->pkts(), 0u);
   EXPECT_TRUE(trace.has("genId mismatched! shmemGenId=1 counterGenId()=0")) << trace.text;
   reader->counterGenIdIs(1);
   EXPECT_EQ(reader->pkts(), 5u);

   // The writer starts a new generation: the reader reads 0 until it has
   // caught up, then the new values.
   writer->counterGenIdIs(6);
   writer->pktsIs(9);
   EXPECT_EQ(writer->counterGenId(), 7u);
   EXPECT_EQ(reader->pkts(), 0u);
   reader->counterGenIdIs(7);
   EXPECT_EQ(reader->pkts(), 9u);

   // After the last generation number comes 1, never 0.
   writer->counterGenIdIs(0xffffffffu);
   writer->bytesIs(11);
   EXPECT_EQ(writer->counterGenId(), 1u);

   // Each counter has its own slot of the cell.
   writer->bytesIs(1);
   writer->pktsIs(2);
   writer->bytesDroppedIs(3);
   writer->pktsDroppedIs(4);
   EXPECT_EQ(writer->bytes() * 1000 + writer->pkts() * 100 + writer->bytesDropped() * 10 + writer->pktsDropped(),
             1234u);
   auto counter = writerTree->intfQueueCounterDir(eth(1))->intfQueueCounter("current");
   counter->inDroppedPktsIs(70);
   counter->inDroppedBytesIs(80);
   EXPECT_EQ(counter->inDroppedPkts() + counter->inDroppedBytes(), 150u);
   EXPECT_EQ(writer->pkts(), 2u) << "the interface's cell is not the queue's";

   // By name, as reflection reads and writes them; not replicated as attributes.
   IntfQueueStatistics::GenericIf_ g(writer);
   g.attributeIs("pkts", Kel::toGeneric(uint64_t(42)));
   EXPECT_EQ(writer->pkts(), 42u);
   EXPECT_EQ(Kel::fromGeneric<uint64_t>(*g.attribute("pkts"), "pkts"), 42u);
   auto const * t = IntfQueueStatistics::_fwkType();
   EXPECT_FALSE(t->attribute("pkts")->replicated());
   EXPECT_FALSE(t->attribute("shmemAddr")->replicated()) << "an address means nothing in another process";
   EXPECT_TRUE(t->attribute("counterGenId")->replicated());
}

TEST(QueueCounter, ACounterOutOfPlaceHasNoCellReadsZeroAndDropsWrites) {
   Cells cells("test/qc-place");
   // Each case a chain of entities, each in the one before: a plain
   // directory 'd', an interface's counter directory 'i', a counter 'c', a
   // queue 'q'.
   struct Case {
      const char * levels;
      const char * piece;
   };
   for (Case c : {Case{"q", " counter is orphaned! Counter path: 0-uc"},
                  Case{"c", " counter is orphaned! Counter path: current"},
                  Case{"dq", " parent is not IntfQueueCounter! Counter path: d/0-uc"},
                  Case{"dc", " queueCounters parent is not IntfQueueCounterDir! Counter path: d/current"},
                  Case{"cq", " grandparent is null. Counter path: current/0"},
                  Case{"ic", " grandparent is null. Counter path: Ethernet1/current"},
                  Case{"dic", " grandparent is not AllEthIntfCounterDir! Counter path: d/Ethernet1/current"},
                  Case{"dicq", " greatgrandparent is not AllEthIntfCounterDir! Counter path: d/Ethernet1/current/0"}}) {
      SCOPED_TRACE(c.levels);
      std::vector<Kel::Ptr<Kel::Entity>> keep;
      for (char l : std::string(c.levels)) {
         Kel::Entity * up = keep.empty() ? nullptr : keep.back().ptr();
         Kel::Ptr<Kel::Entity> e;
         if (auto * i = dynamic_cast<IntfQueueCounterDir *>(up)) {
            e = i->intfQueueCounterIs("current");
         } else if (auto * qc = dynamic_cast<IntfQueueCounter *>(up)) {
            e = qc->queuesIs(0, PktType::uc);
         } else {
            e = l == 'd'   ? Kel::Ptr<Kel::Entity>(Kel::makePtr<Kel::Dir>("d"))
                : l == 'i' ? Kel::Ptr<Kel::Entity>(Kel::makePtr<IntfQueueCounterDir>(eth(1)))
                : l == 'c' ? Kel::Ptr<Kel::Entity>(Kel::makePtr<IntfQueueCounter>("current"))
                           : Kel::Ptr<Kel::Entity>(Kel::makePtr<IntfQueueStatistics>("0-uc", 0, PktType::uc));
            if (up) static_cast<Kel::Dir *>(up)->entryIs(e);
         }
         keep.push_back(e);
      }
      Kel::Ptr<Kel::Entity> e = keep.back();
      CellTrace trace;
      if (auto * q = dynamic_cast<IntfQueueStatistics *>(e.ptr())) {
         q->bytesIs(5);
         EXPECT_EQ(q->bytes(), 0u);
         EXPECT_EQ(q->counterAddr(true), 0u);
      } else {
         auto * qc = dynamic_cast<IntfQueueCounter *>(e.ptr());
         qc->inDroppedPktsIs(5);
         EXPECT_EQ(qc->inDroppedPkts(), 0u);
      }
      // Traced with the signature of the function the caller called.
      EXPECT_TRUE(trace.has("::counterAddr(bool) const" + std::string(c.piece))) << trace.text;
      EXPECT_TRUE(trace.has(" null shmemPtr.")) << trace.text;
   }
}

// A writer process serves its counters; this process mounts them and reads
// the cells through the mounted entities.
TEST(QueueCounter, AMountedReaderFollowsTheWritersGenerationsAndKeepsValuesAfterItDies) {
   Cells cells("test/qc-procs");
   std::string sock = "@intf-test-qc-" + std::to_string(::getpid());
   Pipe toChild, fromChild;
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      Kel::ActivityLoop loop;
      auto all = cells.tree(true);
      auto q = queueOf(all, 1, 5);
      q->pktsIs(100);
      Kel::NboAttrLog::Server server(loop, sock, all, "writer");
      fromChild.send("ready");
      // Serves until told to move to a new generation, then for ever.
      ::fcntl(toChild.fd[0], F_SETFL, O_NONBLOCK);
      for (char ch;;) {
         loop.runOnce(5);
         if (::read(toChild.fd[0], &ch, 1) != 1) continue;
         q->counterGenIdIs(41);
         q->pktsIs(200);
         fromChild.send(std::to_string(q->counterGenId()));
      }
   }
   IntfTest::Reap reap{pid};
   ASSERT_EQ(fromChild.receive(), "ready");

   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Client client(loop, sock, "");
   auto until = [&](auto done) { return loop.runUntil(done, 10000); };
   ASSERT_TRUE(until([&] { return client.synced(); }));
   auto all = Kel::Ptr<AllIntfQueueCounterDir>(dynamic_cast<AllIntfQueueCounterDir *>(client.root().ptr()));
   ASSERT_TRUE(all);
   auto q = all->intfQueueCounterDir(eth(1))->intfQueueCounter("current")->queues(5);
   ASSERT_TRUE(q);
   EXPECT_EQ(q->counterGenId(), 1u);
   EXPECT_EQ(q->pkts(), 100u);

   // The writer moves to a new generation; until the replica hears of it,
   // the cell is not trusted.
   toChild.send("bump");
   ASSERT_EQ(fromChild.receive(), "42");
   EXPECT_EQ(q->pkts(), 0u);
   ASSERT_TRUE(until([&] { return q->counterGenId() == 42u; }));
   EXPECT_EQ(q->pkts(), 200u);

   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   reap.pid = -1;
   EXPECT_EQ(q->pkts(), 200u) << "the last value stays readable";
}
