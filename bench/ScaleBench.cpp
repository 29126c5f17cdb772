// The model at scale: 100,000 interfaces with configuration, status and a
// counter directory holding its "current" counter.
#include "Bench.h"

#include <Intf/IntfConfig.h>
#include <Intf/IntfCounter.h>
#include <Intf/IntfStatus.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <unordered_map>

using namespace Interface;

namespace {

constexpr uint32_t interfaces = 100000;

Zenet::IntfId port(uint32_t i) {
   return Zenet::GenericIntfId::make(4, {1 + i / 64, 1 + i % 64});
}

// The published tree of one agent.
struct Tree {
   Kel::Dir::Ptr root = Kel::Ptr<Kel::Dir>(new Kel::Dir(Kel::Name("interface")));
   AllIntfConfigDir::Ptr config = Kel::makePtr<AllIntfConfigDir>(Kel::Name("config"));
   AllIntfStatusDir::Ptr status = Kel::makePtr<AllIntfStatusDir>(Kel::Name("status"));
   AllIntfCounterDir::Ptr counter = Kel::makePtr<AllIntfCounterDir>(Kel::Name("counter"));
   Tree() {
      root->entryIs(config);
      root->entryIs(status);
      root->entryIs(counter);
   }
   void build() {
      for (uint32_t i = 0; i < interfaces; ++i) {
         Zenet::IntfId id = port(i);
         auto c = intfConfigFactory(id);
         c->mtuIs(9000);
         config->intfConfigIs(c);
         auto s = intfStatusFactory(id, nullptr, 1);
         s->intfConfigIs(c);
         s->operStatusIs(IntfOperStatus::intfOperUp);
         status->intfStatusIs(s);
         counter->intfCounterDirIs(id)->intfCounterIs(Kel::Name("current"));
      }
   }
};

// The baseline: the same fields in plain structs under shared pointers.
struct PlainConfig {
   uint64_t id;
   std::string description;
   uint32_t linkStatusLogging, adminState, enabledState, mtu;
   std::string reason;
   bool useDefault;
   double interval;
   std::unordered_map<std::string, bool> requestor;
};
struct PlainStatus {
   uint64_t id;
   std::shared_ptr<PlainConfig> config;
   std::string deviceName;
   uint32_t forwardingModel, mtu, maxMtu, operStatus, genId;
   double changeTime;
   uint32_t changeCount;
   bool byAgent, active;
   std::unordered_map<std::string, uint32_t> inputs;
};
struct PlainCounter {
   IntfStatistics statistics;
   IntfRates rates;
   double reqTime, refreshTime;
   uint32_t genId, linkChanges;
};
struct PlainTree {
   std::unordered_map<uint64_t, std::shared_ptr<PlainConfig>> config;
   std::unordered_map<uint64_t, std::shared_ptr<PlainStatus>> status;
   std::unordered_map<uint64_t, std::shared_ptr<std::unordered_map<std::string, std::shared_ptr<PlainCounter>>>> counter;
   void build() {
      for (uint32_t i = 0; i < interfaces; ++i) {
         uint64_t id = port(i).intfIdValue();
         auto c = std::make_shared<PlainConfig>();
         c->id = id;
         c->mtu = 9000;
         config.emplace(id, c);
         auto s = std::make_shared<PlainStatus>();
         s->id = id;
         s->config = c;
         s->operStatus = 1;
         status.emplace(id, s);
         auto d = std::make_shared<std::unordered_map<std::string, std::shared_ptr<PlainCounter>>>();
         d->emplace("current", std::make_shared<PlainCounter>());
         counter.emplace(id, d);
      }
   }
};

double bytesPerInterface() {
   malloc_trim(0);
   size_t before = mallinfo2().uordblks;
   auto t = std::make_unique<Tree>();
   t->build();
   size_t after = mallinfo2().uordblks;
   double b = double(after - before) / interfaces;
   std::printf("scale: %.0f bytes allocated per interface (configuration, status, counter "
               "directory and counter, with the directories' tables)\n",
               b);
   return b;
}

uint64_t nowNs() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return uint64_t(t.tv_sec) * 1000000000u + uint64_t(t.tv_nsec);
}

