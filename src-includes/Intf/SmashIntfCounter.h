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

#include <map>
#include <string>

namespace Interface {

// One table row read again and again: the slot hint, and the last row read
// whole, kept in the other of two buffers so that a read that fails
// overwrites nothing that is still needed.
template <class Row>
class RowReading {
 public:
   // The row now; the last whole one when it is unavailable; null when
   // there is none (or none was ever read whole).
   template <class Dir>
   Row const * read(Dir const & dir, Zenet::IntfId id) {
      auto & into = rows_[cur_ == 0];
      Smash::Found f = dir->counterLookup(id, into.slot(), &hint_);
      available_ = f != Smash::Found::unavailable;
      if (f == Smash::Found::row) {
         cur_ = cur_ == 0;
         return &into.row();
      }
      if (f == Smash::Found::none) cur_ = -1;
      return cur_ < 0 ? nullptr : &rows_[cur_].row();
   }
   bool available() const { return available_; }

 private:
   Smash::FindHint hint_;
   Smash::RowBuffer<Row> rows_[2];
   int cur_ = -1;
   bool available_ = true;
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
      auto const * r = read();
      return r ? r->statistics() : IntfStatistics();
   }
   IntfRates rates() const override {
      auto const * r = read();
      return r ? r->rates() : IntfRates();
   }
   // Statistics and rates of the same moment, in one look-up.
   void counters(IntfStatistics * statistics, IntfRates * rates) const {
      auto const * r = read();
      *statistics = r ? r->statistics() : IntfStatistics();
      *rates = r ? r->rates() : IntfRates();
   }
   // False when the last read found the row unavailable (and gave the last
   // values read whole).
   bool available() const { return reading_.available(); }

 private:
   Smash::Interface::IntfCounter const * read() const { return dir_ ? reading_.read(dir_, intfId_) : nullptr; }
   DirPtr dir_;
   mutable RowReading<Smash::Interface::IntfCounter> reading_;
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
      auto const * r = dir_ ? reading_.read(dir_, intfId_) : nullptr;
      return r ? r->inAclDrops() : 0;
   }
   bool available() const { return reading_.available(); }

 private:
   DirPtr dir_;
   mutable RowReading<Smash::Interface::DropCounter> reading_;
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
