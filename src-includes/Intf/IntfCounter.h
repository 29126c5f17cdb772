// Interface counters and the tree that holds them: a directory of
// per-interface counter directories, each holding named counters (the live
// one is "current"). The two look-ups let other implementations (slices,
// shared-memory tables) stand in for a directory level.
#pragma once

#include <Intf/Types.h>
#include <Kel/Attr.h>

namespace Interface {

#define KEL_ATTRS_IntfCounter(X)                                                      \
   X(VScalar, statistics, Statistics, Interface::IntfStatistics, {})                  \
   X(VScalar, rates, Rates, Interface::IntfRates, {})                                 \
   X(Scalar, counterUpdateReqTime, CounterUpdateReqTime, double, 0.0)                 \
   X(Scalar, counterRefreshTime, CounterRefreshTime, double, 0.0)                     \
   X(Scalar, genId, GenId, uint32_t, 0)                                               \
   X(Scalar, linkStatusChanges, LinkStatusChanges, uint32_t, 0)
class IntfCounter : public Kel::Entity {
   KEL_ENTITY(IntfCounter, Kel::Entity, "Interface::IntfCounter", KEL_ATTRS_IntfCounter)
 public:
   explicit IntfCounter(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(intfCounterFactory, IntfCounter);

// ACL drops of one interface. The counters' readers are virtual so that an
// adapter over a shared-memory row can stand in for the entity.
#define KEL_ATTRS_IntfAclDrops(X) X(VScalar, inAclDrops, InAclDrops, uint64_t, 0)
class IntfAclDrops : public Kel::Entity {
   KEL_ENTITY(IntfAclDrops, Kel::Entity, "Interface::IntfAclDrops", KEL_ATTRS_IntfAclDrops)
 public:
   explicit IntfAclDrops(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(intfAclDropsFactory, IntfAclDrops);

#define KEL_ATTRS_IntfCounterDirBase(X) X(Ctor, intfId, IntfId, Zenet::IntfId)
class IntfCounterDirBase : public Kel::Entity {
   KEL_ENTITY(IntfCounterDirBase, Kel::Entity, "Interface::IntfCounterDirBase",
              KEL_ATTRS_IntfCounterDirBase)
 public:
   explicit IntfCounterDirBase(Zenet::IntfId intfId)
         : Kel::Entity(intfId.stringValue()), intfId_(intfId) {}
   // Writes the counter named `name`, or null; creates nothing.
   virtual void doGetIntfCounter(Kel::String8 name, IntfCounter ** const & out) {
      (void)name;
      *out = nullptr;
   }
};
KEL_FACTORY(intfCounterDirBaseFactory, IntfCounterDirBase);

#define KEL_ATTRS_IntfCounterDir(X)                                                   \
   X(InstColl, intfCounter, IntfCounter, Kel::HashMap, Kel::Name, Interface::IntfCounter)
class IntfCounterDir : public IntfCounterDirBase {
   KEL_ENTITY(IntfCounterDir, IntfCounterDirBase, "Interface::IntfCounterDir",
              KEL_ATTRS_IntfCounterDir)
 public:
   explicit IntfCounterDir(Zenet::IntfId intfId) : IntfCounterDirBase(intfId) {}
   // From the entity's name, the identifier's text: the identifier row
   // belongs to the base, so creation by type name and replication of this
   // type go by name.
   explicit IntfCounterDir(Kel::Name const & name) : IntfCounterDir(Zenet::IntfId(name.view())) {}
   void doGetIntfCounter(Kel::String8 name, IntfCounter ** const & out) override {
      auto * m = intfCounter_.find(Kel::Name(name));
      *out = m ? m->value.ptr() : nullptr;
   }
};
KEL_FACTORY(intfCounterDirFactory, IntfCounterDir);

#define KEL_ATTRS_IntfCounterDirDirBase(X)
class IntfCounterDirDirBase : public Kel::Entity {
   KEL_ENTITY(IntfCounterDirDirBase, Kel::Entity, "Interface::IntfCounterDirDirBase",
              KEL_ATTRS_IntfCounterDirDirBase)
 public:
   explicit IntfCounterDirDirBase(Kel::Name name) : Kel::Entity(std::move(name)) {}
   // Writes the counter directory of `intfId`, or null; creates nothing.
   virtual void doGetIntfCounterDir(Zenet::IntfId intfId, IntfCounterDirBase ** const & out) {
      (void)intfId;
      *out = nullptr;
   }
};
KEL_FACTORY(intfCounterDirDirBaseFactory, IntfCounterDirDirBase);

#define KEL_ATTRS_AllIntfCounterDir(X)                                                \
   X(InstColl, intfCounterDir, IntfCounterDir, Kel::HashMap, Zenet::IntfId,           \
     Interface::IntfCounterDir)
class AllIntfCounterDir : public IntfCounterDirDirBase {
   KEL_ENTITY(AllIntfCounterDir, IntfCounterDirDirBase, "Interface::AllIntfCounterDir",
              KEL_ATTRS_AllIntfCounterDir)
 public:
   explicit AllIntfCounterDir(Kel::Name name) : IntfCounterDirDirBase(std::move(name)) {}
   void doGetIntfCounterDir(Zenet::IntfId intfId, IntfCounterDirBase ** const & out) override {
      auto * m = intfCounterDir_.find(intfId);
      *out = m ? m->value.ptr() : nullptr;
   }
};
KEL_FACTORY(allIntfCounterDirFactory, AllIntfCounterDir);

} // namespace Interface
