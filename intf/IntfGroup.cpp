// The interface group module: its types, registered at start-up.
#include <Intf/IntfGroup.h>
#include <Intf/Startup.h>
#include <Kel/Reflect.h>

void kelModuleIntfGroup() {
   Kel::moduleInitializedIs("IntfGroup");
   Group::registerGroupTypes();
   Kel::registerTypes<IntfGroup::Config, IntfGroup::Status, IntfGroup::ConfigDir,
                      IntfGroup::StatusDir>();
}
