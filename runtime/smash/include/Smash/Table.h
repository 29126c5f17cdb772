// Smash: hash tables of fixed-size rows in POSIX shared memory, written by
// one process and read by any number of others without locks. The design
// note, with the argument for what readers are promised, is DESIGN.md in
// runtime/smash.
//
// Roles
//   Writer  the one process that creates and changes a table (an exclusive
//           lock on the table's control object keeps a second one out); it
//           never waits for readers.
//   Reader  maps the table read-only and finds rows; it never sees a torn
//           row, never waits on a writer that stopped, and never reports a
//           row that exists throughout its look-up as absent.
//   Shadow  a reader that is also told which keys changed.
//
// What a reader is told
//   find     row: a whole row as it was at one moment of the call;
//            none: no row of that key at one moment of the call;
//            unavailable: the row's value changed twice during each of
//            many copies (a writer rewriting that one row faster than a
//            reader copies it); nothing is made up in its place.
//   forEach  visits every row present throughout the scan (each whole, as
//            it was at one moment of the scan) and returns the keys of rows
//            it could not copy; rows added or removed meanwhile may or may
//            not be visited.
//   poll     a shadow's consumer that looks every reported key up (through
//            the shadow) and keeps what it finds holds exactly the table's
//            rows once the writer's announced changes are polled, whatever
//            the ring's size, the interleaving, or a writer's crash.
//
// Objects (Smash/ShmObject.h for names and the trust checks):
//   <prefix><path>.ctl     control: magic, version, shape, current generation
//   <prefix><path>.g<N>    generation N: header, slots, change ring
#pragma once

#include <Smash/ShmObject.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Smash {

// Removes every object of the table at `path`; readers attached to it
// notice and follow a table made again at the same path.
void removeTable(std::string_view path);

enum class Found { row, none, unavailable };

struct TableShape {
   std::string rowType;  // checked by readers: a table of another type is refused
   uint32_t keyBytes = 0;
   uint32_t valueBytes = 0;
};

// Where a reader last found a key. A caller that looks the same key up
// again and again (an adapter over one row) keeps one: the next look-up
// starts at that slot when the slot's word and the table's generation show
// it still holds the key, and probes afresh otherwise.
class Mapping;

// What a hint needs to know of the mapping it was taken on: whether its
// reader still reads that mapping (not after the reader followed another).
struct MappingState {
   bool current = true;
};
struct FindHint {
   std::shared_ptr<MappingState const> keep;  // the slot's generation and control stay mapped while held
   std::atomic<uint32_t> const * generationWord = nullptr;  // the control's current generation
   uint32_t generation = 0;                                 // the slot's
   uint32_t valueOffset = 0, valueStride = 0;               // where the slot's two value copies lie
   uint64_t head = 0;  // the slot's head word when the key was found there
   uint8_t const * slot = nullptr;
};

// Copies `Bytes` from a word-aligned place a word at a time, each word one
// relaxed load and one store: shared memory another process writes is read
// only through atomics. (A copy read back word by word this way also avoids
// wide loads of words just stored one by one, which wait for the stores.)
template <size_t Bytes, size_t I>
inline void copyWord(uint8_t * to, std::atomic<uint64_t> const * from) {
   uint64_t v = from[I].load(std::memory_order_relaxed);
   std::memcpy(to + 8 * I, &v, 8 * I + 8 <= Bytes ? 8 : Bytes % 8);
}
template <size_t Bytes, size_t... I>
inline void copyWords(uint8_t * to, std::atomic<uint64_t> const * from, std::index_sequence<I...>) {
   (copyWord<Bytes, I>(to, from), ...);
}
template <size_t Bytes>
inline void copyWords(void * to, void const * from) {
   copyWords<Bytes>(static_cast<uint8_t *>(to), static_cast<std::atomic<uint64_t> const *>(from),
                    std::make_index_sequence<(Bytes + 7) / 8>());
}
// The same, each word also stored to `save`.
template <size_t Bytes, size_t I>
inline void copyWord(uint8_t * to, uint8_t * save, std::atomic<uint64_t> const * from) {
   uint64_t v = from[I].load(std::memory_order_relaxed);
   std::memcpy(to + 8 * I, &v, 8 * I + 8 <= Bytes ? 8 : Bytes % 8);
   std::memcpy(save + 8 * I, &v, 8 * I + 8 <= Bytes ? 8 : Bytes % 8);
}
template <size_t Bytes, size_t... I>
inline void copyWords(uint8_t * to, uint8_t * save, std::atomic<uint64_t> const * from, std::index_sequence<I...>) {
   (copyWord<Bytes, I>(to, save, from), ...);
}

