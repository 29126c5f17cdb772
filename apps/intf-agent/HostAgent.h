// The host interface agent: models the kernel's network devices of the
// default namespace and of every named namespace as interfaces, keeps their
// statuses and counters, and applies the interfaces' configuration (MTU,
// administrative state) to the devices.
//
// Its parts, one concern each: DeviceDiscovery (namespaces and devices as
// the kernel reports them), ServedTree (the served tree and the statuses in
// it), CounterRows (the counter table), ConfigApplier (the configuration
// into the kernel) and AgentMetrics (monitoring scrapes). The agent wires
// them, and maps devices to interfaces by DeviceMap's rule: a device whose
// interface another device holds stays unmodelled (logged once) and is
// tried again whenever a device goes. A status's `active` is whether its
// device is administratively up (IFF_UP): what the device has, whatever
// the configuration asks.
#pragma once

#include "ConfigApplier.h"
#include "ConfigFile.h"
#include "ConfigMount.h"
#include "CounterRows.h"
#include "DeviceDiscovery.h"
#include "DeviceMap.h"
#include "ServedTree.h"

#include <Kel/ActivityLoop.h>
#include <Kel/Dir.h>

#include <string>

namespace IntfApp {

class HostAgent : private DeviceDiscovery::Events {
 public:
   // Opens the counter table as its writer (see CounterRows.h): throws
   // Smash::Error when another writer holds it. `deviceConfig` gives the
   // explicit device mappings; `config` (may be null) the interfaces'
   // configuration.
   HostAgent(Kel::ActivityLoop & loop, std::string netNsDir, ConfigFile const & deviceConfig,
             ConfigMount const * config);
   HostAgent(HostAgent const &) = delete;
   HostAgent & operator=(HostAgent const &) = delete;

   Kel::Dir::Ptr const & root() const { return tree_.root(); }
   // Follows the default namespace and the namespace directory. False (and
   // why) when the default namespace's devices cannot be followed.
   bool start(std::string * why) { return discovery_.start(why); }
   // The interval's work: namespaces that came or went, then a statistics
   // dump of every namespace (the counters are written when it ends).
   void sample() { discovery_.sample(); }
   // Something in the configuration changed: applied by settle().
   void configChanged() { applier_.changed(); }
   // The agent's own configuration file changed: devices whose explicit
   // mapping came, went or moved are modelled again by the new mapping
   // (the device an interface leaves keeps its settings).
   void remap(ConfigFile const & deviceConfig);
   // Run after each round of the loop: catches up with the namespace
   // directory and applies the configuration when either moved.
   void settle();

   // The current statuses and counters in the text exposition format.
   std::string metricsText() const;

 private:
   void deviceFound(HostNamespace & n, HostDevice & d) override;
   void deviceChanged(HostNamespace & n, HostDevice & d, LinkInfo const & was) override;
   void deviceGone(HostNamespace & n, HostDevice & d) override;
   void devicesGone() override;
   void dumpDone(HostNamespace & n, bool anyGone) override;

   // Gives a device its interface, if it may have one.
   void model(HostNamespace & n, HostDevice & d);
   // Takes a device's interface away.
   void unmodel(HostNamespace & n, HostDevice & d);
   // A device refused an interface that another device held may have it now.
   void retryUnmodelled();

   ConfigMount const * config_;
   DeviceMap deviceMap_;
   CounterRows counters_;
   ServedTree tree_;
   ConfigApplier applier_;
   // Last: it goes first, leaving the loop before the rest.
   DeviceDiscovery discovery_;
};

} // namespace IntfApp
