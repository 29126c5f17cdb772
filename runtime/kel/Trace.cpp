#include <Kel/Trace.h>

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace Kel {

namespace {

struct TraceState {
   std::mutex mutex;
   std::vector<TraceFacility *> facilities;
   std::vector<std::pair<std::string, int>> levels;  // settings made so far
   TraceSink sink;
};

TraceState & state() {
   static TraceState * s = new TraceState;
   return *s;
}

} // namespace

TraceFacility::TraceFacility(const char * name) : name_(name), maxLevel_(0) {
   TraceState & s = state();
   std::lock_guard<std::mutex> g(s.mutex);
   s.facilities.push_back(this);
   for (auto const & [n, l] : s.levels) {
      if (n == "*" || n == name_) maxLevel_ = l;
   }
}

void TraceFacility::trace(int level, String8 const & msg) const {
   TraceState & s = state();
   TraceSink sink;
   {
      std::lock_guard<std::mutex> g(s.mutex);
      sink = s.sink;
   }
   if (sink) {
      sink(name_, level, msg);
   } else {
      std::fprintf(stderr, "%s[%d]: %s\n", name_, level, msg.charPtr());
   }
}

void traceLevelIs(const char * name, int level) {
   TraceState & s = state();
   std::lock_guard<std::mutex> g(s.mutex);
   s.levels.emplace_back(name, level);
   for (TraceFacility * f : s.facilities) {
      if (std::string_view(name) == "*" || std::string_view(name) == f->name()) {
         f->maxLevelIs(level);
      }
   }
}

void traceSinkIs(TraceSink sink) {
   TraceState & s = state();
   std::lock_guard<std::mutex> g(s.mutex);
   s.sink = std::move(sink);
}

void traceHelper(TraceFacility const & f, int level, const char * file, int line,
                 const char * function, String8 const & msg) {
   f.trace(level, String8(file) + ":" + String8(std::to_string(line)) + " " + function + ": " + msg);
}

String8 demangledTypeName(const char * mangled) {
   if (!mangled || !*mangled) return unknownName;
   int status = 0;
   char * d = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
   if (status != 0 || !d) return unknownName;
   String8 r(d);
   std::free(d);
   return r;
}

} // namespace Kel
