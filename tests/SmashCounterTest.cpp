// Counter rows in shared-memory tables: the rows' text form, the table
// directories in their roles, the adapters that read a row as a counter,
// and a reader process that finds a writer's counters from its statuses.
#include "ChildProcess.h"
#include "Pipe.h"
#include "ShmTestPrefix.h"

#include <Intf/Counter>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Kel/Exception.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <map>

namespace {

using namespace Interface;
using SmashCounterDir = Smash::Interface::AllIntfCounterDir;
using Row = Smash::Interface::IntfCounter;

Zenet::IntfId eth(int n) { return Zenet::IntfId(std::string_view("Ethernet" + std::to_string(n))); }

Row rowOf(int intf, uint64_t inOctets, double inBitsRate = 0) {
   Row r;
   r.keyIs(eth(intf));
   IntfStatistics s;
   s.inOctetsIs(inOctets);
   r.statisticsIs(s);
   IntfRates rates;
   rates.inBitsRateIs(inBitsRate);
   r.ratesIs(rates);
   return r;
}

std::string errorOf(std::function<void()> f) {
   try {
      f();
   } catch (Kel::Exception const & e) {
      return e.message().str();
   } catch (std::exception const & e) {
      return e.what();
   }
   return "(no error)";
}

struct Heard : SmashCounterDir::NotifieeConst {
   void onCounter(Zenet::IntfId k) override { ++keys[k.stringValue().str()]; }
   std::map<std::string, int> keys;
};

} // namespace

TEST(SmashCounter, RowsPrintTheirFieldsAndRefuseUnknownAttributes) {
   Smash::Interface::DropCounter d;
   d.keyIs(eth(1));
   d.inAclDropsIs(7);
   EXPECT_EQ(Kel::valueToStrep(d),
             Kel::String8("Value('Smash::Interface::DropCounter', ** {'key': 'Ethernet1', 'inAclDrops': 7})"));
   std::string row = Kel::valueToStrep(rowOf(2, 5)).str();
   EXPECT_EQ(row.rfind("Value('Smash::Interface::IntfCounter', ** {'key': 'Ethernet2', "
                       "'statistics': Value('Interface::IntfStatistics', ** {",
                       0),
             0u)
       << row;
   EXPECT_NE(row.find(", 'rates': Value('Interface::IntfRates', ** {"), std::string::npos) << row;
   Smash::Interface::DropCounter::GenericIf_ gd(d);
   EXPECT_EQ(errorOf([&] { gd.attribute("bogus"); }), "DropCounter has no such attribute: bogus");
   Row::GenericIf_ gr(rowOf(1, 1));
   EXPECT_EQ(errorOf([&] { gr.attribute("inAclDrops"); }), "IntfCounter has no such attribute: inAclDrops");
}

