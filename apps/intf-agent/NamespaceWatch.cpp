// The namespace directory's watch; see NamespaceWatch.h.
#include "NamespaceWatch.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#ifndef NSFS_MAGIC
#define NSFS_MAGIC 0x6e736673
#endif

namespace IntfApp {

NamespaceWatch::NamespaceWatch(std::string dir, std::function<void()> changed)
      : dir_(std::move(dir)), changed_(std::move(changed)) {
   fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (fd_ < 0) {
      error_ = std::string("inotify: ") + std::strerror(errno);
      return;
   }
   retry();
}

NamespaceWatch::~NamespaceWatch() {
   if (fd_ >= 0) ::close(fd_);
}

bool NamespaceWatch::retry() {
   if (fd_ < 0) return false;
   if (wd_ >= 0) return true;
   uint32_t mask = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_ATTRIB |
                   IN_DELETE_SELF | IN_MOVE_SELF;
   wd_ = ::inotify_add_watch(fd_, dir_.c_str(), mask);
   if (wd_ < 0) error_ = "cannot watch " + dir_ + ": " + std::strerror(errno);
   return wd_ >= 0;
}

std::map<std::string, NamespaceWatch::Handle> NamespaceWatch::namespaces() const {
   std::map<std::string, Handle> found;
   DIR * d = ::opendir(dir_.c_str());
   if (!d) return found;
   while (dirent * e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      std::string path = dir_ + "/" + name;
      struct statfs fs;
      struct stat st;
      // Only a mounted namespace is one; the bare file before the mount is not.
      if (::statfs(path.c_str(), &fs) != 0 || fs.f_type != NSFS_MAGIC) continue;
      if (::stat(path.c_str(), &st) != 0) continue;
      found[name] = Handle{st.st_dev, st.st_ino};
   }
   ::closedir(d);
   return found;
}

void NamespaceWatch::onReadable() {
   alignas(inotify_event) char buf[8192];
   bool any = false;
   while (true) {
      ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n <= 0) break;
      for (char * p = buf; p + sizeof(inotify_event) <= buf + n;) {
         auto * e = reinterpret_cast<inotify_event *>(p);
         size_t step = sizeof(inotify_event) + e->len;
         if (p + step > buf + n) break;
         // The directory itself went (or moved): watch again when it is back.
         if (e->wd == wd_ && (e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF))) {
            if (!(e->mask & IN_IGNORED)) ::inotify_rm_watch(fd_, wd_);
            wd_ = -1;
         }
         any = true;
         p += step;
      }
   }
   if (any) changed_();
}

} // namespace IntfApp
