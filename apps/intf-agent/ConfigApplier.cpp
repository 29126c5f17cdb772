// The interfaces' configuration applied to their devices; see ConfigApplier.h.
#include "ConfigApplier.h"

#include "AgentLog.h"
#include "ConfigApply.h"

#include <Intf/SyncMtu.h>

#include <linux/if.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace IntfApp {

void ConfigApplier::heard(HostDevice & d, LinkInfo const * was) {
   bool up = d.info.flags & IFF_UP;
   if (d.adminPending && *d.adminPending == up) d.adminPending.reset();
   if (d.mtuPending == d.info.mtu) d.mtuPending = 0;
   if (!was || was->name != d.info.name || was->flags != d.info.flags || was->mtu != d.info.mtu) dirty_ = true;
}

void ConfigApplier::apply(HostNamespaces & namespaces) {
   if (!dirty_) return;
   dirty_ = false;
   if (!config_) return;
   for (auto & [name, n] : namespaces) {
      for (auto & [ifindex, d] : n.devices) {
         if (d.intf.isNull()) continue;
         auto cfg = config_->intfConfig(d.intf);
         if (!cfg) continue;
         applyAdmin(n, d, *cfg);
         applyMtu(n, d, *cfg);
      }
   }
}

void ConfigApplier::applyAdmin(HostNamespace & n, HostDevice & d, Interface::IntfConfig const & cfg) {
   using Interface::IntfEnabledState;
   IntfEnabledState state = cfg.adminEnabledState();
   if (state == IntfEnabledState::unknownEnabledState) return;
   bool want = state == IntfEnabledState::enabled;
   if (want == bool(d.info.flags & IFF_UP)) {
      d.adminRefused.reset();
      return;
   }
   if (d.adminPending == want || d.adminRefused == want) return;
   int err = n.links->setUp(d.info.ifindex, want);
   if (err) {
      d.adminRefused = want;
      Kel::logEvent(kernelRefusedMessage(), d.intf.stringValue(), want ? "admin up" : "admin down",
                    d.info.name, n.name, std::string(std::strerror(err)));
   } else {
      d.adminPending = want;
   }
}

void ConfigApplier::applyMtu(HostNamespace & n, HostDevice & d, Interface::IntfConfig const & cfg) {
   if (!setsMtu(cfg)) return;
   uint32_t want = cfg.mtu();
   if (d.info.maxMtu && want > d.info.maxMtu) want = d.info.maxMtu;
   if (want == d.info.mtu) {
      d.mtuRefused = 0;
      return;
   }
   if (d.mtuPending == want || d.mtuRefused == want) return;
   int fd = n.links->ioctlFd();
   int err = 0;
   if (fd < 0) {
      err = errno;
   } else if (d.status->maxMtu()) {
      // The model's own step: the expected MTU, clipped (and logged) to the maximum.
      errno = 0;
      bool ok = Interface::syncMtuInNs(d.status.ptr(), &cfg, false, true, n.netNsName(), fd);
      err = ok ? 0 : errno ? errno : EINVAL;
   } else {
      // No maximum known: the kernel itself says what it takes.
      err = Interface::setMtuInNs(d.info.name.c_str(), want, n.netNsName(), fd);
   }
   if (err) {
      d.mtuRefused = want;
      Kel::logEvent(kernelRefusedMessage(), d.intf.stringValue(), "MTU " + std::to_string(want),
                    d.info.name, n.name, std::string(std::strerror(err)));
   } else {
      d.mtuPending = want;
   }
}

} // namespace IntfApp
