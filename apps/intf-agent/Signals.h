// SIGTERM and SIGINT as events of the activity loop, through a signalfd:
// the signals are blocked, so nothing runs in a signal handler.
#pragma once

#include <Kel/Stream.h>

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

 private:
   sigset_t set_;
   int fd_ = -1;
   int stop_ = 0;
};

} // namespace IntfApp
