// The directories through which configuration agents publish interface
// configurations: every interface's configuration, the per-namespace
// settings, and the base of per-agent configuration directories.
#pragma once

#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfConfig.h>
#include <Intf/Types.h>
#include <Kel/Attr.h>

namespace Interface {

// Keyed by each configuration's own intfId.
#define KEL_ATTRS_AllIntfConfigDir(X)                                                 \
   X(EntColl, intfConfig, IntfConfig, Kel::HashMap, Zenet::IntfId, Interface::IntfConfig, \
     intfId)
class AllIntfConfigDir : public Kel::Entity {
   KEL_ENTITY(AllIntfConfigDir, Kel::Entity, "Interface::AllIntfConfigDir",
              KEL_ATTRS_AllIntfConfigDir)
 public:
   explicit AllIntfConfigDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(allIntfConfigDirFactory, AllIntfConfigDir);

// Entries are made by the directory from the key.
#define KEL_ATTRS_AllIntfNamespaceConfigDir(X)                                        \
   X(InstColl, intfNamespaceConfig, IntfNamespaceConfig, Kel::HashMap, Zenet::IntfId, \
     Interface::IntfNamespaceConfig)
class AllIntfNamespaceConfigDir : public Kel::Entity {
   KEL_ENTITY(AllIntfNamespaceConfigDir, Kel::Entity, "Interface::AllIntfNamespaceConfigDir",
              KEL_ATTRS_AllIntfNamespaceConfigDir)
 public:
   explicit AllIntfNamespaceConfigDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(allIntfNamespaceConfigDirFactory, AllIntfNamespaceConfigDir);

#define KEL_ATTRS_IntfConfigDirBase(X)                                                \
   X(Coll, intfConfigRequest, IntfConfigRequest, Kel::HashMap, Interface::IntfConfigRequest, \
     bool)
class IntfConfigDirBase : public Kel::Entity {
   KEL_ENTITY(IntfConfigDirBase, Kel::Entity, "Interface::IntfConfigDirBase",
              KEL_ATTRS_IntfConfigDirBase)
 public:
   explicit IntfConfigDirBase(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(intfConfigDirBaseFactory, IntfConfigDirBase);

} // namespace Interface
