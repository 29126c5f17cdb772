// Counts since an operator cleared them: the baselines in the host agent's
// snapshot table (Smash::Interface::AllIntfCounterSnapshotDir, beside its
// live counter table), how a reader applies them, how a clear records
// them, and how the agent marks the ones that no longer apply.
//
// A snapshot row of an interface: `statistics` is the live row as it was
// at the clear (the baseline; its lastUpdate the sample it came from,
// never 0) and `rates.statsUpdateTime` the wall-clock time of the clear. A
// baseline that no longer applies (the live totals restarted below it) is
// a row with zero statistics and lastUpdate 0, the clear time kept.
//
// The live table is never written by a clear: monitoring and other readers
// keep their absolute counters. Per-interface and global clears are rows of
// the one table, so every reader sees the same counts.
#pragma once

#include <Intf/SmashIntf.h>

#include <string>
#include <utility>
#include <vector>

namespace IntfApp {

struct ClearState {
   double lastClear = 0;          // wall-clock seconds of the last clear; 0: never cleared
   bool baselineDropped = false;  // the counts are the absolute ones again
};

// The counts of `absolute` since the clear `snapshot` records (null: never
// cleared). When a counter is below its baseline, or the baseline is marked
// as dropped, no baseline applies and the counts are the absolute ones; a
// count is thus never negative and never above the absolute counter.
Interface::IntfStatistics sinceClear(Interface::IntfStatistics const & absolute,
                                     Smash::Interface::IntfCounter const * snapshot, ClearState * state);

// The snapshot row of `id` in the table `where` names, null when there is
// none (or `where` is null); `row` holds it.
Smash::Interface::IntfCounter const * snapshotOf(Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const> const & where,
                                                 Zenet::IntfId id, Smash::Interface::IntfCounter * row);

// Records `live` (rows of the live table) as the baselines of their
// interfaces, cleared at `now` (wall clock), in the snapshot table `where`
// names. The table has one writer at a time: one held by another process
// is waited for up to `waitMs`. Returns "" or why nothing was recorded.
std::string clearCounters(Smash::Interface::AllIntfCounterSnapshotDir const & where,
                          std::vector<Smash::Interface::IntfCounter> const & live, double now, int waitMs);

// The interfaces whose live rows were made again from the kernel's counters
// at the given sample times (monotonic clock, as the rows' lastUpdate):
// each baseline taken before that is marked dropped. One attempt: returns ""
// or why not (another writer holds the table: try again later).
std::string dropBaselines(Smash::Interface::AllIntfCounterSnapshotDir const & where,
                          std::vector<std::pair<Zenet::IntfId, double>> const & remade);

} // namespace IntfApp
