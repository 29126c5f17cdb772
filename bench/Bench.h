// Shared pieces of intf_bench: every timed measurement runs side by side
// with a baseline in the same process, and the summary prints the ratio.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>

namespace IntfBench {

using BenchFn = std::function<void(benchmark::State &)>;

// Which side of the target a good figure lies on.
enum class Sense { AtMost, AtLeast };

// Registers "<name>/ours" and "<name>/baseline". The summary line is
//    BENCH <name> <median time ours / median time baseline> <= <target>
// with CPU time per iteration. `target` is printed as given.
void addPair(const char * name, const char * target, BenchFn ours, BenchFn baseline,
             Sense sense = Sense::AtMost);

// An extra measurement shown beside the pair `name` in the summary, to
// explain its figure; it does not change the figure.
void addReference(const char * name, const char * label, BenchFn fn);

// Explanatory lines printed before the summary line of `name`.
void addNote(const char * name, std::function<void()> print);

// A figure that is counted rather than timed (allocations per operation).
// `measure` runs once after the timed benchmarks and may print explanations.
void addFigure(const char * name, const char * target, std::function<double()> measure,
               Sense sense = Sense::AtMost);

// Calls of the global allocation functions (every operator new and new[]
// variant) made by this process so far, the shared library included.
uint64_t allocations();

// Each topic registers its comparisons; main calls them in this order.
void registerEntityBenches();
void registerHashMapBenches();
void registerTextBenches();
void registerRatesBenches();
void registerReplicationBenches();
void registerScaleBenches();
void registerShmBenches();
void registerCounterBenches();
void registerAgentBenches();

} // namespace IntfBench

// The baselines are plain member functions kept out of line, so that they
// pay for a call as our virtual mutators do.
#define INTF_BENCH_NOINLINE __attribute__((noinline))
