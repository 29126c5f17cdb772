// Layouts of intf-show; see ShowFormat.h.
#include "ShowFormat.h"

#include <Kel/Value.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace IntfApp {

namespace {

void sortRows(std::vector<IntfView> & rows) {
   std::sort(rows.begin(), rows.end(),
             [](IntfView const & a, IntfView const & b) { return a.intfId < b.intfId; });
}

std::string name(IntfView const & v) { return v.intfId.stringValue().str(); }
// In the counter tables, with a mark when the values are the last ones read.
std::string counterName(IntfView const & v) { return name(v) + (v.countersStale ? "*" : ""); }
std::string staleNote(std::vector<IntfView> const & rows) {
   for (auto const & v : rows) {
      if (v.hasCounters && v.countersStale) return "* last values read: the counters cannot be read just now\n";
   }
   return "";
}

// Left-aligned columns: widths from the header and the longest cell.
struct Table {
   std::vector<std::vector<std::string>> cells;
   std::vector<bool> right;  // numeric columns align right
   std::string render() const {
      std::vector<size_t> w(cells.front().size(), 0);
      for (auto const & r : cells) {
         for (size_t i = 0; i < r.size(); ++i) w[i] = std::max(w[i], r[i].size());
      }
      std::string out;
      for (auto const & r : cells) {
         std::string line;
         for (size_t i = 0; i < r.size(); ++i) {
            size_t pad = w[i] - r[i].size();
            if (i) line += "  ";
            if (right[i]) line.append(pad, ' ');
            line += r[i];
            if (!right[i] && i + 1 < r.size()) line.append(pad, ' ');
         }
         while (!line.empty() && line.back() == ' ') line.pop_back();
         out += line + "\n";
      }
      return out;
   }
};

std::string fixed(double v, int decimals) {
   char buf[64];
   std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
   return buf;
}

std::string interval(double secs) {
   int s = int(secs + 0.5);
   char buf[16];
   std::snprintf(buf, sizeof buf, "%d:%02d", s / 60, s % 60);
   return buf;
}

std::string percent(double bps, uint64_t speed) {
   if (!speed) return "-";
   return fixed(100.0 * bps / double(speed), 1) + "%";
}

std::string jsonNumber(double v) {
   if (!(v == v) || v > 1.7e308 || v < -1.7e308) return "null";
   char buf[32];
   auto r = std::to_chars(buf, buf + sizeof buf, v);
   return std::string(buf, r.ptr);
}

} // namespace

std::string operName(Interface::IntfOperStatus s) {
   std::string n = Kel::enumString(kelEnumInfo(s), uint32_t(s)).str();
   if (n.rfind("intfOper", 0) == 0 && n.size() > 8) {
      n = n.substr(8);
      n[0] = char(n[0] - 'A' + 'a');
   }
   return n;
}

std::string statusTable(std::vector<IntfView> rows) {
   sortRows(rows);
   Table t{{{"Interface", "Description", "Admin", "Oper", "MTU", "Device", "Namespace"}},
           {false, false, false, false, true, false, false}};
   for (auto const & v : rows) {
      t.cells.push_back({name(v), v.description, v.adminUp ? "up" : "down", operName(v.operStatus),
                         std::to_string(v.mtu), v.device.empty() ? "-" : v.device,
                         v.netNs.empty() ? "default" : v.netNs});
   }
   return t.render();
}

