// JSON subtrees of the served model; see JsonTree.h.
#include "JsonTree.h"

#include "ShowFormat.h"

namespace Gnmi {

namespace {

// Members of one container: the leaves directly in it, then its child
// container (counters inside state).
std::string members(std::string const & container, IntfValues const & v, LeafSet leaves, bool top) {
   std::string out;
   auto add = [&](std::string const & name, std::string const & json) {
      if (json.empty()) return;
      if (!out.empty()) out += ",";
      out += IntfApp::jsonString(top ? modulePrefix + name : name) + ":" + json;
   };
   for (unsigned l = 0; l < leafCount; ++l) {
      std::string path = leafInfo(l).path;
      size_t slash = path.rfind('/');
      std::string dir = slash == std::string::npos ? "" : path.substr(0, slash);
      if (dir != container || !(leaves & (LeafSet(1) << l)) || !v.leaf[l].present()) continue;
      add(leafInfo(l).name, jsonScalar(Leaf(l), v.leaf[l]));
   }
   if (container.empty()) {
      for (char const * c : {"config", "state"}) {
         std::string inner = members(c, v, leaves, false);
         add(c, inner.empty() ? "" : "{" + inner + "}");
      }
   } else if (container == "state") {
      std::string inner = members("state/counters", v, leaves, false);
      add("counters", inner.empty() ? "" : "{" + inner + "}");
   }
   return out;
}

std::string list(std::vector<IntfValues const *> const & intfs, LeafSet leaves) {
   std::string out;
   for (auto const * v : intfs) {
      std::string entry = members("", *v, leaves | bit(Leaf::name), false);
      if (!out.empty()) out += ",";
      out += "{" + entry + "}";
   }
   return "[" + out + "]";
}

} // namespace

std::string jsonOfInterface(Node node, IntfValues const & v, LeafSet leaves) {
   std::string container = node == Node::config    ? "config"
                         : node == Node::state     ? "state"
                         : node == Node::counters  ? "state/counters"
                                                   : "";
   std::string inner = members(container, v, leaves, true);
   return inner.empty() ? "" : "{" + inner + "}";
}

std::string jsonOfList(Node node, std::vector<IntfValues const *> const & intfs, LeafSet leaves) {
   std::string l = list(intfs, leaves);
   if (node == Node::interfaces) return "{" + IntfApp::jsonString(std::string(modulePrefix) + "interface") + ":" + l + "}";
   return "{" + IntfApp::jsonString(std::string(modulePrefix) + "interfaces") + ":{\"interface\":" + l + "}}";
}

} // namespace Gnmi
