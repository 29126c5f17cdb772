// The network namespaces and their devices as the kernel reports them: the
// default namespace and every namespace in the namespace directory (watched
// by a NamespaceWatch), each followed through a LinkNamespace. Every sample
// dumps each namespace's devices with their statistics; what two dumps in a
// row did not mention, and nothing announced since they began, counts as
// gone. A namespace that cannot be entered is logged once and tried again
// when its name goes and comes back.
#pragma once

#include "HostDevice.h"
#include "LinkNamespace.h"
#include "NamespaceWatch.h"

#include <Kel/ActivityLoop.h>

#include <map>
#include <memory>
#include <string>

namespace IntfApp {

class DeviceDiscovery : private LinkNamespace::Events {
 public:
   // What the owner hears. The records are the discovery's to add and
   // remove; the owner fills in the rest of them.
   struct Events {
      virtual ~Events() = default;
      // A device appeared; its info is set.
      virtual void deviceFound(HostNamespace & n, HostDevice & d) = 0;
      // The kernel told of a known device again; `was` is what it said before.
      virtual void deviceChanged(HostNamespace & n, HostDevice & d, LinkInfo const & was) = 0;
      // A device is about to be forgotten.
      virtual void deviceGone(HostNamespace & n, HostDevice & d) = 0;
      // After the devices that went outside the end of a dump are forgotten.
      virtual void devicesGone() = 0;
      // A dump of `n` ended: the statistics it brought are in the devices;
      // `anyGone` when it found devices gone (and forgot them).
      virtual void dumpDone(HostNamespace & n, bool anyGone) = 0;
   };

   DeviceDiscovery(Kel::ActivityLoop & loop, std::string netNsDir, Events & events);
   ~DeviceDiscovery() override;
   DeviceDiscovery(DeviceDiscovery const &) = delete;
   DeviceDiscovery & operator=(DeviceDiscovery const &) = delete;

   // Follows the default namespace and the namespace directory. False (and
   // why) when the default namespace's devices cannot be followed.
   bool start(std::string * why);
   // Namespaces that came or went, then a dump of every namespace.
   void sample();
   // Catches up with the namespace directory when it moved.
   void settle();

   HostNamespaces & namespaces() { return namespaces_; }
   HostNamespaces const & namespaces() const { return namespaces_; }

 private:
   void onLink(LinkNamespace & ns, LinkEvent event, LinkInfo const & info) override;
   void onDumpDone(LinkNamespace & ns) override;
   void onLinkFailure(LinkNamespace & ns, std::string const & why) override;

   HostNamespace * find(LinkNamespace const & ns);
   bool addNamespace(std::string const & name, NamespaceWatch::Handle handle, std::string * why);
   void removeNamespace(std::string const & name);
   void scanNamespaces();
   void dump(HostNamespace & n);
   void remove(HostNamespace & n, std::map<int, HostDevice>::iterator it);

   Kel::ActivityLoop & loop_;
   std::string netNsDir_;
   Events & events_;
   std::unique_ptr<NamespaceWatch> watch_;
   HostNamespaces namespaces_;
   std::map<std::string, NamespaceWatch::Handle> refused_;  // namespaces that could not be entered
   bool rescan_ = false;
};

} // namespace IntfApp
