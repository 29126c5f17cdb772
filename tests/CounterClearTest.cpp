// Counts since a clear: a baseline subtracted counter by counter, dropped
// as a whole when any counter fell below it; clears and the agent's marks
// in one shared-memory table, one writer at a time.
#include "CounterClear.h"
#include "ShmTestPrefix.h"

#include <gtest/gtest.h>

#include <array>

using namespace IntfApp;
using Interface::IntfStatistics;
using Zenet::IntfId;

namespace {

// Statistics with the twelve counters in their order, from outUcastPkts to outErrors.
IntfStatistics counters(std::array<uint64_t, 12> v, double lastUpdate) {
   IntfStatistics s;
   s.outUcastPktsIs(v[0]);
   s.outMulticastPktsIs(v[1]);
   s.outBroadcastPktsIs(v[2]);
   s.inUcastPktsIs(v[3]);
   s.inMulticastPktsIs(v[4]);
   s.inBroadcastPktsIs(v[5]);
   s.outOctetsIs(Brik::MaybeU63(v[6]));
   s.inOctetsIs(v[7]);
   s.inDiscardsIs(v[8]);
   s.inErrorsIs(v[9]);
   s.outDiscardsIs(Brik::MaybeU63(v[10]));
   s.outErrorsIs(v[11]);
   s.lastUpdateIs(lastUpdate);
   return s;
}

Smash::Interface::IntfCounter snapshot(IntfId id, IntfStatistics const & baseline, double clearedAt) {
   Smash::Interface::IntfCounter row;
   row.keyIs(id);
   row.statisticsIs(baseline);
   Interface::IntfRates at;
   at.statsUpdateTimeIs(clearedAt);
   row.ratesIs(at);
   return row;
}

} // namespace

TEST(CounterClear, CountsAreSinceTheClearNeverNegativeNeverAboveTheAbsolute) {
   std::array<uint64_t, 12> absolute, base, since;
   for (size_t i = 0; i < 12; ++i) absolute[i] = 1000 * (i + 1), base[i] = i + 1, since[i] = absolute[i] - base[i];
   IntfStatistics live = counters(absolute, 50);
   auto row = snapshot(IntfId("Ethernet1"), counters(base, 20), 99);
   ClearState state{1, true};
   EXPECT_EQ(sinceClear(live, nullptr, &state), live);
   EXPECT_TRUE(state.lastClear == 0 && !state.baselineDropped) << "never cleared";
   EXPECT_EQ(sinceClear(live, &row, &state), counters(since, 50));
   EXPECT_TRUE(state.lastClear == 99 && !state.baselineDropped);
   // Any one counter below its baseline, or the agent's mark (lastUpdate 0): the absolute counts, said so.
   for (size_t i = 0; i <= 12; ++i) {
      auto above = base;
      if (i < 12) above[i] = absolute[i] + 1;
      row.statisticsIs(i < 12 ? counters(above, 20) : IntfStatistics());
      EXPECT_EQ(sinceClear(live, &row, &state), live) << i;
      EXPECT_TRUE(state.lastClear == 99 && state.baselineDropped) << i;
   }
   // An optional counter absent on either side is neither compared nor subtracted.
   IntfStatistics noOut = live, noBase = counters(base, 20), want = counters(since, 50);
   noOut.outOctetsIs(Brik::MaybeU63::absent());
   noBase.outDiscardsIs(Brik::MaybeU63::absent());
   row.statisticsIs(noBase);
   want.outOctetsIs(Brik::MaybeU63::absent());
   want.outDiscardsIs(live.outDiscards());
   EXPECT_EQ(sinceClear(noOut, &row, &state), want);
   EXPECT_FALSE(state.baselineDropped);
}

TEST(CounterClear, ClearsAndTheAgentsMarksShareOneTableWithOneWriterAtATime) {
   ShmTestPrefix shm;
   auto where = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
   where->tablePathIs(shm.table("clears"));
   IntfId e1("Ethernet1"), e2("Ethernet2");
   auto baseline = [&](IntfId id) {
      Smash::Interface::IntfCounter row;
      return snapshotOf(where, id, &row) ? row : Smash::Interface::IntfCounter();
   };
   // A global clear, then one of Ethernet2: each row its own clear.
   ASSERT_EQ(clearCounters(*where, {snapshot(e1, counters({10}, 5), 0), snapshot(e2, counters({20}, 5), 0)}, 100, 0), "");
   ASSERT_EQ(clearCounters(*where, {snapshot(e2, counters({30}, 8), 0)}, 200, 0), "");

   EXPECT_EQ(baseline(e2), snapshot(e2, counters({30}, 8), 200));
   // Held by another writer: refused, after the wait, and nothing changes.
   {
      auto holder = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
      holder->tablePathIs(where->tablePath());
      holder->counterSnapshotOpen(Smash::Role::writer);
      EXPECT_NE(clearCounters(*where, {snapshot(e1, counters({99}, 9), 0)}, 300, 20).find("already has a writer"),
                std::string::npos);
      EXPECT_NE(dropBaselines(*where, {{e1, 6}}), "");
   }
   EXPECT_EQ(baseline(e1), snapshot(e1, counters({10}, 5), 100));

   // Rows made again at sample time 6: the baseline taken before is dropped
   // (its clear time kept); the one taken since stays, as does one never cleared.
   ASSERT_EQ(dropBaselines(*where, {{e1, 6}, {e2, 6}, {IntfId("Ethernet3"), 6}}), "");
   EXPECT_EQ(baseline(e1), snapshot(e1, IntfStatistics(), 100));
   EXPECT_EQ(baseline(e2), snapshot(e2, counters({30}, 8), 200));
   EXPECT_EQ(where->counterSnapshotSize(), 2u);
}