TEST(SmashCounter, AWritersRowsReachReadersAtOnceAndShadowsAtEachCommitOnce) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/counters-roles");
   auto w = Kel::makePtr<SmashCounterDir>("w");
   w->tablePathIs(path);
   w->counterOpen(Smash::Role::writer);
   auto r = Kel::makePtr<SmashCounterDir>("r");
   r->tablePathIs(path);
   auto s = Kel::makePtr<SmashCounterDir>("s");
   s->tablePathIs(path);
   s->counterOpen(Smash::Role::shadow);
   auto writerHeardP = Kel::makePtr<Heard>(), shadowHeardP = Kel::makePtr<Heard>();
   Heard & writerHeard = *writerHeardP;
   Heard & shadowHeard = *shadowHeardP;
   writerHeard.notifierIs(w);
   shadowHeard.notifierIs(s);
   // A shadow's first poll reports every row there is (none yet).
   s->counterPoll();

   w->counterIs(rowOf(1, 10));
   w->counterIs(rowOf(1, 11));
   w->newCounter(rowOf(2, 20));
   EXPECT_EQ(writerHeard.keys, (std::map<std::string, int>{{"Ethernet1", 2}, {"Ethernet2", 1}}));
   // A reader finds each row as soon as it is written...
   EXPECT_EQ(r->counter(eth(1)).statistics().inOctets(), 11u);
   EXPECT_EQ(r->counterSize(), 2u);
   // ...and no row as a zero row with the key.
   EXPECT_EQ(r->counter(eth(3)), ([] {
                Row z;
                z.keyIs(eth(3));
                return z;
             }()));
   // A shadow hears of the changes at the commit, each key once.
   EXPECT_EQ(s->counterPoll(), 0u);
   w->counterCommit();
   EXPECT_EQ(s->counterPoll(), 2u);
   EXPECT_EQ(shadowHeard.keys, (std::map<std::string, int>{{"Ethernet1", 1}, {"Ethernet2", 1}}));
   // Deletion, and a forced notification without a change.
   w->counterDel(eth(2));
   w->counterNotify(eth(1));
   w->counterCommit();
   shadowHeard.keys.clear();
   s->counterPoll();
   EXPECT_EQ(shadowHeard.keys, (std::map<std::string, int>{{"Ethernet1", 1}, {"Ethernet2", 1}}));
   Row got;
   EXPECT_FALSE(r->counterFind(eth(2), &got));
   // A reader tells its own reactors of every row.
   auto readerHeardP = Kel::makePtr<Heard>();
   Heard & readerHeard = *readerHeardP;
   readerHeard.notifierIs(r);
   r->counterNotifyCollection();
   EXPECT_EQ(readerHeard.keys, (std::map<std::string, int>{{"Ethernet1", 1}}));
   // Only the writer writes; the role is chosen once.
   EXPECT_NE(errorOf([&] { r->counterIs(rowOf(4, 1)); }).find("not as writer"), std::string::npos);
   EXPECT_NE(errorOf([&] { r->counterOpen(Smash::Role::writer); }).find("already open as reader"),
             std::string::npos);
   EXPECT_EQ(r->counterSize(), 1u);
   w->counterDelAll();
   EXPECT_EQ(r->counterSize(), 0u);
}

