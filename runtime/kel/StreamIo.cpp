#include "StreamIo.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kel::NboAttrLog {

namespace {

// write() to a descriptor that is not a socket (a pipe), with SIGPIPE held
// back for this thread: a peer that went away must not end the process.
// A SIGPIPE this write raised is taken off again; one already pending
// stays.
ssize_t writeNoSignal(int fd, char const * p, size_t n) {
   sigset_t pipe, old, pending;
   sigemptyset(&pipe);
   sigaddset(&pipe, SIGPIPE);
   sigpending(&pending);
   bool wasPending = sigismember(&pending, SIGPIPE);
   pthread_sigmask(SIG_BLOCK, &pipe, &old);
   ssize_t r = ::write(fd, p, n);
   int err = errno;
   if (r < 0 && err == EPIPE && !wasPending) {
      struct timespec none = {0, 0};
      while (sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
      }
   }
   pthread_sigmask(SIG_SETMASK, &old, nullptr);
   errno = err;
   return r;
}

} // namespace

void setNonBlocking(int fd) {
   int fl = fcntl(fd, F_GETFL, 0);
   if (fl >= 0) fcntl(fd, F_SETFL, fl | O_NONBLOCK);
}

ssize_t sendSome(int fd, char const * p, size_t n) {
   ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
   if (r < 0 && errno == ENOTSOCK) r = writeNoSignal(fd, p, n);
   if (r >= 0) return r;
   if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
   return -1;
}

ssize_t readSome(int fd, std::string & into) {
   char buf[65536];
   ssize_t r = ::read(fd, buf, sizeof buf);
   if (r > 0) {
      into.append(buf, size_t(r));
      return r;
   }
   if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
   return -1;
}

void dropUsed(std::string & buf, size_t & used) {
   if (used == buf.size()) {
      buf.clear();
      used = 0;
   } else if (used > (1u << 20)) {
      buf.erase(0, used);
      used = 0;
   }
}

String8 cut(std::string_view s, size_t max) {
   if (s.size() <= max) return String8(s);
   return String8(s.substr(0, max)) + format("... (%zu bytes)", s.size());
}

} // namespace Kel::NboAttrLog
