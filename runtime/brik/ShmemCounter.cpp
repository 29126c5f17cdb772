// The trace facility of the cell code.
#include <Brik/ShmemCounter.h>

namespace Brik {

Kel::TraceFacility & shmemTrace() {
   static Kel::TraceFacility t("Brik::ShmemCounter");
   return t;
}

} // namespace Brik
