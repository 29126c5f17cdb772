// Per-interface and per-queue counters kept in shared-memory cells: one
// writer updates a cell in place, any number of readers in other processes
// read it without locks (Brik/ShmemCounter.h). The entities hold no counter
// values; their counter rows are Cell rows whose accessors read and write
// the cell, and they remember where the cell is (shmemAddr, this process
// only) and which generation of it they last saw (counterGenId, which
// replicates: a reader that mounts the writer's counters learns a new
// generation from the writer).
//
// Tree: AllIntfQueueCounterDir -> IntfQueueCounterDir per interface ->
// IntfQueueCounter by name -> IntfQueueStatistics per queue. The managers
// "counterShmemMan" (cells of IntfQueueCounter) and "statisticsShmemMan"
// (cells of IntfQueueStatistics) are children of AllIntfQueueCounterDir.
//
// Cell keys: "<interface identifier>-<counter name>" for an IntfQueueCounter
// and "<interface identifier>-<counter name>-<queueId>-<packet type>"
// ("Ethernet1-current-3-uc") for its queues. A counter's queues are keyed by
// their queue index, in index order, and named by it ("3").
#pragma once

#include <Brik/ShmemCounter.h>
#include <Intf/Types.h>
#include <Kel/Attr.h>
#include <Mavo/ShmemManager.h>

namespace Interface {

inline constexpr unsigned char maxQueueId = 17;

#define KEL_ATTRS_IntfQueueStatistics(X)                                              \
   X(Ctor, queueId, QueueId, uint8_t)                                                 \
   X(Ctor, pktType, PktType, Interface::PktType)                                      \
   X(Cell, bytes, Bytes, ::Brik::Slot::bytes)                                         \
   X(Cell, pkts, Pkts, ::Brik::Slot::pkts)                                            \
   X(Cell, bytesDropped, BytesDropped, ::Brik::Slot::bytesDropped)                    \
   X(Cell, pktsDropped, PktsDropped, ::Brik::Slot::pktsDropped)                       \
   X(Scalar, dropPrec, DropPrec, Interface::DropPrecedence, {})                       \
   X(Memo, shmemAddr, ShmemAddr, uint64_t, 0)                                         \
   X(Mutable, counterGenId, CounterGenId, uint32_t, 0)
class IntfQueueStatistics : public Kel::Entity {
   KEL_ENTITY(IntfQueueStatistics, Kel::Entity, "Interface::IntfQueueStatistics",
              KEL_ATTRS_IntfQueueStatistics)
 public:
   // A queueId above 17 is refused before the entity joins any collection.
   IntfQueueStatistics(Kel::Name name, unsigned char queueId, Interface::PktType pktType);
   // Named by its index, as a counter's queues collection makes it.
   IntfQueueStatistics(unsigned char queueId, Interface::PktType pktType)
         : IntfQueueStatistics(Kel::Name(std::to_string(queueId)), queueId, pktType) {}
   // The address of this queue's cell, 0 when there is none (see
   // IntfQueueCounter::counterAddr).
   uint64_t counterAddr(bool forRead) const {
      if (uint64_t a = Brik::cachedCellAddr(shmemAddr_, counterGenId_)) return a;
      return counterAddrLookup(forRead);
   }
   // Where the cell was and the generation last seen, for the reader's
   // one-load check (Brik::shmemCounterVal).
   std::pair<uint64_t, uint32_t> cachedCell() const { return {shmemAddr_, counterGenId_}; }

 private:
   uint64_t counterAddrLookup(bool forRead) const;
};
KEL_FACTORY(intfQueueStatisticsFactory, IntfQueueStatistics);

#define KEL_ATTRS_IntfQueueCounter(X)                                                 \
   X(Cell, inDroppedPkts, InDroppedPkts, ::Brik::Slot::inDroppedPkts)                 \
   X(Cell, inDroppedBytes, InDroppedBytes, ::Brik::Slot::inDroppedBytes)              \
   X(Memo, shmemAddr, ShmemAddr, uint64_t, 0)                                         \
   X(Mutable, counterGenId, CounterGenId, uint32_t, 0)                                \
   X(Scalar, shmemReady, ShmemReady, bool, false)                                     \
   X(InstColl, queues, Queues, Kel::RbTreeMap, uint8_t, Interface::IntfQueueStatistics)
class IntfQueueCounter : public Kel::Entity {
   KEL_ENTITY(IntfQueueCounter, Kel::Entity, "Interface::IntfQueueCounter",
              KEL_ATTRS_IntfQueueCounter)
 public:
   explicit IntfQueueCounter(Kel::Name name) : Kel::Entity(std::move(name)) {}
   // The address of the cell, 0 when there is none. A writer (forRead
   // false) that finds the cell of another generation starts a new one; a
   // reader gets 0 until it has seen the cell's generation.
   uint64_t counterAddr(bool forRead) const {
      if (uint64_t a = Brik::cachedCellAddr(shmemAddr_, counterGenId_)) return a;
      return counterAddrLookup(forRead);
   }
   std::pair<uint64_t, uint32_t> cachedCell() const { return {shmemAddr_, counterGenId_}; }

 private:
   // Past the cached address: the manager's look-up.
   uint64_t counterAddrLookup(bool forRead) const;
};
KEL_FACTORY(intfQueueCounterFactory, IntfQueueCounter);

#define KEL_ATTRS_IntfQueueCounterDir(X)                                              \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(InstColl, intfQueueCounter, IntfQueueCounter, Kel::HashMap, Kel::Name,           \
     Interface::IntfQueueCounter)
class IntfQueueCounterDir : public Kel::Entity {
   KEL_ENTITY(IntfQueueCounterDir, Kel::Entity, "Interface::IntfQueueCounterDir",
              KEL_ATTRS_IntfQueueCounterDir)
 public:
   explicit IntfQueueCounterDir(Zenet::IntfId intfId)
         : Kel::Entity(intfId.stringValue()), intfId_(intfId) {}
};
KEL_FACTORY(intfQueueCounterDirFactory, IntfQueueCounterDir);

#define KEL_ATTRS_AllIntfQueueCounterDir(X)                                           \
   X(InstColl, intfQueueCounterDir, IntfQueueCounterDir, Kel::HashMap, Zenet::IntfId, \
     Interface::IntfQueueCounterDir)                                                  \
   X(InstChild, counterShmemMan, CounterShmemMan, Mavo::ShmemManager)                 \
   X(InstChild, statisticsShmemMan, StatisticsShmemMan, Mavo::ShmemManager)
class AllIntfQueueCounterDir : public Kel::Entity {
   KEL_ENTITY(AllIntfQueueCounterDir, Kel::Entity, "Interface::AllIntfQueueCounterDir",
              KEL_ATTRS_AllIntfQueueCounterDir)
 public:
   explicit AllIntfQueueCounterDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(allIntfQueueCounterDirFactory, AllIntfQueueCounterDir);

} // namespace Interface
