// Sockets inside network namespaces; see Zenet/SocketAt.h.
#include <Zenet/NamespaceName.h>
#include <Zenet/SocketAt.h>

#include <Kel/Assert.h>
#include <Kel/Exception.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Zenet {

int socketAt(int domain, int type, int protocol, char const * namespaceName) {
   std::string_view ns = namespaceName ? namespaceName : "";
   if (ns.size() > NamespaceName::maxBytes) {
      Kel::throwRangeException("NamespaceName::bytes > 150 not allowed");
   }
   if (ns.empty() || ns == DEFAULT_NS) return ::socket(domain, type, protocol);
   if (ns.find('/') != std::string_view::npos || ns == "." || ns == "..") {
      errno = EINVAL;
      return -1;
   }
   return socketAtHandle(domain, type, protocol, ("/run/netns/" + std::string(ns)).c_str());
}

int socketAtHandle(int domain, int type, int protocol, char const * handlePath) {
   int target = ::open(handlePath, O_RDONLY | O_CLOEXEC);
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
      // A thread left in another namespace would quietly act there from
      // now on: failing to return is not survivable.
      bool back = ::setns(home, CLONE_NEWNET) == 0;
      KEL_ASSERT(back, "SocketAt");
   }
   ::close(target);
   ::close(home);
   errno = err;
   return s;
}

} // namespace Zenet
