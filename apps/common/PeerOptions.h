// Users and groups named on an agent's command line (--allow-user,
// --allow-group, --config-user): names as in the system's user and group
// databases, or numbers.
#pragma once

#include "CommandLine.h"

#include <Kel/PeerTrust.h>

#include <string>
#include <vector>

namespace IntfApp {

// Adds each user to `uids`; false (and why) at the first unknown one.
bool usersOf(std::vector<std::string> const & names, std::vector<uid_t> * uids, std::string * why);
bool groupsOf(std::vector<std::string> const & names, std::vector<gid_t> * gids, std::string * why);

// The options of a served tree's readers (--allow-user, --allow-group),
// for a program's option list, and what they admit.
std::vector<OptionSpec> readerOptions(std::string const & what);
bool readersOf(CommandLine const & cl, Kel::PeerTrust * readers, std::string * why);

} // namespace IntfApp
