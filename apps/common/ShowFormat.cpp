// Layouts of intf-show; see ShowFormat.h.
#include "ShowFormat.h"

#include <Kel/Value.h>

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace IntfApp {

namespace {

// The code point at s[i] and its length in bytes; length 0 when the bytes
// there are not UTF-8 (overlong forms and surrogates included).
std::pair<uint32_t, size_t> decode(std::string_view s, size_t i) {
   auto byte = [&](size_t k) { return uint8_t(s[k]); };
   uint8_t b = byte(i);
   if (b < 0x80) return {b, 1};
   size_t n = b >= 0xf0 && b < 0xf5 ? 4 : b >= 0xe0 && b < 0xf0 ? 3 : b >= 0xc2 && b < 0xe0 ? 2 : 0;
   if (n == 0 || i + n > s.size()) return {0, 0};
   uint32_t cp = b & (0x7f >> n);
   for (size_t k = 1; k < n; ++k) {
      if ((byte(i + k) & 0xc0) != 0x80) return {0, 0};
      cp = cp << 6 | (byte(i + k) & 0x3f);
   }
   bool overlong = (n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10ffff));
   if (overlong || (cp >= 0xd800 && cp < 0xe000)) return {0, 0};
   return {cp, n};
}

std::string hexByte(uint8_t c) {
   char buf[8];
   std::snprintf(buf, sizeof buf, "\\x%02x", c);
   return buf;
}

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

// Columns aligned by their width on a terminal: text to the left, numbers
// to the right.
struct Table {
   std::vector<std::vector<std::string>> cells;
   std::vector<bool> right;
   std::string render() const {
      std::vector<size_t> w(cells.front().size(), 0);
      for (auto const & r : cells) {
         for (size_t i = 0; i < r.size(); ++i) w[i] = std::max(w[i], displayWidth(r[i]));
      }
      std::string out;
      for (auto const & r : cells) {
         std::string line;
         for (size_t i = 0; i < r.size(); ++i) {
            size_t pad = w[i] - displayWidth(r[i]);
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

std::string orDash(std::string const & s) { return s.empty() ? "-" : printable(s); }
std::string nsOf(IntfView const & v) { return v.netNs.empty() ? "default" : v.netNs; }
std::string configured(std::optional<bool> c) { return !c ? "-" : *c ? "up" : "down"; }

// The packet counters of a row, with what the source does not measure.
struct Packets {
   uint64_t value;
   Unmeasured bit;
   char const * json;
};
std::vector<Packets> inPackets(IntfView const & v) {
   auto const & s = v.stats;
   return {{s.inUcastPkts(), inUcast, "inUcastPkts"},
           {s.inMulticastPkts(), inMcast, "inMulticastPkts"},
           {s.inBroadcastPkts(), inBcast, "inBroadcastPkts"}};
}
std::vector<Packets> outPackets(IntfView const & v) {
   auto const & s = v.stats;
   return {{s.outUcastPkts(), outUcast, "outUcastPkts"},
           {s.outMulticastPkts(), outMcast, "outMulticastPkts"},
           {s.outBroadcastPkts(), outBcast, "outBroadcastPkts"}};
}
// Every packet, whichever counters hold them.
uint64_t total(std::vector<Packets> const & p) { return p[0].value + p[1].value + p[2].value; }
std::string cell(IntfView const & v, Packets const & p) {
   return v.unmeasured & p.bit ? "-" : std::to_string(p.value);
}
std::string maybe(Brik::MaybeU63 m) { return m.hasValue() ? std::to_string(m.value()) : "-"; }

std::string statusJson(IntfView const & v) {
   std::string o = "\"description\": " + jsonString(v.description);
   o += ", \"device\": " + jsonString(v.device);
   o += ", \"namespace\": " + jsonString(nsOf(v));
   o += ", \"present\": " + std::string(v.present ? "true" : "false");
   if (v.present) o += ", \"adminUp\": " + std::string(v.adminUp ? "true" : "false");
   if (v.adminConfigured) o += ", \"adminConfigured\": " + jsonString(configured(v.adminConfigured));
   o += ", \"operStatus\": " + jsonString(operName(v.operStatus));
   o += ", \"operChanges\": " + std::to_string(v.changes);
   o += ", \"lastChange\": " + jsonNumber(v.lastChange);
   if (v.present) o += ", \"mtu\": " + std::to_string(v.mtu);
   if (v.maxMtu) o += ", \"maxMtu\": " + std::to_string(v.maxMtu);
   if (v.speedBps) o += ", \"speedBps\": " + std::to_string(v.speedBps);
   return o;
}

std::string countersJson(IntfView const & v) {
   auto const & s = v.stats;
   std::string o = "\"inOctets\": " + std::to_string(s.inOctets());
   auto in = inPackets(v), out = outPackets(v);
   o += ", \"inPkts\": " + std::to_string(total(in));
   for (auto const & p : in) {
      if (!(v.unmeasured & p.bit)) o += ", \"" + std::string(p.json) + "\": " + std::to_string(p.value);
   }
   o += ", \"inDiscards\": " + std::to_string(s.inDiscards());
   o += ", \"inErrors\": " + std::to_string(s.inErrors());
   if (s.outOctets().hasValue()) o += ", \"outOctets\": " + std::to_string(s.outOctets().value());
   o += ", \"outPkts\": " + std::to_string(total(out));
   for (auto const & p : out) {
      if (!(v.unmeasured & p.bit)) o += ", \"" + std::string(p.json) + "\": " + std::to_string(p.value);
   }
   if (s.outDiscards().hasValue()) o += ", \"outDiscards\": " + std::to_string(s.outDiscards().value());
   o += ", \"outErrors\": " + std::to_string(s.outErrors());
   o += ", \"lastUpdate\": " + jsonNumber(s.lastUpdate()) + ", \"stale\": " + (v.countersStale ? "true" : "false");
   if (!v.clear) return o + ", \"raw\": true";
   o += ", \"lastClear\": " + (v.clear->lastClear > 0 ? jsonNumber(v.clear->lastClear) : std::string("null"));
   return o + (v.clear->baselineDropped ? ", \"baselineDropped\": true" : "");
}

std::string ratesJson(IntfView const & v) {
   auto const & r = v.rates;
   return "\"loadInterval\": " + jsonNumber(v.loadInterval) + ", \"inBitsRate\": " + jsonNumber(r.inBitsRate()) +
          ", \"inPktsRate\": " + jsonNumber(r.inPktsRate()) + ", \"outBitsRate\": " + jsonNumber(r.outBitsRate()) +
          ", \"outPktsRate\": " + jsonNumber(r.outPktsRate()) +
          ", \"statsUpdateTime\": " + jsonNumber(r.statsUpdateTime());
}

} // namespace

std::string printable(std::string_view s) {
   std::string o;
   for (size_t i = 0; i < s.size();) {
      auto [cp, n] = decode(s, i);
      if (n == 0 || cp < 0x20 || cp == 0x7f || (cp >= 0x80 && cp < 0xa0)) {
         for (size_t k = 0; k < std::max<size_t>(n, 1); ++k) o += hexByte(uint8_t(s[i + k]));
         i += std::max<size_t>(n, 1);
      } else {
         o.append(s.substr(i, n));
         i += n;
      }
   }
   return o;
}

size_t displayWidth(std::string_view s) {
   // The C library's own table of widths, whatever the program's locale.
   static locale_t const utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
   locale_t was = utf8 ? ::uselocale(utf8) : locale_t(0);
   size_t w = 0;
   for (size_t i = 0; i < s.size();) {
      auto [cp, n] = decode(s, i);
      i += std::max<size_t>(n, 1);
      int cw = utf8 && n ? ::wcwidth(wchar_t(cp)) : 1;
      w += size_t(cw < 0 ? 1 : cw);
   }
   if (utf8) ::uselocale(was);
   return w;
}

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
   Table t{{{"Interface", "Description", "Admin", "Configured", "Oper", "MTU", "Device", "Namespace"}},
           {false, false, false, false, false, true, false, false}};
   for (auto const & v : rows) {
      t.cells.push_back({name(v), printable(v.description), !v.present ? "-" : v.adminUp ? "up" : "down",
                         configured(v.adminConfigured), operName(v.operStatus),
                         v.present ? std::to_string(v.mtu) : "-", orDash(v.device), printable(nsOf(v))});
   }
   return t.render();
}

std::string lastClearing(ClearState const & c, double now) {
   std::string o = "Last clearing of counters ";
   if (c.lastClear <= 0) return o + "never";
   long s = now > c.lastClear ? long(now - c.lastClear) : 0;
   char buf[48];
   std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld ago", s / 3600, s / 60 % 60, s % 60);
   o += buf;
   if (c.baselineDropped) o += " (baseline dropped: the counters restarted since; counts are totals)";
   return o;
}

std::string countersTable(std::vector<IntfView> rows, double now) {
   sortRows(rows);
   Table in{{{"Interface", "InOctets", "InPkts", "InUcastPkts", "InMcastPkts", "InBcastPkts", "InDiscards",
              "InErrors"}},
            {false, true, true, true, true, true, true, true}};
   Table out{{{"Interface", "OutOctets", "OutPkts", "OutUcastPkts", "OutMcastPkts", "OutBcastPkts",
               "OutDiscards", "OutErrors"}},
             {false, true, true, true, true, true, true, true}};
   for (auto const & v : rows) {
      if (!v.hasCounters) continue;
      auto const & s = v.stats;
      auto i = inPackets(v), o = outPackets(v);
      in.cells.push_back({counterName(v), std::to_string(s.inOctets()), std::to_string(total(i)), cell(v, i[0]),
                          cell(v, i[1]), cell(v, i[2]), std::to_string(s.inDiscards()),
                          std::to_string(s.inErrors())});
      out.cells.push_back({counterName(v), maybe(s.outOctets()), std::to_string(total(o)), cell(v, o[0]), cell(v, o[1]),
                           cell(v, o[2]), maybe(s.outDiscards()), std::to_string(s.outErrors())});
   }
   std::vector<std::pair<std::string, std::string>> clears;  // interface, when
   for (auto const & v : rows) {
      if (v.hasCounters && v.clear) clears.emplace_back(name(v), lastClearing(*v.clear, now));
   }
   bool agree = std::all_of(clears.begin(), clears.end(), [&](auto const & c) { return c.second == clears[0].second; });
   std::string note = agree && !clears.empty() ? clears[0].second + "\n" : "";
   for (auto const & [n, c] : clears) note += agree ? "" : n + ": " + c + "\n";
   return in.render() + "\n" + out.render() + staleNote(rows) + note;
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
   if (!v.present) {
      return name(v) + " is not present: configured, but no device carries it\n" +
             (v.description.empty() ? "" : "  Description: " + printable(v.description) + "\n");
   }
   std::string admin = v.adminUp ? "up" : "administratively down";
   if (v.adminConfigured && *v.adminConfigured != v.adminUp) admin += " (configured " + configured(v.adminConfigured) + ")";
   std::string o = name(v) + " is " + admin + ", line protocol is " + operName(v.operStatus) + "\n";
   if (!v.description.empty()) o += "  Description: " + printable(v.description) + "\n";
   o += "  Device " + orDash(v.device) + " in namespace " + printable(nsOf(v)) + "\n";
   o += "  MTU " + std::to_string(v.mtu) + " bytes" + (v.maxMtu ? ", maximum " + std::to_string(v.maxMtu) : std::string()) + "\n";
   if (v.changes) {
      o += "  " + std::to_string(v.changes) + " link status changes, last " +
           (v.lastChange > 0 && now >= v.lastChange ? fixed(now - v.lastChange, 0) + " s ago"
                                                    : std::string("at an unknown time")) +
           "\n";
   }
   if (!v.hasCounters) return o + "  No counters\n";
   if (v.countersStale) o += "  Counters: the last values read; they cannot be read just now\n";
   o += v.clear ? "  " + lastClearing(*v.clear, now) + "\n" : "  Counters are absolute (--raw)\n";
   auto const & s = v.stats;
   auto const & r = v.rates;
   o += "  " + interval(v.loadInterval) + " input rate " + fixed(r.inBitsRate() / 1e6, 1) +
        " Mbps, " + fixed(r.inPktsRate(), 0) + " packets/sec\n";
   o += "  " + interval(v.loadInterval) + " output rate " + fixed(r.outBitsRate() / 1e6, 1) +
        " Mbps, " + fixed(r.outPktsRate(), 0) + " packets/sec\n";
   auto i = inPackets(v), out = outPackets(v);
   o += "  Input: " + std::to_string(total(i)) + " packets (" + cell(v, i[0]) + " unicast, " + cell(v, i[1]) +
        " multicast, " + cell(v, i[2]) + " broadcast), " + std::to_string(s.inOctets()) + " bytes, " +
        std::to_string(s.inDiscards()) + " discards, " + std::to_string(s.inErrors()) + " errors\n";
   o += "  Output: " + std::to_string(total(out)) + " packets (" + cell(v, out[0]) + " unicast, " +
        cell(v, out[1]) + " multicast, " + cell(v, out[2]) + " broadcast), " + maybe(s.outOctets()) + " bytes, " +
        maybe(s.outDiscards()) + " discards, " + std::to_string(s.outErrors()) + " errors\n";
   return o;
}

std::string jsonString(std::string_view s) {
   std::string o = "\"";
   for (size_t i = 0; i < s.size();) {
      auto [cp, n] = decode(s, i);
      if (n == 0) {
         o += "\\ufffd";
         ++i;
         continue;
      }
      i += n;
      switch (cp) {
      case '"': o += "\\\""; break;
      case '\\': o += "\\\\"; break;
      case '\n': o += "\\n"; break;
      case '\r': o += "\\r"; break;
      case '\t': o += "\\t"; break;
      default:
         if (cp < 0x20 || cp == 0x7f) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", unsigned(cp));
            o += buf;
         } else {
            o.append(s.substr(i - n, n));
         }
      }
   }
   return o + "\"";
}

std::string toJson(std::string const & command, std::vector<IntfView> rows) {
   sortRows(rows);
   bool all = command == "interface";
   std::string o = "{\"version\": " + std::to_string(jsonVersion) + ", \"command\": " + jsonString(command) +
                   ", \"interfaces\": {";
   bool first = true;
   for (auto const & v : rows) {
      bool counted = v.hasCounters && (all || command == "counters" || command == "rates");
      if (!all && command != "status" && !counted) continue;
      if (!first) o += ", ";
      first = false;
      std::string fields;
      auto add = [&](std::string const & f) { fields += (fields.empty() ? "" : ", ") + f; };
      if (all || command == "status") add(statusJson(v));
      if (v.hasCounters && (all || command == "counters")) add((all ? "\"counters\": {" : "") + countersJson(v) + (all ? "}" : ""));
      if (v.hasCounters && (all || command == "rates")) add((all ? "\"rates\": {" : "") + ratesJson(v) + (all ? "}" : ""));
      o += jsonString(name(v)) + ": {" + fields + "}";
   }
   return o + "}}\n";
}

} // namespace IntfApp