std::string countersTable(std::vector<IntfView> rows) {
   sortRows(rows);
   Table in{{{"Interface", "InOctets", "InUcastPkts", "InMcastPkts", "InBcastPkts", "InDiscards",
              "InErrors"}},
            {false, true, true, true, true, true, true}};
   Table out{{{"Interface", "OutOctets", "OutUcastPkts", "OutMcastPkts", "OutBcastPkts",
               "OutDiscards", "OutErrors"}},
             {false, true, true, true, true, true, true}};
   auto maybe = [](Brik::MaybeU63 m) { return m.hasValue() ? std::to_string(m.value()) : "-"; };
   for (auto const & v : rows) {
      if (!v.hasCounters) continue;
      auto const & s = v.stats;
      in.cells.push_back({counterName(v), std::to_string(s.inOctets()), std::to_string(s.inUcastPkts()),
                          std::to_string(s.inMulticastPkts()), std::to_string(s.inBroadcastPkts()),
                          std::to_string(s.inDiscards()), std::to_string(s.inErrors())});
      out.cells.push_back({counterName(v), maybe(s.outOctets()), std::to_string(s.outUcastPkts()),
                           std::to_string(s.outMulticastPkts()), std::to_string(s.outBroadcastPkts()),
                           maybe(s.outDiscards()), std::to_string(s.outErrors())});
   }
   return in.render() + "\n" + out.render() + staleNote(rows);
}

std::string ratesTable(std::vector<IntfView> rows) {
   sortRows(rows);
   Table t{{{"Interface", "Intvl", "In Mbps", "%", "In Kpps", "Out Mbps", "%", "Out Kpps"}},
           {false, true, true, true, true, true, true, true}};
   for (auto const & v : rows) {
      if (!v.hasCounters) continue;
      auto const & r = v.rates;
      t.cells.push_back({counterName(v), interval(v.loadInterval), fixed(r.inBitsRate() / 1e6, 1),
                         percent(r.inBitsRate(), v.speedBps), fixed(r.inPktsRate() / 1e3, 1),
                         fixed(r.outBitsRate() / 1e6, 1), percent(r.outBitsRate(), v.speedBps),
                         fixed(r.outPktsRate() / 1e3, 1)});
   }
   return t.render() + staleNote(rows);
}

std::string interfaceDetail(IntfView const & v, double now) {
   std::string o = name(v) + " is " + (v.adminUp ? "up" : "administratively down") +
                   ", line protocol is " + operName(v.operStatus) + "\n";
   if (!v.description.empty()) o += "  Description: " + v.description + "\n";
   o += "  Device " + (v.device.empty() ? std::string("-") : v.device) + " in namespace " +
        (v.netNs.empty() ? std::string("default") : v.netNs) + "\n";
   o += "  MTU " + std::to_string(v.mtu) + " bytes" + (v.maxMtu ? ", maximum " + std::to_string(v.maxMtu) : std::string()) + "\n";
   if (v.changes) {
      o += "  " + std::to_string(v.changes) + " link status changes, last " +
           (v.lastChange > 0 && now >= v.lastChange ? fixed(now - v.lastChange, 0) + " s ago"
                                                    : std::string("at an unknown time")) +
           "\n";
   }
   if (!v.hasCounters) return o + "  No counters\n";
   if (v.countersStale) o += "  Counters: the last values read; they cannot be read just now\n";
   auto const & s = v.stats;
   auto const & r = v.rates;
   o += "  " + interval(v.loadInterval) + " input rate " + fixed(r.inBitsRate() / 1e6, 1) +
        " Mbps, " + fixed(r.inPktsRate(), 0) + " packets/sec\n";
   o += "  " + interval(v.loadInterval) + " output rate " + fixed(r.outBitsRate() / 1e6, 1) +
        " Mbps, " + fixed(r.outPktsRate(), 0) + " packets/sec\n";
   o += "  Input: " + std::to_string(s.inUcastPkts()) + " unicast, " +
        std::to_string(s.inMulticastPkts()) + " multicast, " + std::to_string(s.inBroadcastPkts()) +
        " broadcast packets, " + std::to_string(s.inOctets()) + " bytes, " +
        std::to_string(s.inDiscards()) + " discards, " + std::to_string(s.inErrors()) + " errors\n";
   o += "  Output: " + std::to_string(s.outUcastPkts()) + " unicast, " +
        std::to_string(s.outMulticastPkts()) + " multicast, " +
        std::to_string(s.outBroadcastPkts()) + " broadcast packets, " +
        (s.outOctets().hasValue() ? std::to_string(s.outOctets().value()) : std::string("-")) +
        " bytes, " +
        (s.outDiscards().hasValue() ? std::to_string(s.outDiscards().value()) : std::string("-")) +
        " discards, " + std::to_string(s.outErrors()) + " errors\n";
   return o;
}

