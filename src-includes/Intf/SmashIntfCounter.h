// Adapters that present a row of a shared-memory counter table as the
// model's counter entity, so that whoever holds an IntfCounter (or
// IntfAclDrops) reads the same way wherever the counters are kept. Every
// read looks the row up afresh, starting at the slot where it was found
// last time; with no table directory, or no row, the counters read 0.
//
// A row the engine cannot read whole ("unavailable": its writer rewrote it
// faster than it could be copied, again and again) never reads as zeros:
// the adapter answers with the last row it read whole and available() says
// false until a read succeeds again.
#pragma once

#include <Intf/IntfCounter.h>
#include <Intf/SmashIntf.h>

#include <cstring>
#include <map>
#include <string>

namespace Interface {

// The last value of one field read whole, in the other of two buffers: a
// read writes the field to its caller and to the free buffer in one pass,
// so a read that fails overwrites nothing still needed.
template <class T>
struct KeptField {
   T value[2];
   int cur = -1;  // none
};

// One table row read again and again, a field at a time: from the row's
// slot of the last look-up (a FindHint) while it still holds the row, else
// by a look-up. A row the engine cannot read gives the field's kept value.
template <class Row>
class RowReading {
 public:
   // The field of type T at `offset` of the row, into *out: T() without a
   // row, the kept value when the row is unavailable (then false).
   template <class T, class Dir>
   bool read(Dir const & dir, Zenet::IntfId id, size_t offset, KeptField<T> & kept, T * out) {
      T & next = kept.value[kept.cur == 0];
      if (Smash::findHinted<sizeof(id), sizeof(T)>(hint_, &id, out, offset, &next)) {
         kept.cur = kept.cur == 0;
         return true;
      }
      Smash::RowBuffer<Row> row;
      Smash::Found f = dir->counterLookup(id, row.slot(), &hint_);
      if (f == Smash::Found::row) {
         std::memcpy(static_cast<void *>(&next), reinterpret_cast<char const *>(row.slot()) + offset, sizeof(T));
         kept.cur = kept.cur == 0;
      } else if (f == Smash::Found::none) {
         kept.cur = -1;
      }
      *out = kept.cur < 0 ? T() : kept.value[kept.cur];
      return f != Smash::Found::unavailable;
   }

 private:
   Smash::FindHint hint_;
};

#define KEL_ATTRS_SmashIntfCounter(X) X(Ctor, intfId, IntfId, Zenet::IntfId)
class SmashIntfCounter : public IntfCounter {
   KEL_ENTITY(SmashIntfCounter, IntfCounter, "Interface::SmashIntfCounter",
              KEL_ATTRS_SmashIntfCounter)
 public:
   using DirPtr = Kel::Ptr<Smash::Interface::AllIntfCounterDir const>;
   SmashIntfCounter(Kel::Name name, Zenet::IntfId intfId, DirPtr const & dir)
         : IntfCounter(std::move(name)), intfId_(intfId), dir_(dir) {}
   SmashIntfCounter(Kel::Name name, Zenet::IntfId intfId) : SmashIntfCounter(std::move(name), intfId, {}) {}
   static Ptr SmashIntfCounterIs(Kel::Name name, Zenet::IntfId intfId, DirPtr const & dir) {
      return Ptr(new SmashIntfCounter(std::move(name), intfId, dir));
   }
   DirPtr const & counterDir() const { return dir_; }

   IntfStatistics statistics() const override {
      IntfStatistics s;
      available_ = dir_ ? reading_.read(dir_, intfId_, sizeof(Zenet::IntfId), statistics_, &s) : true;
      return s;
   }
   IntfRates rates() const override {
      IntfRates r;
      available_ = dir_ ? reading_.read(dir_, intfId_, sizeof(Zenet::IntfId) + sizeof(IntfStatistics), rates_, &r) : true;
      return r;
   }
   // Statistics and rates of the same moment, in one look-up.
   void counters(IntfStatistics * statistics, IntfRates * rates) const {
      Both b;
      available_ = dir_ ? reading_.read(dir_, intfId_, sizeof(Zenet::IntfId), both_, &b) : true;
      *statistics = b.statistics;
      *rates = b.rates;
   }
   // False when the last read found the row unavailable (and gave the last
   // values read whole).
   bool available() const { return available_; }

