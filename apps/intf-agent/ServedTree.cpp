// The served tree and the statuses in it; see ServedTree.h.
#include "ServedTree.h"

#include "AgentLog.h"

#include <linux/if.h>

#include <chrono>

namespace IntfApp {

using Interface::IntfOperStatus;

namespace {

double wallNow() {
   return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string kernelKeyOf(std::string const & ns, std::string const & device) {
   return isDefaultNs(ns) ? device : ns + "/" + device;
}

IntfOperStatus operOf(uint32_t flags) {
   return (flags & (IFF_RUNNING | IFF_LOWER_UP)) ? IntfOperStatus::intfOperUp : IntfOperStatus::intfOperDown;
}

} // namespace

ServedTree::ServedTree(Kel::Ptr<Smash::Interface::AllIntfCounterDir> counters,
                       Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> snapshots, ConfigMount const * config)
      : config_(config) {
   root_ = Kel::makePtr<Kel::Dir>(Kel::Name("agent"));
   auto status = root_->mkdir("interface/status");
   statusDir_ = Kel::makePtr<Interface::AgentIntfStatusDir>(Kel::Name("intf"));
   status->mkdir("eth")->entryIs(statusDir_);
   localDir_ = Kel::makePtr<Interface::AllIntfStatusLocalDir>(Kel::Name("local"));
   kernelDir_ = Kel::makePtr<Interface::KernelIntfStatusDir>(Kel::Name("kernel"));
   deviceDir_ = Kel::makePtr<Interface::DeviceIntfStatusDir>(Kel::Name("device"));
   status->entryIs(localDir_);
   status->entryIs(kernelDir_);
   status->entryIs(deviceDir_);

   counterDir_ = Kel::makePtr<Interface::SmashIntfCounterDirDir>(Kel::Name("intf"));
   counterDir_->tableIs(counters);
   auto eth = root_->mkdir("interface/counter/eth");
   eth->entryIs(counterDir_);
   eth->entryIs(snapshots);
}

void ServedTree::add(HostNamespace const & n, HostDevice & d) {
   d.status = Interface::intfStatusFactory(d.intf, nullptr, statusDir_->genIdMarkerInc(1));
   d.status->deviceNameIs(Kel::String8(d.info.name));
   d.status->operStatusUpdatedByAgentIs(true);
   kernelState(n, d, true);
   statusDir_->intfStatusIs(d.status);
   auto local = Kel::makePtr<Interface::IntfStatusLocal>(d.intf);
   local->netNsNameIs(n.netNsName());
   localDir_->intfStatusLocalIs(local);
   d.kernelKey = kernelKeyOf(n.name, d.info.name);
   kernelDir_->intfStatusIs(Kel::String8(d.kernelKey), d.status);
   fileByDevice(n, d);
}

void ServedTree::update(HostNamespace const & n, HostDevice & d, LinkInfo const & was) {
   if (d.info.name != was.name) {
      d.status->deviceNameIs(Kel::String8(d.info.name));
      kernelDir_->intfStatusDel(Kel::String8(d.kernelKey));
      d.kernelKey = kernelKeyOf(n.name, d.info.name);
      kernelDir_->intfStatusIs(Kel::String8(d.kernelKey), d.status);
      fileByDevice(n, d);
   }
   kernelState(n, d, false);
}

void ServedTree::fileByDevice(HostNamespace const & n, HostDevice const & d) {
   if (!n.isDefault()) return;
   Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName v(d.status, Kel::String8(d.info.name),
                                                            uint32_t(d.info.ifindex));
   deviceDir_->intfStatusAndDeviceNameIs(d.intf, v);
   deviceDir_->intfStatusByIfIndexIs(uint32_t(d.info.ifindex), v);
}

void ServedTree::kernelState(HostNamespace const & n, HostDevice & d, bool first) {
   auto & st = *d.status;
   st.mtuIs(d.info.mtu);
   if (d.info.maxMtu) st.maxMtuIs(d.info.maxMtu);
   IntfOperStatus oper = operOf(d.info.flags);
   if (first) {
      st.operStatusIs(oper);
      return;
   }
   if (oper == st.operStatus()) return;
   // The change record first: a reactor on operStatus reads the record of
   // the change it is told of.
   auto change = st.operStatusChange();
   change.timeIs(wallNow());
   change.countIs(change.count() + 1);
   st.operStatusChangeIs(change);
   st.operStatusIs(oper);
   if (linkStatusLogging(d.intf)) {
      Kel::logEvent(linkStatusMessage(), d.intf.stringValue(), d.info.name, n.name,
                    oper == IntfOperStatus::intfOperUp ? "up" : "down");
   }
}

void ServedTree::remove(HostNamespace const & n, HostDevice const & d) {
   statusDir_->intfStatusDel(d.intf);
   localDir_->intfStatusLocalDel(d.intf);
   kernelDir_->intfStatusDel(Kel::String8(d.kernelKey));
   if (n.isDefault()) {
      deviceDir_->intfStatusAndDeviceNameDel(d.intf);
      deviceDir_->intfStatusByIfIndexDel(uint32_t(d.info.ifindex));
   }
}

bool ServedTree::linkStatusLogging(Zenet::IntfId id) const {
   using Interface::IntfLoggingMode;
   auto mode = IntfLoggingMode::useGlobal;
   if (config_) {
      if (auto cfg = config_->intfConfig(id)) mode = cfg->linkStatusLogging();
      if (mode == IntfLoggingMode::useGlobal && config_->global()) mode = config_->global()->linkStatusLogging();
   }
   return mode != IntfLoggingMode::off;
}

} // namespace IntfApp
