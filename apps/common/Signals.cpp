// The agents' signals through a signalfd; see Signals.h.
#include "Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace IntfApp {

Signals::Signals() {
   for (int s : {SIGUSR1, SIGUSR2, SIGPIPE}) ::signal(s, SIG_IGN);
   sigemptyset(&set_);
   for (int s : {SIGTERM, SIGINT, SIGQUIT, SIGHUP}) sigaddset(&set_, s);
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

} // namespace IntfApp
