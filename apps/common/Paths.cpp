// The agents' runtime directory; see Paths.h.
#include "Paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace IntfApp {

std::string runtimeDir() {
   if (::geteuid() == 0) return "/run/intf";
   char const * xdg = std::getenv("XDG_RUNTIME_DIR");
   if (xdg && xdg[0] == '/') return std::string(xdg) + "/intf";
   return "/tmp/intf-" + std::to_string(::geteuid());
}

std::string defaultConfigSocket() { return runtimeDir() + "/config.sock"; }

std::string agentSocketPath() { return runtimeDir() + "/agent.sock"; }

std::string makeRuntimeDir(std::string const & dir) {
   mode_t mode = ::geteuid() == 0 ? 0755 : 0700;
   if (::mkdir(dir.c_str(), mode) != 0 && errno != EEXIST) {
      return "cannot make " + dir + ": " + std::strerror(errno);
   }
   struct stat st;
   if (::lstat(dir.c_str(), &st) != 0) return "cannot examine " + dir + ": " + std::strerror(errno);
   if (!S_ISDIR(st.st_mode)) return dir + " is not a directory";
   if (st.st_uid != ::geteuid()) return dir + " belongs to another user (uid " + std::to_string(st.st_uid) + ")";
   return "";
}

} // namespace IntfApp
