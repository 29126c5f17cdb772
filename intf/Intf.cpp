// Hand-written behaviour of the model's records.
#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/IntfCounter.h>
#include <Intf/IntfQueueCounter.h>
#include <Intf/IntfStatus.h>
#include <Intf/Startup.h>
#include <Intf/Types.h>
#include <Zenet/NamespaceName.h>

namespace Interface {

void LoadInterval::kelCheck() const {
   if (!(val_ >= minVal && val_ <= maxVal)) {
      Kel::throwRangeException(
          "LoadInterval::val < LoadInterval::minVal or > LoadInterval::maxVal not allowed");
   }
}

uint32_t IntfConfigRequest::hash() const {
   return Kel::bitReverse(intf_.hash() + requestor_.hash());
}

} // namespace Interface

// ---- start-up ----------------------------------------------------------------------------------

void kelInitIntf() {
   using namespace Interface;
   Kel::describeTypes("Interface",
                      {_fwkType_IntfOperStatus(), _fwkType_IntfEnabledState(),
                       _fwkType_IntfForwardingModel(), _fwkType_IntfLoggingMode(),
                       _fwkType_PktType(), _fwkType_DropPrecedence(), IntfStatistics::_fwkType(),
                       IntfRates::_fwkType(), LoadInterval::_fwkType(),
                       IntfConfigRequest::_fwkType(), IntfStatusOperStatusChange::_fwkType(),
                       QueueCounterConstants::_fwkType(), IntfConfig::_fwkType(),
                       IntfStatus::_fwkType(), IntfStatusLocal::_fwkType(),
                       GlobalIntfConfig::_fwkType(), IntfNamespaceConfig::_fwkType(),
                       Bogon::_fwkType(), IntfCounter::_fwkType(), IntfAclDrops::_fwkType(),
                       IntfCounterDirBase::_fwkType(), IntfCounterDir::_fwkType(),
                       IntfCounterDirDirBase::_fwkType(), AllIntfCounterDir::_fwkType(),
                       IntfQueueStatistics::_fwkType(), IntfQueueCounter::_fwkType(),
                       IntfQueueCounterDir::_fwkType(), AllIntfQueueCounterDir::_fwkType()});
   Kel::describeTypes("Mavo", {Mavo::ShmemManager::_fwkType()});
   Kel::describeTypes("Zenet", {Zenet::NamespaceName::_fwkType()});
}

void kelModuleIntf() {
   using namespace Interface;
   Kel::moduleInitializedIs("Intf");
   Kel::registerTypes<IntfOperStatus, IntfEnabledState, IntfForwardingModel, IntfLoggingMode,
                      PktType, DropPrecedence, IntfStatistics, IntfRates, LoadInterval,
                      IntfConfigRequest, IntfStatusOperStatusChange, QueueCounterConstants,
                      Zenet::NamespaceName, IntfConfig, IntfStatus, IntfStatusLocal,
                      GlobalIntfConfig, IntfNamespaceConfig, Bogon, IntfCounter, IntfAclDrops,
                      IntfCounterDirBase, IntfCounterDir, IntfCounterDirDirBase,
                      AllIntfCounterDir, Mavo::ShmemManager, IntfQueueStatistics,
                      IntfQueueCounter, IntfQueueCounterDir, AllIntfQueueCounterDir>();
   kelInitIntf();
}
