// Process assertions for programming errors in hand-written code: the
// expression text, the source module and the function signature go to
// standard error, then the process aborts. There is no error result.
#pragma once

#include <cstdint>

// The framework's base integer names, as signatures print them.
typedef uint8_t U8;
typedef uint16_t U16;
typedef uint32_t U32;
typedef uint64_t U64;
typedef int32_t S32;

namespace Kel {

[[noreturn]] void assertFail(const char * expr, const char * source, const char * function);

} // namespace Kel

// KEL_ASSERT(expr, "Module"): the expression is reported as written.
#define KEL_ASSERT(expr, source) \
   ((expr) ? void(0) : ::Kel::assertFail(#expr, source, __PRETTY_FUNCTION__))