std::string jsonString(std::string_view s) {
   std::string o = "\"";
   for (unsigned char c : s) {
      switch (c) {
      case '"': o += "\\\""; break;
      case '\\': o += "\\\\"; break;
      case '\n': o += "\\n"; break;
      case '\r': o += "\\r"; break;
      case '\t': o += "\\t"; break;
      default:
         if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            o += buf;
         } else {
            o += char(c);
         }
      }
   }
   return o + "\"";
}

std::string toJson(std::vector<IntfView> rows) {
   sortRows(rows);
   std::string o = "{\"interfaces\": {";
   bool first = true;
   for (auto const & v : rows) {
      if (!first) o += ", ";
      first = false;
      o += jsonString(name(v)) + ": {";
      o += "\"description\": " + jsonString(v.description);
      o += ", \"device\": " + jsonString(v.device);
      o += ", \"namespace\": " + jsonString(v.netNs.empty() ? "default" : v.netNs);
      o += ", \"adminUp\": " + std::string(v.adminUp ? "true" : "false");
      o += ", \"operStatus\": " + jsonString(operName(v.operStatus));
      o += ", \"operChanges\": " + std::to_string(v.changes);
      o += ", \"lastChange\": " + jsonNumber(v.lastChange);
      o += ", \"mtu\": " + std::to_string(v.mtu);
      o += ", \"maxMtu\": " + std::to_string(v.maxMtu);
      o += ", \"speedBps\": " + std::to_string(v.speedBps);
      if (v.hasCounters) {
         auto const & s = v.stats;
         auto const & r = v.rates;
         auto maybe = [](Brik::MaybeU63 m) {
            return m.hasValue() ? std::to_string(m.value()) : std::string("null");
         };
         o += ", \"counters\": {\"inOctets\": " + std::to_string(s.inOctets()) +
              ", \"inUcastPkts\": " + std::to_string(s.inUcastPkts()) +
              ", \"inMulticastPkts\": " + std::to_string(s.inMulticastPkts()) +
              ", \"inBroadcastPkts\": " + std::to_string(s.inBroadcastPkts()) +
              ", \"inDiscards\": " + std::to_string(s.inDiscards()) +
              ", \"inErrors\": " + std::to_string(s.inErrors()) +
              ", \"outOctets\": " + maybe(s.outOctets()) +
              ", \"outUcastPkts\": " + std::to_string(s.outUcastPkts()) +
              ", \"outMulticastPkts\": " + std::to_string(s.outMulticastPkts()) +
              ", \"outBroadcastPkts\": " + std::to_string(s.outBroadcastPkts()) +
              ", \"outDiscards\": " + maybe(s.outDiscards()) +
              ", \"outErrors\": " + std::to_string(s.outErrors()) +
              ", \"lastUpdate\": " + jsonNumber(s.lastUpdate()) +
              ", \"stale\": " + (v.countersStale ? "true" : "false") + "}";
         o += ", \"rates\": {\"loadInterval\": " + jsonNumber(v.loadInterval) +
              ", \"inBitsRate\": " + jsonNumber(r.inBitsRate()) +
              ", \"inPktsRate\": " + jsonNumber(r.inPktsRate()) +
              ", \"outBitsRate\": " + jsonNumber(r.outBitsRate()) +
              ", \"outPktsRate\": " + jsonNumber(r.outPktsRate()) +
              ", \"statsUpdateTime\": " + jsonNumber(r.statsUpdateTime()) + "}";
      }
      o += "}";
   }
   return o + "}}\n";
}

} // namespace IntfApp
