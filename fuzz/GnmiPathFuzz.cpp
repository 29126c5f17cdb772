// intf-gnmid's path resolution (gNMI path elements against the served
// model) on arbitrary elements: every input either resolves to some leaves
// or is refused with a message; nothing else may happen. The input is read
// as a path string, "/name[key=value]/..." with no escaping, so that the
// seeds are readable.
#include "Schema.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   std::string text(reinterpret_cast<char const *>(data), size);
   std::vector<Gnmi::PathElem> elems;
   size_t i = 0;
   while (i < text.size()) {
      size_t end = text.find('/', i);
      std::string part = text.substr(i, end == std::string::npos ? std::string::npos : end - i);
      Gnmi::PathElem e;
      size_t br = part.find('[');
      e.name = part.substr(0, br);
      while (br != std::string::npos) {
         size_t close = part.find(']', br);
         std::string kv = part.substr(br + 1, close == std::string::npos ? std::string::npos : close - br - 1);
         size_t eq = kv.find('=');
         e.keys.emplace_back(kv.substr(0, eq), eq == std::string::npos ? "" : kv.substr(eq + 1));
         br = close == std::string::npos ? close : part.find('[', close);
      }
      if (!(elems.empty() && e.name.empty() && e.keys.empty())) elems.push_back(std::move(e));
      if (end == std::string::npos) break;
      i = end + 1;
   }
   std::string error;
   auto q = Gnmi::resolve(elems, &error);
   if (q) {
      if (!q->leaves || (q->leaves & ~Gnmi::allLeaves)) std::abort();
      if (q->intf && q->intf->isNull()) std::abort();
   } else if (error.empty()) {
      std::abort();
   }
   return 0;
}
