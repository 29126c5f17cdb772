// Locating the shared-memory cell of a queue counter entity: walk up to the
// AllIntfQueueCounterDir that owns the managers, ask the right manager for
// the cell under the generation rules, and cache the address.
#include <Intf/IntfQueueCounter.h>
#include <Kel/Assert.h>
#include <Kel/Exception.h>

#include <unistd.h>

#include <atomic>

namespace Interface {

namespace {

Kel::String8 pidText() { return "pid:" + Kel::String8(std::to_string(::getpid())); }

// A structural failure: the entity's place in the tree does not lead to a
// manager. Traced with the entity's path; the caller gets no address.
uint64_t structural(const char * function, const char * what, Kel::Entity const & e) {
   KEL_TRACE(Brik::shmemTrace(), 1,
             pidText() + " " + function + what + e.fullName());
   return 0;
}

template <class E>
uint64_t cellOf(E const & e, AllIntfQueueCounterDir const & all, bool statistics,
                Kel::String8 const & key, bool forRead, const char * function) {
   Kel::Ptr<Mavo::ShmemManager> smm =
       statistics ? all.statisticsShmemMan() : all.counterShmemMan();
   KEL_ASSERT(smm, "Intf");
   uint32_t gen = e.counterGenId();
   uint64_t addr = smm->man().cellFor(key, Brik::ShmemCell::bytes, forRead, &gen, function);
   if (gen != e.counterGenId()) e.counterGenIdIs(gen);
   if (addr) e.shmemAddrIs(addr);
   return addr;
}

// Whether `dir` is a member of `all`'s collection under its own key.
bool holds(AllIntfQueueCounterDir const & all, IntfQueueCounterDir const & dir) {
   return all.intfQueueCounterDir(dir.intfId()).ptr() == &dir;
}

} // namespace

uint64_t IntfQueueCounter::counterAddrLookup(bool forRead) const {
   // Traced as the public function the caller called.
   static const char * const function = "uint64_t Interface::IntfQueueCounter::counterAddr(bool) const";
   auto * parent = parentRaw();
   if (!parent) return structural(function, " counter is orphaned! Counter path: ", *this);
   auto * dir = dynamic_cast<IntfQueueCounterDir const *>(parent);
   if (!dir) {
      return structural(function, " queueCounters parent is not IntfQueueCounterDir! Counter path: ",
                        *this);
   }
   auto * grand = dir->parentRaw();
   if (!grand) return structural(function, " grandparent is null. Counter path: ", *this);
   auto * all = dynamic_cast<AllIntfQueueCounterDir const *>(grand);
   if (!all) {
      return structural(function, " grandparent is not AllEthIntfCounterDir! Counter path: ", *this);
   }
   bool counterDirCollection = holds(*all, *dir);
   KEL_ASSERT(counterDirCollection, "Intf");
   Kel::String8 key = dir->intfId().stringValue() + "-" + name();
   return cellOf(*this, *all, false, key, forRead, function);
}

IntfQueueStatistics::IntfQueueStatistics(Kel::Name name, unsigned char queueId,
                                         Interface::PktType pktType)
      : Kel::Entity(std::move(name)), queueId_(queueId), pktType_(pktType) {
   if (queueId > maxQueueId) {
      Kel::throwRangeException("IntfQueueStatistics::queueId < 0 or > Expr @Intf:498 not allowed");
   }
}

uint64_t IntfQueueStatistics::counterAddrLookup(bool forRead) const {
   static const char * const function =
       "uint64_t Interface::IntfQueueStatistics::counterAddr(bool) const";
   auto * parent = parentRaw();
   if (!parent) return structural(function, " counter is orphaned! Counter path: ", *this);
   auto * counter = dynamic_cast<IntfQueueCounter const *>(parent);
   if (!counter) {
      return structural(function, " parent is not IntfQueueCounter! Counter path: ", *this);
   }
   auto * grand = counter->parentRaw();
   if (!grand) return structural(function, " grandparent is null. Counter path: ", *this);
   auto * dir = dynamic_cast<IntfQueueCounterDir const *>(grand);
   if (!dir) {
      return structural(function, " queueCounters parent is not IntfQueueCounterDir! Counter path: ",
                        *this);
   }
   auto * all = dynamic_cast<AllIntfQueueCounterDir const *>(dir->parentRaw());
   if (!all) {
      return structural(function, " greatgrandparent is not AllEthIntfCounterDir! Counter path: ",
                        *this);
   }
   bool counterDirCollection = holds(*all, *dir);
   KEL_ASSERT(counterDirCollection, "Intf");
   Kel::String8 key = dir->intfId().stringValue() + "-" + counter->name() + "-" +
                      Kel::String8(std::to_string(queueId())) + "-" + stringValue(pktType());
   return cellOf(*this, *all, true, key, forRead, function);
}

} // namespace Interface
