// Start-up of the adapters that present table rows as counter entities.
#include <Intf/SmashIntfCounter.h>
#include <Intf/Startup.h>

void kelModuleSmashIntfCounter() {
   using namespace Interface;
   Kel::moduleInitializedIs("SmashIntfCounter");
   Kel::registerTypes<SmashIntfCounter, SmashAclDropCounter>();
   Kel::describeTypes("Interface", {SmashIntfCounter::_fwkType(), SmashAclDropCounter::_fwkType()});
}
