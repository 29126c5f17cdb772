// Which interface an operator means by a name on the command line: its
// name ("Ethernet4"), the kernel device that carries it ("eth0", or
// "blue/eth0" for a device of namespace blue), or a short form of its name
// as operators type it: any start of the family's name, in any case,
// followed by the numbers ("Et4", "et4", "lo0", "Ma1/1").
#pragma once

#include "ShowFormat.h"

#include <string>
#include <vector>

namespace IntfApp {

// The row the name means, in that order of rules; -1 (and why) when none.
int findInterface(std::vector<IntfView> const & rows, std::string const & name, std::string * why);

} // namespace IntfApp
