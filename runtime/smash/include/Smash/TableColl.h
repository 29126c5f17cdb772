// A table of rows in shared memory as a collection attribute of an entity:
// the Table row kind of the entity pattern.
//
//   #define KEL_ATTRS_AllIntfCounterDir(X)
//      X(Table, counter, Counter, Zenet::IntfId, Smash::Interface::IntfCounter)
//
// gives the directory, for a row type with a `key` field:
//   counter(key)              the row (a zero row with that key when there is none;
//                             throws Smash::Error when the row is unavailable)
//   counterFind(key, &row)    false when there is none (or it is unavailable)
//   counterLookup(key, &row, hint)
//                             Smash::Found: row, none or unavailable (see
//                             Smash/Table.h); a caller reading one key again
//                             and again keeps a Smash::FindHint
//   counterIs(row), newCounter(row)
//                             writer: stores the row where readers find it at once
//   counterDel(key), counterDelAll()
//   counterCommit()           writer: ends a round of changes: shadows are told
//                             of every key changed since the last commit, once each
//   counterNotify(key)        tells this process's reactors, and shadows, of one key
//   counterNotifyCollection() tells this process's reactors of every row
//   counterPoll()             shadow: hands the keys the writer committed since the
//                             last poll to this process's onCounter(key) reactors
//                             (the first poll, and one after falling behind,
//                             reports every row)
//   counterSize(), counterForEach(fn)
//                             a scan visits every row present throughout and
//                             returns the keys of rows it could not read
//   counterOpen(role, path, capacity)
//                             chooses the role once, before the first use; without
//                             it the table is opened as a reader. Without a path,
//                             the entity's kelTablePath() names the table (the
//                             entity type provides it).
// Rows are not replicated through the attribute log: every process maps the
// table itself. Only the role's operations work: a write through a reader
// or shadow throws Smash::Error.
#pragma once

#include <Smash/Table.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace Smash {

enum class Role : uint8_t { reader, writer, shadow };
inline char const * roleName(Role r) {
   return r == Role::writer ? "writer" : r == Role::shadow ? "shadow" : "reader";
}

template <class Key, class Row>
class TableColl {
 public:
   static constexpr uint32_t defaultCapacity = 1024;

   bool opened() const { return opened_; }
   // Why a reader could not open the table (naming the object it tried);
   // "" once it has, and for the other roles.
   std::string error() const { return r_ && !r_->valid() ? r_->error() : std::string(); }
   Role role() const { return role_; }
   std::string const & path() const { return path_; }

   // Once only; opening again with the same role and path is a no-op.
   void open(Role role, std::string path, char const * rowType, uint32_t capacity = defaultCapacity) {
      if (opened_) {
         if (role == role_ && path == path_) return;
         throw Error("table " + path_ + " is already open as " + roleName(role_));
      }
      switch (role) {
      case Role::writer: w_ = std::make_unique<Writer<Key, Row>>(path, rowType, capacity); break;
      case Role::reader: r_ = std::make_unique<Reader<Key, Row>>(path, rowType); break;
      case Role::shadow: s_ = std::make_unique<Shadow<Key, Row>>(path, rowType); break;
      }
      role_ = role;
      path_ = std::move(path);
      opened_ = true;
   }

   Found find(Key const & k, Row * r, FindHint * hint = nullptr) const {
      return w_ ? w_->find(k, r) : r_ ? r_->find(k, r, hint) : s_ ? s_->find(k, r, hint) : Found::none;
   }
   void put(Row const & r) {
      Key k = r.key();
      writer().engine().put(&k, &r, false);
      pending_.push_back(k);
   }
   bool remove(Key const & k) {
      if (!writer().engine().remove(&k, false)) return false;
      pending_.push_back(k);
      return true;
   }
   // The keys changed since the last commit go to the change ring, once each.
   void commit() {
      if (!w_ || pending_.empty()) return;
      std::sort(pending_.begin(), pending_.end(), bytesLess);
      auto end = std::unique(pending_.begin(), pending_.end(), bytesEqual);
      for (auto it = pending_.begin(); it != end; ++it) w_->engine().announce(&*it);
      pending_.clear();
   }
   void announce(Key const & k) {
      if (w_) w_->engine().announce(&k);
   }
   template <class F>
   size_t poll(F && changed) {
      return s_ ? s_->poll(changed) : 0;
   }
   // Every row present throughout the scan; returns the keys it could not read.
   template <class F>
   std::vector<Key> forEach(F && fn) const {
      auto each = [&](void const *, void const * v) {
         Row row;
         std::memcpy(static_cast<void *>(&row), v, sizeof row);
         fn(row);
      };
      if (w_) w_->engine().forEach(each);
      if (r_) return keysOf<Key>(r_->engine().forEach(each));
      if (s_) return keysOf<Key>(s_->engine().forEach(each));
      return {};
   }
   uint32_t size() const {
      uint32_t n = 0;
      if (w_) return w_->size();
      forEach([&](Row const &) { ++n; });
      return n;
   }
   size_t pending() const { return pending_.size(); }

 private:
   Writer<Key, Row> & writer() {
      if (!w_) throw Error("table " + path_ + " is open as " + roleName(role_) + ", not as writer");
      return *w_;
   }
   static bool bytesLess(Key const & a, Key const & b) { return std::memcmp(&a, &b, sizeof a) < 0; }
   static bool bytesEqual(Key const & a, Key const & b) { return std::memcmp(&a, &b, sizeof a) == 0; }