TEST(SmashCounter, AdaptersReadAFreshRowEveryTimeAndZerosWithoutOne) {
   ShmTestPrefix shm;
   auto w = Kel::makePtr<SmashCounterDir>("w");
   w->tablePathIs(shm.table("test/counters-adapter"));
   w->counterOpen(Smash::Role::writer);
   auto none = SmashIntfCounter::SmashIntfCounterIs("current", eth(1), nullptr);
   EXPECT_EQ(none->statistics(), IntfStatistics());
   EXPECT_EQ(none->rates(), IntfRates());
   auto a = SmashIntfCounter::SmashIntfCounterIs("current", eth(1), w);
   EXPECT_EQ(a->statistics(), IntfStatistics()) << "no row yet";
   w->counterIs(rowOf(1, 100, 8.5));
   IntfCounter::Ptr asCounter = a;  // read as the model's counter
   EXPECT_EQ(asCounter->statistics().inOctets(), 100u);
   EXPECT_EQ(asCounter->rates().inBitsRate(), 8.5);
   w->counterIs(rowOf(1, 150, 9));
   EXPECT_EQ(asCounter->statistics().inOctets(), 150u);

   // A row the engine cannot read whole gives the last values read whole,
   // never zeros, and says so; no row gives zeros.
   using Smash::Found;
   struct Step {
      Found f;
      uint64_t n, expect;
   };
   struct Engine {
      Step const * step;
      Smash::FindHint const * hint = nullptr;  // handed out with a row
      Engine const * operator->() const { return this; }
      Found counterLookup(Zenet::IntfId, Row * r, Smash::FindHint * h) const {
         *r = rowOf(1, step->f == Found::unavailable ? 999 : step->n);  // a torn copy is anything
         if (hint && step->f == Found::row) *h = *hint;
         return step->f;
      }
   };
   RowReading<Row> reading;
   KeptField<IntfStatistics> kept;
   for (Step step : {Step{Found::row, 100, 100}, Step{Found::unavailable, 0, 100}, Step{Found::row, 150, 150},
                     Step{Found::none, 0, 0}, Step{Found::unavailable, 0, 0}, Step{Found::row, 160, 160}}) {
      IntfStatistics got;
      EXPECT_EQ(reading.read(Engine{&step}, eth(1), 8, kept, &got), step.f != Found::unavailable);
      EXPECT_EQ(got.inOctets(), step.expect);
   }
   // A value read in line through the hint (a slot in this process's
   // memory: head, value word, key, two copies) is kept whole too.
   struct {
      uint64_t head = 9, valueWord = 0;
      Zenet::IntfId key = eth(1);
      Row copies[2];
   } slot;
   IntfStatistics want;
   want.inOctetsIs(700);
   want.lastUpdateIs(2.5);
   slot.copies[0].statisticsIs(want);
   std::atomic<uint32_t> generation{1};
   Smash::FindHint hint{std::make_shared<Smash::MappingState>(), &generation, 1, 24, sizeof(Row), slot.head,
                        reinterpret_cast<uint8_t const *>(&slot)};
   Step found{Found::row, 1, 1}, lost{Found::unavailable, 0, 0};
   IntfStatistics got;
   reading.read(Engine{&found, &hint}, eth(1), 8, kept, &got);  // the look-up hands out the hint
   EXPECT_TRUE(reading.read(Engine{&lost, &hint}, eth(1), 8, kept, &got));  // in line: the engine is not asked
   EXPECT_EQ(got, want);
   slot.head += 8;  // re-assigned: the hint no longer holds, and the engine says unavailable
   EXPECT_FALSE(reading.read(Engine{&lost, &hint}, eth(1), 8, kept, &got));
   EXPECT_EQ(got, want);

   // (ACL drop adapters read their rows in CounterLookup's tests.)
   EXPECT_EQ(Kel::makePtr<SmashAclDropCounter>("aclDrops", eth(1))->inAclDrops(), 0u);
}

namespace KelTest {

#define KEL_ATTRS_ProcStatusDir(X)                                                    \
   X(EntColl, intfStatus, IntfStatus, Kel::HashMap, Zenet::IntfId, Interface::IntfStatus, intfId)
class ProcStatusDir : public IntfStatusDirBase {
   KEL_ENTITY(ProcStatusDir, IntfStatusDirBase, "KelTest::ProcStatusDir", KEL_ATTRS_ProcStatusDir)
 public:
   explicit ProcStatusDir(Kel::Name n) : IntfStatusDirBase(std::move(n)) {}
};
KEL_FACTORY(procStatusDirFactory, ProcStatusDir);

} // namespace KelTest

using KelTest::ProcStatusDir;