// Where a slot's key starts: after its head word and its value word.
inline constexpr uint32_t slotKeyOffset = 16;

// A look-up through a hint, in line for callers that know the sizes: the
// slot of the last find, while the control still names its generation and
// the slot's head word has not moved (so the slot still holds the key).
// Copies `ValueBytes` of the value from `offset` to `value`, and to `save`
// when given. False when the caller must look the key up (TableReader::find).
template <size_t KeyBytes, size_t ValueBytes>
[[gnu::always_inline]] inline bool findHinted(FindHint const & hint, void const * key, void * value,
                                              size_t offset = 0, void * save = nullptr) {
   if (!hint.slot || !hint.keep->current || hint.generationWord->load(std::memory_order_acquire) != hint.generation) {
      return false;
   }
   auto const * head = reinterpret_cast<std::atomic<uint64_t> const *>(hint.slot);
   if (head[0].load(std::memory_order_acquire) != hint.head) return false;
   uint64_t slotKey[(KeyBytes + 7) / 8] = {}, k[(KeyBytes + 7) / 8] = {};
   copyWords<KeyBytes>(slotKey, hint.slot + slotKeyOffset);
   std::memcpy(k, key, KeyBytes);
   if (std::memcmp(slotKey, k, KeyBytes) != 0) return false;
   // One try: a copy that raced the writer goes the long way.
   uint64_t v1 = head[1].load(std::memory_order_acquire);
   uint8_t const * from = hint.slot + hint.valueOffset + ((v1 >> 1) & 1) * hint.valueStride + offset;
   if (save) {
      copyWords<ValueBytes>(static_cast<uint8_t *>(value), static_cast<uint8_t *>(save),
                            reinterpret_cast<std::atomic<uint64_t> const *>(from),
                            std::make_index_sequence<(ValueBytes + 7) / 8>());
   } else {
      copyWords<ValueBytes>(value, from);
   }
   std::atomic_thread_fence(std::memory_order_acquire);
   uint64_t v2 = head[1].load(std::memory_order_relaxed);
   // The copy of version n is next written once the word is 2n + 3.
   return head[0].load(std::memory_order_relaxed) == hint.head && v2 - (v1 & ~uint64_t(1)) < 3;
}

// The writer of one table.
class TableWriter {
 public:
   static constexpr uint32_t maxCapacityLimit = 1u << 28;
   // Creates the table, or takes over an existing one of the same shape: a
   // new generation with every whole row (a row a killed writer left in the
   // middle of being added or removed is dropped, see repaired()). Throws
   // Error when another writer holds it, its objects do not match or cannot
   // be trusted; a failed constructor leaves nothing behind. The table never
   // grows past `maxCapacity` slots (half of them rows).
   TableWriter(std::string path, TableShape shape, uint32_t initialCapacity = 1024,
               uint32_t ringCapacity = 4096, uint32_t maxCapacity = maxCapacityLimit);
   ~TableWriter();
   TableWriter(TableWriter const &) = delete;
   TableWriter & operator=(TableWriter const &) = delete;

