// The part of the OpenConfig interfaces model that intf-gnmid serves, and
// the reading of a gNMI path against it.
//
//   /interfaces/interface[name=N]/name
//   /interfaces/interface[name=N]/config/{name,mtu,description,enabled}
//   /interfaces/interface[name=N]/state/{name,type,mtu,description,enabled,
//        admin-status,oper-status,last-change}
//   /interfaces/interface[name=N]/state/counters/{in-octets,in-pkts,...,
//        carrier-transitions,last-clear}
//
// A path resolves to a Query: which interfaces (one name, or all) and which
// leaves (a bit set), plus the node the path names, where a Get renders a
// JSON subtree. Element names "*" (any child) and "..." (any depth) and the
// key value "*" are wildcards. The first element may carry the module name
// ("openconfig-interfaces:interfaces"). Anything else is refused with a
// message naming the offending element. Kept free of protobuf so that the
// fuzz target and the tests drive it directly.
#pragma once

#include <Zenet/IntfId.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Gnmi {

constexpr char moduleName[] = "openconfig-interfaces";
constexpr char modulePrefix[] = "openconfig-interfaces:";
// The module's revision served (its OpenConfig version is 3.5.0), and the
// version of the gNMI protocol followed.
constexpr char modelRevision[] = "2023-07-14";
constexpr char gnmiVersion[] = "0.10.0";

enum class Leaf : uint8_t {
   name,  // the list key leaf, /interfaces/interface/name
   configName,
   configMtu,
   configDescription,
   configEnabled,
   stateName,
   stateType,
   stateMtu,
   stateDescription,
   stateEnabled,
   adminStatus,
   operStatus,
   lastChange,
   // Counters, in the order of the model's counters container.
   inOctets,
   inPkts,
   inUnicastPkts,
   inBroadcastPkts,
   inMulticastPkts,
   inDiscards,
   inErrors,
   outOctets,
   outPkts,
   outUnicastPkts,
   outBroadcastPkts,
   outMulticastPkts,
   outDiscards,
   outErrors,
   carrierTransitions,
   lastClear,
   count
};
constexpr unsigned leafCount = unsigned(Leaf::count);
constexpr unsigned firstCounter = unsigned(Leaf::inOctets);
constexpr unsigned counterCount = leafCount - firstCounter;

using LeafSet = uint64_t;
constexpr LeafSet bit(Leaf l) { return LeafSet(1) << unsigned(l); }
constexpr LeafSet allLeaves = (LeafSet(1) << leafCount) - 1;
constexpr LeafSet counterLeaves = allLeaves & ~((LeafSet(1) << firstCounter) - 1);
constexpr LeafSet stateLeaves = allLeaves & ~counterLeaves;  // everything that changes on its own time
constexpr bool isCounter(Leaf l) { return unsigned(l) >= firstCounter; }

// How a leaf's value is written (RFC 7951 for JSON).
enum class LeafType : uint8_t {
   string,    // JSON string
   identity,  // identityref: "module:identity"
   enumeration,
   uint16,    // JSON number
   boolean,
   uint64     // counter64, timeticks64: a JSON string of decimal digits
};

// Which datastore view a leaf belongs to (GetRequest.DataType).
enum class Datastore : uint8_t { config, state, operational };

struct LeafInfo {
   char const * name;
   char const * path;  // below interface[name=N], "/"-separated
   LeafType type;
   Datastore store;    // operational: derived state, not a mirror of configuration
};
LeafInfo const & leafInfo(Leaf l);
inline LeafInfo const & leafInfo(unsigned l) { return leafInfo(Leaf(l)); }

// Schema nodes, for rendering a subtree: the root, /interfaces, the list
// entry, its containers, and the leaves.
enum class Node : uint8_t { root, interfaces, interface, config, state, counters, leaf };

struct PathElem {
   std::string name;
   std::vector<std::pair<std::string, std::string>> keys;
};

struct Query {
   std::optional<Zenet::IntfId> intf;  // none: every interface
   LeafSet leaves = 0;
   // The node the path names; with a wildcard element name, `leaf` (the
   // leaves themselves are then the answer).
   Node node = Node::root;
   Leaf leaf = Leaf::count;  // when node is `leaf` and one leaf is named
};

// Resolves a path (the prefix's elements followed by the path's). On
// failure returns nullopt and sets `error` to a message naming the element.
std::optional<Query> resolve(std::vector<PathElem> const & elems, std::string * error);

// Whether `origin` names the served schema ("" and "openconfig" do).
bool originServed(std::string const & origin);

} // namespace Gnmi
