// The agent's counter table (agentCounterTablePath in Paths.h): one row per
// modelled interface. When a dump of a namespace ends, the statistics it
// brought are folded into totals and rates (CounterSampler.h) on the
// monotonic clock, and the rows are written and committed together. A
// device first seen where the table holds a row of an earlier run younger
// than the load interval continues that row's totals and rates. A
// device that goes loses its row; rows left by an earlier run for devices
// that are no longer there are removed once every namespace has been read.
#pragma once

#include "ConfigMount.h"
#include "HostDevice.h"

#include <Intf/SmashIntf.h>

#include <utility>
#include <vector>

namespace IntfApp {

class CounterRows {
 public:
   // Opens the table as its writer (attaching to the table of an earlier
   // run, which the table engine repairs), and makes the snapshot table
   // unless it is there: throws Smash::Error when another writer holds the
   // counter table or either cannot be trusted. `config` (may be null) gives the load intervals.
   explicit CounterRows(ConfigMount const * config);
   CounterRows(CounterRows const &) = delete;
   CounterRows & operator=(CounterRows const &) = delete;

   Kel::Ptr<Smash::Interface::AllIntfCounterDir> const & table() const { return table_; }
   Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> const & snapshots() const { return snapshots_; }
   // Folds the fresh statistics of n's modelled devices into their rows, and commits.
   void fold(HostNamespace & n);
   void remove(Zenet::IntfId id) { table_->counterDel(id); }
   void commit() { table_->counterCommit(); }
   // Once every namespace has ended a dump, and only then: removes the rows
   // of interfaces no device models.
   void sweep(HostNamespaces const & namespaces);

 private:
   Interface::LoadInterval loadInterval(Zenet::IntfId id) const;
   void dropBaselines();

   ConfigMount const * config_;
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> table_;
   Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> snapshots_;
   // Rows made again from the kernel's counters, and when: their baselines
   // are still to be marked dropped.
   std::vector<std::pair<Zenet::IntfId, double>> remade_;
   bool swept_ = false;
};

} // namespace IntfApp
