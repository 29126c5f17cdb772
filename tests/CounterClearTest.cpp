// Counts since a clear: a baseline subtracted counter by counter, dropped
// as a whole when any counter fell below it; clears and the agent's marks
// in one shared-memory table, one writer at a time.
#include "CounterClear.h"
#include "ShmTestPrefix.h"

#include <gtest/gtest.h>

using namespace IntfApp;
using Interface::IntfStatistics;
using Zenet::IntfId;

namespace {

IntfStatistics stats(uint64_t inOctets, uint64_t inErrors, Brik::MaybeU63 outOctets, double lastUpdate) {
   IntfStatistics s;
   s.inOctetsIs(inOctets);
   s.inErrorsIs(inErrors);
   s.outOctetsIs(outOctets);
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
   Brik::MaybeU63 absent = Brik::MaybeU63::absent();
   IntfStatistics live = stats(1000, 7, Brik::MaybeU63(500), 50);
   struct Case {
      char const * what;
      std::optional<IntfStatistics> baseline;
      IntfStatistics absolute, counts;
      ClearState state;
   } const cases[] = {
      {"never cleared", std::nullopt, live, live, {0, false}},
      {"cleared", stats(400, 2, Brik::MaybeU63(100), 20), live, stats(600, 5, Brik::MaybeU63(400), 50), {99, false}},
      {"cleared just now", live, live, stats(0, 0, Brik::MaybeU63(0), 50), {99, false}},
      {"one counter below its baseline", stats(400, 8, Brik::MaybeU63(100), 20), live, live, {99, true}},
      {"marked dropped", stats(0, 0, Brik::MaybeU63(0), 0), live, live, {99, true}},
      {"an absent counter stays absent", stats(400, 2, Brik::MaybeU63(100), 20), stats(1000, 7, absent, 50),
       stats(600, 5, absent, 50), {99, false}},
   };
   for (auto const & c : cases) {
      SCOPED_TRACE(c.what);
      Smash::Interface::IntfCounter row;
      if (c.baseline) row = snapshot(IntfId("Ethernet1"), *c.baseline, 99);
      ClearState state{1, true};
      EXPECT_EQ(sinceClear(c.absolute, c.baseline ? &row : nullptr, &state), c.counts);
      EXPECT_EQ(state.lastClear, c.state.lastClear);
      EXPECT_EQ(state.baselineDropped, c.state.baselineDropped);
   }
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
   ASSERT_EQ(clearCounters(*where, {snapshot(e1, stats(10, 0, {}, 5), 0), snapshot(e2, stats(20, 0, {}, 5), 0)}, 100, 0), "");
   ASSERT_EQ(clearCounters(*where, {snapshot(e2, stats(30, 0, {}, 8), 0)}, 200, 0), "");

   EXPECT_EQ(baseline(e2), snapshot(e2, stats(30, 0, {}, 8), 200));
   // Held by another writer: refused, after the wait, and nothing changes.
   {
      auto holder = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
      holder->tablePathIs(where->tablePath());
      holder->counterSnapshotOpen(Smash::Role::writer);
      EXPECT_NE(clearCounters(*where, {snapshot(e1, stats(99, 0, {}, 9), 0)}, 300, 20).find("already has a writer"),
                std::string::npos);
      EXPECT_NE(dropBaselines(*where, {{e1, 6}}), "");
   }
   EXPECT_EQ(baseline(e1), snapshot(e1, stats(10, 0, {}, 5), 100));

   // Rows made again at sample time 6: the baseline taken before is dropped
   // (its clear time kept); the one taken since stays, as does one never cleared.
   ASSERT_EQ(dropBaselines(*where, {{e1, 6}, {e2, 6}, {IntfId("Ethernet3"), 6}}), "");
   EXPECT_EQ(baseline(e1), snapshot(e1, IntfStatistics(), 100));
   EXPECT_EQ(baseline(e2), snapshot(e2, stats(30, 0, {}, 8), 200));
   EXPECT_EQ(where->counterSnapshotSize(), 2u);
}
