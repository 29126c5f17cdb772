// What the host agent knows of each network namespace and of each device
// in it: the record its parts share. The discovery (DeviceDiscovery.h) adds
// and removes the records; each part keeps its own fields, marked below.
#pragma once

#include "CounterSampler.h"
#include "LinkMessages.h"
#include "LinkNamespace.h"
#include "NamespaceWatch.h"

#include <Intf/IntfStatus.h>
#include <Zenet/IntfId.h>
#include <Zenet/NamespaceName.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace IntfApp {

inline bool isDefaultNs(std::string const & ns) { return ns == Zenet::DEFAULT_NS; }

struct HostDevice {
   // Discovery: what the kernel last said of the device.
   LinkInfo info;
   bool seen = false;   // heard since the current dump began
   unsigned missed = 0; // dumps in a row that did not mention it
   // Mapping (HostAgent): the interface the device models.
   Zenet::IntfId intf;  // null: not modelled
   bool reported = false;  // why it is not modelled was logged
   // Served tree: the interface's status and its key in the kernel directory.
   std::string kernelKey;
   Kel::Ptr<Interface::IntfStatus> status;
   // Counters: the statistics of the last dump, and what they fold into.
   DeviceCounters counters;
   LinkStats latest;
   bool fresh = false;  // a sample not yet folded
   // Configuration: settings asked of the kernel and not yet seen, or refused.
   std::optional<bool> adminPending, adminRefused;
   uint32_t mtuPending = 0, mtuRefused = 0;
};

struct HostNamespace {
   std::string name;
   std::unique_ptr<LinkNamespace> links;
   NamespaceWatch::Handle handle;
   std::map<int, HostDevice> devices;  // by ifindex
   unsigned waited = 0;            // samples the current dump is late by
   bool primed = false;            // one dump has ended

   bool isDefault() const { return isDefaultNs(name); }
   Zenet::NamespaceName netNsName() const { return Zenet::NamespaceName(Kel::String8(name)); }
};

// By name.
using HostNamespaces = std::map<std::string, HostNamespace>;

} // namespace IntfApp
