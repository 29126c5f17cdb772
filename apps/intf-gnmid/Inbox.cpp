// Work posted to the loop's thread; see Inbox.h.
#include "Inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace Gnmi {

Inbox::Inbox() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Inbox::~Inbox() {
   if (fd_ >= 0) ::close(fd_);
}

void Inbox::post(std::function<void()> fn) {
   {
      std::lock_guard<std::mutex> lock(mu_);
      work_.push_back(std::move(fn));
   }
   uint64_t one = 1;
   (void)!::write(fd_, &one, sizeof one);
}

void Inbox::onReadable() {
   uint64_t n;
   (void)!::read(fd_, &n, sizeof n);
   std::deque<std::function<void()>> work;
   {
      std::lock_guard<std::mutex> lock(mu_);
      work.swap(work_);
   }
   for (auto & fn : work) fn();
}

} // namespace Gnmi
