// The filter that selects interface configuration when the running
// configuration is saved: every IntfConfig (and subtype) except the
// template named "defaultIntfConfig".
#pragma once

#include <Kel/EntityWalk.h>

namespace Interface {

// handledType is state for the code that drives the save; the filter does
// not consult it.
#define KEL_ATTRS_CliSaveIntfConfigWalk(X)                                            \
   X(Coll, handledType, HandledType, Kel::HashMap, Kel::String8, bool)
class CliSaveIntfConfigWalk : public Kel::EntityWalk {
   KEL_ENTITY(CliSaveIntfConfigWalk, Kel::EntityWalk, "Interface::CliSaveIntfConfigWalk",
              KEL_ATTRS_CliSaveIntfConfigWalk)
 public:
   explicit CliSaveIntfConfigWalk(Kel::Name name) : Kel::EntityWalk(std::move(name)) {}
   void doFilter(Kel::Ptr<Kel::Entity> const & entity, unsigned * result) override;
};
KEL_FACTORY(cliSaveIntfConfigWalkFactory, CliSaveIntfConfigWalk);

} // namespace Interface
