// The agent's counter table; see CounterRows.h.
#include "CounterRows.h"

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
      if (!d.counters.primed && table_->counterFind(d.intf, &row)) {
         // An earlier run's row: rates go on from it within one load interval.
         double window = double(li.useDefault() ? global.val() : li.val());
         resumeFrom(d.counters, row.statistics(), row.rates(), now, window);
      }
      foldSample(d.counters, d.latest, now, li, global);
      row = Smash::Interface::IntfCounter();
      row.keyIs(d.intf);
      row.statisticsIs(d.counters.totals);
      row.ratesIs(d.counters.rates);
      table_->counterIs(row);
   }
   table_->counterCommit();
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
