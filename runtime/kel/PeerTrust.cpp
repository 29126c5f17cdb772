// Peers' credentials and trust; see Kel/PeerTrust.h.
#include <Kel/Log.h>
#include <Kel/PeerTrust.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Kel {

PeerCredentials peerCredentials(int fd) {
   PeerCredentials p;
   ucred c{0, uid_t(-1), gid_t(-1)};
   socklen_t len = sizeof c;
   ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &c, &len);
   p.pid = c.pid;
   p.uid = c.uid;
   p.gid = c.gid;
#ifdef SO_PEERGROUPS
   gid_t groups[64];
   socklen_t glen = sizeof groups;
   if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &glen) == 0) {
      p.groups.assign(groups, groups + glen / sizeof(gid_t));
   } else if (errno == ERANGE) {
      // More groups than fit: ask again with the size the kernel said.
      p.groups.resize(glen / sizeof(gid_t));
      if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, p.groups.data(), &glen) != 0) glen = 0;
      p.groups.resize(glen / sizeof(gid_t));
   }
#endif
   return p;
}

bool PeerTrust::admits(PeerCredentials const & p) const {
   if (anyone || p.uid == 0 || p.uid == ::geteuid()) return true;
   if (std::find(uids.begin(), uids.end(), p.uid) != uids.end()) return true;
   for (gid_t g : gids) {
      if (p.gid == g || std::find(p.groups.begin(), p.groups.end(), g) != p.groups.end()) return true;
   }
   return false;
}

std::string PeerTrust::refusal(PeerCredentials const & p) const {
   std::string why = "uid " + std::to_string(p.uid) + " is not root";
   if (::geteuid() != 0) why += ", not uid " + std::to_string(::geteuid());
   if (!uids.empty()) why += ", not an allowed user";
   if (!gids.empty()) why += ", not in an allowed group";
   return why;
}

mode_t PeerTrust::socketMode() const {
   if (anyone || !uids.empty()) return 0666;
   if (!gids.empty()) return 0660;
   return 0600;
}

namespace {

LogMessage const & peerRefusedMessage() {
   static auto const & m = registerLogMessage(
         {"KEL_PEER_REFUSED", LogSeverity::warning, "%s: refused peer uid %s gid %s pid %s: %s",
          "A local process connected that is not trusted: it is not root, not this process's "
          "user and not among the users or groups allowed. Its connection was closed. Each "
          "peer process is reported once.",
          "If the peer should be trusted, allow its user or group in the agent's options; "
          "otherwise find out why it connects.",
          10, 10});
   return m;
}

} // namespace

void PeerRefusals::refused(std::string const & where, PeerCredentials const & p, std::string const & why) {
   if (!seen_.emplace(p.uid, p.pid).second) return;
   // Bounded: a crowd of new peers is held back by the log's rate limit instead.
   if (seen_.size() > maxRemembered) {
      seen_.clear();
      seen_.emplace(p.uid, p.pid);
   }
   logEvent(peerRefusedMessage(), where, uint64_t(p.uid), uint64_t(p.gid), int64_t(p.pid), why);
}

} // namespace Kel
