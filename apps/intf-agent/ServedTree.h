// The tree the host agent serves, and the status of each modelled device
// in it. The root is a Kel::Dir; other programs rely on these names:
//
//   interface/status/eth/intf   Interface::AgentIntfStatusDir: an
//                               Interface::IntfStatus per modelled device
//                               (deviceName, mtu, maxMtu when the kernel
//                               knows it, operStatus and operStatusChange)
//   interface/status/local      Interface::AllIntfStatusLocalDir: the
//                               namespace of each interface's device
//   interface/status/kernel     Interface::KernelIntfStatusDir by device
//                               name: "<device>" in the default namespace,
//                               "<netns>/<device>" in a named one (a device
//                               name never holds '/')
//   interface/status/device     Interface::DeviceIntfStatusDir by
//                               interface and by ifindex, for the devices of
//                               the default namespace only (an ifindex is
//                               unique only within its namespace)
//   interface/counter/eth/intf  Interface::SmashIntfCounterDirDir over the
//                               agent's counter table (CounterRows.h), one
//                               row per interface
//   interface/counter/eth/snapshot
//                               Smash::Interface::AllIntfCounterSnapshotDir
//                               over the table of cleared counters'
//                               baselines (CounterClear.h)
//
// so a reader that mounts the tree finds an interface's live counters with
// status->counter() (the general look-up goes three levels up from the
// status directory and down counter/eth/intf).
//
// Operational status is up when the device is running (IFF_RUNNING or
// IFF_LOWER_UP), down otherwise; the status a device is found with counts
// as no change, every later one updates operStatusChange (wall-clock time,
// count) and is logged unless the interface's link status logging is off.
#pragma once

#include "ConfigMount.h"
#include "HostDevice.h"

#include <Intf/IntfStatusDir.h>
#include <Intf/SmashIntf.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Dir.h>

namespace IntfApp {

class ServedTree {
 public:
   // `counters` is the table the counter directory reads, `snapshots` the
   // baselines of clears; `config` (may be null) says whether link status
   // changes are logged.
   ServedTree(Kel::Ptr<Smash::Interface::AllIntfCounterDir> counters,
              Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir> snapshots, ConfigMount const * config);
   ServedTree(ServedTree const &) = delete;
   ServedTree & operator=(ServedTree const &) = delete;

   Kel::Dir::Ptr const & root() const { return root_; }
   // Makes the status of a device that has just been given its interface
   // (d.intf) and files it in every directory.
   void add(HostNamespace const & n, HostDevice & d);
   // Follows what the kernel said of a modelled device; `was` is what it
   // said before.
   void update(HostNamespace const & n, HostDevice & d, LinkInfo const & was);
   // Takes a modelled device's status out of every directory.
   void remove(HostNamespace const & n, HostDevice const & d);

 private:
   void kernelState(HostNamespace const & n, HostDevice & d, bool first);
   void fileByDevice(HostNamespace const & n, HostDevice const & d);
   bool linkStatusLogging(Zenet::IntfId id) const;

   ConfigMount const * config_;
   Kel::Dir::Ptr root_;
   Kel::Ptr<Interface::AgentIntfStatusDir> statusDir_;
   Kel::Ptr<Interface::AllIntfStatusLocalDir> localDir_;
   Kel::Ptr<Interface::KernelIntfStatusDir> kernelDir_;
   Kel::Ptr<Interface::DeviceIntfStatusDir> deviceDir_;
   Kel::Ptr<Interface::SmashIntfCounterDirDir> counterDir_;
};

} // namespace IntfApp
