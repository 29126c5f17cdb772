// Where the interface agents find each other: the directory of their sockets,
// the configuration agent's and the host agent's sockets in it, and the
// shared-memory counter table of the host agent, the same for every program.
#pragma once

#include <string>

namespace IntfApp {

// /run/intf for root; otherwise $XDG_RUNTIME_DIR/intf, or /tmp/intf-<uid>
// when that variable is unset or not an absolute path.
std::string runtimeDir();

// runtimeDir() + "/config.sock": where intf-configd serves the configuration
// tree and where its readers mount it.
std::string defaultConfigSocket();

// runtimeDir() + "/agent.sock": where intf-agent serves its status and
// counter tree.
std::string agentSocketPath();

// The mount path of intf-agent's counter table (Smash::Interface::
// AllIntfCounterDir, one row per interface), under the process's
// shared-memory prefix (Smash::shmPrefixIs).
inline constexpr char agentCounterTablePath[] = "interface/counter/eth/intf";
// The mount path of intf-agent's table of cleared counters' baselines
// (Smash::Interface::AllIntfCounterSnapshotDir; see CounterClear.h).
inline constexpr char agentSnapshotTablePath[] = "interface/counter/eth/snapshot";

// Makes `dir` (its parent must exist) unless it is there, private to this
// user unless we are root. Refuses a name that is not a directory owned by
// us: in a shared directory such as /tmp another user could have planted a
// link or a directory of theirs. Returns "" or the reason.
std::string makeRuntimeDir(std::string const & dir);

} // namespace IntfApp
