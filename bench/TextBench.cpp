// Text form of a counter sample: print then parse, against printing the same
// thirteen numbers with snprintf and reading them back with strtoull/strtod.
#include "Bench.h"

#include <Intf/Types.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace IntfBench {

namespace {

Interface::IntfStatistics sampleStatistics() {
   Interface::IntfStatistics s;
   s.outUcastPktsIs(123456789012);
   s.outMulticastPktsIs(2345678901);
   s.outBroadcastPktsIs(345678901);
   s.inUcastPktsIs(98765432109);
   s.inMulticastPktsIs(8765432109);
   s.inBroadcastPktsIs(765432109);
   s.outOctetsIs(Brik::MaybeU63(15801234567890));
   s.inOctetsIs(12641975309952);
   s.inDiscardsIs(12345);
   s.inErrorsIs(678);
   s.outDiscardsIs(Brik::MaybeU63(90123));
   s.outErrorsIs(4);
   s.lastUpdateIs(1795392000.123456);
   return s;
}

void oursText(benchmark::State & state) {
   Interface::IntfStatistics const sample = sampleStatistics();
   Interface::IntfStatistics const * in = &sample;
   benchmark::DoNotOptimize(in);
   Kel::String8 text;
   Interface::IntfStatistics back;
   for (auto _ : state) {
      text.str().clear();
      Kel::printValue(text, *in);
      Kel::strepToValue(text, &back);
      benchmark::DoNotOptimize(&back);
      benchmark::ClobberMemory();
   }
   if (!(back == sample)) state.SkipWithError("the text form does not read back");
}

// The plain record: the same twelve counters and the timestamp.
struct PlainStatistics {
   uint64_t counter[12];
   double lastUpdate;
   bool operator==(PlainStatistics const &) const = default;
};

constexpr const char * plainNames[13] = {
    "outUcastPkts", "outMulticastPkts", "outBroadcastPkts", "inUcastPkts", "inMulticastPkts",
    "inBroadcastPkts", "outOctets", "inOctets", "inDiscards", "inErrors", "outDiscards",
    "outErrors", "lastUpdate"};

int plainPrint(char * buf, size_t size, PlainStatistics const & s) {
   uint64_t const * c = s.counter;
   return std::snprintf(
       buf, size,
       "outUcastPkts: %" PRIu64 ", outMulticastPkts: %" PRIu64 ", outBroadcastPkts: %" PRIu64
       ", inUcastPkts: %" PRIu64 ", inMulticastPkts: %" PRIu64 ", inBroadcastPkts: %" PRIu64
       ", outOctets: %" PRIu64 ", inOctets: %" PRIu64 ", inDiscards: %" PRIu64
       ", inErrors: %" PRIu64 ", outDiscards: %" PRIu64 ", outErrors: %" PRIu64
       ", lastUpdate: %.17g",
       c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7], c[8], c[9], c[10], c[11], s.lastUpdate);
}

// Reads "name: value, " thirteen times, checking each name.
bool plainParse(const char * p, PlainStatistics * s) {
   for (int f = 0; f < 13; ++f) {
      size_t len = std::strlen(plainNames[f]);
      if (std::strncmp(p, plainNames[f], len) != 0 || p[len] != ':') return false;
      p += len + 1;
      char * end;
      if (f < 12) {
         s->counter[f] = std::strtoull(p, &end, 10);
      } else {
         s->lastUpdate = std::strtod(p, &end);
      }
      if (end == p) return false;
      p = end;
      if (f < 12) {
         if (p[0] != ',' || p[1] != ' ') return false;
         p += 2;
      }
   }
   return *p == '\0';
}

void baselineText(benchmark::State & state) {
   Interface::IntfStatistics const k = sampleStatistics();
   PlainStatistics const sample{{k.outUcastPkts(), k.outMulticastPkts(), k.outBroadcastPkts(),
                                 k.inUcastPkts(), k.inMulticastPkts(), k.inBroadcastPkts(),
                                 k.outOctets().value(), k.inOctets(), k.inDiscards(),
                                 k.inErrors(), k.outDiscards().value(), k.outErrors()},
                                k.lastUpdate()};
   PlainStatistics const * in = &sample;
   benchmark::DoNotOptimize(in);
   char buf[512];
   PlainStatistics back{};
   bool ok = true;
   for (auto _ : state) {
      plainPrint(buf, sizeof buf, *in);
      ok = plainParse(buf, &back) && ok;
      benchmark::DoNotOptimize(&back);
      benchmark::ClobberMemory();
   }
   if (!ok || !(back == sample)) state.SkipWithError("the plain text does not read back");
}

// Heap allocations of one print and parse in our text form (the output
// string is reused, so printing itself should need none once it has grown).
void printAllocations() {
   Interface::IntfStatistics const sample = sampleStatistics();
   Kel::String8 text;
   Interface::IntfStatistics back;
   Kel::printValue(text, sample);
   constexpr int rounds = 1000;
   uint64_t before = allocations();
   for (int i = 0; i < rounds; ++i) {
      text.str().clear();
      Kel::printValue(text, sample);
   }
   uint64_t printing = allocations() - before;
   before = allocations();
   for (int i = 0; i < rounds; ++i) Kel::strepToValue(text, &back);
   uint64_t parsing = allocations() - before;
   std::printf("text.statistics: heap allocations per print %.2f, per parse %.2f (%zu bytes of text)\n",
               double(printing) / rounds, double(parsing) / rounds, text.size());
}

} // namespace

void registerTextBenches() {
   addPair("text.statistics", "3", oursText, baselineText);
   addNote("text.statistics", printAllocations);
}

} // namespace IntfBench
