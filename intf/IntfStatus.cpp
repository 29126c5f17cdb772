// Hand-written behaviour of the interface status.
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

// The look-ups through the status directory's counter tree and the
// shared-memory counter tables come with those tables; until then nothing
// is found.
Kel::Ptr<IntfCounter> IntfStatus::lookUpCounter() const { return nullptr; }

Kel::Ptr<IntfAclDrops> IntfStatus::lookUpIntfAclDrops() const { return nullptr; }

Kel::Ptr<IntfStatus> intfStatusFactory(Zenet::IntfId intfId,
                                       Kel::Ptr<IntfConfig const> defaultConfig, uint32_t genId) {
   return Kel::makePtr<IntfStatus>(intfId, std::move(defaultConfig), genId);
}

} // namespace Interface
