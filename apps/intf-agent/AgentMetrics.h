// What the host agent answers monitoring scrapes with: the modelled
// interfaces' statuses and counters in the text exposition format, and the
// configured interfaces that no device carries (present 0), so that an
// interface does not vanish from monitoring when its device does. Only
// what the kernel measures is exported: packets in and out in all, and
// multicast received (the kernel tells unicast from broadcast in neither
// direction, nor multicast sent).
#pragma once

#include "ConfigMount.h"
#include "HostDevice.h"

#include <Intf/SmashIntf.h>

#include <string>

namespace IntfApp {

// `config` (may be null) names the configured interfaces; `snapshots` (may
// be null) holds the times of clears. Counters stay absolute: a clear
// only adds its time.
std::string metricsText(HostNamespaces const & namespaces, ConfigMount const * config,
                        Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const> const & snapshots = nullptr);

} // namespace IntfApp
