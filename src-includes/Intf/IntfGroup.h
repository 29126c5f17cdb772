// Interface groups: named sets of interfaces, configured and in effect,
// and the directories that hold them by name.
#pragma once

#include <Group/Group.h>
#include <Kel/Attr.h>
#include <Zenet/IntfId.h>

namespace IntfGroup {

// The configured members of a group.
#define KEL_ATTRS_IntfGroupConfig(X)                                                  \
   X(Ctor, groupName, GroupName, Kel::String8)                                        \
   X(Coll, intf, Intf, Kel::HashMap, Zenet::IntfId, bool)
class Config : public Group::Config {
   KEL_ENTITY(Config, Group::Config, "IntfGroup::Config", KEL_ATTRS_IntfGroupConfig)
 public:
   explicit Config(Kel::String8 groupName)
         : Group::Config(Group::GroupKey(Group::GroupType::groupTypeIntf, groupName)),
           groupName_(std::move(groupName)) {}
};
KEL_FACTORY(configFactory, Config);

// The members in effect, and separately the sub-interfaces in effect; an
// identifier may be in either or both.
#define KEL_ATTRS_IntfGroupStatus(X)                                                  \
   X(Ctor, groupName, GroupName, Kel::String8)                                        \
   X(Coll, subIntf, SubIntf, Kel::HashMap, Zenet::IntfId, bool)                       \
   X(Coll, intf, Intf, Kel::HashMap, Zenet::IntfId, bool)
class Status : public Group::Status {
   KEL_ENTITY(Status, Group::Status, "IntfGroup::Status", KEL_ATTRS_IntfGroupStatus)
 public:
   explicit Status(Kel::String8 groupName)
         : Group::Status(Group::GroupKey(Group::GroupType::groupTypeIntf, groupName)),
           groupName_(std::move(groupName)) {}
};
KEL_FACTORY(statusFactory, Status);

#define KEL_ATTRS_IntfGroupConfigDir(X)                                               \
   X(InstColl, config, Config, Kel::HashMap, Kel::String8, IntfGroup::Config)
class ConfigDir : public Kel::Entity {
   KEL_ENTITY(ConfigDir, Kel::Entity, "IntfGroup::ConfigDir", KEL_ATTRS_IntfGroupConfigDir)
 public:
   explicit ConfigDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(configDirFactory, ConfigDir);

#define KEL_ATTRS_IntfGroupStatusDir(X)                                               \
   X(InstColl, status, Status, Kel::HashMap, Kel::String8, IntfGroup::Status)
class StatusDir : public Kel::Entity {
   KEL_ENTITY(StatusDir, Kel::Entity, "IntfGroup::StatusDir", KEL_ATTRS_IntfGroupStatusDir)
 public:
   explicit StatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
KEL_FACTORY(statusDirFactory, StatusDir);

} // namespace IntfGroup
