#include <Kel/ActivityLoop.h>
#include <Kel/String8.h>
#include <Kel/Trace.h>

#include <poll.h>

#include <algorithm>

namespace Kel {

namespace {

// The loop's own failures are traced with the connections it mostly runs.
TraceFacility trace("Kel::NboAttrLog");

} // namespace

void ActivityLoop::add(Source * s) { sources_.push_back(s); }

void ActivityLoop::remove(Source * s) {
   auto it = std::find(sources_.begin(), sources_.end(), s);
   if (it == sources_.end()) return;
   sources_.erase(it);
   removed_.push_back(s);
}

ActivityLoop::TimerId ActivityLoop::timerIs(std::chrono::nanoseconds delay, std::function<void()> fn,
                                            std::chrono::nanoseconds period) {
   TimerId id = nextTimer_++;
   timers_.emplace(id, Timer{std::chrono::steady_clock::now() + delay, period, std::move(fn)});
   return id;
}

void ActivityLoop::timerDel(TimerId id) { timers_.erase(id); }

int ActivityLoop::waitMs(int timeoutMs) const {
   if (timers_.empty()) return timeoutMs;
   auto now = std::chrono::steady_clock::now();
   auto next = timers_.begin()->second.due;
   for (auto const & [id, t] : timers_) next = std::min(next, t.due);
   if (next <= now) return 0;
   auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
   return timeoutMs < 0 || ms < timeoutMs ? int(ms) : timeoutMs;
}

int ActivityLoop::runTimers() {
   if (timers_.empty()) return 0;
   auto now = std::chrono::steady_clock::now();
   // Due timers in order of due time; each is looked up again before it
   // runs, since an earlier callback may have cancelled it.
   std::vector<std::pair<std::chrono::steady_clock::time_point, TimerId>> due;
   for (auto const & [id, t] : timers_) {
      if (t.due <= now) due.emplace_back(t.due, id);
   }
   std::sort(due.begin(), due.end());
   for (auto const & [when, id] : due) {
      auto it = timers_.find(id);
      if (it == timers_.end()) continue;
      std::function<void()> fn = it->second.fn;
      if (it->second.period.count() > 0) {
         auto & t = it->second;
         do {
            t.due += t.period;
         } while (t.due <= now);
      } else {
         timers_.erase(it);
      }
      fn();
   }
   return int(due.size());
}

int ActivityLoop::runOnce(int timeoutMs) {
   removed_.clear();
   std::vector<pollfd> fds;
   std::vector<Source *> srcs;
   for (Source * s : sources_) {
      if (s->finished()) continue;
      short ev = POLLIN;
      if (s->wantWrite()) ev |= POLLOUT;
      fds.push_back(pollfd{s->fd(), ev, 0});
      srcs.push_back(s);
   }
   bool anyFinished = srcs.size() != sources_.size();
   int n = ::poll(fds.data(), fds.size(), anyFinished ? 0 : waitMs(timeoutMs));
   auto gone = [&](Source * s) {
      return std::find(removed_.begin(), removed_.end(), s) != removed_.end();
   };
   int handled = 0;
   for (size_t i = 0; n > 0 && i < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      ++handled;
      Source * s = srcs[i];
      if (gone(s) || s->finished()) continue;
      if (fds[i].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) s->onReadable();
      if (!gone(s) && !s->finished() && (fds[i].revents & POLLNVAL)) {
         // A descriptor closed under its source would come back from every
         // poll at once: a source that did not finish on it leaves the loop.
         KEL_TRACE(trace, 0, format("descriptor %d is not open: its source leaves the loop", fds[i].fd));
         remove(s);
         continue;
      }
      if (!gone(s) && !s->finished() && (fds[i].revents & POLLOUT)) s->onWritable();
   }
   for (Source * s : srcs) {
      if (!gone(s) && !s->finished()) s->onRoundEnd();
   }
   // Finished sources leave the loop, then hear it; they may delete themselves.
   std::vector<Source *> finished;
   for (Source * s : sources_) {
      if (s->finished()) finished.push_back(s);
   }
   for (Source * s : finished) {
      remove(s);
      s->onDropped();
   }
   return handled + runTimers();
}

} // namespace Kel
