// The counter look-ups' trace facility and the instantiations the library
// exports.
#include <Intf/Counter>

namespace Intf {

Kel::TraceFacility & counterTrace() {
   static Kel::TraceFacility f("Intf::Counter");
   return f;
}

template Interface::IntfCounter::Ptr counterCommon<Interface::IntfCounter>(
    Kel::Ptr<Interface::IntfStatus const>);
template Interface::IntfAclDrops::Ptr getIntfAclDrops<Interface::IntfAclDrops>(
    Interface::IntfStatus::PtrConst);

} // namespace Intf
