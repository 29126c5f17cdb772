// Counter rows kept in shared-memory tables keyed by interface identifier,
// for the interface kinds whose counters are not entities (sub-interfaces,
// VLAN interfaces) and for ACL drop counts, and the table directories that
// hold them. Each directory is an entity with one Table row (see
// Smash/TableColl.h for the operations and the roles); a process chooses
// its role with counterOpen() before the first use, or reads.
//
// Each directory's tablePath names its table and shmPrefix the
// shared-memory prefix it lives under (Smash::shmPrefixIs; the directory
// takes its process's when it is made). Both replicate: a reader that mounts
// the directory opens the owner's table wherever it mounts it, whatever its
// own prefix. An empty tablePath stands for the directory's full name. A
// writer sets the path, then opens: dir->tablePathIs(p);
// dir->counterOpen(Smash::Role::writer) (a path given to counterOpen itself
// is taken under this process's prefix and does not travel).
//
// Default mount paths (where agents put the directories; readers find them
// there): "Smash/interface/counter/subintf", "Smash/interface/counter/vlan",
// "Smash/interface/counter/snapshot" and, for ACL drops,
// "Smash/interface/status/counter/acldrop".
#pragma once

#include <Intf/Types.h>
#include <Kel/Attr.h>
#include <Smash/TableColl.h>

namespace Smash::Interface {

// The table a directory opens: its path (else its full name) under its
// prefix, in the form that carries the prefix (Smash::objectName).
inline std::string kelTablePathOf(Kel::Entity const & e, Kel::String8 const & p, Kel::String8 const & prefix) {
   if (p.view().starts_with('/')) return p.str();  // carries its prefix already
   std::string path = p.view().empty() ? e.fullName().str() : p.str();
   return (prefix.view().empty() ? ::Smash::shmPrefix() : prefix.str()) + path;
}

#define KEL_FIELDS_SmashIntfCounter(F)                                                \
   F(Field, key, Zenet::IntfId, {})                                                   \
   F(Field, statistics, ::Interface::IntfStatistics, {})                              \
   F(Field, rates, ::Interface::IntfRates, {})
struct IntfCounter {
   KEL_VALUE_TYPE(IntfCounter, "Smash::Interface::IntfCounter", KEL_FIELDS_SmashIntfCounter)
};
KEL_VALUE_FUNCS(IntfCounter)

#define KEL_FIELDS_SmashDropCounter(F)                                                \
   F(Field, key, Zenet::IntfId, {})                                                   \
   F(Field, inAclDrops, uint64_t, 0)
struct DropCounter {
   KEL_VALUE_TYPE(DropCounter, "Smash::Interface::DropCounter", KEL_FIELDS_SmashDropCounter)
};
KEL_VALUE_FUNCS(DropCounter)

static_assert(std::is_trivially_copyable_v<IntfCounter> && std::is_trivially_copyable_v<DropCounter>,
              "rows are copied in and out of shared memory byte for byte");

// Interface counters of one kind.
#define KEL_ATTRS_SmashAllIntfCounterDir(X)                                           \
   X(Scalar, tablePath, TablePath, Kel::String8, {})                                  \
   X(Scalar, shmPrefix, ShmPrefix, Kel::String8, {})                                  \
   X(Table, counter, Counter, Zenet::IntfId, Smash::Interface::IntfCounter)
class AllIntfCounterDir : public Kel::Entity {
   KEL_ENTITY(AllIntfCounterDir, Kel::Entity, "Smash::Interface::AllIntfCounterDir",
              KEL_ATTRS_SmashAllIntfCounterDir)
 public:
   explicit AllIntfCounterDir(Kel::Name name) : Kel::Entity(std::move(name)) {
      shmPrefix_ = ::Smash::shmPrefix();
   }
   std::string kelTablePath() const { return kelTablePathOf(*this, tablePath(), shmPrefix()); }
};
KEL_FACTORY(allIntfCounterDirFactory, AllIntfCounterDir);

// ACL drop counts.
#define KEL_ATTRS_SmashAllDropCounterDir(X)                                           \
   X(Scalar, tablePath, TablePath, Kel::String8, {})                                  \
   X(Scalar, shmPrefix, ShmPrefix, Kel::String8, {})                                  \
   X(Table, counter, Counter, Zenet::IntfId, Smash::Interface::DropCounter)
class AllDropCounterDir : public Kel::Entity {
   KEL_ENTITY(AllDropCounterDir, Kel::Entity, "Smash::Interface::AllDropCounterDir",
              KEL_ATTRS_SmashAllDropCounterDir)
 public:
   explicit AllDropCounterDir(Kel::Name name) : Kel::Entity(std::move(name)) {
      shmPrefix_ = ::Smash::shmPrefix();
   }
   std::string kelTablePath() const { return kelTablePathOf(*this, tablePath(), shmPrefix()); }
};
KEL_FACTORY(allDropCounterDirFactory, AllDropCounterDir);

// Interface counters as they were when an operator cleared them: show
// commands subtract a snapshot from the live counters.
#define KEL_ATTRS_SmashAllIntfCounterSnapshotDir(X)                                           \
   X(Scalar, tablePath, TablePath, Kel::String8, {})                                  \
   X(Scalar, shmPrefix, ShmPrefix, Kel::String8, {})                                  \
   X(Table, counterSnapshot, CounterSnapshot, Zenet::IntfId, Smash::Interface::IntfCounter)
class AllIntfCounterSnapshotDir : public Kel::Entity {
   KEL_ENTITY(AllIntfCounterSnapshotDir, Kel::Entity, "Smash::Interface::AllIntfCounterSnapshotDir",
              KEL_ATTRS_SmashAllIntfCounterSnapshotDir)
 public:
   explicit AllIntfCounterSnapshotDir(Kel::Name name) : Kel::Entity(std::move(name)) {
      shmPrefix_ = ::Smash::shmPrefix();
   }
   std::string kelTablePath() const { return kelTablePathOf(*this, tablePath(), shmPrefix()); }
};
KEL_FACTORY(allIntfCounterSnapshotDirFactory, AllIntfCounterSnapshotDir);

} // namespace Smash::Interface
