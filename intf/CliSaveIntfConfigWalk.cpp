// The interface configuration save filter; see Intf/CliSaveIntfConfigWalk.h.
#include <Intf/CliSaveIntfConfigWalk.h>
#include <Intf/Startup.h>
#include <Kel/Reflect.h>

namespace Interface {

void CliSaveIntfConfigWalk::doFilter(Kel::Ptr<Kel::Entity> const & entity, unsigned * result) {
   *result = 0;
   Kel::KelType const * config = Kel::findType("Interface::IntfConfig");
   if (config && entity && entity->fwkType()->isA(config) && entity->name() != "defaultIntfConfig") {
      *result = 1;
   }
}

} // namespace Interface

void kelModuleCliSaveIntfConfigWalk() {
   Kel::moduleInitializedIs("CliSaveIntfConfigWalk");
   Kel::registerTypes<Kel::EntityWalk, Interface::CliSaveIntfConfigWalk>();
}
