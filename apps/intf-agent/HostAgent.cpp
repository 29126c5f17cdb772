// The host interface agent; see HostAgent.h.
#include "HostAgent.h"

#include "AgentLog.h"
#include "AgentMetrics.h"

#include <linux/if.h>

namespace IntfApp {

namespace {

KernelDevice kernelDevice(std::string const & ns, LinkInfo const & info) {
   KernelDevice k;
   k.netNs = ns;
   k.name = info.name;
   k.ifindex = info.ifindex;
   k.kind = info.loopback ? KernelDevice::Kind::loopback
          : info.vlan     ? KernelDevice::Kind::vlan
                          : KernelDevice::Kind::ordinary;
   k.vlanId = info.vlanId;
   k.parentIfindex = info.parentIfindex;
   return k;
}

} // namespace

HostAgent::HostAgent(Kel::ActivityLoop & loop, std::string netNsDir, ConfigFile const & deviceConfig,
                     ConfigMount const * config)
      : config_(config), deviceMap_(deviceConfig), counters_(config), tree_(counters_.table(), counters_.snapshots(), config), applier_(config),
        discovery_(loop, std::move(netNsDir), *this) {}

void HostAgent::settle() {
   discovery_.settle();
   applier_.apply(discovery_.namespaces());
}

std::string HostAgent::metricsText() const { return IntfApp::metricsText(discovery_.namespaces(), config_, counters_.snapshots()); }

// ---- mapping ---------------------------------------------------------------------------

void HostAgent::model(HostNamespace & n, HostDevice & d) {
   std::string why;
   d.intf = deviceMap_.assign(kernelDevice(n.name, d.info), &why);
   if (d.intf.isNull()) {
      if (!d.reported) Kel::logEvent(deviceUnmodelledMessage(), d.info.name, n.name, why);
      d.reported = true;
      return;
   }
   tree_.add(n, d);
   d.status->activeIs(d.info.flags & IFF_UP);
   applier_.heard(d, nullptr);
}

void HostAgent::unmodel(HostNamespace & n, HostDevice & d) {
   tree_.remove(n, d);
   counters_.remove(d.intf);
   deviceMap_.release(n.name, d.info.ifindex);
   d.intf = Zenet::IntfId();
   d.status = nullptr;
   d.reported = false;
}

void HostAgent::remap(ConfigFile const & deviceConfig) {
   auto changes = deviceMap_.configure(deviceConfig);
   if (changes.devices.empty()) return;
   for (auto & [name, n] : discovery_.namespaces()) {
      for (auto & [ifindex, d] : n.devices) {
         if (!d.intf.isNull() && changes.touches(n.name, d.info.name, d.intf)) unmodel(n, d);
      }
   }
   counters_.commit();
   retryUnmodelled();
   applier_.changed();
}

void HostAgent::retryUnmodelled() {
   for (auto & [name, n] : discovery_.namespaces()) {
      for (auto & [ifindex, d] : n.devices) {
         if (d.intf.isNull()) model(n, d);
      }
   }
}

// ---- what the discovery tells ----------------------------------------------------------

void HostAgent::deviceFound(HostNamespace & n, HostDevice & d) { model(n, d); }

void HostAgent::deviceChanged(HostNamespace & n, HostDevice & d, LinkInfo const & was) {
   if (d.intf.isNull()) return;
   tree_.update(n, d, was);
   d.status->activeIs(d.info.flags & IFF_UP);
   applier_.heard(d, &was);
}

void HostAgent::deviceGone(HostNamespace & n, HostDevice & d) {
   if (!d.intf.isNull()) unmodel(n, d);
}

void HostAgent::devicesGone() {
   counters_.commit();
   retryUnmodelled();
}

void HostAgent::dumpDone(HostNamespace & n, bool anyGone) {
   counters_.fold(n);
   if (anyGone) retryUnmodelled();
   counters_.sweep(discovery_.namespaces());
}

} // namespace IntfApp
