// The agent's counter table; see CounterRows.h.
#include "CounterRows.h"

#include "CounterClear.h"
#include "Paths.h"

#include <chrono>
#include <set>
#include <vector>

namespace IntfApp {

namespace {

double monotonicNow() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

CounterRows::CounterRows(ConfigMount const * config) : config_(config) {
   table_ = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
   table_->tablePathIs(agentCounterTablePath);  // so that the table's name travels with its prefix
   table_->counterOpen(Smash::Role::writer);
   snapshots_ = Kel::makePtr<Smash::Interface::AllIntfCounterSnapshotDir>(Kel::Name("snapshot"));
   snapshots_->tablePathIs(agentSnapshotTablePath);
   // Made (or taken over) and handed back at once: clears write it. A
   // clear that holds it now shows that it is there.
   std::string why = IntfApp::dropBaselines(*snapshots_, {});
   if (!why.empty() && why.find("already has a writer") == std::string::npos) throw Smash::Error(why);
}

Interface::LoadInterval CounterRows::loadInterval(Zenet::IntfId id) const {
   if (!config_) return {};
   auto cfg = config_->intfConfig(id);
   return cfg ? cfg->loadInterval() : Interface::LoadInterval();
}

void CounterRows::fold(HostNamespace & n) {
   double now = monotonicNow();
   Interface::LoadInterval global;
   if (config_ && config_->global()) global = config_->global()->loadInterval();
   for (auto & [ifindex, d] : n.devices) {
      if (d.intf.isNull() || !d.fresh) continue;
      d.fresh = false;
      Interface::LoadInterval li = loadInterval(d.intf);
      Smash::Interface::IntfCounter row;
      if (!d.counters.primed) {
         // An earlier run's row: rates go on from it within one load interval.
         double window = double(li.useDefault() ? global.val() : li.val());
         if (!table_->counterFind(d.intf, &row) || !resumeFrom(d.counters, row.statistics(), row.rates(), now, window)) {
            remade_.emplace_back(d.intf, now);  // totals start again from the kernel's
         }
      }
      foldSample(d.counters, d.latest, now, li, global);
      row = Smash::Interface::IntfCounter();
      row.keyIs(d.intf);
      row.statisticsIs(d.counters.totals);
      row.ratesIs(d.counters.rates);
      table_->counterIs(row);
   }
   table_->counterCommit();
   dropBaselines();
}

void CounterRows::dropBaselines() {
   // Only baselines taken before the row was made again; most rows have none.
   std::erase_if(remade_, [&](auto const & r) {
      Smash::Interface::IntfCounter s;
      return !snapshots_->counterSnapshotFind(r.first, &s) || s.statistics().lastUpdate() == 0 ||
             s.statistics().lastUpdate() >= r.second;
   });
   // Marked ones are passed over at the next round; while a clear holds the table, it tries again.
   if (!remade_.empty()) IntfApp::dropBaselines(*snapshots_, remade_);
}

// Not before every namespace has been read, so that no device is taken for gone.
void CounterRows::sweep(HostNamespaces const & namespaces) {
   if (swept_) return;
   for (auto const & [name, n] : namespaces) {
      if (!n.primed) return;
   }
   swept_ = true;
   std::set<uint64_t> modelled;
   for (auto const & [name, n] : namespaces) {
      for (auto const & [ifindex, d] : n.devices) {
         if (!d.intf.isNull()) modelled.insert(d.intf.intfIdValue());
      }
   }
   std::vector<Zenet::IntfId> stale;
   table_->counterForEach([&](Smash::Interface::IntfCounter const & row) {
      if (!modelled.count(row.key().intfIdValue())) stale.push_back(row.key());
   });
   for (auto id : stale) table_->counterDel(id);
   table_->counterCommit();
}

} // namespace IntfApp
