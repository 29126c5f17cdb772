// The served schema and path resolution; see Schema.h.
#include "Schema.h"

#include <array>

namespace Gnmi {

namespace {

using T = LeafType;
using D = Datastore;

constexpr std::array<LeafInfo, leafCount> leaves{{
   {"name", "name", T::string, D::config},
   {"name", "config/name", T::string, D::config},
   {"mtu", "config/mtu", T::uint16, D::config},
   {"description", "config/description", T::string, D::config},
   {"enabled", "config/enabled", T::boolean, D::config},
   {"name", "state/name", T::string, D::state},
   {"type", "state/type", T::identity, D::state},
   {"mtu", "state/mtu", T::uint16, D::state},
   {"description", "state/description", T::string, D::state},
   {"enabled", "state/enabled", T::boolean, D::state},
   {"admin-status", "state/admin-status", T::enumeration, D::operational},
   {"oper-status", "state/oper-status", T::enumeration, D::operational},
   {"last-change", "state/last-change", T::uint64, D::operational},
   {"in-octets", "state/counters/in-octets", T::uint64, D::operational},
   {"in-pkts", "state/counters/in-pkts", T::uint64, D::operational},
   {"in-unicast-pkts", "state/counters/in-unicast-pkts", T::uint64, D::operational},
   {"in-broadcast-pkts", "state/counters/in-broadcast-pkts", T::uint64, D::operational},
   {"in-multicast-pkts", "state/counters/in-multicast-pkts", T::uint64, D::operational},
   {"in-discards", "state/counters/in-discards", T::uint64, D::operational},
   {"in-errors", "state/counters/in-errors", T::uint64, D::operational},
   {"out-octets", "state/counters/out-octets", T::uint64, D::operational},
   {"out-pkts", "state/counters/out-pkts", T::uint64, D::operational},
   {"out-unicast-pkts", "state/counters/out-unicast-pkts", T::uint64, D::operational},
   {"out-broadcast-pkts", "state/counters/out-broadcast-pkts", T::uint64, D::operational},
   {"out-multicast-pkts", "state/counters/out-multicast-pkts", T::uint64, D::operational},
   {"out-discards", "state/counters/out-discards", T::uint64, D::operational},
   {"out-errors", "state/counters/out-errors", T::uint64, D::operational},
   {"carrier-transitions", "state/counters/carrier-transitions", T::uint64, D::operational},
   {"last-clear", "state/counters/last-clear", T::uint64, D::operational},
}};

// The schema as a tree of named nodes, each knowing the leaves below it.
struct SchemaNode {
   std::string name;
   Node kind;
   Leaf leaf = Leaf::count;
   LeafSet below = 0;
   std::vector<int> children;
};

struct Tree {
   std::vector<SchemaNode> nodes;
   int child(int parent, std::string const & name, Node kind) {
      for (int c : nodes[size_t(parent)].children) {
         if (nodes[size_t(c)].name == name) return c;
      }
      nodes.push_back({name, kind, Leaf::count, 0, {}});
      int id = int(nodes.size() - 1);
      nodes[size_t(parent)].children.push_back(id);
      return id;
   }
   Tree() {
      nodes.push_back({"", Node::root, Leaf::count, allLeaves, {}});
      int intf = child(child(0, "interfaces", Node::interfaces), "interface", Node::interface);
      nodes[1].below = nodes[size_t(intf)].below = allLeaves;
      for (unsigned l = 0; l < leafCount; ++l) {
         int at = intf;
         std::string path = leaves[l].path;
         for (size_t start = 0;;) {
            size_t slash = path.find('/', start);
            std::string part = path.substr(start, slash - start);
            Node kind = slash == std::string::npos ? Node::leaf
                      : part == "config"           ? Node::config
                      : part == "state"            ? Node::state
                                                   : Node::counters;
            at = child(at, part, kind);
            nodes[size_t(at)].below |= LeafSet(1) << l;
            if (slash == std::string::npos) break;
            start = slash + 1;
         }
         nodes[size_t(at)].leaf = Leaf(l);
      }
   }
};

Tree const & tree() {
   static Tree const t;
   return t;
}

std::string where(std::vector<PathElem> const & elems, size_t upTo) {
   std::string s;
   for (size_t i = 0; i < upTo && i < elems.size(); ++i) s += "/" + elems[i].name;
   return s.empty() ? "/" : s;
}

struct Matcher {
   explicit Matcher(std::vector<PathElem> const & e) : elems(e) {}
   std::vector<PathElem> const & elems;
   LeafSet leaves = 0;
   std::vector<int> ends;  // nodes where the path ended
   std::string error;
   size_t errorDepth = 0;

