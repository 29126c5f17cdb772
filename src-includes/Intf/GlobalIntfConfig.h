// System-wide interface settings, per-interface namespace settings, and a
// named holder of counters.
#pragma once

#include <Intf/IntfCounter.h>
#include <Intf/Types.h>
#include <Kel/Attr.h>
#include <Zenet/NamespaceName.h>

namespace Interface {

// What an interface left at its defaults follows. Link-status logging is
// on globally, while an interface starts at useGlobal: the two differ on
// purpose.
#define KEL_ATTRS_GlobalIntfConfig(X)                                                 \
   X(Scalar, linkStatusLogging, LinkStatusLogging, Interface::IntfLoggingMode,        \
     Interface::IntfLoggingMode::on)                                                  \
   X(Scalar, loadInterval, LoadInterval, Interface::LoadInterval, {})                 \
   X(Scalar, exposeInactiveLanes, ExposeInactiveLanes, bool, false)                   \
   X(Scalar, exposeUnconnectedLanes, ExposeUnconnectedLanes, bool, false)
class GlobalIntfConfig : public Kel::Entity {
   KEL_ENTITY(GlobalIntfConfig, Kel::Entity, "Interface::GlobalIntfConfig",
              KEL_ATTRS_GlobalIntfConfig)
 public:
   explicit GlobalIntfConfig(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(globalIntfConfigFactory, GlobalIntfConfig);

// The namespace an interface is to live in.
#define KEL_ATTRS_IntfNamespaceConfig(X)                                              \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(Scalar, netNsName, NetNsName, Zenet::NamespaceName,                              \
     Zenet::NamespaceName::defaultNamespace())
class IntfNamespaceConfig : public Kel::Entity {
   KEL_ENTITY(IntfNamespaceConfig, Kel::Entity, "Interface::IntfNamespaceConfig",
              KEL_ATTRS_IntfNamespaceConfig)
 public:
   explicit IntfNamespaceConfig(Zenet::IntfId intfId)
         : Kel::Entity(intfId.stringValue()), intfId_(intfId) {}
};
KEL_FACTORY(intfNamespaceConfigFactory, IntfNamespaceConfig);

#define KEL_ATTRS_Bogon(X)                                                            \
   X(InstColl, intfCounter, IntfCounter, Kel::HashMap, Kel::Name, Interface::IntfCounter)
class Bogon : public Kel::Entity {
   KEL_ENTITY(Bogon, Kel::Entity, "Interface::Bogon", KEL_ATTRS_Bogon)
 public:
   explicit Bogon(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(bogonFactory, Bogon);

} // namespace Interface
