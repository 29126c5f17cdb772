// What intf-show makes of arbitrary names and descriptions: text for a
// terminal holds no control byte and only UTF-8, JSON strings hold no raw
// control character, and a name an operator types finds a row or says why.
#include "IntfNameInput.h"
#include "ShowFormat.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string s(reinterpret_cast<char const *>(data), size);
   std::string shown = IntfApp::printable(s);
   for (unsigned char c : shown) {
      if (c < 0x20 || c == 0x7f) __builtin_trap();
   }
   if (IntfApp::printable(shown) != shown) __builtin_trap();  // only UTF-8 is left
   if (IntfApp::displayWidth(s) > 2 * s.size()) __builtin_trap();
   for (unsigned char c : IntfApp::jsonString(s)) {
      if (c < 0x20) __builtin_trap();
   }
   static std::vector<IntfApp::IntfView> rows = [] {
      std::vector<IntfApp::IntfView> r(3);
      r[0].intfId = Zenet::IntfId("Ethernet1");
      r[0].device = "eth0";
      r[1].intfId = Zenet::IntfId("Loopback0");
      r[1].device = "lo";
      r[2].intfId = Zenet::IntfId("Loopback7");
      r[2].device = "lo";
      r[2].netNs = "blue";
      return r;
   }();
   std::string why;
   int i = IntfApp::findInterface(rows, s, &why);
   if ((i < 0) == why.empty() || i >= int(rows.size())) __builtin_trap();
   return 0;
}
