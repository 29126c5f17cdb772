// Everything intf-gnmid knows about the trees it mounts, in one place: the
// host agent's status directory and counter look-up, the configuration
// agent's directories, which counters the agent's source (the kernel)
// gives, and where the agent keeps the times of clears. When the agents
// serve other types or paths, this file is what changes.
#pragma once

#include "Schema.h"

#include <Intf/IntfConfig.h>
#include <Intf/IntfStatus.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Entity.h>

#include <cstdint>
#include <vector>

namespace Gnmi::AgentTree {

// Mount paths: the host agent's socket serves its whole tree; the status
// collection is below it. The configuration agent's tree likewise.
constexpr char statusDirPath[] = "interface/status/eth/intf";
constexpr char configDirPath[] = "intf";
constexpr char snapshotDirPath[] = "interface/counter/eth/snapshot";

// The status directory in a mounted agent tree, or null.
Kel::Ptr<Kel::Entity> statusDir(Kel::Ptr<Kel::Entity> const & agentRoot);
// Every interface status in the directory.
std::vector<Kel::Ptr<Interface::IntfStatus>> statuses(Kel::Ptr<Kel::Entity> const & dir);
// The collection's attribute and look-up, for a watcher on it.
Kel::AttributeId statusCollectionId();
Kel::Ptr<Interface::IntfStatus> statusOf(Kel::Ptr<Kel::Entity> const & dir, Zenet::IntfId id);

// The configuration of one interface in a mounted configuration tree, or null.
Kel::Ptr<Interface::IntfConfig> configOf(Kel::Ptr<Kel::Entity> const & configRoot, Zenet::IntfId id);
Kel::Ptr<Kel::Entity> configDir(Kel::Ptr<Kel::Entity> const & configRoot);
Kel::AttributeId configCollectionId();

// A status's live counter row, found once through the model's look-up
// (status->counter()) and kept: null when the status has no counters.
using CounterRow = Kel::Ptr<Interface::SmashIntfCounter const>;
CounterRow counterRow(Interface::IntfStatus & status);

// One read of an interface's counters: the leaves present (a counter the
// source does not give, or a row that cannot be read now, is absent, never
// 0), their values indexed by leaf - firstCounter, and the moment the
// agent sampled them (nanoseconds since the epoch).
struct Counters {
   LeafSet present = 0;
   uint64_t value[counterCount] = {};
   int64_t sampledNs = 0;
};
// False when the row cannot be read (no row, or unavailable for now).
// `clockOffsetNs` is monotonicToWallNs() of the pass.
// With `clears` (the agent's table of clears, snapshotDir()), last-clear is
// the time of the interface's last clear when it has one; the counters
// themselves stay absolute.
using Clears = Kel::Ptr<Smash::Interface::AllIntfCounterSnapshotDir const>;
bool readCounters(CounterRow const & row, int64_t clockOffsetNs, Counters * out, Clears const & clears = nullptr);
// The agent's table of clears in a mounted agent tree, or null.
Clears snapshotDir(Kel::Ptr<Kel::Entity> const & agentRoot);

// The counter leaves the host agent's source gives: the kernel tells
// neither unicast from broadcast nor outgoing multicast apart (the row's
// unicast counts hold broadcasts too, so they are not given either); the model
// holds no carrier transition count (its count of oper changes starts
// again with the agent, which a counter must not); last-clear only of an
// interface that was cleared.
constexpr LeafSet givenCounters = counterLeaves & ~(bit(Leaf::inUnicastPkts) | bit(Leaf::inBroadcastPkts) |
                                                   bit(Leaf::outUnicastPkts) | bit(Leaf::outBroadcastPkts) |
                                                   bit(Leaf::outMulticastPkts) |
                                                   bit(Leaf::carrierTransitions) | bit(Leaf::lastClear));

// What to add to a time on the agents' monotonic clock (the counter rows'
// lastUpdate, in nanoseconds) to have nanoseconds since the epoch, for
// this machine's clocks now.
int64_t monotonicToWallNs();

} // namespace Gnmi::AgentTree

