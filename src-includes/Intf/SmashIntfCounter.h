// Adapters that present a row of a shared-memory counter table as the
// model's counter entity, so that whoever holds an IntfCounter (or
// IntfAclDrops) reads the same way wherever the counters are kept. Every
// read looks the row up afresh (the adapter caches nothing); with no table
// directory, or no row, the counters read 0.
#pragma once

#include <Intf/IntfCounter.h>
#include <Intf/SmashIntf.h>

#include <map>
#include <string>

namespace Interface {

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
      Row b;
      return find(b) ? b.row().statistics() : IntfStatistics();
   }
   IntfRates rates() const override {
      Row b;
      return find(b) ? b.row().rates() : IntfRates();
   }

 private:
   using Row = Smash::RowBuffer<Smash::Interface::IntfCounter>;
   // This interface's row, read afresh; false without a directory or a row.
   bool find(Row & b) const { return dir_ && dir_->counterFind(intfId_, b.slot()); }
   DirPtr dir_;
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
      Smash::RowBuffer<Smash::Interface::DropCounter> b;
      if (dir_ && dir_->counterFind(intfId_, b.slot())) return b.row().inAclDrops();
      return 0;
   }

 private:
   DirPtr dir_;
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
