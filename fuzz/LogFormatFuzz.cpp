// The structured log's formatter against arbitrary formats and arguments:
// it ends, stays inside its inputs, and leaves a format without "%" as is.
#include <Kel/Log.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string_view in(reinterpret_cast<char const *>(data), size);
   // The format, then arguments, separated by NUL bytes.
   size_t cut = in.find('\0');
   std::string_view format = in.substr(0, cut);
   std::vector<Kel::String8> args;
   while (cut != std::string_view::npos) {
      in = in.substr(cut + 1);
      cut = in.find('\0');
      args.emplace_back(in.substr(0, cut));
   }
   Kel::String8 text = Kel::formatLogText(format, args);
   if (format.find('%') == std::string_view::npos && text.view() != format) __builtin_trap();
   return 0;
}
