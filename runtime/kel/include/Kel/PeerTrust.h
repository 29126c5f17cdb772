// Who is at the other end of a local connection, and whether to deal with
// them. The kernel tells a Unix-domain socket's peer (SO_PEERCRED: the
// process, user and group that connected, or that listened;
// SO_PEERGROUPS: its supplementary groups); a server decides who may mount
// what it serves, a client which servers it takes data from. Root and the
// process's own user are always trusted; anyone else only when named.
#pragma once

#include <Kel/String8.h>

#include <sys/types.h>

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Kel {

struct PeerCredentials {
   pid_t pid = 0;
   uid_t uid = uid_t(-1);
   gid_t gid = gid_t(-1);
   std::vector<gid_t> groups;  // supplementary groups, where the kernel tells them
};

// The credentials of the peer of the connected Unix-domain socket `fd`
// (pid 0 and uid -1, whom only `anyone` admits, should the kernel not give
// them).
PeerCredentials peerCredentials(int fd);

struct PeerTrust {
   // Besides root and this process's user: these users, members of these
   // groups (primary or supplementary), or anyone at all.
   std::vector<uid_t> uids;
   std::vector<gid_t> gids;
   bool anyone = false;

   bool admits(PeerCredentials const & p) const;
   // Why `p` is not admitted, for the log and the peer.
   std::string refusal(PeerCredentials const & p) const;
   // The mode and group a socket file gets so that the file system lets in
   // whom this admits, and nobody else where it can: 0600 for root and the
   // own user, 0660 with the first group's ownership for groups, 0666 when
   // other users or anyone are admitted (their credentials are checked
   // after they connect).
   mode_t socketMode() const;
   gid_t socketGroup() const { return gids.empty() ? gid_t(-1) : gids.front(); }
};

// Logs a refused peer (the structured message KEL_PEER_REFUSED, with the
// peer's uid, gid and pid), once per peer: a peer that connects again and
// again is told of once, and the log's rate limit bounds a crowd of them.
class PeerRefusals {
 public:
   // `where` says who refuses ("server on /run/intf/agent.sock").
   void refused(std::string const & where, PeerCredentials const & p, std::string const & why);
   size_t remembered() const { return seen_.size(); }

 private:
   static constexpr size_t maxRemembered = 1024;
   std::set<std::pair<uid_t, pid_t>> seen_;
};

} // namespace Kel