// A writer process serves statuses whose counters are table rows and keeps
// them changing: Ethernet2 through a counter directory over a table,
// Ethernet3.1 (a sub-interface) in a table named by the status directory.
// This process mounts the tree at /mnt and reads each counter from its
// status.
TEST(SmashCounter, AReaderProcessFindsTableCountersFromTheirStatusesAndKeepsTheLastValuesWhenTheWriterDies) {
   ShmTestPrefix shm;
   std::string intfTable = shm.table("test/proc-intf"), subTable = shm.table("test/proc-sub");
   Kel::registerTypes<ProcStatusDir>();
   std::string sock = "@intf-test-smash-" + std::to_string(::getpid());
   Pipe fromChild;
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      Kel::ActivityLoop loop;
      auto root = Kel::makePtr<Kel::Dir>("w");
      auto ethStatus = root->mkdir("interface/status/eth");
      auto ethCounter = root->mkdir("interface/counter/eth");
      auto sub = Kel::makePtr<ProcStatusDir>("subintf");
      ethStatus->entryIs(sub);
      auto tabled = Kel::makePtr<ProcStatusDir>("tabled");
      ethStatus->entryIs(tabled);
      tabled->intfStatusIs(intfStatusFactory(eth(2), nullptr, 0));
      sub->intfStatusIs(intfStatusFactory(Zenet::IntfId(std::string_view("Ethernet3.1")), nullptr, 0));

      auto table = Kel::makePtr<SmashCounterDir>("intfTable");
      root->mkdir("Smash")->entryIs(table);
      table->tablePathIs(intfTable);
      table->counterOpen(Smash::Role::writer);
      auto overTable = Kel::makePtr<SmashIntfCounterDirDir>("tabled");
      ethCounter->entryIs(overTable);
      overTable->tableIs(table);

      auto subCounters = Kel::makePtr<SmashCounterDir>("subintf");
      root->mkdir("Smash")->entryIs(subCounters);
      subCounters->tablePathIs(subTable);
      subCounters->counterOpen(Smash::Role::writer);
      sub->counterDirPathIs("/mnt/w/Smash/subintf");

      Kel::NboAttrLog::Server server(loop, sock, root, "writer");
      uint64_t n = 0;
      auto tick = [&] {
         ++n;
         table->counterIs(rowOf(2, 2000 + n, double(n)));
         Row r = rowOf(0, 3000 + n);
         r.keyIs(Zenet::IntfId(std::string_view("Ethernet3.1")));
         subCounters->counterIs(r);
         table->counterCommit();
         subCounters->counterCommit();
      };
      tick();
      loop.timerIs(std::chrono::milliseconds(2), tick, std::chrono::milliseconds(2));
      fromChild.send("ready");
      for (;;) loop.runOnce(100);
   }
   IntfTest::Reap reap{pid};
   ASSERT_EQ(fromChild.receive(), "ready");

   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Client client(loop, sock, "");
   auto until = [&](auto done) { return loop.runUntil(done, 10000); };
   ASSERT_TRUE(until([&] { return client.synced(); }));
   auto mnt = Kel::globalDir()->mkdir("mnt");
   mnt->entryIs(client.root());
   struct Unmount {
      ~Unmount() { Kel::globalDir()->entryDel(Kel::Name("mnt")); }
   } unmount;

   auto statusAt = [&](const char * path) {
      return IntfStatus::Ptr(dynamic_cast<IntfStatus *>(client.root()->entity(path).ptr()));
   };
   struct Kind {
      const char * path;
      uint64_t base;
   };
   std::map<std::string, IntfCounter::Ptr> counters;
   for (Kind k : {Kind{"interface/status/eth/tabled/Ethernet2", 2000}, Kind{"interface/status/eth/subintf/Ethernet3.1", 3000}}) {
      SCOPED_TRACE(k.path);
      auto status = statusAt(k.path);
      ASSERT_TRUE(status);
      auto c = status->counter();
      ASSERT_TRUE(c);
      uint64_t first = c->statistics().inOctets();
      EXPECT_GT(first, k.base);
      EXPECT_LT(first, k.base + 1000);
      // The writer keeps counting: the same counter object shows it.
      ASSERT_TRUE(until([&] { return c->statistics().inOctets() > first + 3; }));
      counters[k.path] = c;
   }
   EXPECT_GT(counters["interface/status/eth/tabled/Ethernet2"]->rates().inBitsRate(), 0.0);

   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   reap.pid = -1;
   // The tables outlive their writer: the last committed values stay.
   auto sub = counters["interface/status/eth/subintf/Ethernet3.1"];
   uint64_t last = sub->statistics().inOctets();
   EXPECT_GT(last, 3000u);
   EXPECT_EQ(sub->statistics().inOctets(), last);
   EXPECT_GT(counters["interface/status/eth/tabled/Ethernet2"]->statistics().inOctets(), 2000u);
}