   // Inserts or replaces the row of `key`; shadows hear of it through the
   // change ring unless `announce` is false (see announce()). Throws Error
   // when the table is full.
   void put(void const * key, void const * value, bool announce = true);
   // True when there was a row.
   bool remove(void const * key, bool announce = true);
   // Tells shadows that the row of `key` changed (or went).
   void announce(void const * key) { publish(key); }
   Found find(void const * key, void * value) const;
   // Every live row, in slot order.
   void forEach(std::function<void(void const * key, void const * value)> const & fn) const;
   uint32_t size() const;
   uint32_t capacity() const;
   uint32_t generation() const;
   // Rows the previous writer left half-added or half-removed, dropped.
   uint32_t repaired() const { return repaired_; }

 private:
   void startGeneration(uint32_t capacity, Mapping const * from);
   void publish(void const * key);
   std::string path_;
   TableShape shape_;
   uint32_t ringCapacity_;
   uint32_t maxCapacity_;
   int ctlFd_ = -1;
   void * ctl_ = nullptr;
   std::unique_ptr<Mapping> gen_;
   uint32_t tombstones_ = 0;
   uint32_t repaired_ = 0;
};

// A reader of one table.
class Control;
class TableReader {
 public:
   // Attaches when the table exists; valid() says whether it did, error()
   // why not. A table of another shape, or objects that cannot be trusted,
   // are refused.
   TableReader(std::string path, TableShape shape);
   ~TableReader();
   TableReader(TableReader const &) = delete;
   TableReader & operator=(TableReader const &) = delete;

   bool valid() const;
   std::string const & error() const { return error_; }
   // Attaches if not attached, follows generation switches, and follows a
   // table removed and made again (also one whose objects were deleted by
   // hand).
   bool refresh();
   // Copies the row of `key` into `value` (valueBytes long). `value` holds
   // a whole row only when the answer is Found::row; after `unavailable` it
   // may hold a torn copy, after `none` it is untouched.
   Found find(void const * key, void * value, FindHint * hint = nullptr);
   // Every row present throughout the scan; returns the keys (keyBytes each)
   // of the rows it could not copy.
   std::vector<std::string> forEach(std::function<void(void const * key, void const * value)> const & fn);
   uint32_t generation() const;

 protected:
   bool attach();
   void detach();
   // Drops the generation read so far; hints taken on it are no longer used.
   void dropGeneration();
   std::string path_;
   TableShape shape_;
   std::shared_ptr<Control> ctl_;
   // Shared, so that a walk over one generation (or a hint) keeps it mapped
   // while a callback's look-up moves the reader to the next.
   std::shared_ptr<Mapping> gen_;
   std::string error_;
};

// A reader told which keys changed.
class TableShadow : public TableReader {
 public:
   TableShadow(std::string path, TableShape shape);
   // Calls `changed` once for every key that changed since the last call
   // (inserted, replaced or removed: look the key up to see which). After
   // falling behind the ring, or a generation switch (a grown table, a new
   // writer), every key present and every key the consumer may still hold
   // is reported, and resyncs() counts it.
   size_t poll(std::function<void(void const * key)> const & changed);
   // As TableReader::find; the shadow also learns from it which keys the
   // consumer holds, so that it can tell of their removal after a resync.
   Found find(void const * key, void * value, FindHint * hint = nullptr);
   uint64_t resyncs() const { return resyncs_; }

 private:
   void resync(std::function<void(void const * key)> const & changed);
   uint64_t next_ = 0;
   uint64_t seenMapping_ = 0;
   uint64_t resyncs_ = 0;
   // Keys the consumer may hold: reported since, and not looked up as absent.
   std::unordered_set<std::string> held_;
};

