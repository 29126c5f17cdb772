// The group library's types.
#include <Group/Group.h>
#include <Kel/Reflect.h>

namespace Group {

void registerGroupTypes() { Kel::registerTypes<GroupType, GroupOrigin, GroupKey, Config, Status>(); }

} // namespace Group
