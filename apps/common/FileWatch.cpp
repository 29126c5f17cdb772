// inotify watch of one file's directory; see FileWatch.h.
#include "FileWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace IntfApp {

FileWatch::FileWatch(std::string const & path, std::function<void(bool)> changed)
      : changed_(std::move(changed)) {
   size_t slash = path.rfind('/');
   std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
   name_ = slash == std::string::npos ? path : path.substr(slash + 1);
   fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (fd_ < 0) {
      error_ = std::string("inotify: ") + std::strerror(errno);
      return;
   }
   uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MODIFY;
   if (::inotify_add_watch(fd_, dir.c_str(), mask) < 0) {
      error_ = "cannot watch " + dir + ": " + std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
   }
}

FileWatch::~FileWatch() {
   if (fd_ >= 0) ::close(fd_);
}

void FileWatch::onReadable() {
   alignas(inotify_event) char buf[8192];
   bool ours = false, finished = false;
   while (true) {
      ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n <= 0) break;
      for (char * p = buf; p + sizeof(inotify_event) <= buf + n;) {
         auto * e = reinterpret_cast<inotify_event *>(p);
         size_t step = sizeof(inotify_event) + e->len;
         if (p + step > buf + n) break;
         if (e->len && name_ == e->name) {
            ours = true;
            // Created or written to: its writer has not closed it yet.
            finished = !(e->mask & (IN_CREATE | IN_MODIFY));
         }
         p += step;
      }
   }
   if (ours) changed_(finished);
}

} // namespace IntfApp