   bool opened_ = false;
   Role role_ = Role::reader;
   std::string path_;
   std::unique_ptr<Writer<Key, Row>> w_;
   std::unique_ptr<Reader<Key, Row>> r_;
   std::unique_ptr<Shadow<Key, Row>> s_;
   std::vector<Key> pending_;
};

} // namespace Smash

// ---- the Table row kind of the entity pattern ------------------------------------------------
#define KEL_EA_CTORF_IF_Table(...)
#define KEL_EA_CB_Table(Name, Key, Row) virtual void on##Name(Key) {}
#define KEL_EA_CHILD_Table(name)
#define KEL_EA_HAS_Table(name)
#define KEL_EA_EACH_Table(name)
#define KEL_EA_DETACH_Table(name)
#define KEL_EA_MEMBER_Table(...)
#define KEL_EA_STORE_Table(name, Name, Key, Row) mutable ::Smash::TableColl<Key, Row> name##_;
#define KEL_EA_DESC_Table(an, Name, Key, Row)                                         \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Table,                                                    \
                        ::Kel::attrCollection | ::Kel::attrWritable | ::Kel::attrNotifying, \
                        Row)                                                          \
      d.keyType = &::Kel::typeOf<Key>;                                                \
      d.keyToGeneric = [](void const * k) { return ::Kel::toGeneric(*static_cast<Key const *>(k)); }; \
      d.index = [](void const * o, ::Kel::GenericIf const & k) {                      \
         return ::Kel::toGeneric(KEL_EA_SELF_->an(::Kel::fromGeneric<Key>(k, #an)));  \
      };                                                                              \
      d.indexSet = [](void * o, ::Kel::GenericIf const & k, ::Kel::GenericIf const & x) { \
         Row r = ::Kel::fromGeneric<Row>(x, #an);                                     \
         r.keyIs(::Kel::fromGeneric<Key>(k, #an));                                    \
         KEL_EA_MSELF_->an##Is(r);                                                    \
      };                                                                              \
      d.del = [](void * o, ::Kel::GenericIf const & k) {                              \
         KEL_EA_MSELF_->an##Del(::Kel::fromGeneric<Key>(k, #an));                     \
      };                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_API_Table(name, Name, Key, Row)                                        \
   void name##Open(::Smash::Role role, std::string path = {},                         \
                   uint32_t capacity = ::Smash::TableColl<Key, Row>::defaultCapacity) const { \
      if (path.empty()) path = kelTablePath();                                        \
      name##_.open(role, std::move(path), Row::kelTypeName, capacity);                \
   }                                                                                  \
   ::Smash::TableColl<Key, Row> & name##Table() const {                               \
      if (!name##_.opened()) name##Open(::Smash::Role::reader);                       \
      return name##_;                                                                 \
   }                                                                                  \
   bool name##Find(Key const & k, Row * r) const {                                    \
      return name##Table().find(k, r) == ::Smash::Found::row;                         \
   }                                                                                  \
   ::Smash::Found name##Lookup(Key const & k, Row * r, ::Smash::FindHint * hint = nullptr) const { \
      return name##Table().find(k, r, hint);                                          \
   }                                                                                  \
   Row name(Key const & k) const {                                                    \
      Row r;                                                                          \
      ::Smash::Found f = name##Table().find(k, &r);                                   \
      if (f == ::Smash::Found::unavailable) {                                         \
         throw ::Smash::Error("row " + ::Kel::valueToStrep(k).str() + " of table " +  \
                              name##Table().path() + " is unavailable");              \
      }                                                                               \
      if (f == ::Smash::Found::none) {                                                \
         r = Row();                                                                   \
         r.keyIs(k);                                                                  \
      }                                                                               \
      return r;                                                                       \
   }                                                                                  \
   void name##Is(Row const & r) {                                                     \
      kelCheckWritable();                                                             \
      name##Table().put(r);                                                           \
      KEL_EA_NOTIFY_(Name, kelId_##name, r.key());                                    \
   }                                                                                  \
   void new##Name(Row const & r) { name##Is(r); }                                     \
   void name##Del(Key const & k) {                                                    \
      kelCheckWritable();                                                             \
      if (name##Table().remove(k)) KEL_EA_NOTIFY_(Name, kelId_##name, k);             \
   }                                                                                  \
   void name##DelAll() {                                                              \
      std::vector<Key> keys;                                                          \
      name##Table().forEach([&](Row const & r) { keys.push_back(r.key()); });         \
      for (auto const & k : keys) name##Del(k);                                       \
   }                                                                                  \
   void name##Commit() { name##Table().commit(); }                                    \
   void name##Notify(Key const & k) const {                                           \
      name##Table().announce(k);                                                      \
      KEL_EA_NOTIFY_(Name, kelId_##name, k);                                          \
   }                                                                                  \
   void name##NotifyCollection() const {                                              \
      std::vector<Key> keys;                                                          \
      name##Table().forEach([&](Row const & r) { keys.push_back(r.key()); });         \
      for (auto const & k : keys) KEL_EA_NOTIFY_(Name, kelId_##name, k);             \
   }                                                                                  \
   size_t name##Poll() const {                                                        \
      return name##Table().poll([&](Key const & k) { KEL_EA_NOTIFY_(Name, kelId_##name, k); }); \
   }                                                                                  \
   uint32_t name##Size() const { return name##Table().size(); }                       \
   template <class F>                                                                 \
   std::vector<Key> name##ForEach(F && fn) const {                                    \
      return name##Table().forEach(fn);                                               \
   }
