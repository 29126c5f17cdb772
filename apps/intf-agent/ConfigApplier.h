// The interfaces' configuration (mounted from intf-configd, see
// ConfigMount.h) applied to their devices, and only what it sets: an
// interface whose configuration sets an MTU (setsMtu in ConfigApply.h)
// gets it (clipped to the device's maximum when the kernel reports one,
// by the model's MTU rule), one whose administrative state is set is put
// up or down. A device whose setting is not configured keeps what it has,
// whoever set it. The device's namespace is where the device is found. A
// kernel refusal is logged once per interface and setting and not retried
// until the setting or the device changes.
#pragma once

#include "ConfigMount.h"
#include "HostDevice.h"

#include <Intf/IntfConfig.h>

namespace IntfApp {

class ConfigApplier {
 public:
   // `config` null: nothing is applied.
   explicit ConfigApplier(ConfigMount const * config) : config_(config) {}

   // Something in the configuration changed.
   void changed() { dirty_ = true; }
   // The kernel told of a modelled device (`was`: what it said before, null
   // for a device just modelled): what it now has is no longer pending, and
   // a new device, name, flags or MTU is a reason to apply again.
   void heard(HostDevice & d, LinkInfo const * was);
   // Applies the configuration to every modelled device if anything changed
   // since the last time.
   void apply(HostNamespaces & namespaces);

 private:
   void applyAdmin(HostNamespace & n, HostDevice & d, Interface::IntfConfig const & cfg);
   void applyMtu(HostNamespace & n, HostDevice & d, Interface::IntfConfig const & cfg);

   ConfigMount const * config_;
   bool dirty_ = true;
};

} // namespace IntfApp
