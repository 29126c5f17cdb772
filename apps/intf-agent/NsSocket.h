// Sockets inside the network namespaces the agent watches.
#pragma once

#include <string>

namespace IntfApp {

// Where named namespaces are kept by default (the handles the usual tools
// bind-mount), and the only directory Zenet::socketAt knows.
inline constexpr char standardNetNsDir[] = "/run/netns";

// Like socket(2), inside the namespace whose handle is `dir`/`netNs`; the
// default namespace's name ("default") creates it where the agent runs.
// Only the calling thread visits the namespace, and it returns on every
// path. Returns the descriptor, or -1 with errno set.
int socketIn(std::string const & dir, std::string const & netNs, int domain, int type, int protocol);

} // namespace IntfApp
