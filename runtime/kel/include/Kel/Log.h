// Structured log messages: the operator-visible events of an agent, beside
// tracing (which is for developers). A message is registered once with its
// name, severity, format, explanation and recommended action; each event
// carries the message, the text formatted from its arguments and the
// arguments themselves, and goes to the sink the agent chooses (standard
// error unless told otherwise). Past its burst within its interval, events of
// a message are not written but counted, and the next event written says how
// many were suppressed, so a fault logged on every pass cannot flood the log.
#pragma once

#include <Kel/String8.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Kel {

enum class LogSeverity : uint8_t { emergency, alert, critical, error, warning, notice, info, debug };
char const * severityName(LogSeverity s);

struct LogMessage {
   String8 name;               // "INTF_MAX_MTU_EXCEEDED"
   LogSeverity severity = LogSeverity::error;
   String8 format;             // printf-style conversions, each taking the next argument
   String8 explanation;
   String8 recommendedAction;
   // Flood guard: at most `burst` events of the message are written per
   // window of `minIntervalSeconds` (a window opens at the first event
   // written after the previous one closed); the rest are suppressed.
   double minIntervalSeconds = 10;
   uint32_t burst = 1;
};

struct LogEvent {
   LogMessage const * message = nullptr;
   String8 text;                // the format with the arguments put in
   std::vector<String8> args;
   uint64_t suppressed = 0;     // repeats not written since the last event of this message
   double time = 0;             // on the log clock
};

class LogSink {
 public:
   virtual ~LogSink() = default;
   virtual void write(LogEvent const & e) = 0;
};
// "<name> <severity>: <text>" and, when repeats were suppressed,
// " (N similar messages suppressed)"; one line per event.
String8 logLine(LogEvent const & e);
std::shared_ptr<LogSink> standardErrorLogSink();
std::shared_ptr<LogSink> syslogLogSink(char const * ident);
// Keeps every event, for tests.
class CapturingLogSink : public LogSink {
 public:
   void write(LogEvent const & e) override { events.push_back(e); }
   std::vector<LogEvent> events;
};
void logSinkIs(std::shared_ptr<LogSink> sink);
// The clock of rate limiting, in seconds (monotonic by default).
void logClockIs(std::function<double()> clock);

// Registers a message once (by name) and returns the registered one; a
// second registration of a name gives the first.
LogMessage const & registerLogMessage(LogMessage m);
LogMessage const * findLogMessage(std::string_view name);

// Puts the arguments' texts into a printf-style format: each conversion
// ("%d", "%5s", "%llu", ...) takes the next argument as it is; "%%" is "%";
// a conversion with no argument left stays as written.
String8 formatLogText(std::string_view format, std::vector<String8> const & args);

void logEventArgs(LogMessage const & m, std::vector<String8> args);

template <class T>
String8 logArg(T const & v) {
   if constexpr (std::is_same_v<T, String8>) {
      return v;
   } else if constexpr (std::is_convertible_v<T const &, std::string_view>) {
      return String8(std::string_view(v));
   } else if constexpr (std::is_arithmetic_v<T>) {
      return String8(std::to_string(v));
   } else {
      return v.stringValue();
   }
}

template <class... A>
void logEvent(LogMessage const & m, A const &... args) {
   logEventArgs(m, {logArg(args)...});
}

} // namespace Kel
