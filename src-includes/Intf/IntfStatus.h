// The observed state of one interface, and its host-local companion.
#pragma once

#include <Intf/IntfConfig.h>
#include <Intf/IntfCounter.h>
#include <Intf/Types.h>
#include <Kel/Attr.h>
#include <Zenet/NamespaceName.h>

namespace Interface {

// The configuration is learnt once (intfConfig); until then defaultConfig
// stands in. Counters are found on first read and kept for this process.
// handleIntfConfig is the write-once guard of intfConfig, listed among the
// attributes for its identifier.
#define KEL_ATTRS_IntfStatus(X)                                                       \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(WriteOnce, intfConfig, IntfConfig, Interface::IntfConfig)                        \
   X(Hook, handleIntfConfig, HandleIntfConfig)                                        \
   X(Ctor, defaultConfig, DefaultConfig, Kel::Ptr<Interface::IntfConfig const>)       \
   X(Scalar, deviceName, DeviceName, Kel::String8, {})                                \
   X(Scalar, forwardingModel, ForwardingModel, Interface::IntfForwardingModel,        \
     Interface::IntfForwardingModel::intfForwardingModelRouted)                       \
   X(Coll, forwardingModelInputs, ForwardingModelInputs, Kel::HashMap, Kel::String8,  \
     Interface::IntfForwardingModel)                                                  \
   X(Scalar, mtu, Mtu, uint32_t, 0)                                                   \
   X(Scalar, maxMtu, MaxMtu, uint32_t, 0)                                             \
   X(Scalar, operStatus, OperStatus, Interface::IntfOperStatus,                       \
     Interface::IntfOperStatus::intfOperUnknown)                                      \
   X(Scalar, operStatusChange, OperStatusChange, Interface::IntfStatusOperStatusChange, {}) \
   X(Scalar, operStatusUpdatedByAgent, OperStatusUpdatedByAgent, bool, false)         \
   X(Ctor, genId, GenId, uint32_t)                                                    \
   X(Cache, intfAclDrops, IntfAclDrops, Interface::IntfAclDrops)                      \
   X(Cache, counter, Counter, Interface::IntfCounter)                                 \
   X(Scalar, active, Active, bool, true)
class IntfStatus : public Kel::Entity {
   KEL_ENTITY(IntfStatus, Kel::Entity, "Interface::IntfStatus", KEL_ATTRS_IntfStatus)
 public:
   using OperStatusChange = IntfStatusOperStatusChange;

   // Named by the identifier's text.
   IntfStatus(Zenet::IntfId intfId, Kel::Ptr<IntfConfig const> defaultConfig, uint32_t genId)
         : Kel::Entity(intfId.stringValue()),
           intfId_(intfId),
           defaultConfig_(std::move(defaultConfig)),
           genId_(genId) {}

   // The cached counter, else the look-up's result, kept when found (a miss
   // searches again next time). The const forms keep nothing.
   Kel::Ptr<IntfCounter> counter();
   Kel::Ptr<IntfCounter> counter() const;
   Kel::Ptr<IntfAclDrops> intfAclDrops();
   Kel::Ptr<IntfAclDrops> intfAclDrops() const;

 private:
   Kel::Ptr<IntfCounter> lookUpCounter() const;
   Kel::Ptr<IntfAclDrops> lookUpIntfAclDrops() const;
};
KEL_FACTORY(intfStatusFactory, IntfStatus);

// The network namespace in which the interface's kernel device lives.
#define KEL_ATTRS_IntfStatusLocal(X)                                                  \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(Scalar, netNsName, NetNsName, Zenet::NamespaceName,                              \
     Zenet::NamespaceName::defaultNamespace())
class IntfStatusLocal : public Kel::Entity {
   KEL_ENTITY(IntfStatusLocal, Kel::Entity, "Interface::IntfStatusLocal",
              KEL_ATTRS_IntfStatusLocal)
 public:
   explicit IntfStatusLocal(Zenet::IntfId intfId)
         : Kel::Entity(intfId.stringValue()), intfId_(intfId) {}
};
KEL_FACTORY(intfStatusLocalFactory, IntfStatusLocal);

} // namespace Interface