 private:
   struct Both {
      IntfStatistics statistics;
      IntfRates rates;
   };
   static_assert(sizeof(Smash::Interface::IntfCounter) == sizeof(Zenet::IntfId) + sizeof(Both),
                 "the row is its key, its statistics and its rates, in that order");
   DirPtr dir_;
   mutable RowReading<Smash::Interface::IntfCounter> reading_;
   mutable KeptField<IntfStatistics> statistics_;
   mutable KeptField<IntfRates> rates_;
   mutable KeptField<Both> both_;
   mutable bool available_ = true;
};
KEL_FACTORY(smashIntfCounterFactory, SmashIntfCounter);

#define KEL_ATTRS_SmashAclDropCounter(X) X(Ctor, intfId, IntfId, Zenet::IntfId)
class SmashAclDropCounter : public IntfAclDrops {
   KEL_ENTITY(SmashAclDropCounter, IntfAclDrops, "Interface::SmashAclDropCounter",
              KEL_ATTRS_SmashAclDropCounter)
 public:
   using DirPtr = Kel::Ptr<Smash::Interface::AllDropCounterDir const>;
   SmashAclDropCounter(Kel::Name name, Zenet::IntfId intfId, DirPtr const & dir)
         : IntfAclDrops(std::move(name)), intfId_(intfId), dir_(dir) {}
   SmashAclDropCounter(Kel::Name name, Zenet::IntfId intfId)
         : SmashAclDropCounter(std::move(name), intfId, {}) {}
   DirPtr const & counterDir() const { return dir_; }

   uint64_t inAclDrops() const override {
      uint64_t drops = 0;
      available_ = dir_ ? reading_.read(dir_, intfId_, sizeof(Zenet::IntfId), drops_, &drops) : true;
      return drops;
   }
   bool available() const { return available_; }

 private:
   static_assert(sizeof(Smash::Interface::DropCounter) == sizeof(Zenet::IntfId) + sizeof(uint64_t));
   DirPtr dir_;
   mutable RowReading<Smash::Interface::DropCounter> reading_;
   mutable KeptField<uint64_t> drops_;
   mutable bool available_ = true;
};
KEL_FACTORY(smashAclDropCounterFactory, SmashAclDropCounter);

// The two directory levels of the counter tree over a counter table, so
// that the general counter look-up (counter/<kind>/<dir>) finds table rows
// the way it finds counter entities. The directory of directories names
// its table by path (replicated: a reader that mounts it opens the same
// table as a reader); the per-interface directories and their "current"
// adapters are made on first request and kept.
#define KEL_ATTRS_SmashIntfCounterDir(X) X(Ctor, intfId, IntfId, Zenet::IntfId)
class SmashIntfCounterDir : public IntfCounterDirBase {
   KEL_ENTITY(SmashIntfCounterDir, IntfCounterDirBase, "Interface::SmashIntfCounterDir",
              KEL_ATTRS_SmashIntfCounterDir)
 public:
   SmashIntfCounterDir(Zenet::IntfId intfId, SmashIntfCounter::DirPtr const & table)
         : IntfCounterDirBase(intfId), intfId_(intfId),
           current_(SmashIntfCounter::SmashIntfCounterIs("current", intfId, table)) {}
   explicit SmashIntfCounterDir(Zenet::IntfId intfId) : SmashIntfCounterDir(intfId, {}) {}
   void doGetIntfCounter(Kel::String8 name, IntfCounter ** const & out) override {
      *out = name == "current" ? current_.ptr() : nullptr;
   }
   SmashIntfCounter::Ptr const & current() const { return current_; }

 private:
   SmashIntfCounter::Ptr current_;
};
KEL_FACTORY(smashIntfCounterDirFactory, SmashIntfCounterDir);

#define KEL_ATTRS_SmashIntfCounterDirDir(X)                                           \
   X(Scalar, tablePath, TablePath, Kel::String8, {})
class SmashIntfCounterDirDir : public IntfCounterDirDirBase {
   KEL_ENTITY(SmashIntfCounterDirDir, IntfCounterDirDirBase, "Interface::SmashIntfCounterDirDir",
              KEL_ATTRS_SmashIntfCounterDirDir)
 public:
   explicit SmashIntfCounterDirDir(Kel::Name name) : IntfCounterDirDirBase(std::move(name)) {}
   // The directory of an interface that has a row in the table, else null.
   void doGetIntfCounterDir(Zenet::IntfId intfId, IntfCounterDirBase ** const & out) override;
   // The table directory this process reads (or, for the owner, writes
   // through: see tableIs).
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> table() const;
   // The owner's own table directory, already opened in its role.
   void tableIs(Kel::Ptr<Smash::Interface::AllIntfCounterDir> const & t);

 private:
   mutable Kel::Ptr<Smash::Interface::AllIntfCounterDir> table_;
   mutable std::string openedPath_;
   std::map<Zenet::IntfId, SmashIntfCounterDir::Ptr> dirs_;
};
KEL_FACTORY(smashIntfCounterDirDirFactory, SmashIntfCounterDirDir);

} // namespace Interface
