// Which interface of the model a kernel network device is. The rule, in
// order:
//   1. The configuration file maps a device explicitly: an interface line
//      with device=<name> (and netns=<namespace>, the default namespace
//      when left out) is that device.
//   2. In the default namespace: the loopback device is Loopback0; an
//      ordinary device with interface index i is Ethernet<i>; a VLAN device
//      over a parent that is an Ethernet interface E is the sub-interface
//      E.<vlan id>, and over anything else the VLAN interface Vlan<vlan id>.
//   3. In a named namespace, which gets a number k from 1 to 100000 taken
//      from a hash of its name (the next free number when two names meet):
//      the loopback device is Loopback<k>, an ordinary device Ethernet<k>/<i>,
//      a VLAN device over a mapped Ethernet parent E is E.<vlan id>, over
//      anything else Ethernet<k>/<i>.
// A device whose identifier is already taken (by an explicit mapping or
// another device) is not modelled; whoever asks is told why.
#pragma once

#include "ConfigFile.h"

#include <Zenet/IntfId.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace IntfApp {

struct KernelDevice {
   enum class Kind { ordinary, loopback, vlan };
   std::string netNs = "default";
   std::string name;
   int ifindex = 0;
   Kind kind = Kind::ordinary;
   uint16_t vlanId = 0;     // vlan devices
   int parentIfindex = 0;   // vlan devices: the parent, in the same namespace
};

class DeviceMap {
 public:
   // Explicit mappings come from the configuration; they may be replaced
   // on reload with configure(), which says what changed: the devices
   // ((namespace, name)) and interfaces whose explicit mapping came, went
   // or moved. Devices already assigned keep their interface until they
   // are released; an owner that follows a reload releases those that
   // changed and assigns them again.
   struct Changes {
      std::set<std::pair<std::string, std::string>> devices;
      std::set<uint64_t> intfs;
      bool touches(std::string const & netNs, std::string const & device, Zenet::IntfId id) const;
   };
   explicit DeviceMap(ConfigFile const & cfg = {});
   Changes configure(ConfigFile const & cfg);

   // The interface for a device that appeared; null (and `why`) when it is
   // not modelled. Asking again for a known device gives the same answer.
   Zenet::IntfId assign(KernelDevice const & dev, std::string * why = nullptr);
   // The device went away; its identifier is free again.
   void release(std::string const & netNs, int ifindex);
   // The interface assigned to a device, or null.
   Zenet::IntfId intfOf(std::string const & netNs, int ifindex) const;
   // The number of a named namespace (0 for the default namespace).
   uint32_t namespaceNumber(std::string const & netNs);

 private:
   Zenet::IntfId automatic(KernelDevice const & dev);

   std::map<std::pair<std::string, std::string>, Zenet::IntfId> explicit_;  // (ns, device)
   std::map<std::pair<std::string, int>, Zenet::IntfId> assigned_;         // (ns, ifindex)
   std::map<uint64_t, std::pair<std::string, int>> owner_;                 // intfId -> device
   std::map<std::string, uint32_t> nsNumber_;
   std::map<uint32_t, std::string> nsOfNumber_;
};

} // namespace IntfApp
