// The host interface agent: models the kernel's network devices of the
// default namespace and of every named namespace as interfaces, keeps their
// statuses and counters, and applies the interfaces' configuration (MTU,
// administrative state) to the devices.
//
// The served tree (the root is a Kel::Dir; other programs rely on these
// names):
//
//   interface/status/eth/intf   IntfApp::HostIntfStatusDir: an
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
//                               agent's counter table (agentCounterTablePath
//                               in Paths.h), one row per interface
//
// so a reader that mounts the tree finds an interface's live counters with
// status->counter() (the general look-up goes three levels up from the
// status directory and down counter/eth/intf).
//
// Devices become interfaces by DeviceMap's rule. Operational status is up
// when the device is running (IFF_RUNNING or IFF_LOWER_UP), down otherwise;
// the status a device is found with counts as no change, every later one
// updates operStatusChange (wall-clock time, count).
//
// Counters: every interval each namespace's devices are dumped with their
// 64-bit statistics and folded into totals and rates (CounterSampler.h) on
// the monotonic clock; the rows are written and committed together. A
// device that goes loses its row; rows left by an earlier run for devices
// that are no longer there are removed once every namespace has been read.
//
// Configuration (mounted from intf-configd, see ConfigMount.h): an
// interface with a configuration gets the configured MTU (which defaults
// to 1500, as in the model: clipped to the device's maximum when the kernel
// reports one) and, when its administrative state is set, up or down. The
// device's namespace is where the device is found. A kernel refusal is
// logged once per interface and setting and not retried until the setting
// or the device changes.
#pragma once

#include "ConfigFile.h"
#include "ConfigMount.h"
#include "CounterSampler.h"
#include "DeviceMap.h"
#include "HostIntfStatusDir.h"
#include "LinkNamespace.h"
#include "NamespaceWatch.h"

#include <Intf/SmashIntf.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Dir.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace IntfApp {

class HostAgent : private LinkNamespace::Events {
 public:
   // Opens the counter table as its writer (attaching to the table of an
   // earlier run, which the table engine repairs): throws Smash::Error
   // when another writer holds it. `deviceConfig` gives the explicit
   // device mappings; `config` (may be null) the interfaces' configuration.
   HostAgent(Kel::ActivityLoop & loop, std::string netNsDir, ConfigFile const & deviceConfig,
             ConfigMount const * config);
   ~HostAgent() override;
   HostAgent(HostAgent const &) = delete;
   HostAgent & operator=(HostAgent const &) = delete;

   Kel::Dir::Ptr const & root() const { return root_; }
   // Follows the default namespace and the namespace directory. False (and
   // why) when the default namespace's devices cannot be followed.
   bool start(std::string * why);
   // The interval's work: namespaces that came or went, then a statistics
   // dump of every namespace (the counters are written when it ends).
   void sample();
   // Something in the configuration changed: applied by settle().
   void configChanged() { configDirty_ = true; }
   // Run after each round of the loop: catches up with the namespace
   // directory and applies the configuration when either moved.
   void settle();

   // The current statuses and counters in the text exposition format.
   std::string metricsText() const;

 private:
   struct Device {
      LinkInfo info;
      Zenet::IntfId intf;  // null: not modelled
      bool reported = false;  // why it is not modelled was logged
      std::string kernelKey;
      Kel::Ptr<Interface::IntfStatus> status;
      DeviceCounters counters;
      LinkStats latest;
      bool fresh = false;  // a sample not yet folded
      bool seen = false;   // heard since the current dump began
      unsigned missed = 0; // dumps in a row that did not mention it
      std::optional<bool> adminPending, adminRefused;
      uint32_t mtuPending = 0, mtuRefused = 0;
   };
   struct Namespace {
      std::string name;
      std::unique_ptr<LinkNamespace> links;
      NamespaceWatch::Handle handle;
      std::map<int, Device> devices;  // by ifindex
      unsigned waited = 0;            // samples the current dump is late by
      bool primed = false;            // one dump has ended
   };

   void onLink(LinkNamespace & ns, LinkEvent event, LinkInfo const & info) override;
   void onDumpDone(LinkNamespace & ns) override;
   void onLinkFailure(LinkNamespace & ns, std::string const & why) override;

   Namespace * find(LinkNamespace const & ns);
   bool addNamespace(std::string const & name, NamespaceWatch::Handle handle, std::string * why);
   void removeNamespace(std::string const & name);
   void scanNamespaces();
   void dump(Namespace & n);
   void model(Namespace & n, Device & d);
   void update(Namespace & n, Device & d, LinkInfo const & info);
   void kernelState(Namespace & n, Device & d, bool first);
   void remove(Namespace & n, std::map<int, Device>::iterator it);
   void retryUnmodelled();
   void fold(Namespace & n);
   void sweepRows();
   void applyConfig();
   void applyAdmin(Namespace & n, Device & d, Interface::IntfConfig const & cfg);
   void applyMtu(Namespace & n, Device & d, Interface::IntfConfig const & cfg);
   bool linkStatusLogging(Zenet::IntfId id) const;
   Interface::LoadInterval loadInterval(Zenet::IntfId id) const;

   Kel::ActivityLoop & loop_;
   std::string netNsDir_;
   ConfigMount const * config_;
   DeviceMap deviceMap_;

   Kel::Dir::Ptr root_;
   Kel::Ptr<HostIntfStatusDir> statusDir_;
   Kel::Ptr<Interface::AllIntfStatusLocalDir> localDir_;
   Kel::Ptr<Interface::KernelIntfStatusDir> kernelDir_;
   Kel::Ptr<Interface::DeviceIntfStatusDir> deviceDir_;
   Kel::Ptr<Interface::SmashIntfCounterDirDir> counterDir_;
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> table_;

   std::unique_ptr<NamespaceWatch> watch_;
   std::map<std::string, Namespace> namespaces_;
   std::map<std::string, NamespaceWatch::Handle> refused_;  // namespaces that could not be entered
   bool rescan_ = false;
   bool configDirty_ = true;
   bool swept_ = false;
};

} // namespace IntfApp
