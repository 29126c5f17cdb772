// Where the interface agents find each other: the directory of their sockets
// and the configuration agent's socket in it, the same for every program.
#pragma once

#include <string>

namespace IntfApp {

// /run/intf for root; otherwise $XDG_RUNTIME_DIR/intf, or /tmp/intf-<uid>
// when that variable is unset or not an absolute path.
std::string runtimeDir();

// runtimeDir() + "/config.sock": where intf-configd serves the configuration
// tree and where its readers mount it.
std::string defaultConfigSocket();

// Makes `dir` (its parent must exist) unless it is there, private to this
// user unless we are root. Refuses a name that is not a directory owned by
// us: in a shared directory such as /tmp another user could have planted a
// link or a directory of theirs. Returns "" or the reason.
std::string makeRuntimeDir(std::string const & dir);

} // namespace IntfApp
