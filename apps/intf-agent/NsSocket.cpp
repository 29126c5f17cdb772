// Sockets in named namespaces; see NsSocket.h.
#include "NsSocket.h"

#include <Zenet/NamespaceName.h>
#include <Zenet/SocketAt.h>

#include <sys/socket.h>

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
   return Zenet::socketAtHandle(domain, type, protocol, (dir + "/" + netNs).c_str());
}

} // namespace IntfApp
