// What intf-show prints: the operator's tables and the JSON for scripts,
// made from plain rows so that the layouts are tested apart from where the
// values come from.
//
// What is shown is what was measured: a counter the source does not give
// is "-" in a table and absent from JSON, never 0. Names and descriptions
// are shown with control bytes (and bytes that are not UTF-8) escaped as
// "\xNN", and columns are aligned by the width of the text on a terminal,
// not by its bytes.
#pragma once

#include "CounterClear.h"

#include <Intf/Types.h>
#include <Zenet/IntfId.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace IntfApp {

// Packet counters a source may not measure (bits of IntfView::unmeasured).
enum Unmeasured : uint32_t {
   inUcast = 1, inMcast = 2, inBcast = 4, outUcast = 8, outMcast = 16, outBcast = 32,
};
// What the kernel's device statistics do not give, so neither do
// intf-agent's counter rows (see CounterSampler.h): received packets split
// into unicast and broadcast, sent packets split by kind.
inline constexpr uint32_t kernelUnmeasured = inUcast | inBcast | outUcast | outMcast | outBcast;

struct IntfView {
   Zenet::IntfId intfId;
   std::string description;
   std::string device;
   std::string netNs;
   bool present = true;                   // false: configured, but no device carries it
   bool adminUp = false;                  // the device's own state (IFF_UP)
   std::optional<bool> adminConfigured;   // what the configuration asks, when it says
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
   Interface::IntfStatistics stats;  // since the last clear, or absolute when `clear` is empty
   std::optional<ClearState> clear;  // empty: stats are the absolute counters (--raw)
   Interface::IntfRates rates;
   uint32_t unmeasured = 0;    // Unmeasured bits: the source's counters it does not give
   double loadInterval = 300;  // seconds the rates average over
};

// "up", "down", "lowerLayerDown", ...: the status name without its prefix.
std::string operName(Interface::IntfOperStatus s);

// Each table lists the rows in interface order (rows are sorted first).
std::string statusTable(std::vector<IntfView> rows);
// Counts since the last clear are followed by when that was ("Last
// clearing of counters 0:02:13 ago", or "never"): one line when every
// interface agrees, else one per interface. `now` is wall-clock seconds.
std::string countersTable(std::vector<IntfView> rows, double now);
std::string ratesTable(std::vector<IntfView> rows);
// Everything known of one interface, one "name: value" line each.
std::string interfaceDetail(IntfView const & v, double now);

// One JSON document on one line:
//   {"version": 1, "command": "<command>", "interfaces": {"<name>": {...}}}
// where each interface carries the fields of the command: "status" its
// state, "counters" its counters, "rates" its rates, "interface" all three.
inline constexpr int jsonVersion = 1;
// Counters carry "lastClear" (seconds since the epoch, null when never
// cleared) and "baselineDropped": true when the counts are the absolute
// ones again; or "raw": true for absolute counters.
std::string toJson(std::string const & command, std::vector<IntfView> rows);
// "0:02:13 ago" for a clear at `lastClear` seen at `now`, "never" for 0,
// with the reason when the baseline was dropped.
std::string lastClearing(ClearState const & c, double now);

// JSON string literal of `s` (quotes included); bytes that are not UTF-8
// become U+FFFD.
std::string jsonString(std::string_view s);
// `s` for a terminal: control bytes and bytes that are not UTF-8 as "\xNN".
std::string printable(std::string_view s);
// The columns `s` takes on a terminal, by the C library's table of
// character widths (wide characters two, combining marks none).
size_t displayWidth(std::string_view s);

} // namespace IntfApp
