// Users and groups of the command line; see PeerOptions.h.
#include "PeerOptions.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>

namespace IntfApp {

namespace {

bool number(std::string const & s, unsigned * v) {
   auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), *v);
   return !s.empty() && ec == std::errc() && p == s.data() + s.size();
}

} // namespace

bool usersOf(std::vector<std::string> const & names, std::vector<uid_t> * uids, std::string * why) {
   for (auto const & n : names) {
      unsigned id;
      if (number(n, &id)) {
         uids->push_back(uid_t(id));
      } else if (passwd const * p = ::getpwnam(n.c_str())) {
         uids->push_back(p->pw_uid);
      } else {
         *why = "no user \"" + n + "\"";
         return false;
      }
   }
   return true;
}

bool groupsOf(std::vector<std::string> const & names, std::vector<gid_t> * gids, std::string * why) {
   for (auto const & n : names) {
      unsigned id;
      if (number(n, &id)) {
         gids->push_back(gid_t(id));
      } else if (group const * g = ::getgrnam(n.c_str())) {
         gids->push_back(g->gr_gid);
      } else {
         *why = "no group \"" + n + "\"";
         return false;
      }
   }
   return true;
}

std::vector<OptionSpec> readerOptions(std::string const & what) {
   return {
      {"--allow-user", "USER",
       "a user who may read " + what + " besides root and this program's own user\n(repeatable)", true},
      {"--allow-group", "GROUP",
       "members of GROUP may read " + what + " too; the socket file then belongs to\nthe first such group, "
       "mode 0660 (repeatable)",
       true},
   };
}

bool readersOf(CommandLine const & cl, Kel::PeerTrust * readers, std::string * why) {
   return usersOf(cl.values("--allow-user"), &readers->uids, why) &&
          groupsOf(cl.values("--allow-group"), &readers->gids, why);
}

} // namespace IntfApp
