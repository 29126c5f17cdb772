// Tells when a file is written or replaced, through inotify on its
// directory (editors and configuration tools often write a new file and
// rename it over the old one, which a watch on the file itself would miss),
// and whether the last change is finished: written and closed, renamed
// into place or removed, as opposed to created or written to by a writer
// that has not closed it yet. One source of the agent's activity loop.
#pragma once

#include <Kel/ActivityLoop.h>

#include <functional>
#include <string>

namespace IntfApp {

class FileWatch : public Kel::ActivityLoop::Source {
 public:
   // `changed` runs once per batch of events that concern the file, saying
   // whether the last of them finished a change.
   FileWatch(std::string const & path, std::function<void(bool finished)> changed);
   ~FileWatch() override;
   FileWatch(FileWatch const &) = delete;
   FileWatch & operator=(FileWatch const &) = delete;

   bool valid() const { return fd_ >= 0; }
   std::string const & error() const { return error_; }
   int fd() const override { return fd_; }
   void onReadable() override;

 private:
   int fd_ = -1;
   std::string name_;
   std::string error_;
   std::function<void(bool)> changed_;
};

} // namespace IntfApp
