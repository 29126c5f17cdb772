// intf-agent's structured log messages; see AgentLog.h.
#include "AgentLog.h"

namespace IntfApp {

namespace {

Kel::LogMessage const & message(Kel::LogMessage m) { return Kel::registerLogMessage(std::move(m)); }

} // namespace

Kel::LogMessage const & agentStartedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_STARTED", Kel::LogSeverity::notice, "serving on %s, sampling every %s s, metrics %s",
          "The host interface agent models the kernel's network devices as interfaces and serves "
          "their status and counters.",
          "", 0});
   return m;
}

Kel::LogMessage const & agentStoppingMessage() {
   static auto const & m = message(
         {"INTF_AGENT_STOPPING", Kel::LogSeverity::notice, "stopping on %s",
          "The host interface agent was asked to stop; its readers lose their connection and the "
          "counters stop moving until it runs again.",
          "", 0});
   return m;
}

Kel::LogMessage const & configMountedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_CONFIG_MOUNTED", Kel::LogSeverity::notice, "configuration from %s: %s interfaces configured",
          "The host interface agent reads the interface configuration and applies MTU and "
          "administrative state to the devices.",
          "", 0});
   return m;
}

Kel::LogMessage const & configLostMessage() {
   static auto const & m = message(
         {"INTF_AGENT_CONFIG_LOST", Kel::LogSeverity::warning,
          "lost the configuration server at %s: %s",
          "The connection to the configuration agent closed. The last configuration stays in "
          "force; the agent connects again when the configuration agent is back.",
          "Check that intf-configd is running.", 0});
   return m;
}

Kel::LogMessage const & configWaitingMessage() {
   static auto const & m = message(
         {"INTF_AGENT_CONFIG_WAITING", Kel::LogSeverity::warning,
          "no configuration server at %s yet: %s",
          "The configuration agent cannot be reached; the devices keep their settings until it "
          "can. The agent keeps trying.",
          "Start intf-configd, or give its socket with --config-socket.", 0});
   return m;
}

Kel::LogMessage const & namespaceAddedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_NAMESPACE_ADDED", Kel::LogSeverity::info, "watching the devices of namespace %s",
          "A network namespace appeared; its devices are modelled as interfaces.", "", 0});
   return m;
}

Kel::LogMessage const & namespaceRemovedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_NAMESPACE_REMOVED", Kel::LogSeverity::info,
          "namespace %s is gone with its %s interfaces",
          "A network namespace was removed; the interfaces of its devices are no longer modelled.",
          "", 0});
   return m;
}

Kel::LogMessage const & namespaceUnusableMessage() {
   static auto const & m = message(
         {"INTF_AGENT_NAMESPACE_UNUSABLE", Kel::LogSeverity::warning, "cannot watch namespace %s: %s",
          "The agent could not follow the devices of a network namespace; they are not modelled. "
          "Entering another namespace needs the CAP_SYS_ADMIN capability.",
          "Run the agent with the needed privileges, or ignore if the namespace is not of interest.", 0});
   return m;
}

Kel::LogMessage const & deviceUnmodelledMessage() {
   static auto const & m = message(
         {"INTF_AGENT_DEVICE_UNMODELLED", Kel::LogSeverity::warning,
          "device %s in namespace %s is not modelled: %s",
          "A kernel device has no interface of its own: its interface name is taken or cannot be "
          "formed.",
          "Map the device to a free interface with device= (and netns=) in the configuration file.", 0});
   return m;
}

Kel::LogMessage const & kernelRefusedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_KERNEL_REFUSED", Kel::LogSeverity::error,
          "%s: the kernel refused %s on device %s in namespace %s: %s",
          "The configuration of an interface could not be applied to its device. The agent does "
          "not try the same setting again until it changes.",
          "Check the agent's privileges (changing devices needs CAP_NET_ADMIN) and the device's "
          "limits.",
          0});
   return m;
}

Kel::LogMessage const & linkResyncMessage() {
   static auto const & m = message(
         {"INTF_AGENT_LINK_RESYNC", Kel::LogSeverity::warning,
          "namespace %s: %s; reading all its devices again",
          "The agent may have missed device notifications (the kernel drops them when the agent "
          "falls behind) and reads the whole device list again.",
          "", 10});
   return m;
}

Kel::LogMessage const & linkStatusMessage() {
   static auto const & m = message(
         {"INTF_LINK_STATUS", Kel::LogSeverity::notice,
          "Interface %s (device %s, namespace %s) changed state to %s",
          "The operational status of an interface changed.", "", 0});
   return m;
}

Kel::LogMessage const & mappingReloadedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_MAPPING_RELOADED", Kel::LogSeverity::notice, "device mappings read again from %s",
          "The agent's configuration file changed or SIGHUP asked for it: devices whose explicit "
          "mapping changed are modelled by the new one; a device an interface leaves keeps its "
          "settings.",
          "", 0});
   return m;
}

Kel::LogMessage const & mappingRejectedMessage() {
   static auto const & m = message(
         {"INTF_AGENT_MAPPING_REJECTED", Kel::LogSeverity::error, "%s",
          "The agent's configuration file could not be used for device mappings; the previous "
          "mappings stay.",
          "Correct the named line of the file; it is read again when saved.", 0});
   return m;
}

} // namespace IntfApp
