// Work handed to the activity loop's thread from other threads (gRPC's):
// post() queues a function and wakes the loop through an eventfd; the loop
// runs what was posted, in order, on its own thread.
#pragma once

#include <Kel/Stream.h>

#include <deque>
#include <functional>
#include <mutex>

namespace Gnmi {

class Inbox : public Kel::ActivityLoop::Source {
 public:
   Inbox();
   ~Inbox() override;
   Inbox(Inbox const &) = delete;
   Inbox & operator=(Inbox const &) = delete;

   bool valid() const { return fd_ >= 0; }
   void post(std::function<void()> fn);
   int fd() const override { return fd_; }
   void onReadable() override;

 private:
   int fd_ = -1;
   std::mutex mu_;
   std::deque<std::function<void()>> work_;
};

} // namespace Gnmi
