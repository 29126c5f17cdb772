// SIGTERM and SIGINT (and SIGHUP, for an agent that re-reads its files) as
// events of the activity loop, through a signalfd: the signals are blocked,
// so nothing runs in a signal handler. Also: whether a server already
// listens on a socket path, so that an agent never takes another's socket.
#pragma once

#include <string>

#include <Kel/ActivityLoop.h>

#include <signal.h>

namespace IntfApp {

class Signals : public Kel::ActivityLoop::Source {
 public:
   // With `hangUpReloads`, SIGHUP asks for a reload instead of ending the
   // program (its default action).
   explicit Signals(bool hangUpReloads = false);
   ~Signals() override;
   Signals(Signals const &) = delete;
   Signals & operator=(Signals const &) = delete;

   bool valid() const { return fd_ >= 0; }
   int fd() const override { return fd_; }
   void onReadable() override;
   // The signal that asked the agent to stop, or 0.
   int stop() const { return stop_; }
   // Whether SIGHUP came since the last call.
   bool reloadRequested() {
      bool r = reload_;
      reload_ = false;
      return r;
   }

 private:
   sigset_t set_;
   int fd_ = -1;
   int stop_ = 0;
   bool reload_ = false;
};

// True when a server accepts connections at `path` (another running agent,
// whose socket must not be taken away).
bool someoneListens(std::string const & path);

} // namespace IntfApp
