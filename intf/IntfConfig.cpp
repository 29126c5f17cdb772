// Hand-written behaviour of the interface configuration.
#include <Intf/IntfConfig.h>

namespace Interface {

// The attribute log and reflection number these; keep them.
static_assert(IntfConfig::kelId_intfId == 258);
static_assert(IntfConfig::kelId_linkStatusLogging == 262);
static_assert(IntfConfig::kelId_adminEnabledStateLocal == 263);
static_assert(IntfConfig::kelId_enabledDefault == 270);
static_assert(IntfConfig::kelId_loadInterval == 271);
static_assert(IntfConfig::kelId_requestor == 272);
static_assert(IntfConfig::kelId_mtu == 273);

Kel::String8 IntfConfig::prettyName() const {
   Kel::String8 s = intfId_.stringValue();
   if (!description_.empty()) s += " (" + description_ + ")";
   return s;
}

} // namespace Interface
