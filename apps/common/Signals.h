// The signals of the interface agents as events of the activity loop,
// through a signalfd (the signals are blocked, so nothing runs in a signal
// handler): SIGTERM, SIGINT and SIGQUIT ask the agent to stop (it removes
// its socket file on the way out), SIGHUP to read its files again. SIGUSR1,
// SIGUSR2 and SIGPIPE are ignored, so that a stray one cannot end an agent.
#pragma once

#include <Kel/ActivityLoop.h>

#include <signal.h>

namespace IntfApp {

class Signals : public Kel::ActivityLoop::Source {
 public:
   Signals();
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

} // namespace IntfApp
