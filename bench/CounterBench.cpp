// The model's counters in shared memory against what a user would read
// otherwise: a table row through its adapter against an ordinary counter
// entity, a queue counter through its entity against a raw atomic load of
// the same cell, and a whole reader's scan of 100,000 interfaces.
#include "Bench.h"

#include <Intf/IntfQueueCounter.h>
#include <Intf/SmashIntfCounter.h>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace IntfBench {

namespace {

using namespace Interface;

struct Prefix {
   Prefix() { Smash::shmPrefixIs("/intf-bench-" + std::to_string(::getpid()) + "-"); }
};

Zenet::IntfId ethId(uint32_t i) {
   return Zenet::IntfId(std::string_view("Ethernet" + std::to_string(i / 1000 + 1) + "/" +
                                         std::to_string(i % 1000 + 1)));
}

Smash::Interface::IntfCounter rowFor(Zenet::IntfId id, uint64_t n) {
   Smash::Interface::IntfCounter r;
   r.keyIs(id);
   IntfStatistics s;
   s.inOctetsIs(n);
   s.inUcastPktsIs(n / 64);
   r.statisticsIs(s);
   IntfRates rates;
   rates.inBitsRateIs(double(n));
   r.ratesIs(rates);
   return r;
}

// One table with a row, read through an adapter the caller keeps.
struct OneRow {
   OneRow() {
      writer = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("w");
      writer->tablePathIs("bench/counter-one");
      writer->counterOpen(Smash::Role::writer);
      writer->counterIs(rowFor(ethId(0), 12345));
      reader = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("r");
      reader->tablePathIs("bench/counter-one");
      adapter = SmashIntfCounter::SmashIntfCounterIs("current", ethId(0), reader);
      plain = Kel::makePtr<IntfCounter>("current");
      plain->statisticsIs(rowFor(ethId(0), 12345).statistics());
      std::atexit([] { Smash::removeTable("bench/counter-one"); });
   }
   Prefix prefix;
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> writer, reader;
   IntfCounter::Ptr adapter, plain;
};
OneRow & oneRow() {
   static OneRow * o = new OneRow;
   return *o;
}

struct OneCell {
   OneCell() {
      Mavo::ShmemMan::remove("bench/qcells/c");
      Mavo::ShmemMan::remove("bench/qcells/s");
      all = Kel::makePtr<AllIntfQueueCounterDir>("q");
      all->counterShmemManIs("counterShmemMan", "bench/qcells/c", 208u);
      all->statisticsShmemManIs("statisticsShmemMan", "bench/qcells/s", 208u);
      q = all->intfQueueCounterDirIs(ethId(0))->intfQueueCounterIs("current")->queuesIs(3, PktType::uc);
      q->pktsIs(77);
      word = reinterpret_cast<std::atomic<uint64_t> const *>(uintptr_t(q->counterAddr(true)) + 8 +
                                                             Brik::Slot::pkts);
      std::atexit([] {
         Mavo::ShmemMan::remove("bench/qcells/c");
         Mavo::ShmemMan::remove("bench/qcells/s");
      });
   }
   Prefix prefix;
   Kel::Ptr<AllIntfQueueCounterDir> all;
   Kel::Ptr<IntfQueueStatistics> q;
   std::atomic<uint64_t> const * word;
};
OneCell & oneCell() {
   static OneCell * o = new OneCell;
   return *o;
}

double cpuNow() {
   timespec ts;
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// A writer process keeps 100,000 rows and rewrites all of them once a
// second; this process reads statistics and rates of every interface
// through adapters it made once, for two seconds.
double scan100k() {
   constexpr uint32_t n = 100000;
   Prefix prefix;
   const char * path = "bench/counter-scan";
   Smash::removeTable(path);
   int ready[2];
   if (::pipe(ready) != 0) return 0;
   pid_t pid = ::fork();
   if (pid == 0) {
      auto w = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("w");
      w->tablePathIs(path);
      w->counterOpen(Smash::Role::writer, {}, 2 * n);
      for (uint64_t round = 1;; ++round) {
         double start = cpuNow();
         for (uint32_t i = 0; i < n; ++i) w->counterIs(rowFor(ethId(i), round * 1000 + i));
         w->counterCommit();
         if (round == 1) (void)!::write(ready[1], "r", 1);
         double left = 1.0 - (cpuNow() - start);
         if (left > 0) ::usleep(useconds_t(left * 1e6));
      }
   }
   char c;
   (void)!::read(ready[0], &c, 1);
   ::close(ready[0]);
   ::close(ready[1]);
   auto r = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("r");
   r->tablePathIs(path);
   std::vector<SmashIntfCounter::Ptr> adapters;
   adapters.reserve(n);
   for (uint32_t i = 0; i < n; ++i) adapters.push_back(SmashIntfCounter::SmashIntfCounterIs("current", ethId(i), r));
   uint64_t rowsRead = 0, sum = 0;
   double start = cpuNow(), now = start;
   while (now - start < 2.0) {
      for (auto const & a : adapters) {
         IntfStatistics s;
         IntfRates rates;
         a->counters(&s, &rates);  // both in one read
         sum += s.inOctets();
         sum += uint64_t(rates.inBitsRate());
      }
      rowsRead += n;
      now = cpuNow();
   }
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   Smash::removeTable(path);
   benchmark::DoNotOptimize(sum);
   double perSecond = double(rowsRead) / (now - start);
   std::printf("counter.scan.100k: %.0f interfaces' statistics and rates per second (%llu reads)\n", perSecond,
               (unsigned long long)rowsRead);
   return perSecond;
}

} // namespace

void registerCounterBenches() {
   addPair(
       "counter.read.smash", "2",
       [](benchmark::State & st) {
          auto & o = oneRow();
          for (auto _ : st) benchmark::DoNotOptimize(o.adapter->statistics());
       },
       [](benchmark::State & st) {
          auto & o = oneRow();
          IntfCounter * c = o.plain.ptr();
          for (auto _ : st) {
             benchmark::DoNotOptimize(c);
             benchmark::DoNotOptimize(c->statistics());
          }
       });
   addPair(
       "counter.read.queue", "3",
       [](benchmark::State & st) {
          auto & o = oneCell();
          for (auto _ : st) benchmark::DoNotOptimize(o.q->pkts());
       },
       [](benchmark::State & st) {
          auto & o = oneCell();
          for (auto _ : st) benchmark::DoNotOptimize(o.word->load(std::memory_order_relaxed));
       });
   addFigure("counter.scan.100k", "20000000", &scan100k, Sense::AtLeast);
}

} // namespace IntfBench
