// The agent's metrics; see AgentMetrics.h.
#include "AgentMetrics.h"

#include "MetricsText.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace IntfApp {

using Interface::IntfOperStatus;

std::string metricsText(HostNamespaces const & namespaces) {
   struct Row {
      std::string intf, device, ns;
      HostDevice const * d;
   };
   std::vector<Row> rows;
   for (auto const & [name, n] : namespaces) {
      for (auto const & [ifindex, d] : n.devices) {
         if (!d.intf.isNull()) rows.push_back({d.intf.stringValue().str(), d.info.name, name, &d});
      }
   }
   std::sort(rows.begin(), rows.end(), [](Row const & a, Row const & b) { return a.intf < b.intf; });
   MetricsText m;
   auto labels = [](Row const & r) {
      return Labels{{"interface", r.intf}, {"device", r.device}, {"namespace", r.ns}};
   };
   using Stats = Interface::IntfStatistics;
   struct Total {
      char const * name;
      char const * help;
      uint64_t (*get)(Stats const &);
   };
   static Total const totals[] = {
      {"intf_in_octets_total", "Octets received.", [](Stats const & s) { return s.inOctets(); }},
      {"intf_out_octets_total", "Octets sent.", [](Stats const & s) { return s.outOctets().value(); }},
      {"intf_in_unicast_packets_total", "Unicast packets received.", [](Stats const & s) { return s.inUcastPkts(); }},
      {"intf_in_multicast_packets_total", "Multicast packets received.",
       [](Stats const & s) { return s.inMulticastPkts(); }},
      {"intf_out_unicast_packets_total", "Packets sent (the kernel does not tell unicast from the others).",
       [](Stats const & s) { return s.outUcastPkts(); }},
      {"intf_in_discards_total", "Received packets dropped.", [](Stats const & s) { return s.inDiscards(); }},
      {"intf_out_discards_total", "Packets dropped on sending.",
       [](Stats const & s) { return s.outDiscards().value(); }},
      {"intf_in_errors_total", "Receive errors.", [](Stats const & s) { return s.inErrors(); }},
      {"intf_out_errors_total", "Transmit errors.", [](Stats const & s) { return s.outErrors(); }},
   };
   for (auto const & t : totals) {
      m.family(t.name, "counter", t.help);
      for (auto const & r : rows) {
         if (r.d->counters.primed) m.sample(t.name, labels(r), t.get(r.d->counters.totals));
      }
   }
   using Rates = Interface::IntfRates;
   struct Rate {
      char const * name;
      char const * help;
      double (*get)(Rates const &);
   };
   static Rate const rates[] = {
      {"intf_in_bits_per_second", "Receive rate, averaged over the load interval.",
       [](Rates const & r) { return double(r.inBitsRate()); }},
      {"intf_out_bits_per_second", "Transmit rate, averaged over the load interval.",
       [](Rates const & r) { return double(r.outBitsRate()); }},
      {"intf_in_packets_per_second", "Packets received per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.inPktsRate()); }},
      {"intf_out_packets_per_second", "Packets sent per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.outPktsRate()); }},
   };
   for (auto const & t : rates) {
      m.family(t.name, "gauge", t.help);
      for (auto const & r : rows) {
         if (r.d->counters.primed) m.sample(t.name, labels(r), t.get(r.d->counters.rates));
      }
   }
   m.family("intf_mtu", "gauge", "The device's MTU in bytes.");
   for (auto const & r : rows) m.sample("intf_mtu", labels(r), uint64_t(r.d->status->mtu()));
   m.family("intf_oper_up", "gauge", "1 when the interface is operationally up, else 0.");
   for (auto const & r : rows) {
      m.sample("intf_oper_up", labels(r), uint64_t(r.d->status->operStatus() == IntfOperStatus::intfOperUp));
   }
   // The model's oper history: how often the status changed, and when last.
   m.family("intf_oper_changes_total", "counter", "Operational status changes since the agent found the device.");
   for (auto const & r : rows) {
      m.sample("intf_oper_changes_total", labels(r), uint64_t(r.d->status->operStatusChange().count()));
   }
   m.family("intf_oper_last_change_timestamp_seconds", "gauge",
            "When the operational status last changed (seconds since the epoch; 0 if never).");
   for (auto const & r : rows) {
      m.sample("intf_oper_last_change_timestamp_seconds", labels(r), double(r.d->status->operStatusChange().time()));
   }
   return m.text();
}

} // namespace IntfApp
