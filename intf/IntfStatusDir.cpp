// Start-up of the directory module: registered first of all modules.
#include <Intf/IntfStatusDir.h>
#include <Intf/Startup.h>

void kelInitIntfStatusDir() {
   using namespace Interface;
   Kel::describeTypes(
       "Interface",
       {AllIntfConfigDir::_fwkType(), AllIntfStatusDir::_fwkType(),
        AllIntfStatusLocalDir::_fwkType(), AllIntfNamespaceConfigDir::_fwkType(),
        KernelIntfStatusDir::_fwkType(), IntfConfigDirBase::_fwkType(),
        IntfStatusDirBase::_fwkType(), IntfStatusDir::_fwkType(), AgentIntfStatusDir::_fwkType(),
        IntfStatusLocalDirBase::_fwkType(), DeviceIntfStatusDir::_fwkType(),
        DeviceIntfStatusDir::IntfStatusAndDeviceName::_fwkType(),
        DeviceVrfIntfStatusDir::_fwkType()});
}

void kelModuleIntfStatusDir() {
   using namespace Interface;
   Kel::moduleInitializedIs("IntfStatusDir");
   Kel::registerTypes<AllIntfConfigDir, AllIntfStatusDir, AllIntfStatusLocalDir,
                      AllIntfNamespaceConfigDir, KernelIntfStatusDir, IntfConfigDirBase,
                      IntfStatusDirBase, IntfStatusDir, AgentIntfStatusDir, IntfStatusLocalDirBase,
                      DeviceIntfStatusDir, DeviceIntfStatusDir::IntfStatusAndDeviceName,
                      DeviceVrfIntfStatusDir>();
   kelInitIntfStatusDir();
}
