// Smash: hash tables of fixed-size rows in POSIX shared memory, written by
// one process and read by any number of others without locks.
//
// Roles
//   Writer  the one process that creates and changes a table (an exclusive
//           lock on the table's control object keeps a second one out); it
//           never waits for readers.
//   Reader  maps the table read-only and finds rows; a row is copied out
//           under its sequence word and the copy is checked afterwards, so
//           a reader never sees a torn row.
//   Shadow  a reader that is also told which keys changed, through a ring of
//           changed keys in the table; a shadow that fell behind the ring
//           resynchronises from the whole table and says so.
//
// Objects (names from the table's mount path under the agent's prefix, see
// shmPrefixIs):
//   <prefix><path>.ctl     control: magic, version, current generation
//   <prefix><path>.g<N>    generation N: header, slots, change ring
// A table grows (or sheds its tombstones) by writing a new generation and
// publishing its number in the control object; readers remap when they see
// it, and a look-up that raced the switch is retried on the new generation.
//
// Generation layout (all offsets computed by every reader from the header's
// sizes and checked against the object's size; nothing read from shared
// memory is used as an offset unchecked):
//   Header     (fixed size, see GenHeader in Table.cpp)
//   Slot[capacity]      { u32 seq; u32 state; key[keyBytes]; value[valueBytes] },
//                       key and value each padded to 8 (a reader copies a
//                       value out of its slot word by word)
//   RingEntry[ringCapacity] { u64 seq; key[keyBytes] } padded to 8
// Slots are open addressing with linear probing from the key's hash; a
// deleted row leaves a tombstone until the next generation.
//
// Memory ordering: a writer makes a slot's sequence word odd, issues a
// release fence, writes the row, and stores the next even value with
// release; a reader loads the word with acquire, reads the state and key
// and, on its key, copies the value, issues an acquire fence and loads the
// word again: equal and even means what it read is whole.
// Ring entries are published the same way, then the ring head with release.
//
// Crash safety: a writer killed mid-row leaves that slot's word odd; readers
// give up on it after a bounded number of tries ("row unavailable") and
// every other row stays readable. A writer that attaches again turns such a
// slot into a tombstone and reports its key through the ring.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Smash {

// Where this process's tables live: every object name starts with it
// ("/intf-" unless set). Tests set a unique prefix and remove what they made.
void shmPrefixIs(std::string prefix);
std::string const & shmPrefix();
// The object name of a table's part ("ctl", "g3") for a mount path. A path
// that starts with '/' carries its own prefix ("/intf-a-interface/counter"
// names "/intf-a-interface.counter.ctl" whatever this process's prefix).
std::string objectName(std::string_view path, std::string_view part);
// Removes every object of the table at `path` (control and generations).
void removeTable(std::string_view path);

class Error : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

enum class Found { row, none, unavailable };

struct TableShape {
   std::string rowType;  // checked by readers: a table of another type is refused
   uint32_t keyBytes = 0;
   uint32_t valueBytes = 0;
};

class Mapping;

// The writer of one table.
class TableWriter {
 public:
   // Creates the table (or attaches to an existing one of the same shape,
   // repairing rows a killed writer left half-written). Throws Error when
   // another writer holds it or the existing objects do not match.
   TableWriter(std::string path, TableShape shape, uint32_t initialCapacity = 1024,
               uint32_t ringCapacity = 4096);
   ~TableWriter();
   TableWriter(TableWriter const &) = delete;
   TableWriter & operator=(TableWriter const &) = delete;

   // Inserts or replaces the row of `key`; shadows hear of it through the
   // change ring unless `announce` is false (see announce()).
   void put(void const * key, void const * value, bool announce = true);
   // True when there was a row.
   bool remove(void const * key, bool announce = true);
   // Tells shadows that the row of `key` changed (or went).
   void announce(void const * key) { publish(key); }
   void clear();
   Found find(void const * key, void * value) const;
   // Every live row, in slot order.
   void forEach(std::function<void(void const * key, void const * value)> const & fn) const;
   uint32_t size() const;
   uint32_t capacity() const;
   uint32_t generation() const;
   uint32_t repaired() const { return repaired_; }

 private:
   void grow(uint32_t capacity);
   void publish(void const * key);
   std::string path_;
   TableShape shape_;
   uint32_t ringCapacity_;
   int lockFd_ = -1;
   std::unique_ptr<Mapping> gen_;
   uint32_t tombstones_ = 0;
   uint32_t repaired_ = 0;
};

// A reader of one table.
class TableReader {
 public:
   // Attaches when the table exists; valid() says whether it did, error()
   // why not. A table of another shape is refused.
   TableReader(std::string path, TableShape shape);
   ~TableReader();
   TableReader(TableReader const &) = delete;
   TableReader & operator=(TableReader const &) = delete;

   bool valid() const;
   std::string const & error() const { return error_; }
   // Tries to attach again if not attached; follows generation switches.
   bool refresh();
   // Copies the row of `key` into `value` (valueBytes long). `value` holds
   // a whole row only when the answer is Found::row; after `unavailable` it
   // may hold a torn copy, after `none` it is untouched.
   Found find(void const * key, void * value);
   void forEach(std::function<void(void const * key, void const * value)> const & fn);
   uint32_t generation() const;

 protected:
   friend class TableShadow;
   bool attach();
   std::string path_;
   TableShape shape_;
   int ctlFd_ = -1;
   void const * ctl_ = nullptr;
   // Shared, so that a walk over one generation keeps it mapped while a
   // callback's look-up moves the reader to the next.
   std::shared_ptr<Mapping> gen_;
   std::string error_;
};

// A reader told which keys changed.
class TableShadow : public TableReader {
 public:
   TableShadow(std::string path, TableShape shape);
   // Calls `changed` once for every key that changed since the last call
   // (inserted, replaced or removed: look the key up to see which). After
   // falling behind the ring, or a generation switch, every key present and
   // every key seen before is reported and resyncs() counts it.
   size_t poll(std::function<void(void const * key)> const & changed);
   uint64_t resyncs() const { return resyncs_; }

 private:
   void resync(std::function<void(void const * key)> const & changed);
   uint64_t next_ = 0;
   uint32_t seenGeneration_ = 0;
   bool started_ = false;
   uint64_t resyncs_ = 0;
   std::unordered_set<std::string> known_;  // keys present at the last resync or seen since
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

template <class Key, class Row>
class Writer {
 public:
   Writer(std::string path, std::string rowType, uint32_t capacity = 1024, uint32_t ring = 4096)
         : w_(std::move(path), TypedShape<Key, Row>::make(std::move(rowType)), capacity, ring) {}
   void put(Row const & r) { w_.put(&r.key, &r); }
   bool remove(Key const & k) { return w_.remove(&k); }
   void clear() { w_.clear(); }
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
   Found find(Key const & k, Row * r) { return r_.find(&k, r); }
   void forEach(std::function<void(Row const &)> const & fn) {
      r_.forEach([&](void const *, void const * v) {
         Row row;
         std::memcpy(&row, v, sizeof row);
         fn(row);
      });
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
   Found find(Key const & k, Row * r) { return s_.find(&k, r); }
   size_t poll(std::function<void(Key const &)> const & changed) {
      return s_.poll([&](void const * k) {
         Key key;
         std::memcpy(&key, k, sizeof key);
         changed(key);
      });
   }
   uint64_t resyncs() const { return s_.resyncs(); }
   TableShadow & engine() { return s_; }

 private:
   TableShadow s_;
};

} // namespace Smash
