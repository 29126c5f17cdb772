// Moving-average rates.
#include <Intf/MovingAverage.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace Interface;

namespace {

IntfStatistics sample(uint64_t outPkts, uint64_t inPkts, Brik::MaybeU63 outOctets,
                      uint64_t inOctets) {
   IntfStatistics s;
   s.outUcastPktsIs(outPkts);
   s.inUcastPktsIs(inPkts);
   s.outOctetsIs(outOctets);
   s.inOctetsIs(inOctets);
   return s;
}

IntfRates rates(double v, double at) {
   IntfRates r;
   r.outPktsRateIs(v);
   r.inPktsRateIs(v);
   r.outBitsRateIs(v);
   r.inBitsRateIs(v);
   r.statsUpdateTimeIs(at);
   return r;
}

const LoadInterval deflt;  // useDefault true

} // namespace

TEST(MovingAverage, OneIntervalFromZeroGivesOneMinusOneOverE) {
   IntfRates r = updateIntfMovingAverages(rates(0, 0), sample(600, 300, 1000, 2000), 60,
                                          LoadInterval(false, 60), deflt);
   double k = 1 - std::exp(-1.0);
   EXPECT_DOUBLE_EQ(r.outPktsRate(), 600.0 / 60 * k);
   EXPECT_DOUBLE_EQ(r.inPktsRate(), 300.0 / 60 * k);
   EXPECT_DOUBLE_EQ(r.outBitsRate(), 8000.0 / 60 * k);
   EXPECT_DOUBLE_EQ(r.inBitsRate(), 16000.0 / 60 * k);
   EXPECT_EQ(r.statsUpdateTime(), 60);
}

TEST(MovingAverage, IntervalComesFromInterfaceThenGlobalThenDefault) {
   struct Case {
      LoadInterval intf, global;
      double expectedT;
   } cases[] = {
       {LoadInterval(false, 30), LoadInterval(false, 60), 30},
       {deflt, LoadInterval(false, 60), 60},
       {deflt, deflt, 300},
       {LoadInterval(true, 10), LoadInterval(true, 20), 300},
   };
   for (auto const & c : cases) {
      IntfRates r = updateIntfMovingAverages(rates(100, 10), sample(0, 0, 0, 0), 20, c.intf, c.global);
      EXPECT_DOUBLE_EQ(r.outPktsRate(), 100 * std::exp(-10 / c.expectedT)) << c.expectedT;
   }
}

TEST(MovingAverage, NoTimeElapsedReturnsPrevBitForBit) {
   IntfRates prev = rates(1.25, 50);
   for (double now : {50.0, 49.0, std::nan("")}) {
      IntfRates r = updateIntfMovingAverages(prev, sample(5, 5, 5, 5), now, deflt, deflt);
      EXPECT_EQ(std::memcmp(&r, &prev, sizeof r), 0) << now;
   }
}

TEST(MovingAverage, AbsentOutOctetsOnlyDecaysButInOctetsWrap) {
   IntfRates r = updateIntfMovingAverages(rates(80, 0), sample(0, 0, Brik::MaybeU63::absent(),
                                                               (uint64_t(1) << 61) + 1),
                                          1, LoadInterval(false, 5), deflt);
   double w = std::exp(-1.0 / 5);
   EXPECT_DOUBLE_EQ(r.outBitsRate(), 80 * w);
   // (2^61 + 1) * 8 wraps to 8.
   EXPECT_DOUBLE_EQ(r.inBitsRate(), 8.0 * (1 - w) + 80 * w);
}

TEST(MovingAverage, PacketSumsWrapBeforeTheDivision) {
   IntfStatistics s;
   s.outUcastPktsIs(~uint64_t(0));
   s.outMulticastPktsIs(3);  // sum wraps to 2
   IntfRates r = updateIntfMovingAverages(rates(0, 0), s, 1, LoadInterval(false, 5), deflt);
   EXPECT_DOUBLE_EQ(r.outPktsRate(), 2.0 * (1 - std::exp(-1.0 / 5)));
}

TEST(MovingAverage, ZeroIntervalGivesTheInstantaneousRate) {
   IntfRates r = updateIntfMovingAverages(rates(99, 0), sample(10, 0, 0, 0), 2,
                                          LoadInterval(false, 0), deflt);
   EXPECT_DOUBLE_EQ(r.outPktsRate(), 5.0);
}
