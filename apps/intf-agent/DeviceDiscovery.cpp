// Namespaces and devices as the kernel reports them; see DeviceDiscovery.h.
#include "DeviceDiscovery.h"

#include "AgentLog.h"

#include <iterator>
#include <vector>

namespace IntfApp {

DeviceDiscovery::DeviceDiscovery(Kel::ActivityLoop & loop, std::string netNsDir, Events & events)
      : loop_(loop), netNsDir_(std::move(netNsDir)), events_(events) {}

DeviceDiscovery::~DeviceDiscovery() {
   for (auto & [name, n] : namespaces_) {
      if (n.links) loop_.remove(n.links.get());
   }
   if (watch_) loop_.remove(watch_.get());
}

bool DeviceDiscovery::start(std::string * why) {
   if (!addNamespace(Zenet::DEFAULT_NS, {}, why)) return false;
   watch_ = std::make_unique<NamespaceWatch>(netNsDir_, [this] { rescan_ = true; });
   if (watch_->valid()) loop_.add(watch_.get());
   scanNamespaces();
   return true;
}

// ---- namespaces ------------------------------------------------------------------------

HostNamespace * DeviceDiscovery::find(LinkNamespace const & ns) {
   auto it = namespaces_.find(ns.name());
   return it == namespaces_.end() ? nullptr : &it->second;
}

bool DeviceDiscovery::addNamespace(std::string const & name, NamespaceWatch::Handle handle, std::string * why) {
   auto links = std::make_unique<LinkNamespace>(name, netNsDir_, static_cast<LinkNamespace::Events &>(*this));
   if (!links->valid()) {
      *why = links->error();
      return false;
   }
   HostNamespace & n = namespaces_[name];
   n.name = name;
   n.handle = handle;
   n.links = std::move(links);
   loop_.add(n.links.get());
   if (!isDefaultNs(name)) Kel::logEvent(namespaceAddedMessage(), name);
   dump(n);
   return true;
}

void DeviceDiscovery::removeNamespace(std::string const & name) {
   auto it = namespaces_.find(name);
   if (it == namespaces_.end()) return;
   HostNamespace & n = it->second;
   size_t modelled = 0;
   while (!n.devices.empty()) {
      modelled += !n.devices.begin()->second.intf.isNull();
      remove(n, n.devices.begin());
   }
   loop_.remove(n.links.get());
   namespaces_.erase(it);
   Kel::logEvent(namespaceRemovedMessage(), name, modelled);
   events_.devicesGone();
}

void DeviceDiscovery::scanNamespaces() {
   if (!watch_ || !watch_->valid()) return;
   // A directory nobody made yet is watched from when it exists.
   watch_->retry();
   auto present = watch_->namespaces();
   std::vector<std::string> gone;
   for (auto const & [name, n] : namespaces_) {
      if (isDefaultNs(name)) continue;
      auto p = present.find(name);
      if (p == present.end() || !(p->second == n.handle)) gone.push_back(name);
   }
   for (auto const & name : gone) removeNamespace(name);
   for (auto it = refused_.begin(); it != refused_.end();) {
      auto p = present.find(it->first);
      it = p == present.end() || !(p->second == it->second) ? refused_.erase(it) : std::next(it);
   }
   for (auto const & [name, handle] : present) {
      if (namespaces_.count(name) || refused_.count(name)) continue;
      std::string why;
      if (isDefaultNs(name)) {
         why = "the name is the default namespace's";
      } else if (name.size() > Zenet::NamespaceName::maxBytes) {
         why = "the name is longer than " + std::to_string(Zenet::NamespaceName::maxBytes) + " bytes";
      }
      if (why.empty() && addNamespace(name, handle, &why)) continue;
      // Told once; tried again when the name goes and comes back.
      refused_[name] = handle;
      Kel::logEvent(namespaceUnusableMessage(), name, why);
   }
}

void DeviceDiscovery::dump(HostNamespace & n) {
   if (n.links->dumping() && ++n.waited < 5) return;
   n.waited = 0;
   for (auto & [ifindex, d] : n.devices) d.seen = false;
   n.links->requestDump();
}

void DeviceDiscovery::sample() {
   scanNamespaces();
   rescan_ = false;
   for (auto & [name, n] : namespaces_) dump(n);
}

void DeviceDiscovery::settle() {
   if (!rescan_) return;
   rescan_ = false;
   scanNamespaces();
}

// ---- devices ---------------------------------------------------------------------------

void DeviceDiscovery::remove(HostNamespace & n, std::map<int, HostDevice>::iterator it) {
   events_.deviceGone(n, it->second);
   n.devices.erase(it);
}

void DeviceDiscovery::onLink(LinkNamespace & ns, LinkEvent event, LinkInfo const & info) {
   HostNamespace * n = find(ns);
   if (!n) return;
   auto it = n->devices.find(info.ifindex);
   if (event == LinkEvent::gone) {
      if (it == n->devices.end()) return;
      remove(*n, it);
      events_.devicesGone();
      return;
   }
   if (it == n->devices.end()) {
      HostDevice & d = n->devices[info.ifindex];
      d.info = info;
      events_.deviceFound(*n, d);
      it = n->devices.find(info.ifindex);
   } else {
      LinkInfo was = std::move(it->second.info);
      it->second.info = info;
      events_.deviceChanged(*n, it->second, was);
   }
   HostDevice & d = it->second;
   d.seen = true;
   if (info.hasStats) {
      d.latest = info.stats;
      d.fresh = true;
   }
}

void DeviceDiscovery::onDumpDone(LinkNamespace & ns) {
   HostNamespace * n = find(ns);
   if (!n) return;
   // What two dumps in a row did not mention, and nothing announced since
   // they began, went while notifications were lost. (One is not enough:
   // the end of a dump given up on may be taken for the end of the next.)
   bool removed = false;
   for (auto it = n->devices.begin(); it != n->devices.end();) {
      HostDevice & d = it->second;
      d.missed = d.seen ? 0 : d.missed + 1;
      if (d.missed < 2) {
         ++it;
         continue;
      }
      auto next = std::next(it);
      remove(*n, it);
      it = next;
      removed = true;
   }
   n->primed = true;
   events_.dumpDone(*n, removed);
}

void DeviceDiscovery::onLinkFailure(LinkNamespace & ns, std::string const & why) {
   HostNamespace * n = find(ns);
   if (!n) return;
   Kel::logEvent(linkResyncMessage(), n->name, why);
   n->waited = 5;  // whatever dump was under way is given up
   dump(*n);
}

} // namespace IntfApp
