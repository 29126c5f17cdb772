// Log lines of the interface agents; see ProgramLog.h.
#include "ProgramLog.h"

#include <Kel/Trace.h>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace IntfApp {

namespace {

class Sink : public Kel::LogSink {
 public:
   Sink(Kel::LogSeverity level, bool stamp) : level_(level), stamp_(stamp) {}
   void write(Kel::LogEvent const & e) override {
      if (e.message->severity > level_) return;
      std::string line = (stamp_ ? timestamp() + " " : std::string()) + Kel::logLine(e).str();
      std::fprintf(stderr, "%s\n", line.c_str());
   }

 private:
   Kel::LogSeverity level_;
   bool stamp_;
};

} // namespace

bool underJournal() {
   char const * js = std::getenv("JOURNAL_STREAM");
   unsigned long long dev = 0, ino = 0;
   struct stat st;
   if (!js || std::sscanf(js, "%llu:%llu", &dev, &ino) != 2 || ::fstat(2, &st) != 0) return false;
   return st.st_dev == dev && st.st_ino == ino;
}

std::string timestamp() {
   timespec now;
   ::clock_gettime(CLOCK_REALTIME, &now);
   tm local;
   ::localtime_r(&now.tv_sec, &local);
   char head[32], zone[8];
   std::strftime(head, sizeof head, "%Y-%m-%dT%H:%M:%S", &local);
   std::strftime(zone, sizeof zone, "%z", &local);  // +0200
   char out[64];
   std::snprintf(out, sizeof out, "%s.%03ld%.3s:%s", head, now.tv_nsec / 1000000, zone, zone + 3);
   return out;
}

std::string logTo(std::string const & level) {
   static constexpr char const * names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
   int found = -1;
   for (int i = 0; i < 8; ++i) {
      if (level == names[i]) found = i;
   }
   if (found < 0) return "--log-level takes one of " + std::string(logLevelNames) + ", not \"" + level + "\"";
   bool stamp = !underJournal();
   Kel::logSinkIs(std::make_shared<Sink>(Kel::LogSeverity(found), stamp));
   if (stamp) {
      Kel::traceSinkIs([](char const * facility, int lvl, Kel::String8 const & msg) {
         std::fprintf(stderr, "%s %s[%d]: %s\n", timestamp().c_str(), facility, lvl, msg.charPtr());
      });
   }
   return "";
}

} // namespace IntfApp
