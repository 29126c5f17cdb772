// MTU synchronisation; see Intf/SyncMtu.h.
#include <Intf/Startup.h>
#include <Intf/SyncMtu.h>
#include <Kel/Trace.h>
#include <Kel/Type.h>
#include <Zenet/SocketAt.h>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Interface {

namespace {

Kel::TraceFacility trace("Intf::SyncMtu");

uint32_t expectedMtuOf(IntfStatus const * status, IntfConfig const * config, bool log) {
   if (status->forwardingModel() != IntfForwardingModel::intfForwardingModelRouted) {
      return status->maxMtu();
   }
   uint32_t configured = config ? config->mtu() : 1500;
   if (configured <= status->maxMtu()) return configured;
   if (log) {
      Kel::logEvent(intfMaxMtuExceeded(), configured, status->maxMtu(),
                    status->intfId().stringValue());
      KEL_TRACE(trace, 0, "syncMtu: " + status->intfId().stringValue() + " mtu clipped to max " +
                              Kel::String8(std::to_string(status->maxMtu())));
   }
   return status->maxMtu();
}

} // namespace

Kel::LogMessage const & intfMaxMtuExceeded() {
   static Kel::LogMessage const & m = Kel::registerLogMessage(
       {"INTF_MAX_MTU_EXCEEDED", Kel::LogSeverity::error,
        "Configured mtu (%d) exceeds the maximum mtu (%d) for interface %s",
        "This interface was configured with an mtu value that exceeds the maximum mtu supported "
        "for this type of interface",
        "Change the interface configuration to be consistent with the maximum supported mtu for "
        "this interface type.",
        // Every clipping call is the caller's event and is written; only a
        // flood of the same message (an agent calling in a loop) is cut.
        10, 100});
   return m;
}

bool syncMtu(IntfStatus * status, IntfStatusLocal * statusLocal, IntfConfig const * config,
             bool updateStatus, bool updateKernel, S32 fd) {
   auto * intfStatus = status;
   KEL_ASSERT(intfStatus, "SyncMtu");
   Zenet::NamespaceName ns{Kel::String8(Zenet::DEFAULT_NS)};
   if (statusLocal && !statusLocal->netNsName().name().empty()) ns = statusLocal->netNsName();
   return syncMtuInNs(status, config, updateStatus, updateKernel, ns, fd);
}

bool syncMtuInNs(IntfStatus * status, IntfConfig const * config, bool updateStatus,
                 bool updateKernel, Zenet::NamespaceName ns, int fd) {
   auto * intfStatus = status;
   KEL_ASSERT(intfStatus, "SyncMtu");
   Kel::String8 name = status->intfId().stringValue();
   KEL_TRACE(trace, 2, "syncMtuInNs " + name + " in " + ns.name() + " updateStatus " +
                           Kel::String8(std::to_string(updateStatus)) + " updateKernel " +
                           Kel::String8(std::to_string(updateKernel)) + " fd " + Kel::String8(std::to_string(fd)));
   if (status->maxMtu() == 0) {
      if (updateStatus) status->mtuIs(0);
      return true;
   }
   uint32_t expected = expectedMtuOf(status, config, true);
   if (status->forwardingModel() == IntfForwardingModel::intfForwardingModelRouted) {
      KEL_TRACE(trace, 1, "syncMtuInNs for " + name + " in " + ns.name() + " mtu configured as " +
                              Kel::String8(std::to_string(expected)));
   }
   bool kernelOk = true;
   if (updateKernel && !status->deviceName().empty()) {
      kernelOk = setMtuInNs(status->deviceName().charPtr(), expected, ns, fd) == 0;
   }
   if (updateStatus && kernelOk && expected != status->mtu()) {
      KEL_TRACE(trace, 1, "syncMtu: " + name + " changing intfStatus.mtu from " +
                              Kel::String8(std::to_string(status->mtu())) + " to " + Kel::String8(std::to_string(expected)));
      status->mtuIs(expected);
   }
   return kernelOk;
}

int setMtuInNs(char const * device, unsigned mtu, Zenet::NamespaceName ns, int fd) {
   int s = fd;
   if (fd == -1) s = Zenet::socketAt(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, ns.name().charPtr());
   ifreq req;
   std::memset(&req, 0, sizeof req);
   // At most IFNAMSIZ bytes; a longer name is cut and left unterminated, as
   // the kernel then refuses it.
   std::strncpy(req.ifr_name, device, IFNAMSIZ);
   req.ifr_mtu = int(mtu);
   int r = ::ioctl(s, SIOCSIFMTU, &req);
   int err = r == 0 ? 0 : errno;
   if (fd == -1 && s >= 0) ::close(s);
   if (r != 0) {
      KEL_TRACE(trace, 0, "syncMtu: ioctl error configuring mtu:" + Kel::String8(std::to_string(mtu)) +
                              " on device:" + device + " " + std::strerror(err));
      return err;
   }
   return 0;
}

bool setMtu(char const * device, unsigned mtu) {
   return setMtuInNs(device, mtu, Zenet::NamespaceName(Kel::String8(Zenet::DEFAULT_NS)), -1) == 0;
}

void verifyMtu(IntfStatus * status, IntfConfig const * config) {
   uint32_t expectedMtu = expectedMtuOf(status, config, false);
   auto * intfStatus = status;
   KEL_ASSERT(intfStatus->mtu() == expectedMtu, "SyncMtu");
}

} // namespace Interface

void kelModuleSyncMtu() {
   Kel::moduleInitializedIs("SyncMtu");
   Interface::intfMaxMtuExceeded();
}
