// What intf-gnmid knows of the agents' trees; see AgentTree.h.
#include "AgentTree.h"

#include <Intf/IntfStatusDir.h>

#include <chrono>
#include <cmath>

namespace Gnmi::AgentTree {

namespace {

Kel::Ptr<Interface::AgentIntfStatusDir> hostDir(Kel::Ptr<Kel::Entity> const & dir) {
   return Kel::Ptr<Interface::AgentIntfStatusDir>(dynamic_cast<Interface::AgentIntfStatusDir *>(dir.ptr()));
}

Kel::Ptr<Interface::AllIntfConfigDir> configs(Kel::Ptr<Kel::Entity> const & dir) {
   return Kel::Ptr<Interface::AllIntfConfigDir>(dynamic_cast<Interface::AllIntfConfigDir *>(dir.ptr()));
}

} // namespace

Kel::Ptr<Kel::Entity> statusDir(Kel::Ptr<Kel::Entity> const & agentRoot) {
   if (!agentRoot) return nullptr;
   auto dir = agentRoot->entity(statusDirPath);
   return hostDir(dir) ? dir : nullptr;
}

std::vector<Kel::Ptr<Interface::IntfStatus>> statuses(Kel::Ptr<Kel::Entity> const & dir) {
   std::vector<Kel::Ptr<Interface::IntfStatus>> out;
   if (auto d = hostDir(dir)) {
      for (auto const & m : d->intfStatusRange()) out.push_back(m.value());
   }
   return out;
}

Kel::AttributeId statusCollectionId() { return Interface::AgentIntfStatusDir::kelId_intfStatus; }

Kel::Ptr<Interface::IntfStatus> statusOf(Kel::Ptr<Kel::Entity> const & dir, Zenet::IntfId id) {
   auto d = hostDir(dir);
   return d ? d->intfStatus(id) : nullptr;
}

Kel::Ptr<Kel::Entity> configDir(Kel::Ptr<Kel::Entity> const & configRoot) {
   if (!configRoot) return nullptr;
   auto dir = configRoot->entity(configDirPath);
   return configs(dir) ? dir : nullptr;
}

Kel::AttributeId configCollectionId() { return Interface::AllIntfConfigDir::kelId_intfConfig; }

Kel::Ptr<Interface::IntfConfig> configOf(Kel::Ptr<Kel::Entity> const & dir, Zenet::IntfId id) {
   auto d = configs(dir);
   return d ? d->intfConfig(id) : nullptr;
}

CounterRow counterRow(Interface::IntfStatus & status) {
   auto c = status.counter();
   return CounterRow(dynamic_cast<Interface::SmashIntfCounter const *>(c.ptr()));
}

int64_t monotonicToWallNs() {
   auto wall = std::chrono::system_clock::now().time_since_epoch();
   auto mono = std::chrono::steady_clock::now().time_since_epoch();
   return std::chrono::duration_cast<std::chrono::nanoseconds>(wall - mono).count();
}

Clears snapshotDir(Kel::Ptr<Kel::Entity> const & agentRoot) {
   if (!agentRoot) return nullptr;
   auto dir = agentRoot->entity(snapshotDirPath);
   return Clears(dynamic_cast<Smash::Interface::AllIntfCounterSnapshotDir const *>(dir.ptr()));
}

bool readCounters(CounterRow const & row, int64_t clockOffsetNs, Counters * out, Clears const & clears) {
   if (!row || !row->counterDir()) return false;
   Smash::RowBuffer<Smash::Interface::IntfCounter> b;
   if (!row->counterDir()->counterFind(row->intfId(), b.slot())) return false;
   Interface::IntfStatistics const & s = b.row().statistics();
   auto set = [out](Leaf l, uint64_t v) {
      out->value[unsigned(l) - firstCounter] = v;
      out->present |= bit(l);
   };
   out->present = 0;
   set(Leaf::inOctets, s.inOctets());
   set(Leaf::inPkts, s.inUcastPkts() + s.inMulticastPkts() + s.inBroadcastPkts());
   set(Leaf::inUnicastPkts, s.inUcastPkts());
   set(Leaf::inMulticastPkts, s.inMulticastPkts());
   set(Leaf::inDiscards, s.inDiscards());
   set(Leaf::inErrors, s.inErrors());
   if (s.outOctets().hasValue()) set(Leaf::outOctets, s.outOctets().value());
   set(Leaf::outPkts, s.outUcastPkts() + s.outMulticastPkts() + s.outBroadcastPkts());
   if (s.outDiscards().hasValue()) set(Leaf::outDiscards, s.outDiscards().value());
   set(Leaf::outErrors, s.outErrors());
   out->present &= givenCounters;
   Smash::RowBuffer<Smash::Interface::IntfCounter> cleared;
   if (clears && clears->counterSnapshotFind(row->intfId(), cleared.slot())) {
      // Whole seconds apart from their fraction: a product would round away nanoseconds.
      double t = cleared.row().rates().statsUpdateTime(), whole = std::floor(t);
      set(Leaf::lastClear, uint64_t(whole) * 1000000000u + uint64_t(std::llround((t - whole) * 1e9)));
   }
   out->sampledNs = int64_t(std::llround(s.lastUpdate() * 1e9)) + clockOffsetNs;
   return true;
}

} // namespace Gnmi::AgentTree
