// A client's decoding of a server's answer to a listing request, against
// arbitrary bytes: it waits for more, or decides with entries or a reason,
// never both, and reads nothing outside what it received.
#include <Kel/Agent.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string_view in(reinterpret_cast<char const *>(data), size);
   std::vector<Kel::NboAttrLog::ServedEntry> entries;
   bool truncated = false;
   Kel::String8 error;
   bool decided = Kel::NboAttrLog::decodeListing(in, &entries, &truncated, &error, 1 << 16);
   if (!decided && (!entries.empty() || !error.empty())) __builtin_trap();
   if (!error.empty() && (!entries.empty() || truncated)) __builtin_trap();
   return 0;
}
