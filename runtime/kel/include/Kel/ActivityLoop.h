// The activity loop: one poll() loop over file descriptors, with timers on
// the monotonic clock. Connections, servers, agents' own sources and timers
// all run on it.
#pragma once

#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace Kel {

class ActivityLoop {
 public:
   class Source {
    public:
      virtual ~Source() = default;
      virtual int fd() const = 0;
      virtual bool wantWrite() const { return false; }
      virtual void onReadable() {}
      virtual void onWritable() {}
      // Called once per round after events: a chance to send what piled up.
      virtual void onRoundEnd() {}
      // A finished source (a closed connection) is no longer polled; at the
      // end of the round the loop drops it and then calls onDropped, which
      // may delete the source.
      virtual bool finished() const { return false; }
      virtual void onDropped() {}
   };
   void add(Source * s);
   // Stops polling `s`; safe from inside a callback of any source, also of
   // `s` itself, which may then be deleted.
   void remove(Source * s);
   // Waits up to timeoutMs (or the next timer) for activity and handles it,
   // then runs the timers that are due. Returns the number of sources that
   // had events plus the timers that ran.
   int runOnce(int timeoutMs);
   // Runs rounds until `done()` or the time runs out; true when done.
   template <class Pred>
   bool runUntil(Pred done, int timeoutMs);
   size_t sources() const { return sources_.size(); }

   // Timers on the monotonic clock, run by runOnce when due (a round waits
   // no longer than the next timer). A periodic timer is due every `period`
   // after its first time, not `period` after its callback ran, so it does
   // not drift; rounds it missed are skipped, not run in a burst. A callback
   // may add or cancel timers, its own included.
   using TimerId = uint64_t;
   TimerId timerIs(std::chrono::nanoseconds delay, std::function<void()> fn,
                   std::chrono::nanoseconds period = std::chrono::nanoseconds(0));
   void timerDel(TimerId id);
   size_t timers() const { return timers_.size(); }

 private:
   struct Timer {
      std::chrono::steady_clock::time_point due;
      std::chrono::nanoseconds period;
      std::function<void()> fn;
   };
   int runTimers();
   int waitMs(int timeoutMs) const;
   std::vector<Source *> sources_;
   std::map<TimerId, Timer> timers_;
   TimerId nextTimer_ = 1;
   // Removed during the current round: skipped for the rest of it.
   std::vector<Source *> removed_;
};

template <class Pred>
bool ActivityLoop::runUntil(Pred done, int timeoutMs) {
   // Deadline on a monotonic clock, checked between rounds.
   struct timespec start;
   clock_gettime(CLOCK_MONOTONIC, &start);
   for (;;) {
      if (done()) return true;
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
      if (elapsed >= timeoutMs) return done();
      runOnce(int(timeoutMs - elapsed) < 10 ? int(timeoutMs - elapsed) : 10);
   }
}

} // namespace Kel
