#include <Intf/MovingAverage.h>

#include <cmath>

namespace Interface {

IntfRates updateIntfMovingAverages(IntfRates const & prev, IntfStatistics const & sample,
                                   double now, LoadInterval const & intfInterval,
                                   LoadInterval const & globalInterval) {
   double T = !intfInterval.useDefault()     ? intfInterval.val()
              : !globalInterval.useDefault() ? globalInterval.val()
                                             : 300.0;
   double dt = now - prev.statsUpdateTime();
   if (!(dt > 0)) return prev;
   double w = std::exp(-dt / T);
   double a = 1.0 - w;
   // Sums wrap in 64 bits before conversion; only outOctets may be absent.
   uint64_t outPkts = sample.outUcastPkts() + sample.outMulticastPkts() + sample.outBroadcastPkts();
   uint64_t inPkts = sample.inUcastPkts() + sample.inMulticastPkts() + sample.inBroadcastPkts();
   uint64_t outBits = sample.outOctets().hasValue() ? sample.outOctets().word() * 8 : 0;
   uint64_t inBits = sample.inOctets() * 8;
   IntfRates r;
   r.outPktsRateIs((double(outPkts) / dt) * a + prev.outPktsRate() * w);
   r.inPktsRateIs((double(inPkts) / dt) * a + prev.inPktsRate() * w);
   r.outBitsRateIs((double(outBits) / dt) * a + prev.outBitsRate() * w);
   r.inBitsRateIs((double(inBits) / dt) * a + prev.inBitsRate() * w);
   r.statsUpdateTimeIs(now);
   return r;
}

} // namespace Interface

#include <Intf/Startup.h>

// Rates register no types; the module only announces itself.
void kelModuleMovingAverage() { Kel::moduleInitializedIs("MovingAverage"); }
