// Exponentially weighted moving-average interface rates.
#pragma once

#include <Intf/Types.h>

namespace Interface {

// The rates after folding in `sample`, the counts accumulated since
// prev.statsUpdateTime, at time `now`. The interval is the interface's own
// unless it defers (useDefault), then the global one, then 300 seconds.
// A non-positive or NaN elapsed time returns `prev` unchanged.
// Pure: no allocation, no state, one exp().
IntfRates updateIntfMovingAverages(IntfRates const & prev, IntfStatistics const & sample,
                                   double now, LoadInterval const & intfInterval,
                                   LoadInterval const & globalInterval);

} // namespace Interface
