// The device-to-interface rule; see DeviceMap.h.
#include "DeviceMap.h"

#include <Zenet/NamespaceName.h>

namespace IntfApp {

namespace {

constexpr uint32_t nsNumbers = 100000;

uint32_t fnv1a(std::string const & s) {
   uint32_t h = 2166136261u;
   for (unsigned char c : s) h = (h ^ c) * 16777619u;
   return h;
}

bool isDefault(std::string const & ns) { return ns.empty() || ns == Zenet::DEFAULT_NS; }

std::string nsKey(std::string const & ns) { return isDefault(ns) ? Zenet::DEFAULT_NS : ns; }

Zenet::IntfId named(std::string const & text) {
   try {
      return Zenet::IntfId(std::string_view(text));
   } catch (...) {
      return Zenet::IntfId();
   }
}

} // namespace

DeviceMap::DeviceMap(ConfigFile const & cfg) { configure(cfg); }

DeviceMap::Changes DeviceMap::configure(ConfigFile const & cfg) {
   auto old = std::move(explicit_);
   explicit_.clear();
   for (auto const & s : cfg.intfs) {
      if (!s.device) continue;
      std::string ns = s.netNs ? s.netNs->name().str() : Zenet::DEFAULT_NS;
      explicit_[{nsKey(ns), *s.device}] = s.intfId;
   }
   Changes c;
   auto differ = [&c](auto const & from, auto const & to) {
      for (auto const & [device, id] : from) {
         auto it = to.find(device);
         if (it != to.end() && it->second == id) continue;
         c.devices.insert(device);
         c.intfs.insert(id.intfIdValue());
      }
   };
   differ(old, explicit_);
   differ(explicit_, old);
   return c;
}

bool DeviceMap::Changes::touches(std::string const & netNs, std::string const & device, Zenet::IntfId id) const {
   return devices.count({nsKey(netNs), device}) || intfs.count(id.intfIdValue());
}

uint32_t DeviceMap::namespaceNumber(std::string const & netNs) {
   if (isDefault(netNs)) return 0;
   auto it = nsNumber_.find(netNs);
   if (it != nsNumber_.end()) return it->second;
   uint32_t k = fnv1a(netNs) % nsNumbers + 1;
   while (nsOfNumber_.count(k)) k = k % nsNumbers + 1;
   nsNumber_[netNs] = k;
   nsOfNumber_[k] = netNs;
   return k;
}

Zenet::IntfId DeviceMap::automatic(KernelDevice const & dev) {
   std::string ns = nsKey(dev.netNs);
   uint32_t k = namespaceNumber(ns);
   auto idx = std::to_string(dev.ifindex);
   if (dev.kind == KernelDevice::Kind::loopback) return named("Loopback" + std::to_string(k));
   if (dev.kind == KernelDevice::Kind::vlan) {
      Zenet::IntfId parent = intfOf(ns, dev.parentIfindex);
      std::string p = parent.isNull() ? std::string() : parent.stringValue().str();
      if (p.rfind("Ethernet", 0) == 0 && p.find('.') == std::string::npos) {
         return named(p + "." + std::to_string(dev.vlanId));
      }
      if (k == 0) return named("Vlan" + std::to_string(dev.vlanId));
   }
   if (k == 0) return named("Ethernet" + idx);
   return named("Ethernet" + std::to_string(k) + "/" + idx);
}

Zenet::IntfId DeviceMap::assign(KernelDevice const & dev, std::string * why) {
   std::string ns = nsKey(dev.netNs);
   auto known = assigned_.find({ns, dev.ifindex});
   if (known != assigned_.end()) return known->second;
   auto ex = explicit_.find({ns, dev.name});
   Zenet::IntfId id = ex != explicit_.end() ? ex->second : automatic(dev);
   auto say = [&](std::string const & s) {
      if (why) *why = s;
      return Zenet::IntfId();
   };
   if (id.isNull()) return say("no interface name for device " + dev.name + " in " + ns);
   if (ex == explicit_.end()) {
      // An identifier the configuration gives to some other device is kept for it.
      for (auto const & [dn, target] : explicit_) {
         if (target == id) {
            return say(id.stringValue().str() + " is configured for device " + dn.second +
                       " in " + dn.first + ", not " + dev.name + " in " + ns);
         }
      }
   }
   auto taken = owner_.find(id.intfIdValue());
   if (taken != owner_.end()) {
      return say(id.stringValue().str() + " is already device " +
                 std::to_string(taken->second.second) + " in " + taken->second.first);
   }
   assigned_[{ns, dev.ifindex}] = id;
   owner_[id.intfIdValue()] = {ns, dev.ifindex};
   return id;
}

void DeviceMap::release(std::string const & netNs, int ifindex) {
   auto it = assigned_.find({nsKey(netNs), ifindex});
   if (it == assigned_.end()) return;
   owner_.erase(it->second.intfIdValue());
   assigned_.erase(it);
}

Zenet::IntfId DeviceMap::intfOf(std::string const & netNs, int ifindex) const {
   auto it = assigned_.find({nsKey(netNs), ifindex});
   return it == assigned_.end() ? Zenet::IntfId() : it->second;
}

} // namespace IntfApp
