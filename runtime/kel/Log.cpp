// Structured log messages; see Kel/Log.h.
#include <Kel/Log.h>

#include <syslog.h>
#include <time.h>

#include <cstdio>
#include <map>
#include <mutex>

namespace Kel {

namespace {

struct LogState {
   std::mutex mutex;
   std::map<std::string, std::unique_ptr<LogMessage>, std::less<>> messages;
   struct Repeat {
      double windowStart = -1e300;
      uint32_t written = 0;  // in the current window
      uint64_t suppressed = 0;
   };
   std::map<LogMessage const *, Repeat> repeats;
   std::shared_ptr<LogSink> sink;
   std::function<double()> clock;
};

LogState & state() {
   static LogState * s = new LogState;
   return *s;
}

double monotonic() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

class StandardErrorSink : public LogSink {
 public:
   void write(LogEvent const & e) override {
      String8 line = logLine(e);
      std::fprintf(stderr, "%s\n", line.charPtr());
   }
};

class SyslogSink : public LogSink {
 public:
   explicit SyslogSink(char const * ident) { ::openlog(ident, LOG_PID, LOG_DAEMON); }
   void write(LogEvent const & e) override {
      static constexpr int prio[] = {LOG_EMERG, LOG_ALERT, LOG_CRIT,   LOG_ERR,
                                     LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
      String8 line = logLine(e);
      ::syslog(prio[int(e.message->severity)], "%s", line.charPtr());
   }
};

} // namespace

char const * severityName(LogSeverity s) {
   static constexpr char const * names[] = {"EMERG", "ALERT", "CRIT", "ERR",
                                            "WARNING", "NOTICE", "INFO", "DEBUG"};
   return names[int(s)];
}

String8 logLine(LogEvent const & e) {
   String8 line = e.message->name + " " + severityName(e.message->severity) + ": " + e.text;
   if (e.suppressed) {
      line += " (" + std::to_string(e.suppressed) + " similar message" +
              (e.suppressed == 1 ? "" : "s") + " suppressed)";
   }
   return line;
}

std::shared_ptr<LogSink> standardErrorLogSink() { return std::make_shared<StandardErrorSink>(); }
std::shared_ptr<LogSink> syslogLogSink(char const * ident) {
   return std::make_shared<SyslogSink>(ident);
}

void logSinkIs(std::shared_ptr<LogSink> sink) {
   std::lock_guard<std::mutex> g(state().mutex);
   state().sink = std::move(sink);
}

void logClockIs(std::function<double()> clock) {
   std::lock_guard<std::mutex> g(state().mutex);
   state().clock = std::move(clock);
   state().repeats.clear();
}

LogMessage const & registerLogMessage(LogMessage m) {
   LogState & s = state();
   std::lock_guard<std::mutex> g(s.mutex);
   auto it = s.messages.find(m.name.str());
   if (it != s.messages.end()) return *it->second;
   std::string key = m.name.str();
   auto & slot = s.messages[key];
   slot = std::make_unique<LogMessage>(std::move(m));
   return *slot;
}

LogMessage const * findLogMessage(std::string_view name) {
   LogState & s = state();
   std::lock_guard<std::mutex> g(s.mutex);
   auto it = s.messages.find(name);
   return it == s.messages.end() ? nullptr : it->second.get();
}

String8 formatLogText(std::string_view f, std::vector<String8> const & args) {
   String8 out;
   size_t next = 0;
   for (size_t i = 0; i < f.size(); ++i) {
      char c = f[i];
      if (c != '%') {
         out += c;
         continue;
      }
      if (i + 1 < f.size() && f[i + 1] == '%') {
         out += '%';
         ++i;
         continue;
      }
      // Flags, width, precision and length, then the conversion letter.
      size_t j = i + 1;
      while (j < f.size() && std::string_view("-+ #0123456789.*hlLqjzt").find(f[j]) != std::string_view::npos) ++j;
      if (j >= f.size()) {
         out += f.substr(i);
         break;
      }
      if (next < args.size()) {
         out += args[next++];
      } else {
         out += f.substr(i, j - i + 1);
      }
      i = j;
   }
   return out;
}

void logEventArgs(LogMessage const & m, std::vector<String8> args) {
   LogState & s = state();
   LogEvent e;
   std::shared_ptr<LogSink> sink;
   {
      std::lock_guard<std::mutex> g(s.mutex);
      double now = s.clock ? s.clock() : monotonic();
      auto & r = s.repeats[&m];
      if (now - r.windowStart >= m.minIntervalSeconds) {
         r.windowStart = now;
         r.written = 0;
      }
      if (r.written >= m.burst) {
         ++r.suppressed;
         return;
      }
      ++r.written;
      e.suppressed = r.suppressed;
      r.suppressed = 0;
      e.time = now;
      sink = s.sink ? s.sink : standardErrorLogSink();
   }
   e.message = &m;
   e.text = formatLogText(m.format.view(), args);
   e.args = std::move(args);
   sink->write(e);
}

} // namespace Kel
