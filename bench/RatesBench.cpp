// Moving-average rates: one update against the one exp() it cannot avoid.
#include "Bench.h"

#include <Intf/MovingAverage.h>

#include <cmath>
#include <random>

namespace IntfBench {

namespace {

// Inputs vary per call so that nothing folds to a constant; the baseline
// takes exp() of exactly the exponents the update computes.
constexpr size_t inputCount = 1024;  // a power of two
constexpr double startTime = 1000.0;
constexpr double interval = 30.0;

struct Inputs {
   Interface::IntfRates prev;
   Interface::IntfStatistics sample;
   Interface::LoadInterval intfInterval{false, interval};
   Interface::LoadInterval globalInterval;
   double now[inputCount];
   double exponent[inputCount];

   Inputs() {
      prev.outPktsRateIs(81234.5);
      prev.inPktsRateIs(79876.25);
      prev.outBitsRateIs(6.5e8);
      prev.inBitsRateIs(6.25e8);
      prev.statsUpdateTimeIs(startTime);
      sample.outUcastPktsIs(2400000);
      sample.outMulticastPktsIs(1200);
      sample.outBroadcastPktsIs(30);
      sample.inUcastPktsIs(2300000);
      sample.inMulticastPktsIs(1100);
      sample.inBroadcastPktsIs(25);
      sample.outOctetsIs(Brik::MaybeU63(1900000000));
      sample.inOctetsIs(1800000000);
      std::mt19937_64 rng(42);
      std::uniform_real_distribution<double> dt(0.5, 60.0);
      for (size_t i = 0; i < inputCount; ++i) {
         now[i] = startTime + dt(rng);
         exponent[i] = -(now[i] - startTime) / interval;
      }
   }
};

void oursUpdate(benchmark::State & state) {
   Inputs const inputs;
   Inputs const * in = &inputs;
   benchmark::DoNotOptimize(in);
   size_t i = 0;
   for (auto _ : state) {
      Interface::IntfRates r = Interface::updateIntfMovingAverages(
          in->prev, in->sample, in->now[i], in->intfInterval, in->globalInterval);
      benchmark::DoNotOptimize(r);
      i = (i + 1) & (inputCount - 1);
   }
}

void baselineExp(benchmark::State & state) {
   Inputs const inputs;
   Inputs const * in = &inputs;
   benchmark::DoNotOptimize(in);
   size_t i = 0;
   for (auto _ : state) {
      double w = std::exp(in->exponent[i]);
      benchmark::DoNotOptimize(w);
      i = (i + 1) & (inputCount - 1);
   }
}

} // namespace

void registerRatesBenches() { addPair("rates.update", "1.5", oursUpdate, baselineExp); }

} // namespace IntfBench
