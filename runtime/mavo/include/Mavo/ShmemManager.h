// A shared-memory cell manager as an entity of the tree, so that it is
// made by its owner, replicated to readers and found by walking up from
// the counters it serves. The manager object behind it is opened on first
// use in each process: as the writer where the entity is this process's
// own, as a reader where it is a replica of another process's entity.
#pragma once

#include <Kel/Attr.h>
#include <Mavo/ShmemMan.h>

#include <memory>

namespace Mavo {

#define KEL_ATTRS_ShmemManager(X)                                                     \
   X(Ctor, path, Path, Kel::String8)                                                  \
   X(Ctor, cellBytes, CellBytes, uint32_t)
class ShmemManager : public Kel::Entity {
   KEL_ENTITY(ShmemManager, Kel::Entity, "Mavo::ShmemManager", KEL_ATTRS_ShmemManager)
 public:
   // `path`: where the cells' objects live (see ShmemMan); `cellBytes`:
   // the size of every cell.
   ShmemManager(Kel::Name name, Kel::String8 path, uint32_t cellBytes)
         : Kel::Entity(std::move(name)), path_(std::move(path)), cellBytes_(cellBytes) {}
   ShmemMan & man() const;

 private:
   mutable std::unique_ptr<ShmemMan> man_;
};
KEL_FACTORY(shmemManagerFactory, ShmemManager);

} // namespace Mavo
