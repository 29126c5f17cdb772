// The host agent's status directory; see HostIntfStatusDir.h.
#include "HostIntfStatusDir.h"

#include <Kel/Dir.h>

namespace IntfApp {

void registerAppTypes() { Kel::registerTypes<Kel::Dir, HostIntfStatusDir>(); }

} // namespace IntfApp
