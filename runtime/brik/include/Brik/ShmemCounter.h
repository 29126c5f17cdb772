// Counters kept in shared-memory cells that one writer updates in place
// and any number of readers in other processes read without locks.
//
// A cell is 208 bytes: the generation id of the cell, a sequence word whose
// lowest bit names the copy readers use, and two 100-byte copies of the
// counters. A counter at slot s of copy k lies at 8 + s + 100 k. A reader
// reads the word, the value from the named copy, and the word again, and
// retries when it changed; a writer writes the copy readers are not using,
// flips the word, then writes the other copy, so both agree before the next
// write. The words are accessed with acquire/release ordering (and fences
// around the value copies), so this holds on weakly ordered processors too.
#pragma once

#include <Kel/Trace.h>

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Brik {

struct ShmemCell {
   static constexpr uint32_t bytes = 208;
   static constexpr uint32_t genIdOffset = 0;
   static constexpr uint32_t seqOffset = 4;
   static constexpr uint32_t copyOffset[2] = {8, 108};
   static constexpr uint32_t copyBytes = 100;
};
static_assert(ShmemCell::bytes == 208 && ShmemCell::genIdOffset == 0 && ShmemCell::seqOffset == 4);
static_assert(ShmemCell::copyOffset[0] == 8 && ShmemCell::copyOffset[1] == 108);
static_assert(ShmemCell::copyOffset[1] + ShmemCell::copyBytes == ShmemCell::bytes);

// Slot offsets of the model's cell-backed counters.
namespace Slot {
inline constexpr uint32_t inDroppedPkts = 44, inDroppedBytes = 52;
inline constexpr uint32_t bytes = 52, pkts = 60, bytesDropped = 68, pktsDropped = 76;
} // namespace Slot
static_assert(Slot::pktsDropped + 8 <= ShmemCell::copyBytes, "every slot fits in a copy");

// Level 9 traces of the cell code; messages begin "pid:<pid> ".
Kel::TraceFacility & shmemTrace();

inline std::atomic<uint32_t> * cellWord(uint8_t * cell, uint32_t offset) {
   return reinterpret_cast<std::atomic<uint32_t> *>(cell + offset);
}
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);
static_assert(ShmemCell::seqOffset == ShmemCell::genIdOffset + 4 && ShmemCell::bytes % 8 == 0,
              "the generation id and the sequence word are one aligned 64-bit word");

// Makes the copy readers are not using equal to the one they use. A writer
// killed between its two copies leaves them disagreeing, and the next
// writer's first flip would take readers back to older values of every
// counter it did not write itself: a writer that starts reconciles each
// cell before its first write to it. Readers are undisturbed: only the copy
// the sequence word does not name is written.
inline void reconcileCell(uint8_t * cell) {
   uint32_t k = cellWord(cell, ShmemCell::seqOffset)->load(std::memory_order_acquire) & 1;
   for (uint32_t o = 0; o < ShmemCell::copyBytes; o += 4) {
      uint32_t v = cellWord(cell, ShmemCell::copyOffset[k] + o)->load(std::memory_order_relaxed);
      cellWord(cell, ShmemCell::copyOffset[1 - k] + o)->store(v, std::memory_order_relaxed);
   }
   std::atomic_thread_fence(std::memory_order_release);
}

// `addr` when the cell there still carries `genId`, the generation its
// holder last saw, else 0 (the holder must look the cell up again): the
// read side's whole cost for a cell already located, one acquire load.
inline uint64_t cachedCellAddr(uint64_t addr, uint32_t genId) {
   if (!addr) return 0;
   auto * gen = reinterpret_cast<std::atomic<uint32_t> const *>(uintptr_t(addr) + ShmemCell::genIdOffset);
   uint32_t g = gen->load(std::memory_order_acquire);
   return g != 0 && g == genId ? addr : 0;
}

// The counter at slot `s` of copy `k` of a cell.
inline uint8_t const * slotOf(uint8_t const * cell, uint32_t k, uint32_t s) {
   return cell + s + (k ? ShmemCell::copyOffset[1] : ShmemCell::copyOffset[0]);
}

// The counter at slot `s` of the cell `counter` locates, or 0 without one.
template <class T, class V = unsigned long long>
V shmemCounterValLookup(T const * counter, uint32_t s) {
   uint64_t addr = counter->counterAddr(true);
   if (!addr) return 0;
   auto * cell = reinterpret_cast<uint8_t *>(uintptr_t(addr));
   auto * seq = cellWord(cell, ShmemCell::seqOffset);
   for (;;) {
      uint32_t w = seq->load(std::memory_order_acquire);
      V v;
      std::memcpy(&v, slotOf(cell, w & 1, s), sizeof v);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (seq->load(std::memory_order_relaxed) == w) return v;
   }
}

