// The host interface agent; see HostAgent.h.
#include "HostAgent.h"

#include "AgentLog.h"
#include "MetricsText.h"
#include "Paths.h"

#include <Intf/SyncMtu.h>
#include <Zenet/NamespaceName.h>

#include <linux/if.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace IntfApp {

using Interface::IntfOperStatus;

namespace {

double monotonicNow() {
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double wallNow() {
   return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool isDefault(std::string const & ns) { return ns == Zenet::DEFAULT_NS; }

std::string kernelKeyOf(std::string const & ns, std::string const & device) {
   return isDefault(ns) ? device : ns + "/" + device;
}

IntfOperStatus operOf(uint32_t flags) {
   return (flags & (IFF_RUNNING | IFF_LOWER_UP)) ? IntfOperStatus::intfOperUp : IntfOperStatus::intfOperDown;
}

KernelDevice kernelDevice(std::string const & ns, LinkInfo const & info) {
   KernelDevice k;
   k.netNs = ns;
   k.name = info.name;
   k.ifindex = info.ifindex;
   k.kind = info.loopback ? KernelDevice::Kind::loopback
          : info.vlan     ? KernelDevice::Kind::vlan
                          : KernelDevice::Kind::ordinary;
   k.vlanId = info.vlanId;
   k.parentIfindex = info.parentIfindex;
   return k;
}

Zenet::NamespaceName nsName(std::string const & ns) { return Zenet::NamespaceName(Kel::String8(ns)); }

} // namespace

HostAgent::HostAgent(Kel::ActivityLoop & loop, std::string netNsDir, ConfigFile const & deviceConfig,
                     ConfigMount const * config)
      : loop_(loop), netNsDir_(std::move(netNsDir)), config_(config), deviceMap_(deviceConfig) {
   root_ = Kel::makePtr<Kel::Dir>(Kel::Name("agent"));
   auto status = root_->mkdir("interface/status");
   statusDir_ = Kel::makePtr<HostIntfStatusDir>(Kel::Name("intf"));
   status->mkdir("eth")->entryIs(statusDir_);
   localDir_ = Kel::makePtr<Interface::AllIntfStatusLocalDir>(Kel::Name("local"));
   kernelDir_ = Kel::makePtr<Interface::KernelIntfStatusDir>(Kel::Name("kernel"));
   deviceDir_ = Kel::makePtr<Interface::DeviceIntfStatusDir>(Kel::Name("device"));
   status->entryIs(localDir_);
   status->entryIs(kernelDir_);
   status->entryIs(deviceDir_);

   table_ = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
   table_->counterOpen(Smash::Role::writer, agentCounterTablePath);
   counterDir_ = Kel::makePtr<Interface::SmashIntfCounterDirDir>(Kel::Name("intf"));
   counterDir_->tableIs(table_);
   root_->mkdir("interface/counter/eth")->entryIs(counterDir_);
}

HostAgent::~HostAgent() {
   for (auto & [name, n] : namespaces_) {
      if (n.links) loop_.remove(n.links.get());
   }
   if (watch_) loop_.remove(watch_.get());
}

bool HostAgent::start(std::string * why) {
   if (!addNamespace(Zenet::DEFAULT_NS, {}, why)) return false;
   watch_ = std::make_unique<NamespaceWatch>(netNsDir_, [this] { rescan_ = true; });
   if (watch_->valid()) loop_.add(watch_.get());
   scanNamespaces();
   return true;
}

// ---- namespaces ------------------------------------------------------------------------

HostAgent::Namespace * HostAgent::find(LinkNamespace const & ns) {
   auto it = namespaces_.find(ns.name());
   return it == namespaces_.end() ? nullptr : &it->second;
}

bool HostAgent::addNamespace(std::string const & name, NamespaceWatch::Handle handle, std::string * why) {
   auto links = std::make_unique<LinkNamespace>(name, netNsDir_, static_cast<LinkNamespace::Events &>(*this));
   if (!links->valid()) {
      *why = links->error();
      return false;
   }
   Namespace & n = namespaces_[name];
   n.name = name;
   n.handle = handle;
   n.links = std::move(links);
   loop_.add(n.links.get());
   if (!isDefault(name)) Kel::logEvent(namespaceAddedMessage(), name);
   dump(n);
   return true;
}

void HostAgent::removeNamespace(std::string const & name) {
   auto it = namespaces_.find(name);
   if (it == namespaces_.end()) return;
   Namespace & n = it->second;
   size_t modelled = 0;
   while (!n.devices.empty()) {
      modelled += !n.devices.begin()->second.intf.isNull();
      remove(n, n.devices.begin());
   }
   table_->counterCommit();
   loop_.remove(n.links.get());
   namespaces_.erase(it);
   Kel::logEvent(namespaceRemovedMessage(), name, modelled);
   retryUnmodelled();
}

void HostAgent::scanNamespaces() {
   if (!watch_ || !watch_->valid()) return;
   // A directory nobody made yet is watched from when it exists.
   watch_->retry();
   auto present = watch_->namespaces();
   std::vector<std::string> gone;
   for (auto const & [name, n] : namespaces_) {
      if (isDefault(name)) continue;
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
      if (isDefault(name)) {
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

void HostAgent::dump(Namespace & n) {
   if (n.links->dumping() && ++n.waited < 5) return;
   n.waited = 0;
   for (auto & [ifindex, d] : n.devices) d.seen = false;
   n.links->requestDump();
}

void HostAgent::sample() {
   scanNamespaces();
   rescan_ = false;
   for (auto & [name, n] : namespaces_) dump(n);
}

void HostAgent::settle() {
   if (rescan_) {
      rescan_ = false;
      scanNamespaces();
   }
   applyConfig();
}

// ---- devices ---------------------------------------------------------------------------

void HostAgent::onLink(LinkNamespace & ns, LinkEvent event, LinkInfo const & info) {
   Namespace * n = find(ns);
   if (!n) return;
   auto it = n->devices.find(info.ifindex);
   if (event == LinkEvent::gone) {
      if (it == n->devices.end()) return;
      remove(*n, it);
      table_->counterCommit();
      retryUnmodelled();
      return;
   }
   if (it == n->devices.end()) {
      Device & d = n->devices[info.ifindex];
      d.info = info;
      model(*n, d);
      it = n->devices.find(info.ifindex);
   } else {
      update(*n, it->second, info);
   }
   Device & d = it->second;
   d.seen = true;
   if (info.hasStats) {
      d.latest = info.stats;
      d.fresh = true;
   }
}

void HostAgent::model(Namespace & n, Device & d) {
   std::string why;
   d.intf = deviceMap_.assign(kernelDevice(n.name, d.info), &why);
   if (d.intf.isNull()) {
      if (!d.reported) Kel::logEvent(deviceUnmodelledMessage(), d.info.name, n.name, why);
      d.reported = true;
      return;
   }
   d.status = Interface::intfStatusFactory(d.intf, nullptr, statusDir_->genIdMarkerInc(1));
   d.status->deviceNameIs(Kel::String8(d.info.name));
   d.status->operStatusUpdatedByAgentIs(true);
   kernelState(n, d, true);
   statusDir_->intfStatusIs(d.status);
   auto local = Kel::makePtr<Interface::IntfStatusLocal>(d.intf);
   local->netNsNameIs(nsName(n.name));
   localDir_->intfStatusLocalIs(local);
   d.kernelKey = kernelKeyOf(n.name, d.info.name);
   kernelDir_->intfStatusIs(Kel::String8(d.kernelKey), d.status);
   if (isDefault(n.name)) {
      Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName v(d.status, Kel::String8(d.info.name),
                                                               uint32_t(d.info.ifindex));
      deviceDir_->intfStatusAndDeviceNameIs(d.intf, v);
      deviceDir_->intfStatusByIfIndexIs(uint32_t(d.info.ifindex), v);
   }
   configDirty_ = true;
}

void HostAgent::update(Namespace & n, Device & d, LinkInfo const & info) {
   bool renamed = info.name != d.info.name;
   bool changed = renamed || info.flags != d.info.flags || info.mtu != d.info.mtu;
   d.info = info;
   if (d.intf.isNull()) return;
   if (renamed) {
      d.status->deviceNameIs(Kel::String8(info.name));
      kernelDir_->intfStatusDel(Kel::String8(d.kernelKey));
      d.kernelKey = kernelKeyOf(n.name, info.name);
      kernelDir_->intfStatusIs(Kel::String8(d.kernelKey), d.status);
      if (isDefault(n.name)) {
         Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName v(d.status, Kel::String8(info.name),
                                                                  uint32_t(info.ifindex));
         deviceDir_->intfStatusAndDeviceNameIs(d.intf, v);
         deviceDir_->intfStatusByIfIndexIs(uint32_t(info.ifindex), v);
      }
   }
   kernelState(n, d, false);
   if (changed) configDirty_ = true;
}

void HostAgent::kernelState(Namespace & n, Device & d, bool first) {
   auto & st = *d.status;
   st.mtuIs(d.info.mtu);
   if (d.info.maxMtu) st.maxMtuIs(d.info.maxMtu);
   bool up = d.info.flags & IFF_UP;
   if (d.adminPending && *d.adminPending == up) d.adminPending.reset();
   if (d.mtuPending == d.info.mtu) d.mtuPending = 0;
   IntfOperStatus oper = operOf(d.info.flags);
   if (first) {
      st.operStatusIs(oper);
      return;
   }
   if (oper == st.operStatus()) return;
   st.operStatusIs(oper);
   auto change = st.operStatusChange();
   change.timeIs(wallNow());
   change.countIs(change.count() + 1);
   st.operStatusChangeIs(change);
   if (linkStatusLogging(d.intf)) {
      Kel::logEvent(linkStatusMessage(), d.intf.stringValue(), d.info.name, n.name,
                    oper == IntfOperStatus::intfOperUp ? "up" : "down");
   }
}

void HostAgent::remove(Namespace & n, std::map<int, Device>::iterator it) {
   Device & d = it->second;
   if (!d.intf.isNull()) {
      statusDir_->intfStatusDel(d.intf);
      localDir_->intfStatusLocalDel(d.intf);
      kernelDir_->intfStatusDel(Kel::String8(d.kernelKey));
      if (isDefault(n.name)) {
         deviceDir_->intfStatusAndDeviceNameDel(d.intf);
         deviceDir_->intfStatusByIfIndexDel(uint32_t(d.info.ifindex));
      }
      table_->counterDel(d.intf);
      deviceMap_.release(n.name, d.info.ifindex);
   }
   n.devices.erase(it);
}

// A device refused an interface that another device held may have it now.
void HostAgent::retryUnmodelled() {
   for (auto & [name, n] : namespaces_) {
      for (auto & [ifindex, d] : n.devices) {
         if (d.intf.isNull()) model(n, d);
      }
   }
}

void HostAgent::onDumpDone(LinkNamespace & ns) {
   Namespace * n = find(ns);
   if (!n) return;
   // What two dumps in a row did not mention, and nothing announced since
   // they began, went while notifications were lost. (One is not enough:
   // the end of a dump given up on may be taken for the end of the next.)
   bool removed = false;
   for (auto it = n->devices.begin(); it != n->devices.end();) {
      Device & d = it->second;
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
   fold(*n);
   n->primed = true;
   if (removed) retryUnmodelled();
   sweepRows();
}

void HostAgent::onLinkFailure(LinkNamespace & ns, std::string const & why) {
   Namespace * n = find(ns);
   if (!n) return;
   Kel::logEvent(linkResyncMessage(), n->name, why);
   n->waited = 5;  // whatever dump was under way is given up
   dump(*n);
}

// ---- counters --------------------------------------------------------------------------

Interface::LoadInterval HostAgent::loadInterval(Zenet::IntfId id) const {
   if (!config_) return {};
   auto cfg = config_->intfConfig(id);
   return cfg ? cfg->loadInterval() : Interface::LoadInterval();
}

void HostAgent::fold(Namespace & n) {
   double now = monotonicNow();
   Interface::LoadInterval global;
   if (config_ && config_->global()) global = config_->global()->loadInterval();
   for (auto & [ifindex, d] : n.devices) {
      if (d.intf.isNull() || !d.fresh) continue;
      d.fresh = false;
      foldSample(d.counters, d.latest, now, loadInterval(d.intf), global);
      Smash::Interface::IntfCounter row;
      row.keyIs(d.intf);
      row.statisticsIs(d.counters.totals);
      row.ratesIs(d.counters.rates);
      table_->counterIs(row);
   }
   table_->counterCommit();
}

// Rows of an earlier run whose devices are not here any more; once every
// namespace has been read, so that no device is taken for gone.
void HostAgent::sweepRows() {
   if (swept_) return;
   for (auto const & [name, n] : namespaces_) {
      if (!n.primed) return;
   }
   swept_ = true;
   std::set<uint64_t> modelled;
   for (auto const & [name, n] : namespaces_) {
      for (auto const & [ifindex, d] : n.devices) {
         if (!d.intf.isNull()) modelled.insert(d.intf.intfIdValue());
      }
   }
   std::vector<Zenet::IntfId> stale;
   table_->counterForEach([&](Smash::Interface::IntfCounter const & row) {
      if (!modelled.count(row.key().intfIdValue())) stale.push_back(row.key());
   });
   for (auto id : stale) table_->counterDel(id);
   table_->counterCommit();
}

// ---- configuration ---------------------------------------------------------------------

bool HostAgent::linkStatusLogging(Zenet::IntfId id) const {
   using Interface::IntfLoggingMode;
   auto mode = IntfLoggingMode::useGlobal;
   if (config_) {
      if (auto cfg = config_->intfConfig(id)) mode = cfg->linkStatusLogging();
      if (mode == IntfLoggingMode::useGlobal && config_->global()) mode = config_->global()->linkStatusLogging();
   }
   return mode != IntfLoggingMode::off;
}

void HostAgent::applyConfig() {
   if (!configDirty_) return;
   configDirty_ = false;
   if (!config_) return;
   for (auto & [name, n] : namespaces_) {
      for (auto & [ifindex, d] : n.devices) {
         if (d.intf.isNull()) continue;
         auto cfg = config_->intfConfig(d.intf);
         if (!cfg) continue;
         applyAdmin(n, d, *cfg);
         applyMtu(n, d, *cfg);
      }
   }
}

void HostAgent::applyAdmin(Namespace & n, Device & d, Interface::IntfConfig const & cfg) {
   using Interface::IntfEnabledState;
   IntfEnabledState state = cfg.adminEnabledState();
   if (state == IntfEnabledState::unknownEnabledState) return;
   bool want = state == IntfEnabledState::enabled;
   if (want == bool(d.info.flags & IFF_UP)) {
      d.adminRefused.reset();
      return;
   }
   if (d.adminPending == want || d.adminRefused == want) return;
   int err = n.links->setUp(d.info.ifindex, want);
   if (err) {
      d.adminRefused = want;
      Kel::logEvent(kernelRefusedMessage(), d.intf.stringValue(), want ? "admin up" : "admin down",
                    d.info.name, n.name, std::string(std::strerror(err)));
   } else {
      d.adminPending = want;
   }
}

void HostAgent::applyMtu(Namespace & n, Device & d, Interface::IntfConfig const & cfg) {
   uint32_t want = cfg.mtu();
   if (d.info.maxMtu && want > d.info.maxMtu) want = d.info.maxMtu;
   if (want == d.info.mtu) {
      d.mtuRefused = 0;
      return;
   }
   if (d.mtuPending == want || d.mtuRefused == want) return;
   int fd = n.links->ioctlFd();
   int err = 0;
   if (fd < 0) {
      err = errno;
   } else if (d.status->maxMtu()) {
      // The model's own step: the expected MTU, clipped (and logged) to the maximum.
      errno = 0;
      bool ok = Interface::syncMtuInNs(d.status.ptr(), &cfg, false, true, nsName(n.name), fd);
      err = ok ? 0 : errno ? errno : EINVAL;
   } else {
      // No maximum known: the kernel itself says what it takes.
      err = Interface::setMtuInNs(d.info.name.c_str(), want, nsName(n.name), fd);
   }
   if (err) {
      d.mtuRefused = want;
      Kel::logEvent(kernelRefusedMessage(), d.intf.stringValue(), "MTU " + std::to_string(want),
                    d.info.name, n.name, std::string(std::strerror(err)));
   } else {
      d.mtuPending = want;
   }
}

// ---- metrics ---------------------------------------------------------------------------

std::string HostAgent::metricsText() const {
   struct Row {
      std::string intf, device, ns;
      Device const * d;
   };
   std::vector<Row> rows;
   for (auto const & [name, n] : namespaces_) {
      for (auto const & [ifindex, d] : n.devices) {
         if (!d.intf.isNull()) rows.push_back({d.intf.stringValue().str(), d.info.name, name, &d});
      }
   }
   std::sort(rows.begin(), rows.end(), [](Row const & a, Row const & b) { return a.intf < b.intf; });
   MetricsText m;
   auto labels = [](Row const & r) {
      return Labels{{"interface", r.intf}, {"device", r.device}, {"namespace", r.ns}};
   };
   using Stats = Interface::IntfStatistics;
   struct Total {
      char const * name;
      char const * help;
      uint64_t (*get)(Stats const &);
   };
   static Total const totals[] = {
      {"intf_in_octets_total", "Octets received.", [](Stats const & s) { return s.inOctets(); }},
      {"intf_out_octets_total", "Octets sent.", [](Stats const & s) { return s.outOctets().value(); }},
      {"intf_in_unicast_packets_total", "Unicast packets received.", [](Stats const & s) { return s.inUcastPkts(); }},
      {"intf_in_multicast_packets_total", "Multicast packets received.",
       [](Stats const & s) { return s.inMulticastPkts(); }},
      {"intf_out_unicast_packets_total", "Packets sent (the kernel does not tell unicast from the others).",
       [](Stats const & s) { return s.outUcastPkts(); }},
      {"intf_in_discards_total", "Received packets dropped.", [](Stats const & s) { return s.inDiscards(); }},
      {"intf_out_discards_total", "Packets dropped on sending.",
       [](Stats const & s) { return s.outDiscards().value(); }},
      {"intf_in_errors_total", "Receive errors.", [](Stats const & s) { return s.inErrors(); }},
      {"intf_out_errors_total", "Transmit errors.", [](Stats const & s) { return s.outErrors(); }},
   };
   for (auto const & t : totals) {
      m.family(t.name, "counter", t.help);
      for (auto const & r : rows) {
         if (r.d->counters.primed) m.sample(t.name, labels(r), t.get(r.d->counters.totals));
      }
   }
   using Rates = Interface::IntfRates;
   struct Rate {
      char const * name;
      char const * help;
      double (*get)(Rates const &);
   };
   static Rate const rates[] = {
      {"intf_in_bits_per_second", "Receive rate, averaged over the load interval.",
       [](Rates const & r) { return double(r.inBitsRate()); }},
      {"intf_out_bits_per_second", "Transmit rate, averaged over the load interval.",
       [](Rates const & r) { return double(r.outBitsRate()); }},
      {"intf_in_packets_per_second", "Packets received per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.inPktsRate()); }},
      {"intf_out_packets_per_second", "Packets sent per second, averaged over the load interval.",
       [](Rates const & r) { return double(r.outPktsRate()); }},
   };
   for (auto const & t : rates) {
      m.family(t.name, "gauge", t.help);
      for (auto const & r : rows) {
         if (r.d->counters.primed) m.sample(t.name, labels(r), t.get(r.d->counters.rates));
      }
   }
   m.family("intf_mtu", "gauge", "The device's MTU in bytes.");
   for (auto const & r : rows) m.sample("intf_mtu", labels(r), uint64_t(r.d->status->mtu()));
   m.family("intf_oper_up", "gauge", "1 when the interface is operationally up, else 0.");
   for (auto const & r : rows) {
      m.sample("intf_oper_up", labels(r), uint64_t(r.d->status->operStatus() == IntfOperStatus::intfOperUp));
   }
   // The model's oper history: how often the status changed, and when last.
   m.family("intf_oper_changes_total", "counter", "Operational status changes since the agent found the device.");
   for (auto const & r : rows) {
      m.sample("intf_oper_changes_total", labels(r), uint64_t(r.d->status->operStatusChange().count()));
   }
   m.family("intf_oper_last_change_timestamp_seconds", "gauge",
            "When the operational status last changed (seconds since the epoch; 0 if never).");
   for (auto const & r : rows) {
      m.sample("intf_oper_last_change_timestamp_seconds", labels(r), double(r.d->status->operStatusChange().time()));
   }
   return m.text();
}

} // namespace IntfApp
