// Users and groups of the command line; see PeerOptions.h.
#include "PeerOptions.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <optional>

namespace IntfApp {

namespace {

// Each name as a number, or looked up in its database by `find`.
template <class Id, class Find>
bool idsOf(std::vector<std::string> const & names, std::vector<Id> * ids, Find find, char const * kind,
           std::string * why) {
   for (auto const & n : names) {
      unsigned id;
      auto [p, ec] = std::from_chars(n.data(), n.data() + n.size(), id);
      if (!n.empty() && ec == std::errc() && p == n.data() + n.size()) {
         ids->push_back(Id(id));
      } else if (std::optional<Id> found = find(n)) {
         ids->push_back(*found);
      } else {
         *why = std::string("no ") + kind + " \"" + n + "\"";
         return false;
      }
   }
   return true;
}

} // namespace

bool usersOf(std::vector<std::string> const & names, std::vector<uid_t> * uids, std::string * why) {
   auto find = [](std::string const & n) -> std::optional<uid_t> {
      passwd const * p = ::getpwnam(n.c_str());
      return p ? std::optional<uid_t>(p->pw_uid) : std::nullopt;
   };
   return idsOf(names, uids, find, "user", why);
}

bool groupsOf(std::vector<std::string> const & names, std::vector<gid_t> * gids, std::string * why) {
   auto find = [](std::string const & n) -> std::optional<gid_t> {
      group const * g = ::getgrnam(n.c_str());
      return g ? std::optional<gid_t>(g->gr_gid) : std::nullopt;
   };
   return idsOf(names, gids, find, "group", why);
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
