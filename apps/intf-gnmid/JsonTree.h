// JSON (RFC 7951) of a subtree of the served model, as a Get answers a
// path that names a container or the list: members named as the model
// names them, those of the top-level object qualified with the module
// name, only present leaves, empty containers left out.
#pragma once

#include "Schema.h"
#include "Values.h"

#include <string>
#include <vector>

namespace Gnmi {

// The content of `node` (interface, config, state or counters) of one
// interface, restricted to `leaves`; "" when nothing in it is present.
std::string jsonOfInterface(Node node, IntfValues const & v, LeafSet leaves);
// The content of the root or of /interfaces over several interfaces.
std::string jsonOfList(Node node, std::vector<IntfValues const *> const & intfs, LeafSet leaves);

} // namespace Gnmi
