// The configuration file, followed as it changes. It is read
// - when a change is finished (the file written and closed, renamed into
//   place or removed) and nothing else happened to it for `quiet`: a file
//   still being written is not read half-way;
// - again when it changed while it was read;
// - at once when the owner asks (start, SIGHUP).
// A file that reads empty right after a change, while the last one read
// was not, is suspect (an editor truncates before it writes): it is taken
// as empty only if it still is after `suspectEmpty`. A file that cannot be
// used is reported ("<file>:<line>: <reason>", "cannot be read: <the
// system's reason>") and changes nothing.
#pragma once

#include "ConfigFile.h"
#include "FileWatch.h"

#include <Kel/ActivityLoop.h>

#include <chrono>
#include <functional>
#include <string>

namespace IntfApp {

class ConfigReload {
 public:
   struct Timing {
      std::chrono::milliseconds quiet{100};
      std::chrono::milliseconds suspectEmpty{1000};
   };
   ConfigReload(Kel::ActivityLoop & loop, std::string path, std::function<void(ConfigFile const &)> apply,
                std::function<void(ConfigError const &)> refuse, Timing timing);
   ConfigReload(Kel::ActivityLoop & loop, std::string path, std::function<void(ConfigFile const &)> apply,
                std::function<void(ConfigError const &)> refuse)
         : ConfigReload(loop, std::move(path), std::move(apply), std::move(refuse), Timing()) {}
   ~ConfigReload();
   ConfigReload(ConfigReload const &) = delete;
   ConfigReload & operator=(ConfigReload const &) = delete;

   // False (and why) when the file's directory cannot be watched.
   bool valid() const { return watch_.valid(); }
   std::string const & error() const { return watch_.error(); }
   // Reads the file now; true when it was applied.
   bool load() { return read(false); }

 private:
   void changed(bool finished);
   bool read(bool emptyConfirmed);
   void cancel(Kel::ActivityLoop::TimerId & t);

   Kel::ActivityLoop & loop_;
   std::string path_;
   std::function<void(ConfigFile const &)> apply_;
   std::function<void(ConfigError const &)> refuse_;
   Timing timing_;
   FileWatch watch_;
   bool finished_ = true;       // the last change was finished
   bool lastEmpty_ = true;      // the last file read was empty (or none was)
   Kel::ActivityLoop::TimerId quietTimer_ = 0, suspectTimer_ = 0;
};

} // namespace IntfApp
