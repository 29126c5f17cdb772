// Entity mutators: the cost of an attribute write with and without reactors,
// and the allocations a notification makes.
#include "Bench.h"

#ifdef INTF_BENCH_SIGC
#include <sigc++/sigc++.h>
#endif
#ifdef INTF_BENCH_SIGNALS2
#include <boost/signals2.hpp>
#endif

#include <Kel/Attr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

namespace IntfBench {

// The entity, the reactor and the baselines live outside an anonymous
// namespace on purpose: with the whole class hierarchy visible the compiler
// would turn the virtual mutator and callbacks into direct, inlined calls,
// which is not what a user of the library gets.
#define KEL_ATTRS_BenchEntity(X) X(Scalar, value, Value, uint32_t, 0)
class BenchEntity : public Kel::Entity {
   KEL_ENTITY(BenchEntity, Kel::Entity, "IntfBench::BenchEntity", KEL_ATTRS_BenchEntity)
 public:
   explicit BenchEntity(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(benchEntityFactory, BenchEntity);

class CountingReactor : public BenchEntity::NotifieeConst {
 public:
   void onValue() override { ++count; }
   uint64_t count = 0;
};

// What an unobserved mutator has to do, written plainly: the no-op rule,
// the store and the modification count. Our mutator is a virtual call by
// design, so this one is kept out of line to pay for a call as well.
struct PlainScalar {
   INTF_BENCH_NOINLINE void valueIs(uint32_t v) {
      if (value == v) return;
      value = v;
      ++modifications;
   }
   uint32_t value = 0;
   uint32_t modifications = 0;
};

// The same with the usual hand-rolled observer list, called after the change.
struct PlainObserved {
   INTF_BENCH_NOINLINE void valueIs(uint32_t v) {
      if (value == v) return;
      value = v;
      ++modifications;
      for (auto & f : observers) f();
   }
   uint32_t value = 0;
   uint32_t modifications = 0;
   std::vector<std::function<void()>> observers;
};

namespace {

struct Observed {
   BenchEntity::Ptr entity = Kel::makePtr<BenchEntity>("bench");
   std::vector<Kel::Ptr<CountingReactor>> reactors;

   explicit Observed(uint32_t n) {
      for (uint32_t i = 0; i < n; ++i) {
         Kel::Ptr<CountingReactor> r = Kel::makePtr<CountingReactor>();
         r->notifierIs(entity);
         reactors.push_back(r);
      }
   }
   bool everyReactorHeard(uint64_t times) const {
      return std::all_of(reactors.begin(), reactors.end(),
                         [&](auto const & r) { return r->count == times; });
   }
};

// Every write changes the value: it alternates between 1 and 0.
void oursWrite(benchmark::State & state, uint32_t reactors) {
   Observed o(reactors);
   BenchEntity * e = o.entity.ptr();
   benchmark::DoNotOptimize(e);  // no devirtualisation: e's type is unknown
   uint32_t v = 0;
   for (auto _ : state) {
      v ^= 1;
      e->valueIs(v);
   }
   if (o.entity->modificationCount() != uint32_t(state.iterations()) ||
       !o.everyReactorHeard(uint64_t(state.iterations()))) {
      state.SkipWithError("a write was lost");
   }
}

void baselineWrite(benchmark::State & state) {
   PlainScalar plain;
   PlainScalar * p = &plain;
   benchmark::DoNotOptimize(p);
   uint32_t v = 0;
   for (auto _ : state) {
      v ^= 1;
      p->valueIs(v);
   }
   if (plain.modifications != uint32_t(state.iterations())) state.SkipWithError("a write was lost");
}

void oursEqualWrite(benchmark::State & state) {
   Observed o(0);
   BenchEntity * e = o.entity.ptr();
   e->valueIs(7);
   benchmark::DoNotOptimize(e);
   uint32_t held = 7;
   benchmark::DoNotOptimize(held);
   for (auto _ : state) e->valueIs(held);
   if (o.entity->modificationCount() != 1) state.SkipWithError("an equal write counted");
}

void baselineEqualWrite(benchmark::State & state) {
   PlainScalar plain;
   PlainScalar * p = &plain;
   p->valueIs(7);
   benchmark::DoNotOptimize(p);
   uint32_t held = 7;
   benchmark::DoNotOptimize(held);
   for (auto _ : state) p->valueIs(held);
   if (plain.modifications != 1) state.SkipWithError("an equal write counted");
}

void baselineNotify(benchmark::State & state, uint32_t observers) {
   std::vector<uint64_t> counts(observers, 0);
   PlainObserved plain;
   for (uint32_t i = 0; i < observers; ++i) {
      plain.observers.emplace_back([c = &counts[i]] { ++*c; });
   }
   PlainObserved * p = &plain;
   benchmark::DoNotOptimize(p);
   uint32_t v = 0;
   for (auto _ : state) {
      v ^= 1;
      p->valueIs(v);
   }
   for (uint64_t c : counts) {
      if (c != uint64_t(state.iterations())) state.SkipWithError("an observer missed a write");
   }
}


// The observer libraries that, like our reactors, tolerate slots that
// disconnect during an emission: the same setter, then the signal.
#ifdef INTF_BENCH_SIGC
struct SigcObserved {
   INTF_BENCH_NOINLINE void valueIs(uint32_t v) {
      if (value == v) return;
      value = v;
      ++modifications;
      changed.emit();
   }
   uint32_t value = 0;
   uint32_t modifications = 0;
   sigc::signal<void()> changed;
};
#endif
#ifdef INTF_BENCH_SIGNALS2
struct Signals2Observed {
   INTF_BENCH_NOINLINE void valueIs(uint32_t v) {
      if (value == v) return;
      value = v;
      ++modifications;
      changed();
   }
   uint32_t value = 0;
   uint32_t modifications = 0;
   boost::signals2::signal<void()> changed;
};
#endif

template <class Observed>
void peerNotify(benchmark::State & state, uint32_t slots) {
   std::vector<uint64_t> counts(slots, 0);
   Observed o;
   for (uint32_t i = 0; i < slots; ++i) o.changed.connect([c = &counts[i]] { ++*c; });
   Observed * p = &o;
   benchmark::DoNotOptimize(p);
   uint32_t v = 0;
   for (auto _ : state) {
      v ^= 1;
      p->valueIs(v);
   }
   for (uint64_t c : counts) {
      if (c != uint64_t(state.iterations())) state.SkipWithError("a slot missed a write");
   }
}

// Allocations per notified write, counted by the replaced global operator
// new, for 1 to 16 reactors: none may allocate. The control is binding a
// reactor, whose list the library allocates with operator new: a counter
// that does not see that cannot be trusted. A measurement that cannot
// be trusted (control not seen, a notification lost) gives no number (NaN).
double notifyAllocations() {
   constexpr uint64_t writes = 200000;
   double worst = 0;
   bool trusted = true;
   {
      auto e = Kel::makePtr<BenchEntity>("control");
      auto r = Kel::makePtr<CountingReactor>();
      uint64_t before = allocations();
      r->notifierIs(e);
      if (allocations() == before) {
         std::printf("notify.allocs: the counter misses the runtime's allocations\n");
         trusted = false;
      }
   }
   for (uint32_t n = 1; n <= 16; ++n) {
      Observed o(n);
      BenchEntity * e = o.entity.ptr();
      uint64_t allocs = allocations();
      uint32_t v = 0;
      for (uint64_t i = 0; i < writes; ++i) {
         v ^= 1;
         e->valueIs(v);
      }
      double perWrite = double(allocations() - allocs) / double(writes);
      if (n == 1 || n == 8 || n == 9 || n == 16) {
         std::printf("notify.allocs: %u reactor%s: %.2f allocations per notification\n", n,
                     n == 1 ? "" : "s", perWrite);
      }
      if (!o.everyReactorHeard(writes)) {
         std::printf("notify.allocs: %u reactors: a notification was lost\n", n);
         trusted = false;
      }
      worst = std::max(worst, perWrite);
   }
   return trusted ? worst : std::nan("");
}

} // namespace

void registerEntityBenches() {
   addPair("write.unobserved", "1.5", [](benchmark::State & s) { oursWrite(s, 0); }, baselineWrite);
   addPair("write.equal", "1.5", oursEqualWrite, baselineEqualWrite);
   addPair("notify.1", "1.5", [](benchmark::State & s) { oursWrite(s, 1); },
           [](benchmark::State & s) { baselineNotify(s, 1); });
   addPair("notify.4", "1.2", [](benchmark::State & s) { oursWrite(s, 4); },
           [](benchmark::State & s) { baselineNotify(s, 4); });
#ifdef INTF_BENCH_SIGC
   addPair("notify.vs_sigc.1", "0.5", [](benchmark::State & s) { oursWrite(s, 1); },
           [](benchmark::State & s) { peerNotify<SigcObserved>(s, 1); });
   addPair("notify.vs_sigc.4", "0.5", [](benchmark::State & s) { oursWrite(s, 4); },
           [](benchmark::State & s) { peerNotify<SigcObserved>(s, 4); });
#endif
#ifdef INTF_BENCH_SIGNALS2
   addPair("notify.vs_signals2.1", "0.25", [](benchmark::State & s) { oursWrite(s, 1); },
           [](benchmark::State & s) { peerNotify<Signals2Observed>(s, 1); });
   addPair("notify.vs_signals2.4", "0.25", [](benchmark::State & s) { oursWrite(s, 4); },
           [](benchmark::State & s) { peerNotify<Signals2Observed>(s, 4); });
#endif
   addFigure("notify.allocs", "0", notifyAllocations);
}

} // namespace IntfBench
