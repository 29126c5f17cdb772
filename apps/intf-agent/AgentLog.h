// The operator-visible events of intf-agent (structured log messages).
// Messages the agent itself limits to one per interface and cause are not
// rate-limited again.
#pragma once

#include <Kel/Log.h>

namespace IntfApp {

Kel::LogMessage const & agentStartedMessage();
Kel::LogMessage const & agentStoppingMessage();
Kel::LogMessage const & configMountedMessage();
Kel::LogMessage const & configLostMessage();
Kel::LogMessage const & configWaitingMessage();
Kel::LogMessage const & namespaceAddedMessage();
Kel::LogMessage const & namespaceRemovedMessage();
Kel::LogMessage const & namespaceUnusableMessage();
Kel::LogMessage const & deviceUnmodelledMessage();
Kel::LogMessage const & kernelRefusedMessage();
Kel::LogMessage const & linkResyncMessage();
Kel::LogMessage const & linkStatusMessage();
Kel::LogMessage const & mappingReloadedMessage();
Kel::LogMessage const & mappingRejectedMessage();

} // namespace IntfApp
