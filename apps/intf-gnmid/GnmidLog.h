// The operator-visible events of intf-gnmid (structured log messages).
#pragma once

#include <Kel/Log.h>

namespace Gnmi {

Kel::LogMessage const & gnmidStartedMessage();
Kel::LogMessage const & gnmidStoppingMessage();
Kel::LogMessage const & clientTooSlowMessage();

} // namespace Gnmi