// A reader process mounts the whole tree; entities per second until it has
// the whole state.
double initialSync() {
   Tree tree;
   tree.build();
   int sv[2], rep[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 || ::pipe(rep) != 0) return 0;
   uint64_t t0 = nowNs();
   pid_t pid = ::fork();
   if (pid == 0) {
      ::close(sv[0]);
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Reader reader(sv[1], "");
      loop.add(&reader);
      loop.runUntil([&] { return reader.synced() || reader.closed(); }, 120000);
      std::string r = std::to_string(reader.entities()) + "\n";
      (void)!::write(rep[1], r.data(), r.size());
      ::_exit(0);
   }
   ::close(sv[1]);
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Writer writer(sv[0], tree.root, "agent");
   loop.add(&writer);
   std::string r;
   char c;
   // Serve until the reader reports.
   while (true) {
      loop.runOnce(5);
      pollfd p{rep[0], POLLIN, 0};
      if (::poll(&p, 1, 0) > 0) break;
   }
   while (::read(rep[0], &c, 1) == 1 && c != '\n') r += c;
   double secs = double(nowNs() - t0) / 1e9;
   ::waitpid(pid, nullptr, 0);
   ::close(sv[0]);
   ::close(rep[0]);
   ::close(rep[1]);
   double n = std::stod(r);
   std::printf("scale: initial replication of %.0f entities to a reader process in %.3f s\n", n,
               secs);
   return n / secs;
}

// Heap bytes the writer holds, beyond its configured buffer, for a reader
// that mounts the whole 100,000-interface tree and never reads.
double stalledReaderBytes() {
   Tree tree;
   tree.build();
   int sv[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 0;
   malloc_trim(0);
   size_t before = mallinfo2().uordblks;
   size_t buffer = 1u << 20;
   auto writer = std::make_unique<Kel::NboAttrLog::Writer>(sv[0], tree.root, "agent", buffer);
   {
      Kel::NboAttrLog::Reader mountOnly(sv[1], "");  // asks, then never reads
      Kel::ActivityLoop loop;
      loop.add(writer.get());
      for (int i = 0; i < 200; ++i) loop.runOnce(1);
      loop.remove(writer.get());
   }
   size_t after = mallinfo2().uordblks;
   double held = double(after > before ? after - before : 0);
   double beyond = held > double(buffer) ? held - double(buffer) : 0;
   std::printf("scale: a stalled reader of 100,000 interfaces: writer holds %.0f bytes (%zu "
               "waiting, %zu entities known), %.0f beyond its %zu-byte buffer\n",
               held, writer->pending(), writer->adapters(), beyond, buffer);
   writer.reset();
   ::close(sv[0]);
   ::close(sv[1]);
   return beyond;
}

// Oper-status changes over 100,000 statuses, each with one reactor.
double operChanges() {
   Tree tree;
   tree.build();
   struct Watch : IntfStatus::NotifieeConst {
      void onOperStatus() override { ++*n; }
      uint64_t * n;
   };
   uint64_t heard = 0;
   std::vector<IntfStatus::Ptr> statuses;
   std::vector<Kel::Ptr<Watch>> watches;
   for (auto it = tree.status->intfStatusIteratorConst(); it; ++it) {
      statuses.push_back(it.ptr());
      auto w = Kel::makePtr<Watch>();
      w->n = &heard;
      w->notifierIs(it.ptr());
      watches.push_back(w);
   }
   constexpr uint32_t changes = 1000000;
   uint64_t t0 = nowNs();
   for (uint32_t i = 0; i < changes; ++i) {
      statuses[i % interfaces]->operStatusIs((i / interfaces) % 2 ? IntfOperStatus::intfOperUp
                                                                  : IntfOperStatus::intfOperDown);
   }
   double secs = double(nowNs() - t0) / 1e9;
   std::printf("scale: %u oper-status changes, %lu heard by reactors, in %.3f s\n", changes,
               (unsigned long)heard, secs);
   return heard == changes ? changes / secs : 0;
}

} // namespace

namespace IntfBench {

void registerScaleBenches() {
   addPair(
       "scale.build", "1.5",
       [](benchmark::State & st) {
          for (auto _ : st) {
             Tree t;
             t.build();
             benchmark::DoNotOptimize(t.status.ptr());
          }
       },
       [](benchmark::State & st) {
          for (auto _ : st) {
             PlainTree t;
             t.build();
             benchmark::DoNotOptimize(&t);
          }
       });
   addFigure("scale.bytes_per_intf", "1024", &bytesPerInterface);
   addFigure("scale.initial_sync_per_s", "200000", &initialSync, Sense::AtLeast);
   addFigure("scale.oper_changes_per_s", "10000000", &operChanges, Sense::AtLeast);
   addFigure("scale.stalled_reader_bytes", "2097152", &stalledReaderBytes);
}

} // namespace IntfBench
