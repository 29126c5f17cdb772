// From kernel device statistics to the model's counters and rates.
//
// The kernel's counters start again from zero when a device is re-created
// (and a driver may reset them). The model's statistics must never go
// backwards and rates must not jump, so each counter is followed by its
// difference between samples: a counter found lower than at the previous
// sample counts as restarted, contributes nothing for that sample, and is
// followed from its new value on. The totals the model shows are the
// kernel's values at the first sample plus every difference since.
#pragma once

#include "LinkMessages.h"

#include <Intf/MovingAverage.h>

namespace IntfApp {

// The model's reading of the kernel's statistics: the kernel does not tell
// broadcast from unicast or outgoing multicast from unicast, so those land
// in the unicast counters: inUcastPkts holds the received packets that are
// not multicast, outUcastPkts every packet sent; inBroadcastPkts,
// outMulticastPkts and outBroadcastPkts are not measured (0 in the row,
// shown as not measured: kernelUnmeasured in ShowFormat.h).
Interface::IntfStatistics statisticsOf(LinkStats const & s, double now);

struct DeviceCounters {
   Interface::IntfStatistics totals;
   Interface::IntfRates rates;
   LinkStats last;
   bool primed = false;
   unsigned restarts = 0;  // samples in which some counter went backwards
};

// Takes up an earlier run's totals and rates of the device (its counter
// row) as the last sample, so that totals never go back and rates go on
// from where they were instead of climbing from 0; only when the row is
// fresh: taken at most `maxAge` seconds before `now` on the same monotonic
// clock. True when taken.
bool resumeFrom(DeviceCounters & c, Interface::IntfStatistics const & totals, Interface::IntfRates const & rates,
                double now, double maxAge);

// Folds in a snapshot taken at `now` (seconds on a monotonic clock).
void foldSample(DeviceCounters & c, LinkStats const & snapshot, double now,
                Interface::LoadInterval const & intfInterval,
                Interface::LoadInterval const & globalInterval);

} // namespace IntfApp
