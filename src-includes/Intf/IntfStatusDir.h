// The directories through which agents publish and find interface
// statuses: aggregate directories, the per-agent status directory whose
// members find their counters, and the device-indexed directories of
// host-side agents. (The configuration directories are in
// Intf/IntfConfigDir.h, included here for those who include this header.)
#pragma once

#include <Intf/EntityRefText.h>
#include <Intf/IntfConfigDir.h>
#include <Intf/IntfStatus.h>
#include <Intf/Types.h>
#include <Kel/Attr.h>

namespace Interface {

// ---- aggregate directories: entries keyed by their own intfId ----------------------------

#define KEL_ATTRS_AllIntfStatusDir(X)                                                 \
   X(EntColl, intfStatus, IntfStatus, Kel::HashMap, Zenet::IntfId, Interface::IntfStatus, \
     intfId)
class AllIntfStatusDir : public Kel::Entity {
   KEL_ENTITY(AllIntfStatusDir, Kel::Entity, "Interface::AllIntfStatusDir",
              KEL_ATTRS_AllIntfStatusDir)
 public:
   explicit AllIntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(allIntfStatusDirFactory, AllIntfStatusDir);

#define KEL_ATTRS_AllIntfStatusLocalDir(X)                                            \
   X(EntColl, intfStatusLocal, IntfStatusLocal, Kel::HashMap, Zenet::IntfId,          \
     Interface::IntfStatusLocal, intfId)
class AllIntfStatusLocalDir : public Kel::Entity {
   KEL_ENTITY(AllIntfStatusLocalDir, Kel::Entity, "Interface::AllIntfStatusLocalDir",
              KEL_ATTRS_AllIntfStatusLocalDir)
 public:
   explicit AllIntfStatusLocalDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(allIntfStatusLocalDirFactory, AllIntfStatusLocalDir);

// Statuses by kernel device name; the statuses belong to other directories.
#define KEL_ATTRS_KernelIntfStatusDir(X)                                              \
   X(RefColl, intfStatus, IntfStatus, Kel::HashMap, Kel::String8, Interface::IntfStatus)
class KernelIntfStatusDir : public Kel::Entity {
   KEL_ENTITY(KernelIntfStatusDir, Kel::Entity, "Interface::KernelIntfStatusDir",
              KEL_ATTRS_KernelIntfStatusDir)
 public:
   explicit KernelIntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(kernelIntfStatusDirFactory, KernelIntfStatusDir);

// ---- per-agent status directories -----------------------------------------------------------

// New statuses take their genId from genIdMarker. counterDir caches, for
// this process only, the counter directory the counter look-up found.
#define KEL_ATTRS_IntfStatusDirBase(X)                                                \
   X(Scalar, genIdMarker, GenIdMarker, uint32_t, 0)                                   \
   X(Local, counterDir, CounterDir, Kel::Entity)                                      \
   X(Scalar, counterDirPath, CounterDirPath, Kel::String8, {})                        \
   X(Scalar, dropCounterDirPath, DropCounterDirPath, Kel::String8,                    \
     "Smash/interface/status/counter/acldrop")
class IntfStatusDirBase : public Kel::Entity {
   KEL_ENTITY(IntfStatusDirBase, Kel::Entity, "Interface::IntfStatusDirBase",
              KEL_ATTRS_IntfStatusDirBase)
 public:
   explicit IntfStatusDirBase(Kel::Name name) : Kel::Entity(std::move(name)) {}
   // Adds `delta` (wrapping modulo 2^32) and returns the new marker; an
   // unchanged marker is not announced.
   virtual uint32_t genIdMarkerInc(uint32_t delta) {
      genIdMarkerIs(genIdMarker_ + delta);
      return genIdMarker_;
   }
};
KEL_FACTORY(intfStatusDirBaseFactory, IntfStatusDirBase);

// The concrete status directory; nothing of its own.
#define KEL_ATTRS_IntfStatusDir(X)
class IntfStatusDir : public IntfStatusDirBase {
   KEL_ENTITY(IntfStatusDir, IntfStatusDirBase, "Interface::IntfStatusDir",
              KEL_ATTRS_IntfStatusDir)
 public:
   explicit IntfStatusDir(Kel::Name name) : IntfStatusDirBase(std::move(name)) {}
};
KEL_FACTORY(intfStatusDirFactory, IntfStatusDir);

// The status directory an agent publishes its statuses in, keyed by each
// status's own intfId. Being a status directory (generation marker, counter
// paths), it lets a member find its counters: status->counter() follows
// counterDirPath, or counter/<parent's name>/<own name> from three levels
// up (src-includes/Intf/Counter).
#define KEL_ATTRS_AgentIntfStatusDir(X)                                               \
   X(EntColl, intfStatus, IntfStatus, Kel::HashMap, Zenet::IntfId, Interface::IntfStatus, \
     intfId)
class AgentIntfStatusDir : public IntfStatusDirBase {
   KEL_ENTITY(AgentIntfStatusDir, IntfStatusDirBase, "Interface::AgentIntfStatusDir",
              KEL_ATTRS_AgentIntfStatusDir)
 public:
   explicit AgentIntfStatusDir(Kel::Name name) : IntfStatusDirBase(std::move(name)) {}
};
KEL_FACTORY(agentIntfStatusDirFactory, AgentIntfStatusDir);

#define KEL_ATTRS_IntfStatusLocalDirBase(X)
class IntfStatusLocalDirBase : public Kel::Entity {
   KEL_ENTITY(IntfStatusLocalDirBase, Kel::Entity, "Interface::IntfStatusLocalDirBase",
              KEL_ATTRS_IntfStatusLocalDirBase)
 public:
   explicit IntfStatusLocalDirBase(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(intfStatusLocalDirBaseFactory, IntfStatusLocalDirBase);

// ---- device-indexed statuses --------------------------------------------------------------------

// A status by interface identifier and by kernel ifindex. The two
// collections are independent: whoever learns a device fills both.
class DeviceIntfStatusDir;

#define KEL_FIELDS_IntfStatusAndDeviceName(F)                                         \
   F(Field, intfStatus, Kel::Ptr<Interface::IntfStatus>, {})                          \
   F(Field, deviceName, Kel::String8, {})                                             \
   F(Field, ifIndex, uint32_t, 0)

#define KEL_ATTRS_DeviceIntfStatusDir(X)                                              \
   X(Coll, intfStatusAndDeviceName, IntfStatusAndDeviceName, Kel::HashMap, Zenet::IntfId, \
     Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName)                         \
   X(Coll, intfStatusByIfIndex, IntfStatusByIfIndex, Kel::HashMap, uint32_t,          \
     Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName)
class DeviceIntfStatusDir : public Kel::Entity {
 public:
   // Equal when they refer to the same status object (not merely an equal
   // one) with equal device name and ifindex.
   struct IntfStatusAndDeviceName {
      KEL_VALUE_TYPE(IntfStatusAndDeviceName,
                     "Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName",
                     KEL_FIELDS_IntfStatusAndDeviceName)
      IntfStatusAndDeviceName(Kel::Ptr<IntfStatus> intfStatus, Kel::String8 deviceName,
                              uint32_t ifIndex)
            : intfStatus_(std::move(intfStatus)),
              deviceName_(std::move(deviceName)),
              ifIndex_(ifIndex) {}
   };
   KEL_ENTITY(DeviceIntfStatusDir, Kel::Entity, "Interface::DeviceIntfStatusDir",
              KEL_ATTRS_DeviceIntfStatusDir)
 public:
   explicit DeviceIntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_VALUE_FUNCS(DeviceIntfStatusDir::IntfStatusAndDeviceName)
KEL_FACTORY(deviceIntfStatusDirFactory, DeviceIntfStatusDir);

// One device-indexed directory per VRF. Both constructor parameters are
// rows, the entity's name first, so that creation by type name and
// replication carry both.
#define KEL_ATTRS_DeviceVrfIntfStatusDir(X)                                           \
   X(Ctor, name, Name, Kel::Name)                                                     \
   X(Ctor, vrfName, VrfName, Kel::Name)                                               \
   X(InstChild, deviceIntfStatusDir, DeviceIntfStatusDir, Interface::DeviceIntfStatusDir)
class DeviceVrfIntfStatusDir : public Kel::Entity {
   KEL_ENTITY(DeviceVrfIntfStatusDir, Kel::Entity, "Interface::DeviceVrfIntfStatusDir",
              KEL_ATTRS_DeviceVrfIntfStatusDir)
 public:
   DeviceVrfIntfStatusDir(Kel::Name name, Kel::Name vrfName)
         : Kel::Entity(name), name_(std::move(name)), vrfName_(std::move(vrfName)) {}
};
KEL_FACTORY(deviceVrfIntfStatusDirFactory, DeviceVrfIntfStatusDir);

} // namespace Interface
