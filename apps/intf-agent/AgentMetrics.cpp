// The agent's metrics; see AgentMetrics.h.
#include "AgentMetrics.h"

#include "MetricsText.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace IntfApp {

using Interface::IntfOperStatus;

std::string metricsText(HostNamespaces const & namespaces, ConfigMount const * config,
                        Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const> const & snapshots) {
   struct Row {
      std::string intf, device, ns;
      HostDevice const * d;  // null: configured, no device
   };
   std::vector<Row> rows;
   std::set<uint64_t> modelled;
   for (auto const & [name, n] : namespaces) {
      for (auto const & [ifindex, d] : n.devices) {
         if (d.intf.isNull()) continue;
         rows.push_back({d.intf.stringValue().str(), d.info.name, name, &d});
         modelled.insert(d.intf.intfIdValue());
      }
   }
   if (config && config->intfs()) {
      for (auto const & m : config->intfs()->intfConfigRange()) {
         if (!modelled.count(m.key().intfIdValue())) rows.push_back({m.key().stringValue().str(), "", "", nullptr});
      }
   }
   std::sort(rows.begin(), rows.end(), [](Row const & a, Row const & b) { return a.intf < b.intf; });
   MetricsText m;
   auto labels = [](Row const & r) {
      return Labels{{"interface", r.intf}, {"device", r.device}, {"namespace", r.ns}};
   };
   // One family: a sample for each row `has`, valued by `get`.
   auto family = [&](char const * name, char const * type, char const * help, auto has, auto get) {
      m.family(name, type, help);
      for (auto const & r : rows) {
         if (has(r)) m.sample(name, labels(r), get(r));
      }
   };
   auto counted = [](Row const & r) { return r.d && r.d->counters.primed; };
   auto present = [](Row const & r) { return r.d != nullptr; };
   using Stats = Interface::IntfStatistics;
   struct Total {
      char const * name;
      char const * help;
      uint64_t (*get)(Stats const &);
   };
   static Total const totals[] = {
      {"intf_in_octets_total", "Octets received.", [](Stats const & s) { return s.inOctets(); }},
      {"intf_out_octets_total", "Octets sent.", [](Stats const & s) { return s.outOctets().value(); }},
      {"intf_in_packets_total", "Packets received, of every kind.",
       [](Stats const & s) { return s.inUcastPkts() + s.inMulticastPkts(); }},
      {"intf_in_multicast_packets_total", "Multicast packets received.",
       [](Stats const & s) { return s.inMulticastPkts(); }},
      {"intf_out_packets_total", "Packets sent, of every kind.", [](Stats const & s) { return s.outUcastPkts(); }},
      {"intf_in_discards_total", "Received packets dropped.", [](Stats const & s) { return s.inDiscards(); }},
      {"intf_out_discards_total", "Packets dropped on sending.",
       [](Stats const & s) { return s.outDiscards().value(); }},
      {"intf_in_errors_total", "Receive errors.", [](Stats const & s) { return s.inErrors(); }},
      {"intf_out_errors_total", "Transmit errors.", [](Stats const & s) { return s.outErrors(); }},
   };
   for (auto const & t : totals) {
      family(t.name, "counter", t.help, counted, [&](Row const & r) { return t.get(r.d->counters.totals); });
   }
   using Rates = Interface::IntfRates;
   struct Rate {
      char const * name;
      char const * help;
      double (*get)(Rates const &);
   };
   static Rate const rates[] = {
      {"intf_in_bytes_per_second", "Receive rate in bytes per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.inBitsRate()) / 8; }},
      {"intf_out_bytes_per_second", "Transmit rate in bytes per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.outBitsRate()) / 8; }},
      {"intf_in_packets_per_second", "Packets received per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.inPktsRate()); }},
      {"intf_out_packets_per_second", "Packets sent per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.outPktsRate()); }},
   };
   for (auto const & t : rates) {
      family(t.name, "gauge", t.help, counted, [&](Row const & r) { return t.get(r.d->counters.rates); });
   }
   auto all = [](Row const &) { return true; };
   family("intf_present", "gauge", "1 when a device carries the interface, 0 when it is configured but no device does.",
          all, [](Row const & r) { return uint64_t(r.d != nullptr); });
   family("intf_mtu", "gauge", "The device's MTU in bytes.", present,
          [](Row const & r) { return uint64_t(r.d->status->mtu()); });
   family("intf_admin_up", "gauge",
          "1 when the device is administratively up (its kernel flag IFF_UP), else 0: what the device has, "
          "whatever the configuration asks.",
          present, [](Row const & r) { return uint64_t(r.d->status->active()); });
   family("intf_oper_up", "gauge", "1 when the interface is operationally up, else 0 (also when not present).", all,
          [](Row const & r) { return uint64_t(r.d && r.d->status->operStatus() == IntfOperStatus::intfOperUp); });
   // The model's oper history: how often the status changed, and when last.
   family("intf_oper_changes_total", "counter", "Operational status changes since the agent found the device.",
          present, [](Row const & r) { return uint64_t(r.d->status->operStatusChange().count()); });
   family("intf_oper_last_change_timestamp_seconds", "gauge",
          "When the operational status last changed (seconds since the epoch; 0 if never).", present,
          [](Row const & r) { return double(r.d->status->operStatusChange().time()); });
   // Clears change no counter here; the time of the last tells dashboards
   // what an operator's counts start from.
   std::map<std::string, double> cleared;
   for (auto const & r : rows) {
      Smash::Interface::IntfCounter s;
      if (r.d && snapshots && snapshots->counterSnapshotFind(r.d->intf, &s)) cleared[r.intf] = s.rates().statsUpdateTime();
   }
   family("intf_counters_last_clear_timestamp_seconds", "gauge",
          "When an operator last cleared the interface's counters (seconds since the epoch); the counters here "
          "stay absolute.",
          [&](Row const & r) { return cleared.count(r.intf) > 0; }, [&](Row const & r) { return cleared[r.intf]; });
   return m.text();
}

} // namespace IntfApp
