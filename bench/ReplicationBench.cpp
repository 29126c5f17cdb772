// The attribute log and reflection: encoding cost against memcpy,
// replication between two processes over a Unix socket (throughput and
// latency, measured, not ratios), reflection against the typed calls.
#include "Bench.h"

#include <Intf/Types.h>
#include <Kel/Attr.h>
#include <Kel/Stream.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace IntfBench {

// Outside an anonymous namespace, as every entity type of the benchmarks:
// the compiler must not see the whole hierarchy.
#define KEL_ATTRS_BenchStamp(X)                                                       \
   X(Scalar, count, Count, uint64_t, 0)                                               \
   X(Scalar, stamp, Stamp, uint64_t, 0)
class BenchStamp : public Kel::Entity {
   KEL_ENTITY(BenchStamp, Kel::Entity, "IntfBench::BenchStamp", KEL_ATTRS_BenchStamp)
 public:
   explicit BenchStamp(Kel::Name n) : Kel::Entity(std::move(n)) {}
};
KEL_FACTORY(benchStampFactory, BenchStamp);

} // namespace IntfBench

namespace {

using IntfBench::BenchStamp;

uint64_t nowNs() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return uint64_t(t.tv_sec) * 1000000000u + uint64_t(t.tv_nsec);
}

Interface::IntfStatistics sampleStatistics() {
   Interface::IntfStatistics s;
   s.outUcastPktsIs(123456789);
   s.inUcastPktsIs(987654321);
   s.outOctetsIs(Brik::MaybeU63(5555555555));
   s.inOctetsIs(77777777777);
   s.inErrorsIs(3);
   s.lastUpdateIs(1700000000.5);
   return s;
}

// One attribute message as the writer composes it: frame, header, tokens,
// the record in network byte order.
void encodeStatistics(Kel::NboAttrLog::Out & o, Interface::IntfStatistics const & s) {
   using namespace Kel::NboAttrLog;
   o.clear();
   size_t frame = beginFrame(o, msgAttr);
   putAttrHead(o, 7, 260);
   Nbo<Interface::IntfStatistics>::write(o, s, nullptr);
   o.putU8(tokenEnd);
   endFrame(o, frame);
}

size_t encodedSize() {
   Kel::NboAttrLog::Out o;
   encodeStatistics(o, sampleStatistics());
   return o.size();
}

// Runs `reader` in a child on one end of a socket pair; returns the other
// end and the child's pid. The child writes one line of text to `report`.
struct Child {
   template <class F>
   explicit Child(F reader) {
      if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 || ::pipe(report) != 0 ||
          ::pipe(ready) != 0) {
         std::perror("socketpair/pipe");
         std::exit(1);
      }
      pid = ::fork();
      if (pid == 0) {
         ::close(sv[0]);
         std::string r = reader(sv[1], ready[1]);
         r += "\n";
         (void)!::write(report[1], r.data(), r.size());
         ::_exit(0);
      }
      ::close(sv[1]);
   }
   void waitReady() {
      char c;
      (void)!::read(ready[0], &c, 1);
   }
   std::string finish() {
      std::string s;
      char c;
      while (::read(report[0], &c, 1) == 1 && c != '\n') s += c;
      ::waitpid(pid, nullptr, 0);
      for (int fd : {sv[0], report[0], report[1], ready[0], ready[1]}) ::close(fd);
      return s;
   }
   int sv[2], report[2], ready[2];
   pid_t pid;
};

// The reader's replica of the served entity, once it has the whole state.
BenchStamp::Ptr mount(Kel::ActivityLoop & loop, Kel::NboAttrLog::Reader & reader) {
   loop.add(&reader);
   loop.runUntil([&] { return reader.synced(); }, 10000);
   return Kel::dynamicCast<BenchStamp>(reader.root());
}

constexpr uint64_t throughputUpdates = 2000000;

// Updates per second that the reader applies (through its mutators, with
// a reactor registered), the writer writing as fast as it can.
double replicationThroughput() {
   Kel::registerTypes<BenchStamp>();
   Child child([](int fd, int readyFd) {
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Reader reader(fd, "");
      auto root = mount(loop, reader);
      struct Count : BenchStamp::NotifieeConst {
         void onCount() override { ++n; }
         uint64_t n = 0;
      };
      auto c = Kel::makePtr<Count>();
      c->notifierIs(root);
      (void)!::write(readyFd, "r", 1);
      loop.runUntil([&] { return root->count() == throughputUpdates || reader.closed(); }, 60000);
      return std::to_string(c->n);
   });
   auto e = Kel::makePtr<BenchStamp>(Kel::Name("stamp"));
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Writer writer(child.sv[0], e, "bench", 8u << 20);
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving() && writer.pending() == 0; }, 10000);
   child.waitReady();
   uint64_t t0 = nowNs();
   for (uint64_t i = 1; i <= throughputUpdates; ++i) {
      e->countIs(i);
      if ((i & 511) == 0) writer.pump();
   }
   loop.runUntil([&] { return !writer.flowOut() && writer.pending() == 0; }, 60000);
   double applied = std::stod(child.finish());
   double secs = double(nowNs() - t0) / 1e9;
   std::printf("replication: %.0f writes, %.0f applied by the reader with a reactor, in %.3f s\n",
               double(throughputUpdates), applied, secs);
   return applied / secs;
}