// Typed rows: `Row` is trivially copyable and has a `key` member of the
// trivially copyable type `Key` (rows keyed by interface identifier, or a
// FixedKey for string keys).
template <size_t N>
struct FixedKey {
   char bytes[N] = {};
   FixedKey() = default;
   explicit FixedKey(std::string_view s) { std::memcpy(bytes, s.data(), s.size() < N ? s.size() : N); }
   std::string_view view() const { return std::string_view(bytes, strnlen(bytes, N)); }
   friend bool operator==(FixedKey const & a, FixedKey const & b) { return !std::memcmp(a.bytes, b.bytes, N); }
};

// Storage a look-up copies a row into, left uninitialised: rows are large,
// and zeroing one before every read costs about as much as the read. The
// row exists once a find has copied it in (rows are trivially copyable).
template <class Row>
class RowBuffer {
 public:
   Row * slot() { return reinterpret_cast<Row *>(bytes_); }
   Row const & row() const { return *std::launder(reinterpret_cast<Row const *>(bytes_)); }

 private:
   alignas(Row) unsigned char bytes_[sizeof(Row)];
};

template <class Key, class Row>
struct TypedShape {
   static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Row>);
   static TableShape make(std::string rowType) {
      return TableShape{std::move(rowType), uint32_t(sizeof(Key)), uint32_t(sizeof(Row))};
   }
};

// The keys of a scan's unreadable rows, typed.
template <class Key>
std::vector<Key> keysOf(std::vector<std::string> const & raw) {
   std::vector<Key> keys(raw.size());
   for (size_t i = 0; i < raw.size(); ++i) std::memcpy(static_cast<void *>(&keys[i]), raw[i].data(), sizeof(Key));
   return keys;
}

template <class Key, class Row>
class Writer {
 public:
   Writer(std::string path, std::string rowType, uint32_t capacity = 1024, uint32_t ring = 4096,
          uint32_t maxCapacity = TableWriter::maxCapacityLimit)
         : w_(std::move(path), TypedShape<Key, Row>::make(std::move(rowType)), capacity, ring, maxCapacity) {}
   void put(Row const & r) { w_.put(&r.key, &r); }
   bool remove(Key const & k) { return w_.remove(&k); }
   Found find(Key const & k, Row * r) const { return w_.find(&k, r); }
   uint32_t size() const { return w_.size(); }
   TableWriter & engine() { return w_; }

 private:
   TableWriter w_;
};

template <class Key, class Row>
class Reader {
 public:
   Reader(std::string path, std::string rowType)
         : r_(std::move(path), TypedShape<Key, Row>::make(std::move(rowType))) {}
   bool valid() const { return r_.valid(); }
   std::string const & error() const { return r_.error(); }
   Found find(Key const & k, Row * r, FindHint * hint = nullptr) {
      if (hint && findHinted<sizeof(Key), sizeof(Row)>(*hint, &k, r)) return Found::row;
      return r_.find(&k, r, hint);
   }
   // Every row present throughout; returns the keys it could not read.
   std::vector<Key> forEach(std::function<void(Row const &)> const & fn) {
      return keysOf<Key>(r_.forEach([&](void const *, void const * v) {
         Row row;
         std::memcpy(static_cast<void *>(&row), v, sizeof row);
         fn(row);
      }));
   }
   TableReader & engine() { return r_; }

 private:
   TableReader r_;
};

template <class Key, class Row>
class Shadow {
 public:
   Shadow(std::string path, std::string rowType)
         : s_(std::move(path), TypedShape<Key, Row>::make(std::move(rowType))) {}
   bool valid() const { return s_.valid(); }
   Found find(Key const & k, Row * r, FindHint * hint = nullptr) { return s_.find(&k, r, hint); }
   size_t poll(std::function<void(Key const &)> const & changed) {
      return s_.poll([&](void const * k) {
         Key key;
         std::memcpy(static_cast<void *>(&key), k, sizeof key);
         changed(key);
      });
   }
   uint64_t resyncs() const { return s_.resyncs(); }
   TableShadow & engine() { return s_; }

 private:
   TableShadow s_;
};

} // namespace Smash
