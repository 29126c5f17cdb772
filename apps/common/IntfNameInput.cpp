// Interface names as operators type them; see IntfNameInput.h.
#include "IntfNameInput.h"

#include <cctype>

namespace IntfApp {

namespace {

Zenet::IntfId parsed(std::string const & text) {
   try {
      return Zenet::IntfId(std::string_view(text));
   } catch (...) {
      return Zenet::IntfId();
   }
}

// "Et4" -> Ethernet4: the letters start exactly one family's name.
Zenet::IntfId shortForm(std::string const & name) {
   static char const * const families[] = {"Ethernet", "Loopback", "Management", "Vlan",
                                           "Tunnel",   "Vxlan",    "GreTunnel",  "Test"};
   size_t letters = 0;
   while (letters < name.size() && std::isalpha(static_cast<unsigned char>(name[letters]))) ++letters;
   if (letters == 0 || letters == name.size()) return {};
   Zenet::IntfId found;
   int matches = 0;
   for (char const * f : families) {
      std::string family = f;
      if (letters > family.size()) continue;
      bool prefix = true;
      for (size_t i = 0; i < letters; ++i) {
         prefix = prefix && std::tolower(static_cast<unsigned char>(name[i])) ==
                                  std::tolower(static_cast<unsigned char>(family[i]));
      }
      if (!prefix) continue;
      ++matches;
      found = parsed(family + name.substr(letters));
   }
   return matches == 1 ? found : Zenet::IntfId();
}

} // namespace

int findInterface(std::vector<IntfView> const & rows, std::string const & name, std::string * why) {
   auto byId = [&](Zenet::IntfId id) {
      for (size_t i = 0; i < rows.size(); ++i) {
         if (!id.isNull() && rows[i].intfId == id) return int(i);
      }
      return -1;
   };
   if (int i = byId(parsed(name)); i >= 0) return i;
   // A device: "ns/device", or a device of the default namespace, or of
   // whichever namespace has the only one of that name.
   size_t slash = name.find('/');
   bool qualified = slash != std::string::npos && slash > 0;
   std::string ns = qualified ? name.substr(0, slash) : std::string(), device = qualified ? name.substr(slash + 1) : name;
   int only = -1, count = 0;
   for (size_t i = 0; i < rows.size(); ++i) {
      std::string rowNs = rows[i].netNs.empty() ? "default" : rows[i].netNs;
      if (rows[i].device != device || (qualified && rowNs != ns)) continue;
      if (!qualified && rowNs == "default") return int(i);
      only = int(i);
      ++count;
   }
   if (count == 1) return only;
   if (int i = byId(shortForm(name)); i >= 0) return i;
   *why = count > 1 ? "device " + name + " is in several namespaces: name one as NAMESPACE/" + name
                    : "no interface or device named \"" + printable(name) + "\"";
   return -1;
}

} // namespace IntfApp