   void fail(size_t depth, std::string msg) {
      if (error.empty() || depth > errorDepth) {
         error = std::move(msg);
         errorDepth = depth;
      }
   }
   // Node `at` has matched elements [0, i); match the rest below it.
   void match(int at, size_t i) {
      SchemaNode const & n = tree().nodes[size_t(at)];
      if (i == elems.size()) {
         leaves |= n.below;
         ends.push_back(at);
         return;
      }
      PathElem const & e = elems[i];
      if (e.name == "...") {
         if (!e.keys.empty()) return fail(i, "\"...\" takes no keys");
         match(at, i + 1);  // zero levels
         for (int c : n.children) matchAny(c, i);
         return;
      }
      bool any = false;
      for (int c : n.children) {
         if (e.name != "*" && e.name != tree().nodes[size_t(c)].name) continue;
         any = true;
         enter(c, i);
      }
      if (!any) {
         std::string at = where(elems, i);
         if (n.kind == Node::leaf) {
            fail(i, "\"" + e.name + "\": " + at + " is a leaf, nothing is below it");
         } else {
            fail(i, "unknown element \"" + e.name + "\" under " + at);
         }
      }
   }
   // "..." standing for any number of levels from `at` on.
   void matchAny(int at, size_t i) {
      enter(at, i);  // "..." ends at `at`: the rest matches below it
      for (int c : tree().nodes[size_t(at)].children) matchAny(c, i);
   }
   // Element i names node c: check its keys, then go on.
   void enter(int c, size_t i) {
      PathElem const & e = elems[i];
      SchemaNode const & n = tree().nodes[size_t(c)];
      if (e.name == "...") return match(c, i + 1);
      if (n.kind != Node::interface) {
         if (!e.keys.empty()) return fail(i, "\"" + n.name + "\" is not a list and takes no key");
         return match(c, i + 1);
      }
      for (auto const & [k, v] : e.keys) {
         if (k != "name") return fail(i, "interface has no key \"" + k + "\" (its key is name)");
         if (v != "*") {
            Zenet::IntfId id;
            Kel::String8 why;
            if (!Zenet::parseIntfName(v, &id, &why) || id.isNull()) {
               return fail(i, "interface[name=" + v + "]: not an interface name" +
                                  (why.view().empty() ? std::string() : " (" + why.str() + ")"));
            }
            if (intf && *intf != id) return fail(i, "interface[name=" + v + "] conflicts with another name");
            intf = id;
         }
      }
      match(c, i + 1);
   }
   std::optional<Zenet::IntfId> intf;
};

} // namespace

LeafInfo const & leafInfo(Leaf l) { return leaves[size_t(l)]; }

bool originServed(std::string const & origin) { return origin.empty() || origin == "openconfig"; }

std::optional<Query> resolve(std::vector<PathElem> const & in, std::string * error) {
   std::vector<PathElem> elems = in;
   if (!elems.empty() && elems[0].name.rfind(modulePrefix, 0) == 0) {
      elems[0].name.erase(0, sizeof modulePrefix - 1);
   }
   for (size_t i = 0; i < elems.size(); ++i) {
      if (elems[i].name.empty()) {
         *error = "empty element name after " + where(elems, i);
         return std::nullopt;
      }
   }
   Matcher m(elems);
   m.match(0, 0);
   if (!m.leaves) {
      *error = m.error.empty() ? "the path names no data" : m.error;
      return std::nullopt;
   }
   Query q;
   q.intf = m.intf;
   q.leaves = m.leaves;
   bool wild = false;
   for (auto const & e : elems) wild = wild || e.name == "*" || e.name == "...";
   if (wild || m.ends.size() != 1) {
      q.node = Node::leaf;
   } else {
      auto const & n = tree().nodes[size_t(m.ends[0])];
      q.node = n.kind;
      q.leaf = n.leaf;
   }
   return q;
}

} // namespace Gnmi
