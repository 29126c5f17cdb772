// A plain directory: an entity that owns entities of any type by name. The
// process's root directory is globalDir(); absolute paths start there.
#pragma once

#include <Kel/Attr.h>

namespace Kel {

#define KEL_ATTRS_Dir(X) X(EntColl, entry, Entry, Kel::HashMap, Kel::Name, Kel::Entity, name)
class Dir : public Entity {
   KEL_ENTITY(Dir, Entity, "Kel::Dir", KEL_ATTRS_Dir)
 public:
   explicit Dir(Name name) : Entity(std::move(name)) {}
   // The directory at the "/"-separated path below this one, made (with any
   // missing directories on the way) when absent. A non-directory entity
   // on the way is refused.
   Ptr mkdir(std::string_view path);
};
KEL_FACTORY(dirFactory, Dir);

// The root of this process's entity tree (named "", so its children's full
// names start with "/").
Dir::Ptr globalDir();

} // namespace Kel
