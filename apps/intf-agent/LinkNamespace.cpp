// One namespace's link sockets; see LinkNamespace.h.
#include "LinkNamespace.h"

#include "NsSocket.h"

#include <Zenet/NamespaceName.h>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace IntfApp {

LinkNamespace::LinkNamespace(std::string name, std::string dir, Events & events)
      : name_(std::move(name)), dir_(std::move(dir)), events_(events) {
   int fd = open(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
   if (fd < 0) {
      error_ = "cannot open a link socket in namespace " + name_ + ": " + std::strerror(errno);
      return;
   }
   listen_ = std::make_unique<LinkSocket>(fd, true);
   if (!listen_->valid()) error_ = "link socket in namespace " + name_ + ": " + listen_->error();
}

LinkNamespace::~LinkNamespace() {
   if (ioctlFd_ >= 0) ::close(ioctlFd_);
}

bool LinkNamespace::isDefault() const { return name_ == Zenet::DEFAULT_NS; }

int LinkNamespace::open(int domain, int type, int protocol) {
   return socketIn(dir_, name_, domain, type, protocol);
}

int LinkNamespace::fd() const { return listen_ ? listen_->fd() : -1; }

bool LinkNamespace::requestDump() {
   if (!valid()) return false;
   dumping_ = listen_->requestDump();
   if (!dumping_) error_ = listen_->error();
   return dumping_;
}

int LinkNamespace::setUp(int ifindex, bool up) {
   if (!control_ || !control_->valid()) {
      int fd = open(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
      if (fd < 0) return errno;
      control_ = std::make_unique<LinkSocket>(fd, false);
      if (!control_->valid()) return EBADF;
   }
   return control_->setUp(ifindex, up);
}

int LinkNamespace::ioctlFd() {
   if (ioctlFd_ < 0) ioctlFd_ = open(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   return ioctlFd_;
}

void LinkNamespace::onReadable() {
   bool ok = listen_->readAvailable([&](LinkEvent e, LinkInfo const & info) {
      switch (e) {
      case LinkEvent::done:
         // The end of a dump given up on is not the end of the one asked for.
         if (!dumping_) return;
         dumping_ = false;
         events_.onDumpDone(*this);
         return;
      case LinkEvent::error:
         // The kernel refused the dump (one was still running): the next
         // request asks again.
         dumping_ = false;
         return;
      default: events_.onLink(*this, e, info); return;
      }
   });
   if (!ok) {
      // Typically ENOBUFS: notifications were lost. What the agent knows
      // may be stale: a full dump puts it right.
      error_ = listen_->error();
      dumping_ = false;
      events_.onLinkFailure(*this, error_);
   }
}

} // namespace IntfApp
