// intf-gnmid's structured log messages; see GnmidLog.h.
#include "GnmidLog.h"

namespace Gnmi {

namespace {

Kel::LogMessage const & message(Kel::LogMessage m) { return Kel::registerLogMessage(std::move(m)); }

} // namespace

Kel::LogMessage const & gnmidStartedMessage() {
   static auto const & m = message(
       {"INTF_GNMI_STARTED", Kel::LogSeverity::notice, "serving gNMI on %s (%s), model from %s",
        "The telemetry server answers gNMI collectors with the interfaces the host agent models.", "", 0});
   return m;
}

Kel::LogMessage const & gnmidStoppingMessage() {
   static auto const & m = message(
       {"INTF_GNMI_STOPPING", Kel::LogSeverity::notice, "stopping on %s",
        "The telemetry server was asked to stop; its collectors' streams end.", "", 0});
   return m;
}

Kel::LogMessage const & clientTooSlowMessage() {
   static auto const & m = message(
       {"INTF_GNMI_CLIENT_TOO_SLOW", Kel::LogSeverity::warning,
        "collector %s stopped reading: its stream is ended after %s bytes waited",
        "A collector did not take its updates; what one collector may hold is bounded, so its "
        "subscription was ended with RESOURCE_EXHAUSTED.",
        "Check the collector's health and network path; it may subscribe again.", 0});
   return m;
}

} // namespace Gnmi
