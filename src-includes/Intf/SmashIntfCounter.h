// Adapters that present a row of a shared-memory counter table as the
// model's counter entity, so that whoever holds an IntfCounter (or
// IntfAclDrops) reads the same way wherever the counters are kept. Every
// read looks the row up afresh (the adapter caches nothing); with no table
// directory, or no row, the counters read 0.
#pragma once

#include <Intf/IntfCounter.h>
#include <Intf/SmashIntf.h>

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

   IntfStatistics statistics() const override { return row().statistics(); }
   IntfRates rates() const override { return row().rates(); }

 private:
   Smash::Interface::IntfCounter row() const {
      Smash::Interface::IntfCounter r;
      if (dir_) dir_->counterFind(intfId_, &r);
      return r;
   }
   DirPtr dir_;
};

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
      Smash::Interface::DropCounter r;
      if (dir_ && dir_->counterFind(intfId_, &r)) return r.inAclDrops();
      return 0;
   }

 private:
   DirPtr dir_;
};

} // namespace Interface
