// Generic groups: a group is known by its key (a group type and a name),
// says where it came from (its origin), and, for a status, which type of
// group it is in effect. Kinds of group (interface groups, ...) derive from
// Config and Status and add their members.
#pragma once

#include <Kel/Attr.h>
#include <Kel/Value.h>

namespace Group {

#define KEL_VALUES_GroupType(V)                                                       \
   V(groupTypeUnknown, 0)                                                             \
   V(groupTypeIntf, 1)
KEL_ENUM(GroupType, "Group::GroupType", KEL_VALUES_GroupType)

#define KEL_VALUES_GroupOrigin(V)                                                     \
   V(groupOriginUnknown, 0)                                                           \
   V(groupOriginLocal, 1)                                                             \
   V(groupOriginRemote, 2)
KEL_ENUM(GroupOrigin, "Group::GroupOrigin", KEL_VALUES_GroupOrigin)

#define KEL_FIELDS_GroupKey(F)                                                        \
   F(Field, groupType, Group::GroupType, Group::GroupType::groupTypeUnknown)          \
   F(Field, name, Kel::String8, {})
struct GroupKey {
   KEL_VALUE_TYPE(GroupKey, "Group::GroupKey", KEL_FIELDS_GroupKey)
   GroupKey(GroupType t, Kel::String8 name) : groupType_(t), name_(std::move(name)) {}
};
KEL_VALUE_FUNCS(GroupKey)

// A group's configuration, named by its key's name.
#define KEL_ATTRS_GroupConfig(X)                                                      \
   X(Ctor, key, Key, Group::GroupKey)                                                 \
   X(Scalar, origin, Origin, Group::GroupOrigin, Group::GroupOrigin::groupOriginUnknown)
class Config : public Kel::Entity {
   KEL_ENTITY(Config, Kel::Entity, "Group::Config", KEL_ATTRS_GroupConfig)
 public:
   explicit Config(GroupKey key) : Kel::Entity(key.name()), key_(std::move(key)) {}
};
KEL_FACTORY(configFactory, Config);

// A group in effect.
#define KEL_ATTRS_GroupStatus(X)                                                      \
   X(Ctor, key, Key, Group::GroupKey)                                                 \
   X(Scalar, groupType, GroupType, Group::GroupType, Group::GroupType::groupTypeUnknown) \
   X(Scalar, origin, Origin, Group::GroupOrigin, Group::GroupOrigin::groupOriginUnknown)
class Status : public Kel::Entity {
   KEL_ENTITY(Status, Kel::Entity, "Group::Status", KEL_ATTRS_GroupStatus)
 public:
   explicit Status(GroupKey key) : Kel::Entity(key.name()), key_(std::move(key)) {}
};
KEL_FACTORY(statusFactory, Status);

// Registers the group library's types (once; harmless again).
void registerGroupTypes();

} // namespace Group
