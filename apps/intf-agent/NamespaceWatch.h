// The directory of named network namespaces (one handle file per
// namespace, /run/netns by default): tells when entries appear or go, and
// lists the namespaces that can be entered now.
//
// A tool makes a namespace in two steps, an empty file and then a bind
// mount of the namespace on it; only the second makes it a namespace, and
// mounts raise no inotify event. So the owner lists the directory again on
// every event and on its own timer, and an entry counts only once it is a
// namespace handle. The directory may be missing at first (nothing made it
// yet): watching starts when it appears (retry()).
#pragma once

#include <Kel/ActivityLoop.h>

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>

namespace IntfApp {

class NamespaceWatch : public Kel::ActivityLoop::Source {
 public:
   // `changed` runs once per batch of events in the directory.
   NamespaceWatch(std::string dir, std::function<void()> changed);
   ~NamespaceWatch() override;
   NamespaceWatch(NamespaceWatch const &) = delete;
   NamespaceWatch & operator=(NamespaceWatch const &) = delete;

   bool valid() const { return fd_ >= 0; }
   std::string const & error() const { return error_; }
   std::string const & dir() const { return dir_; }
   // True when the directory is watched; else tries to watch it again.
   bool retry();
   bool watching() const { return wd_ >= 0; }

   // A namespace handle: the identity of the namespace behind the name, so
   // that a name re-used for a new namespace is told apart.
   struct Handle {
      dev_t dev = 0;
      ino_t ino = 0;
      friend bool operator==(Handle const &, Handle const &) = default;
   };
   // The entries of the directory that are namespace handles now, by name.
   std::map<std::string, Handle> namespaces() const;

   int fd() const override { return fd_; }
   void onReadable() override;

 private:
   std::string dir_;
   std::function<void()> changed_;
   int fd_ = -1;
   int wd_ = -1;
   std::string error_;
};

} // namespace IntfApp