// p99 latency from a write to the reader's reactor at 10,000 updates per
// second; both processes read the same monotonic clock.
// Write-to-reactor latency across two processes against a raw one-way
// message between the same two processes: the same kind of socket, the
// same activity loop on the reader's side, the same rate, the two kinds of
// message interleaved so that both meet the same scheduler. The figure is
// the ratio of their 99th percentiles.
struct RawTimes : Kel::ActivityLoop::Source {
   explicit RawTimes(int fd) : fd_(fd) {}
   int fd() const override { return fd_; }
   void onReadable() override {
      char buf[4096];
      ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n <= 0) return;
      pending.append(buf, size_t(n));
      uint64_t now = nowNs();
      size_t used = 0;
      for (; pending.size() - used >= 8; used += 8) {
         uint64_t sent;
         std::memcpy(&sent, pending.data() + used, 8);
         lat.push_back(now - sent);
      }
      pending.erase(0, used);
   }
   int fd_;
   std::string pending;
   std::vector<uint64_t> lat;
};

double replicationP99VsRaw() {
   Kel::registerTypes<BenchStamp>();
   constexpr int samples = 20000;
   int raw[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, raw) != 0) return NAN;
   Child child([rawFd = raw[1]](int fd, int readyFd) {
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Reader reader(fd, "");
      auto root = mount(loop, reader);
      struct Lat : BenchStamp::NotifieeConst {
         void onStamp() override { lat.push_back(nowNs() - notifier()->stamp()); }
         std::vector<uint64_t> lat;
      };
      auto l = Kel::makePtr<Lat>();
      l->lat.reserve(samples);
      l->notifierIs(root);
      RawTimes rawTimes(rawFd);
      rawTimes.lat.reserve(samples);
      loop.add(&rawTimes);
      (void)!::write(readyFd, "r", 1);
      loop.runUntil([&] {
         return (l->lat.size() >= size_t(samples) && rawTimes.lat.size() >= size_t(samples)) || reader.closed();
      }, 60000);
      loop.remove(&rawTimes);
      auto pct = [](std::vector<uint64_t> & v, size_t num) {
         std::sort(v.begin(), v.end());
         return v.empty() ? uint64_t(0) : v[v.size() * num / 100];
      };
      return std::to_string(pct(l->lat, 99)) + " " + std::to_string(pct(l->lat, 50)) + " " +
             std::to_string(pct(rawTimes.lat, 99)) + " " + std::to_string(pct(rawTimes.lat, 50));
   });
   ::close(raw[1]);
   auto e = Kel::makePtr<BenchStamp>(Kel::Name("stamp"));
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Writer writer(child.sv[0], e, "bench");
   loop.add(&writer);
   loop.runUntil([&] { return writer.serving() && writer.pending() == 0; }, 10000);
   child.waitReady();
   timespec next;
   clock_gettime(CLOCK_MONOTONIC, &next);
   for (int i = 0; i < 2 * samples; ++i) {
      next.tv_nsec += 50000;  // 20,000 messages per second, alternating: 10,000 of each
      if (next.tv_nsec >= 1000000000) {
         next.tv_nsec -= 1000000000;
         ++next.tv_sec;
      }
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
      if (i & 1) {
         uint64_t now = nowNs();
         (void)!::write(raw[0], &now, sizeof now);
      } else {
         e->stampIs(nowNs());
         writer.pump();
      }
   }
   std::string r = child.finish();
   ::close(raw[0]);
   double p99 = 0, p50 = 0, rawP99 = 0, rawP50 = 0;
   std::sscanf(r.c_str(), "%lf %lf %lf %lf", &p99, &p50, &rawP99, &rawP50);
   std::printf("replication latency at 10,000 updates/s: p50 %.1f us, p99 %.1f us; raw one-way message "
               "interleaved at the same rate: p50 %.1f us, p99 %.1f us (%d samples each)\n",
               p50 / 1000, p99 / 1000, rawP50 / 1000, rawP99 / 1000, samples);
   return rawP99 > 0 ? p99 / rawP99 : NAN;
}

