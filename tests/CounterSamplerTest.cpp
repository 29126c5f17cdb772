// Kernel statistics folded into the model's counters and rates, including
// counters that restart when a device is re-created.
#include "CounterSampler.h"

#include <gtest/gtest.h>

#include <cmath>

using IntfApp::DeviceCounters;
using IntfApp::foldSample;
using IntfApp::LinkStats;
using Interface::LoadInterval;

namespace {

LinkStats stats(uint64_t rxPkts, uint64_t rxBytes, uint64_t txPkts = 0, uint64_t txBytes = 0,
                uint64_t rxMc = 0) {
   LinkStats s;
   s.rxPackets = rxPkts;
   s.rxBytes = rxBytes;
   s.txPackets = txPkts;
   s.txBytes = txBytes;
   s.rxMulticast = rxMc;
   return s;
}

LoadInterval const every30(false, 30), global;

} // namespace

TEST(CounterSampler, TheFirstSampleSetsTotalsAndLaterOnesAverageTheirDifferences) {
   DeviceCounters c;
   foldSample(c, stats(1000, 64000, 10, 1000, 100), 100.0, every30, global);
   EXPECT_EQ(c.totals.inUcastPkts(), 900u);
   EXPECT_EQ(c.totals.inMulticastPkts(), 100u);
   EXPECT_EQ(c.totals.inOctets(), 64000u);
   EXPECT_EQ(c.rates.inPktsRate(), 0.0);  // nothing to average yet
   EXPECT_EQ(c.rates.statsUpdateTime(), 100.0);

   // 30 s later, 3000 more packets of 100 bytes in.
   foldSample(c, stats(4000, 364000, 10, 1000, 100), 130.0, every30, global);
   EXPECT_EQ(c.totals.inUcastPkts(), 3900u);
   EXPECT_EQ(c.totals.inOctets(), 364000u);
   double a = 1 - std::exp(-1.0);
   EXPECT_DOUBLE_EQ(c.rates.inPktsRate(), 100.0 * a);
   EXPECT_DOUBLE_EQ(c.rates.inBitsRate(), 80000.0 * a);
   EXPECT_EQ(c.rates.outPktsRate(), 0.0);
   EXPECT_EQ(c.restarts, 0u);
}

TEST(CounterSampler, ARestartedDeviceNeitherLowersTotalsNorMakesARateSpike) {
   DeviceCounters c;
   foldSample(c, stats(1'000'000, 1'000'000'000), 0.0, every30, global);
   foldSample(c, stats(1'000'300, 1'000'030'000), 1.0, every30, global);
   double before = c.rates.inPktsRate();
   ASSERT_GT(before, 0.0);
   // Re-created: the kernel counts from zero again.
   foldSample(c, stats(50, 5000), 2.0, every30, global);
   EXPECT_EQ(c.restarts, 1u);
   EXPECT_EQ(c.totals.inUcastPkts(), 1'000'300u);  // nothing lost, nothing invented
   EXPECT_LT(c.rates.inPktsRate(), before);       // only decays
   // Followed from the new value on.
   foldSample(c, stats(350, 35000), 3.0, every30, global);
   EXPECT_EQ(c.totals.inUcastPkts(), 1'000'600u);
   EXPECT_EQ(c.totals.inOctets(), 1'000'060'000u);
}

TEST(CounterSampler, MulticastThatRestartedAloneStaysWithinThePackets) {
   DeviceCounters c;
   foldSample(c, stats(100, 0, 0, 0, 90), 0.0, every30, global);
   foldSample(c, stats(110, 0, 0, 0, 5), 1.0, every30, global);  // multicast went back
   EXPECT_EQ(c.totals.inMulticastPkts() + c.totals.inUcastPkts(), 110u);
}

TEST(CounterSampler, ANewRunGoesOnFromAFreshRowOfTheLastOneAsIfItHadNeverStopped) {
   DeviceCounters last;
   foldSample(last, stats(1000, 64000, 10, 1000, 100), 100.0, every30, global);
   foldSample(last, stats(4000, 364000, 20, 2000, 130), 130.0, every30, global);
   LinkStats now = stats(4100, 374000, 25, 2500, 131);
   DeviceCounters unbroken = last;
   foldSample(unbroken, now, 131.0, every30, global);

   DeviceCounters resumed;
   ASSERT_TRUE(IntfApp::resumeFrom(resumed, last.totals, last.rates, 131.0, 30));
   foldSample(resumed, now, 131.0, every30, global);
   EXPECT_EQ(resumed.totals, unbroken.totals);
   EXPECT_EQ(resumed.rates, unbroken.rates);
   EXPECT_EQ(resumed.restarts, 0u);

   // A row older than the load interval, or from another boot's clock, is not taken up.
   for (double at : {160.5, 129.0}) {
      DeviceCounters fresh;
      EXPECT_FALSE(IntfApp::resumeFrom(fresh, last.totals, last.rates, at, 30)) << at;
      EXPECT_FALSE(fresh.primed);
   }
}
