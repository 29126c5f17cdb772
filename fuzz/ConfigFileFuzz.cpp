// The agents' configuration file parser against arbitrary bytes: it accepts
// or refuses with ConfigError naming a line of the input, and never anything
// else. An accepted file names each interface once.
#include "ConfigFile.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string_view text(reinterpret_cast<char const *>(data), size);
   size_t lines = 1;
   for (char c : text) lines += c == '\n';
   try {
      IntfApp::ConfigFile cfg = IntfApp::parseConfig(text, "fuzz.conf");
      std::set<uint64_t> ids;
      for (auto const & s : cfg.intfs) {
         if (!ids.insert(s.intfId.intfIdValue()).second || s.line == 0 || s.line > lines) {
            __builtin_trap();
         }
         if (s.mtu && (*s.mtu < 1 || *s.mtu > IntfApp::maxMtu)) __builtin_trap();
      }
   } catch (IntfApp::ConfigError const & e) {
      if (e.line() > lines) __builtin_trap();
   }
   return 0;
}
