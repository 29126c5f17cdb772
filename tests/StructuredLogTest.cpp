// Structured log messages: registered once, formatted from their
// arguments, written to the chosen sink, repeats suppressed and counted.
#include <Kel/Log.h>

#include <gtest/gtest.h>

#include <memory>

#include <time.h>

using Kel::CapturingLogSink;
using Kel::formatLogText;
using Kel::String8;

namespace {

struct Captured {
   Captured() : sink(std::make_shared<CapturingLogSink>()) {
      Kel::logSinkIs(sink);
      Kel::logClockIs([this] { return now; });
   }
   ~Captured() {
      Kel::logSinkIs(nullptr);
      Kel::logClockIs(nullptr);
   }
   std::shared_ptr<CapturingLogSink> sink;
   double now = 1000;
};

} // namespace

TEST(StructuredLog, FormatsPutEachArgumentInTurn) {
   struct Case {
      char const * format;
      std::vector<String8> args;
      char const * text;
   } const cases[] = {
      {"Configured mtu (%d) exceeds the maximum mtu (%d) for interface %s",
       {"9214", "9000", "Ethernet1"},
       "Configured mtu (9214) exceeds the maximum mtu (9000) for interface Ethernet1"},
      {"100%% of %5.2f and %llu", {"x", "7"}, "100% of x and 7"},
      {"%s and %s", {"one"}, "one and %s"},  // an argument short: the conversion stays
      {"trailing %", {"a"}, "trailing %"},
      {"cut short %5", {"a"}, "cut short %5"},
      {"no conversions", {"extra"}, "no conversions"},
   };
   for (auto const & c : cases) EXPECT_EQ(formatLogText(c.format, c.args), c.text) << c.format;
}

TEST(StructuredLog, AMessageIsRegisteredOnceAndEventsCarryItsTextAndArguments) {
   Captured cap;
   auto const & m = Kel::registerLogMessage(
       {"TEST_LOG_ONCE", Kel::LogSeverity::warning, "port %s went %s", "why", "what to do", 10});
   auto const & again =
       Kel::registerLogMessage({"TEST_LOG_ONCE", Kel::LogSeverity::error, "other", "", "", 0});
   EXPECT_EQ(&m, &again);
   EXPECT_EQ(Kel::findLogMessage("TEST_LOG_ONCE"), &m);
   Kel::logEvent(m, "Ethernet1", String8("down"));
   ASSERT_EQ(cap.sink->events.size(), 1u);
   auto const & e = cap.sink->events[0];
   EXPECT_EQ(e.message, &m);
   EXPECT_EQ(e.text, "port Ethernet1 went down");
   EXPECT_EQ(e.args, (std::vector<String8>{"Ethernet1", "down"}));
   EXPECT_EQ(Kel::logLine(e), "TEST_LOG_ONCE WARNING: port Ethernet1 went down");
}

TEST(StructuredLog, RepeatsWithinTheIntervalAreCountedAndReportedWithTheNextEvent) {
   Captured cap;
   auto const & m =
       Kel::registerLogMessage({"TEST_LOG_REPEAT", Kel::LogSeverity::error, "n=%d", "", "", 10});
   auto const & other =
       Kel::registerLogMessage({"TEST_LOG_OTHER", Kel::LogSeverity::error, "x", "", "", 10});
   for (int i = 0; i < 5; ++i) {
      Kel::logEvent(m, i);
      cap.now += 1;  // 5 events within 5 s
   }
   Kel::logEvent(other);  // another message is not held back by the first
   ASSERT_EQ(cap.sink->events.size(), 2u);
   EXPECT_EQ(cap.sink->events[0].text, "n=0");
   cap.now += 10;
   Kel::logEvent(m, 99);
   ASSERT_EQ(cap.sink->events.size(), 3u);
   EXPECT_EQ(cap.sink->events[2].suppressed, 4u);
   EXPECT_EQ(Kel::logLine(cap.sink->events[2]), "TEST_LOG_REPEAT ERR: n=99 (4 similar messages suppressed)");
   Kel::logEvent(m, 100);
   cap.now += 10;
   Kel::logEvent(m, 101);
   EXPECT_EQ(Kel::logLine(cap.sink->events.back()), "TEST_LOG_REPEAT ERR: n=101 (1 similar message suppressed)");
}

TEST(StructuredLog, EventsAreTimedOnTheMonotonicClockUnlessTheAgentSetsAnother) {
   auto sink = std::make_shared<Kel::CapturingLogSink>();
   Kel::logSinkIs(sink);
   auto const & m = Kel::registerLogMessage({"TEST_LOG_CLOCK", Kel::LogSeverity::info, "t", "", "", 0});
   auto monotonic = [] {
      timespec t;
      clock_gettime(CLOCK_MONOTONIC, &t);
      return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
   };
   double before = monotonic();
   Kel::logEvent(m);
   double after = monotonic();
   Kel::logSinkIs(nullptr);
   ASSERT_EQ(sink->events.size(), 1u);
   EXPECT_GE(sink->events[0].time, before);
   EXPECT_LE(sink->events[0].time, after);
}
