// Sockets in named namespaces; see NsSocket.h.
#include "NsSocket.h"

#include <Kel/Assert.h>
#include <Zenet/NamespaceName.h>
#include <Zenet/SocketAt.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace IntfApp {

int socketIn(std::string const & dir, std::string const & netNs, int domain, int type, int protocol) {
   if (netNs.empty() || netNs == Zenet::DEFAULT_NS) return ::socket(domain, type, protocol);
   if (netNs.find('/') != std::string::npos || netNs == "." || netNs == "..") {
      errno = EINVAL;
      return -1;
   }
   if (dir == standardNetNsDir) {
      try {
         return Zenet::socketAt(domain, type, protocol, netNs.c_str());
      } catch (...) {  // a name too long for the model
         errno = ENAMETOOLONG;
         return -1;
      }
   }
   // Another directory of handles: the same visit, from there.
   int target = ::open((dir + "/" + netNs).c_str(), O_RDONLY | O_CLOEXEC);
   if (target < 0) return -1;
   int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   if (home < 0) {
      int e = errno;
      ::close(target);
      errno = e;
      return -1;
   }
   int s = -1, err = 0;
   if (::setns(target, CLONE_NEWNET) != 0) {
      err = errno;
   } else {
      s = ::socket(domain, type, protocol);
      err = s < 0 ? errno : 0;
      // Staying in the other namespace would make the agent act there.
      bool back = ::setns(home, CLONE_NEWNET) == 0;
      KEL_ASSERT(back, "intf-agent");
   }
   ::close(target);
   ::close(home);
   errno = err;
   return s;
}

} // namespace IntfApp