// Typed baselines, out of line as a reflective call is.
INTF_BENCH_NOINLINE uint64_t typedGet(BenchStamp const * e) { return e->count(); }
INTF_BENCH_NOINLINE void typedSet(BenchStamp * e, uint64_t v) { e->countIs(v); }

} // namespace

namespace IntfBench {

void registerReplicationBenches() {
   static Interface::IntfStatistics stats = sampleStatistics();
   static size_t bytes = encodedSize();
   addNote("attrlog.encode", [] {
      std::printf("attrlog.encode: one IntfStatistics attribute message (%zu bytes) vs memcpy "
                  "of as many bytes\n",
                  bytes);
   });
   addPair(
       "attrlog.encode", "4",
       [](benchmark::State & st) {
          Kel::NboAttrLog::Out o;
          for (auto _ : st) {
             benchmark::DoNotOptimize(&stats);
             encodeStatistics(o, stats);
             benchmark::DoNotOptimize(o.data());
             benchmark::ClobberMemory();
          }
       },
       [](benchmark::State & st) {
          std::vector<char> src(bytes, 'x'), dst(bytes);
          for (auto _ : st) {
             benchmark::DoNotOptimize(src.data());
             std::memcpy(dst.data(), src.data(), bytes);
             benchmark::DoNotOptimize(dst.data());
             benchmark::ClobberMemory();
          }
       });

   static auto entity = Kel::makePtr<BenchStamp>(Kel::Name("reflect"));
   addPair(
       "reflection.get", "10",
       [](benchmark::State & st) {
          // Reached through a hidden pointer, as a caller holding a
          // GenericIf would: the calls stay virtual.
          BenchStamp::GenericIf_ wrapper(entity);
          Kel::GenericIf * gp = &wrapper;
          benchmark::DoNotOptimize(gp);
          Kel::GenericIf & g = *gp;
          Kel::String8 name("count");
          for (auto _ : st) {
             auto v = g.attribute(name);
             benchmark::DoNotOptimize(v.ptr());
          }
       },
       [](benchmark::State & st) {
          for (auto _ : st) benchmark::DoNotOptimize(typedGet(entity.ptr()));
       });
   addPair(
       "reflection.set", "10",
       [](benchmark::State & st) {
          // Reached through a hidden pointer, as a caller holding a
          // GenericIf would: the calls stay virtual.
          BenchStamp::GenericIf_ wrapper(entity);
          Kel::GenericIf * gp = &wrapper;
          benchmark::DoNotOptimize(gp);
          Kel::GenericIf & g = *gp;
          Kel::String8 name("count");
          // Two values made once, written in turn so that every write changes.
          Kel::GenericIf::PtrConst v[2] = {Kel::toGeneric(uint64_t(1)), Kel::toGeneric(uint64_t(2))};
          unsigned i = 0;
          for (auto _ : st) g.attributeIs(name, v[++i & 1]);
       },
       [](benchmark::State & st) {
          unsigned i = 0;
          for (auto _ : st) typedSet(entity.ptr(), 1 + (++i & 1));
       });

   addPair(
       "reflection.get_by_id", "4",
       [](benchmark::State & st) {
          // Reached through a hidden pointer, as a caller holding a
          // GenericIf would: the calls stay virtual.
          BenchStamp::GenericIf_ wrapper(entity);
          Kel::GenericIf * gp = &wrapper;
          benchmark::DoNotOptimize(gp);
          Kel::GenericIf & g = *gp;
          Kel::AttributeId id = g.attributeId("count");  // once, by the caller
          for (auto _ : st) {
             auto v = g.attribute(id);
             benchmark::DoNotOptimize(v.ptr());
          }
       },
       [](benchmark::State & st) {
          for (auto _ : st) benchmark::DoNotOptimize(typedGet(entity.ptr()));
       });
   addPair(
       "reflection.set_by_id", "4",
       [](benchmark::State & st) {
          // Reached through a hidden pointer, as a caller holding a
          // GenericIf would: the calls stay virtual.
          BenchStamp::GenericIf_ wrapper(entity);
          Kel::GenericIf * gp = &wrapper;
          benchmark::DoNotOptimize(gp);
          Kel::GenericIf & g = *gp;
          Kel::AttributeId id = g.attributeId("count");
          Kel::GenericIf::PtrConst v[2] = {Kel::toGeneric(uint64_t(1)), Kel::toGeneric(uint64_t(2))};
          unsigned i = 0;
          for (auto _ : st) g.attributeIs(id, v[++i & 1]);
       },
       [](benchmark::State & st) {
          unsigned i = 0;
          for (auto _ : st) typedSet(entity.ptr(), 1 + (++i & 1));
       });

   addFigure("replication.updates_per_s", "1000000", &replicationThroughput, Sense::AtLeast);
   addFigure("replication.p99_vs_raw", "1.5", &replicationP99VsRaw);
}

} // namespace IntfBench
