// Start-up of the shared-memory counter rows and their table directories.
#include <Intf/SmashIntf.h>
#include <Intf/Startup.h>

void kelModuleSmashIntf() {
   using namespace Smash::Interface;
   Kel::moduleInitializedIs("SmashIntf");
   Kel::registerTypes<IntfCounter, DropCounter, AllIntfCounterDir, AllDropCounterDir,
                      AllIntfCounterSnapshotDir>();
   Kel::describeTypes("Smash::Interface",
                      {IntfCounter::_fwkType(), DropCounter::_fwkType(), AllIntfCounterDir::_fwkType(),
                       AllDropCounterDir::_fwkType(), AllIntfCounterSnapshotDir::_fwkType()});
}
