// Counts since a clear; see CounterClear.h.
#include "CounterClear.h"

#include <chrono>
#include <thread>

namespace IntfApp {

namespace {

// An optional counter is compared and subtracted only where both have it.
bool lower(Brik::MaybeU63 a, Brik::MaybeU63 b) { return a.hasValue() && b.hasValue() && a.value() < b.value(); }
Brik::MaybeU63 minus(Brik::MaybeU63 a, Brik::MaybeU63 b) {
   return a.hasValue() && b.hasValue() ? Brik::MaybeU63(a.value() - b.value()) : a;
}

} // namespace

Interface::IntfStatistics sinceClear(Interface::IntfStatistics const & a,
                                     Smash::Interface::IntfCounter const * snapshot, ClearState * state) {
   *state = ClearState();
   if (!snapshot) return a;
   state->lastClear = snapshot->rates().statsUpdateTime();
   Interface::IntfStatistics const & b = snapshot->statistics();
   bool below = a.outUcastPkts() < b.outUcastPkts() || a.outMulticastPkts() < b.outMulticastPkts() ||
                a.outBroadcastPkts() < b.outBroadcastPkts() || a.inUcastPkts() < b.inUcastPkts() ||
                a.inMulticastPkts() < b.inMulticastPkts() || a.inBroadcastPkts() < b.inBroadcastPkts() ||
                lower(a.outOctets(), b.outOctets()) || a.inOctets() < b.inOctets() || a.inDiscards() < b.inDiscards() ||
                a.inErrors() < b.inErrors() || lower(a.outDiscards(), b.outDiscards()) || a.outErrors() < b.outErrors();
   if (below || b.lastUpdate() == 0) {
      state->baselineDropped = true;
      return a;
   }
   Interface::IntfStatistics s = a;
   s.outUcastPktsIs(a.outUcastPkts() - b.outUcastPkts());
   s.outMulticastPktsIs(a.outMulticastPkts() - b.outMulticastPkts());
   s.outBroadcastPktsIs(a.outBroadcastPkts() - b.outBroadcastPkts());
   s.inUcastPktsIs(a.inUcastPkts() - b.inUcastPkts());
   s.inMulticastPktsIs(a.inMulticastPkts() - b.inMulticastPkts());
   s.inBroadcastPktsIs(a.inBroadcastPkts() - b.inBroadcastPkts());
   s.outOctetsIs(minus(a.outOctets(), b.outOctets()));
   s.inOctetsIs(a.inOctets() - b.inOctets());
   s.inDiscardsIs(a.inDiscards() - b.inDiscards());
   s.inErrorsIs(a.inErrors() - b.inErrors());
   s.outDiscardsIs(minus(a.outDiscards(), b.outDiscards()));
   s.outErrorsIs(a.outErrors() - b.outErrors());
   return s;
}

Smash::Interface::IntfCounter const * snapshotOf(Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const> const & where,
                                                 Zenet::IntfId id, Smash::Interface::IntfCounter * row) {
   return where && where->counterSnapshotFind(id, row) ? row : nullptr;
}

namespace {

// This process's writer of the table `where` names, or why there is none.
Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> writerOf(Smash::Interface::AllIntfCounterSnapshotDir const & where,
                                                               std::string * why) {
   auto w = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
   w->tablePathIs(where.tablePath());
   w->shmPrefixIs(where.shmPrefix());
   try {
      w->counterSnapshotOpen(Smash::Role::writer);
   } catch (Smash::Error const & e) {
      *why = e.what();
      // Other than a busy table, a refusal is about whose the table is: its
      // objects are the agent's user's, and trusted as such.
      if (why->find("already has a writer") == std::string::npos) *why += " (only the user intf-agent runs as may clear counters)";
      return nullptr;
   }
   return w;
}

} // namespace

std::string clearCounters(Smash::Interface::AllIntfCounterSnapshotDir const & where,
                          std::vector<Smash::Interface::IntfCounter> const & live, double now, int waitMs) {
   std::string why;
   auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
   Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> w;
   // Another clear, or the agent marking baselines, holds the table for
   // a moment: wait for it, a while.
   while (!(w = writerOf(where, &why)) && why.find("already has a writer") != std::string::npos &&
          std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   if (!w) return why;
   try {
      for (auto const & l : live) {
         Smash::Interface::IntfCounter row;
         row.keyIs(l.key());
         row.statisticsIs(l.statistics());
         Interface::IntfRates at;
         at.statsUpdateTimeIs(now);
         row.ratesIs(at);
         w->counterSnapshotIs(row);
      }
      w->counterSnapshotCommit();
   } catch (Smash::Error const & e) {
      return e.what();
   }
   return "";
}

std::string dropBaselines(Smash::Interface::AllIntfCounterSnapshotDir const & where,
                          std::vector<std::pair<Zenet::IntfId, double>> const & remade) {
   std::string why;
   auto w = writerOf(where, &why);
   if (!w) return why;
   try {
      for (auto const & [id, at] : remade) {
         Smash::Interface::IntfCounter row;
         // A clear taken since the row was made again is the one that applies.
         if (!w->counterSnapshotFind(id, &row) || row.statistics().lastUpdate() >= at) continue;
         row.statisticsIs(Interface::IntfStatistics());
         w->counterSnapshotIs(row);
      }
      w->counterSnapshotCommit();
   } catch (Smash::Error const & e) {
      return e.what();
   }
   return "";
}

} // namespace IntfApp
