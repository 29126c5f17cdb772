// What intf-show prints: the operator's tables and the JSON for scripts,
// made from plain rows so that the layouts are tested apart from where the
// values come from.
#pragma once

#include <Intf/Types.h>
#include <Zenet/IntfId.h>

#include <cstdint>
#include <string>
#include <vector>

namespace IntfApp {

struct IntfView {
   Zenet::IntfId intfId;
   std::string description;
   std::string device;
   std::string netNs;
   bool adminUp = true;
   Interface::IntfOperStatus operStatus = Interface::IntfOperStatus::intfOperUnknown;
   double lastChange = 0;      // wall-clock seconds of the last oper change, 0 if none
   uint32_t changes = 0;       // oper status changes seen
   uint32_t mtu = 0;
   uint32_t maxMtu = 0;
   uint64_t speedBps = 0;      // 0 when unknown
   bool hasCounters = false;
   // The counter row could not be read just now: stats and rates are the
   // last values read, shown marked rather than as zeros.
   bool countersStale = false;
   Interface::IntfStatistics stats;
   Interface::IntfRates rates;
   double loadInterval = 300;  // seconds the rates average over
};

// "up", "down", "lowerLayerDown", ...: the status name without its prefix.
std::string operName(Interface::IntfOperStatus s);

// Each table lists the rows in interface order (rows are sorted first).
std::string statusTable(std::vector<IntfView> rows);
std::string countersTable(std::vector<IntfView> rows);
std::string ratesTable(std::vector<IntfView> rows);
// Everything known of one interface, one "name: value" line each.
std::string interfaceDetail(IntfView const & v, double now);
// {"interfaces": {"<name>": {...}, ...}} with every field of the rows.
std::string toJson(std::vector<IntfView> rows);

// JSON string literal of `s` (quotes included).
std::string jsonString(std::string_view s);

} // namespace IntfApp
