// Throwaway network namespaces for tests that need root: made the way the
// usual tools make named ones (a namespace of a thread, bind-mounted on
// /run/netns/<name>), and removed on every path by the destructor.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

class NetNs {
 public:
   explicit NetNs(std::string name) : name_(std::move(name)) {
      path_ = "/run/netns/" + name_;
      ::mkdir("/run", 0755);
      ::mkdir("/run/netns", 0755);
      int fd = ::open(path_.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
      if (fd < 0) {
         error_ = "create " + path_ + ": " + std::strerror(errno);
         return;
      }
      ::close(fd);
      created_ = true;
      // A thread of our own enters a new namespace, which the mount keeps.
      std::thread t([this] {
         if (::unshare(CLONE_NEWNET) != 0) {
            error_ = std::string("unshare: ") + std::strerror(errno);
            return;
         }
         std::string self = "/proc/self/task/" + std::to_string(::syscall(SYS_gettid)) + "/ns/net";
         if (::mount(self.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            error_ = std::string("bind mount: ") + std::strerror(errno);
            return;
         }
         mounted_ = true;
      });
      t.join();
   }
   ~NetNs() {
      if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
      if (created_) ::unlink(path_.c_str());
   }
   NetNs(NetNs const &) = delete;
   NetNs & operator=(NetNs const &) = delete;

   bool ok() const { return mounted_; }
   std::string const & error() const { return error_; }
   std::string const & name() const { return name_; }

 private:
   std::string name_, path_, error_;
   bool created_ = false, mounted_ = false;
};
