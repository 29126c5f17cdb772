// Hand-written behaviour of the interface status.
#include <Intf/Counter>
#include <Intf/IntfStatus.h>

namespace Interface {

static_assert(IntfStatus::kelId_intfConfig == 259);
static_assert(IntfStatus::kelId_handleIntfConfig == 260);
static_assert(IntfStatus::kelId_defaultConfig == 261);
static_assert(IntfStatus::kelId_genId == 270);
static_assert(IntfStatus::kelId_intfAclDrops == 271);
static_assert(IntfStatus::kelId_counter == 272);
static_assert(IntfStatus::kelId_active == 273);

Kel::Ptr<IntfCounter> IntfStatus::counter() {
   if (!counter_) counterIs(lookUpCounter());
   return counter_;
}

Kel::Ptr<IntfCounter> IntfStatus::counter() const {
   return counter_ ? counter_ : lookUpCounter();
}

Kel::Ptr<IntfAclDrops> IntfStatus::intfAclDrops() {
   if (!intfAclDrops_) intfAclDropsIs(lookUpIntfAclDrops());
   return intfAclDrops_;
}

Kel::Ptr<IntfAclDrops> IntfStatus::intfAclDrops() const {
   return intfAclDrops_ ? intfAclDrops_ : lookUpIntfAclDrops();
}

Kel::Ptr<IntfCounter> IntfStatus::lookUpCounter() const {
   // The look-up requires a status directory; a status kept elsewhere (an
   // aggregate directory, no parent) has no counters to find.
   auto const * p = parentRaw();
   if (p && !dynamic_cast<IntfStatusDirBase const *>(p)) {
      INTF_COUNTER_TRACE(1, Intf::CounterDetail::notAStatusDir, "counterCommon",
                         fullName() + ": its directory (" + p->fwkType()->name() +
                             ") is not a status directory (Interface::IntfStatusDirBase): no counters to find");
      return nullptr;
   }
   return Intf::counterCommon<IntfCounter>(Kel::Ptr<IntfStatus const>(this));
}

Kel::Ptr<IntfAclDrops> IntfStatus::lookUpIntfAclDrops() const {
   // The ACL look-up asserts a path of at least two directories; a status
   // outside any tree has no drop counters to find.
   if (Kel::UriPath(fullName().view()).dirs() < 2) return nullptr;
   auto const * p = parentRaw();
   if (p && !dynamic_cast<IntfStatusDirBase const *>(p)) return nullptr;
   return Intf::getIntfAclDrops<IntfAclDrops>(Kel::Ptr<IntfStatus const>(this));
}

} // namespace Interface
