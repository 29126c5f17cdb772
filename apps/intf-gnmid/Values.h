// The values of one interface's leaves, taken from its status, its
// configuration and its counter row, and their JSON text (RFC 7951).
#pragma once

#include "AgentTree.h"
#include "Schema.h"

#include <array>
#include <cstdint>
#include <string>

namespace Gnmi {

struct Value {
   enum class Kind : uint8_t { absent, text, number, boolean };
   Kind kind = Kind::absent;
   uint64_t number = 0;  // numbers, and booleans as 0 or 1
   std::string text;

   bool present() const { return kind != Kind::absent; }
   friend bool operator==(Value const &, Value const &) = default;
};

// Every leaf of one interface; absent where the model has no value.
struct IntfValues {
   std::string name;
   std::array<Value, leafCount> leaf;
   int64_t countersNs = 0;  // when the counters were sampled
   Value const & operator[](Leaf l) const { return leaf[size_t(l)]; }
   Value & operator[](Leaf l) { return leaf[size_t(l)]; }
};

// The state and configuration leaves (the counters stay absent). `config`
// may be null (no configuration for the interface, or none mounted).
IntfValues stateValues(Zenet::IntfId id, Interface::IntfStatus const & status, Interface::IntfConfig const * config);
// Fills the counter leaves from one read.
void setCounters(IntfValues & v, AgentTree::Counters const & c);

// The JSON text of a present leaf value, as RFC 7951 writes its type.
std::string jsonScalar(Leaf l, Value const & v);

// The model's interface names map to these interface types.
std::string interfaceType(Zenet::IntfId id);

} // namespace Gnmi
