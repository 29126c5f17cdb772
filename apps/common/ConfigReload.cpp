// The configuration file followed as it changes; see ConfigReload.h.
#include "ConfigReload.h"

#include <sys/stat.h>

namespace IntfApp {

namespace {

// What tells one version of the file from the next.
struct Stamp {
   bool ok = false;
   struct stat st {};
   bool operator==(Stamp const & o) const {
      return ok == o.ok && st.st_ino == o.st.st_ino && st.st_dev == o.st.st_dev && st.st_size == o.st.st_size &&
             st.st_mtim.tv_sec == o.st.st_mtim.tv_sec && st.st_mtim.tv_nsec == o.st.st_mtim.tv_nsec;
   }
};

Stamp stampOf(std::string const & path) {
   Stamp s;
   s.ok = ::stat(path.c_str(), &s.st) == 0;
   return s;
}

} // namespace

ConfigReload::ConfigReload(Kel::ActivityLoop & loop, std::string path, std::function<void(ConfigFile const &)> apply,
                           std::function<void(ConfigError const &)> refuse, Timing timing)
      : loop_(loop), path_(std::move(path)), apply_(std::move(apply)), refuse_(std::move(refuse)), timing_(timing),
        watch_(path_, [this](bool finished) { changed(finished); }) {
   if (watch_.valid()) loop_.add(&watch_);
}

ConfigReload::~ConfigReload() {
   cancel(quietTimer_);
   cancel(suspectTimer_);
   if (watch_.valid()) loop_.remove(&watch_);
}

void ConfigReload::cancel(Kel::ActivityLoop::TimerId & t) {
   if (t) loop_.timerDel(t);
   t = 0;
}

void ConfigReload::changed(bool finished) {
   finished_ = finished;
   cancel(suspectTimer_);
   cancel(quietTimer_);
   quietTimer_ = loop_.timerIs(timing_.quiet, [this] {
      quietTimer_ = 0;
      // A writer still at work closes the file later, which reports again.
      if (finished_) read(false);
   });
}

bool ConfigReload::read(bool emptyConfirmed) {
   Stamp before = stampOf(path_);
   std::string text;
   try {
      text = readConfigText(path_);
   } catch (ConfigError const & e) {
      refuse_(e);
      return false;
   }
   if (!(stampOf(path_) == before)) {
      // Written to while it was read: what was read may be half of it.
      changed(true);
      return false;
   }
   if (text.empty() && !lastEmpty_ && !emptyConfirmed) {
      cancel(suspectTimer_);
      suspectTimer_ = loop_.timerIs(timing_.suspectEmpty, [this] {
         suspectTimer_ = 0;
         read(true);
      });
      return false;
   }
   ConfigFile cfg;
   try {
      cfg = parseConfig(text, path_);
   } catch (ConfigError const & e) {
      refuse_(e);
      return false;
   }
   lastEmpty_ = text.empty();
   apply_(cfg);
   return true;
}

} // namespace IntfApp
