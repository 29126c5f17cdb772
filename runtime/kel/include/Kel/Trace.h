// Tracing: one facility per source ("Kel::NboAttrLog", "Intf::SyncMtu"),
// levels 0 (failure), 1 (notable), 2 (progress) and up. Level 0 is on
// unless an agent turns it off (traceLevelIs(name, -1)): failures such as a
// refused connection are visible without any setting. Nothing is formatted
// unless the facility is enabled at that level; messages go to standard
// error unless a sink is installed (tests capture them).
#pragma once

#include <Kel/String8.h>

#include <functional>

namespace Kel {

class TraceFacility {
 public:
   explicit TraceFacility(const char * name);
   const char * name() const { return name_; }
   bool enabled(int level) const { return level <= maxLevel_; }
   void maxLevelIs(int level) { maxLevel_ = level; }
   void trace(int level, String8 const & msg) const;

 private:
   const char * name_;
   int maxLevel_;
};

// Enables every facility whose name is `name` (or all, for "*") up to `level`.
void traceLevelIs(const char * name, int level);
// A message of hand-written code that names where it comes from: the text
// is "<file>:<line> <function>: <msg>". Use through KEL_TRACE_AT, which
// formats nothing unless the level is enabled.
void traceHelper(TraceFacility const & f, int level, const char * file, int line,
                 const char * function, String8 const & msg);
// The stand-in for a name that cannot be produced.
inline constexpr const char * unknownName = "<unknown>";
// The readable name of a C++ type as the compiler records it
// (typeid(x).name() demangled), or "<unknown>".
String8 demangledTypeName(const char * mangled);

// Receives every message that is traced: facility, level, text.
using TraceSink = std::function<void(const char *, int, String8 const &)>;
void traceSinkIs(TraceSink sink);

} // namespace Kel

// KEL_TRACE(facility, level, expr-yielding-String8): formats only when enabled.
#define KEL_TRACE(facility, level, msg)                                              \
   do {                                                                              \
      if ((facility).enabled(level)) (facility).trace(level, (msg));                 \
   } while (0)

#define KEL_TRACE_AT(facility, level, file, line, function, msg)                     \
   do {                                                                              \
      if ((facility).enabled(level))                                                 \
         ::Kel::traceHelper((facility), (level), (file), (line), (function), (msg)); \
   } while (0)
