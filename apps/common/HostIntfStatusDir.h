// The status directory of the host interface agent (intf-agent): every
// interface it models, keyed by identifier. A status directory of its own
// type, so that the counter look-up of a status inside it (IntfStatus::
// counter()) takes the general path: counter/eth/intf beside status/eth/intf.
#pragma once

#include <Intf/IntfStatus.h>
#include <Intf/IntfStatusDir.h>
#include <Kel/Attr.h>

namespace IntfApp {

#define KEL_ATTRS_HostIntfStatusDir(X)                                                \
   X(EntColl, intfStatus, IntfStatus, Kel::HashMap, Zenet::IntfId, Interface::IntfStatus, \
     intfId)
class HostIntfStatusDir : public Interface::IntfStatusDirBase {
   KEL_ENTITY(HostIntfStatusDir, Interface::IntfStatusDirBase, "IntfApp::HostIntfStatusDir",
              KEL_ATTRS_HostIntfStatusDir)
 public:
   explicit HostIntfStatusDir(Kel::Name name) : Interface::IntfStatusDirBase(std::move(name)) {}
};
KEL_FACTORY(hostIntfStatusDirFactory, HostIntfStatusDir);

// Registers the types of the agents' own entities. Every process that
// mounts an agent's tree calls it before mounting: a replica of a type that
// is not registered cannot be made.
void registerAppTypes();

} // namespace IntfApp