// The same; an entity that says where its cell was and which generation it
// saw (cachedCell()) is read in line, with its generation check and the
// sequence word in one load (they are adjacent words of the cell); any
// doubt goes the long way, through counterAddr().
template <class T, class V = unsigned long long>
[[gnu::always_inline]] inline V shmemCounterVal(T const * counter, uint32_t s) {
   if constexpr (requires { counter->cachedCell(); }) {
      auto [cached, genId] = counter->cachedCell();
      if (cached) {
         auto * cell = reinterpret_cast<uint8_t *>(uintptr_t(cached));
         uint64_t both = reinterpret_cast<std::atomic<uint64_t> const *>(cell)->load(std::memory_order_acquire);
         uint32_t words[2];  // generation id, sequence word
         std::memcpy(words, &both, sizeof words);
         V v;
         std::memcpy(&v, slotOf(cell, words[1] & 1, s), sizeof v);
         std::atomic_thread_fence(std::memory_order_acquire);
         if (words[0] != 0 && words[0] == genId &&
             reinterpret_cast<std::atomic<uint64_t> const *>(cell)->load(std::memory_order_relaxed) == both) {
            return v;
         }
      }
   }
   return shmemCounterValLookup<T, V>(counter, s);
}

// Stores the counter at slot `s`; without a cell the value is dropped.
template <class T, class V = unsigned long long>
void shmemCounterValIs(T * counter, V const & value, uint32_t s) {
   uint64_t addr = counter->counterAddr(false);
   if (!addr) {
      KEL_TRACE(shmemTrace(), 9, "pid:" + Kel::String8(std::to_string(::getpid())) + " " +
                                    __PRETTY_FUNCTION__ + " null shmemPtr.");
      return;
   }
   auto * cell = reinterpret_cast<uint8_t *>(uintptr_t(addr));
   auto * seq = cellWord(cell, ShmemCell::seqOffset);
   uint32_t w = seq->load(std::memory_order_relaxed);
   KEL_TRACE(shmemTrace(), 9, "pid:" + Kel::String8(std::to_string(::getpid())) +
                                 " shmemCounterValIs - which=" + Kel::String8(std::to_string(w)));
   uint32_t k = w & 1;
   std::memcpy(cell + ShmemCell::copyOffset[1 - k] + s, &value, sizeof value);
   seq->store(w + 1, std::memory_order_release);
   std::atomic_thread_fence(std::memory_order_release);
   std::memcpy(cell + ShmemCell::copyOffset[k] + s, &value, sizeof value);
}

} // namespace Brik

// ---- the Cell row kind of the entity pattern ------------------------------------------------
// X(Cell, name, Name, slot): a 64-bit counter at `slot` of the entity's cell.
// The reader is shmemCounterVal and the mutator shmemCounterValIs with that
// slot; the entity type provides counterAddr(bool forRead). Counters change
// at line rate and every process maps the cell itself, so a Cell is neither
// announced nor replicated; reflection reads and writes it.
#define KEL_EA_CTORF_IF_Cell(...)
#define KEL_EA_CB_Cell(Name, ...)
#define KEL_EA_CHILD_Cell(name)
#define KEL_EA_HAS_Cell(name)
#define KEL_EA_EACH_Cell(name)
#define KEL_EA_DETACH_Cell(name)
#define KEL_EA_STORE_Cell(...)
#define KEL_EA_MEMBER_Cell(...)
#define KEL_EA_DESC_Cell(an, Name, slot)                                              \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Cell, ::Kel::attrWritable, uint64_t)                      \
      d.get = [](void const * o) { return ::Kel::toGeneric(uint64_t(KEL_EA_SELF_->an())); }; \
      d.set = [](void * o, ::Kel::GenericIf const & v) {                              \
         KEL_EA_MSELF_->an##Is(::Kel::fromGeneric<uint64_t>(v, #an));                 \
      };                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_API_Cell(name, Name, slot)                                             \
   static constexpr uint32_t name##Slot = slot;                                       \
   unsigned long long name() const {                                                  \
      return ::Brik::shmemCounterVal<KelSelf, unsigned long long>(this, slot);        \
   }                                                                                  \
   void name##Is(unsigned long long const & v) {                                      \
      ::Brik::shmemCounterValIs<KelSelf, unsigned long long>(this, v, slot);          \
   }
