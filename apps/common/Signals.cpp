// Stop and reload signals through a signalfd; see Signals.h.
#include "Signals.h"

#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace IntfApp {

Signals::Signals(bool hangUpReloads) {
   sigemptyset(&set_);
   sigaddset(&set_, SIGTERM);
   sigaddset(&set_, SIGINT);
   if (hangUpReloads) sigaddset(&set_, SIGHUP);
   if (::sigprocmask(SIG_BLOCK, &set_, nullptr) == 0) fd_ = ::signalfd(-1, &set_, SFD_NONBLOCK | SFD_CLOEXEC);
}

Signals::~Signals() {
   if (fd_ >= 0) ::close(fd_);
   ::sigprocmask(SIG_UNBLOCK, &set_, nullptr);
}

void Signals::onReadable() {
   signalfd_siginfo si;
   while (::read(fd_, &si, sizeof si) == ssize_t(sizeof si)) {
      if (si.ssi_signo == SIGHUP) {
         reload_ = true;
      } else {
         stop_ = int(si.ssi_signo);
      }
   }
}

bool someoneListens(std::string const & path) {
   if (path.empty() || path[0] == '@') return false;  // binding an abstract name in use fails anyway
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   if (path.size() >= sizeof a.sun_path) return false;
   std::memcpy(a.sun_path, path.data(), path.size());
   int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return false;
   bool yes = ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
   ::close(fd);
   return yes;
}

} // namespace IntfApp
