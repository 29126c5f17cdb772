// Turns a parsed configuration file into the model's configuration
// entities. Applying the same file twice changes nothing the second time
// (every write goes through the model's mutators, which ignore equal
// values), so a reload replicates only what the operator edited.
#pragma once

#include "ConfigFile.h"

#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/IntfStatusDir.h>

namespace IntfApp {

struct ConfigTree {
   Kel::Ptr<Interface::GlobalIntfConfig> global;
   Kel::Ptr<Interface::AllIntfConfigDir> intfs;
   Kel::Ptr<Interface::AllIntfNamespaceConfigDir> namespaces;
};

// What an application changed, for the agent's log line.
struct ApplyCounts {
   unsigned added = 0, changed = 0, removed = 0;
};

// Whether an interface's configuration sets its MTU: the requester of this
// name is present and true (IntfConfig::mtu alone cannot say, since it
// always holds a value, 1500 by default). The host agent changes a
// device's MTU only then.
inline constexpr char mtuRequestor[] = "mtu";
inline bool setsMtu(Interface::IntfConfig const & c) { return c.requestor(mtuRequestor); }

// Every interface of the file gets a configuration with exactly the file's
// settings (a setting left out goes back to its default: admin state
// unknown, MTU 1500 and not set, no description, the global load interval,
// the default namespace); interfaces no longer in the file are removed.
ApplyCounts applyConfig(ConfigFile const & cfg, ConfigTree const & tree);

} // namespace IntfApp
