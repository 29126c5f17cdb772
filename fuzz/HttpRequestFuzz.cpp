// The metrics server's request-head parser against arbitrary bytes: it
// reads a request line or names a status to refuse with, nothing else.
#include "MetricsServer.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string head(reinterpret_cast<char const *>(data), size);
   IntfApp::HttpRequest r = IntfApp::parseHttpRequestHead(head);
   bool refused = !r.error.empty();
   if (refused != (r.status != 0)) __builtin_trap();
   if (!refused && (r.method.empty() || r.path.empty() || r.path[0] != '/' ||
                    r.path.find('?') != std::string::npos)) {
      __builtin_trap();
   }
   return 0;
}
