// Family tests and part accessors of the typed interface identifier views.
#include <Intf/IntfIntfId.h>

namespace Zenet {

namespace {

bool family(IntfId id, uint8_t code) { return GenericIntfId::typeId(id) == code; }
U16 part(IntfId id, uint8_t i) { return U16(GenericIntfId::part(id, i)); }

} // namespace

bool TestIntfId::isTestIntfId(IntfId intfId) { return family(intfId, testIntfIdType); }

U16 TestIntfId::module(IntfId intfId) {
   KEL_ASSERT(isTestIntfId( intfId ), "IntfIntfId");
   uint8_t n = GenericIntfId::parts(intfId);
   if (n == 1) return 0;
   if (n == 2) return part(intfId, 1);
   KEL_ASSERT(0, "IntfIntfId");
   return 0;
}

U16 TestIntfId::port(IntfId intfId) {
   KEL_ASSERT(isTestIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

bool LoopbackIntfId::isLoopbackIntfId(IntfId intfId) { return family(intfId, loopbackIntfIdType); }

U16 LoopbackIntfId::port(IntfId intfId) {
   KEL_ASSERT(isLoopbackIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

bool TunnelIntfId::isTunnelIntfId(IntfId intfId) { return family(intfId, tunnelIntfIdType); }

U16 TunnelIntfId::port(IntfId intfId) {
   KEL_ASSERT(isTunnelIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

bool VlanIntfId::isVlanIntfId(IntfId intfId) { return family(intfId, vlanIntfIdType); }

U16 VlanIntfId::vlanId(IntfId intfId) {
   KEL_ASSERT(isVlanIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

bool MgmtIntfId::isMgmtIntfId(IntfId intfId) { return family(intfId, mgmtIntfIdType); }

U16 MgmtIntfId::module(IntfId intfId) {
   KEL_ASSERT(isMgmtIntfId( intfId ), "IntfIntfId");
   uint8_t n = GenericIntfId::parts(intfId);
   if (n == 1) return 0;
   if (n == 2) return part(intfId, 1);
   KEL_ASSERT(0, "IntfIntfId");
   return 0;
}

U16 MgmtIntfId::port(IntfId intfId) {
   KEL_ASSERT(isMgmtIntfId( intfId ), "IntfIntfId");
   uint8_t n = GenericIntfId::parts(intfId);
   if (n == 1 || n == 2) return part(intfId, 0);
   KEL_ASSERT(0, "IntfIntfId");
   return 0;
}

bool VxlanTunnelIntfId::isVxlanTunnelIntfId(IntfId intfId) {
   return family(intfId, vxlanTunnelIntfIdType);
}

U16 VxlanTunnelIntfId::vxlanTunnelId(IntfId intfId) {
   KEL_ASSERT(isVxlanTunnelIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

bool GreTunnelIntfId::isGreTunnelIntfId(IntfId intfId) {
   return family(intfId, greTunnelIntfIdType);
}

U16 GreTunnelIntfId::greTunnelId(IntfId intfId) {
   KEL_ASSERT(isGreTunnelIntfId( intfId ), "IntfIntfId");
   return part(intfId, 0);
}

} // namespace Zenet

void kelInitIntfIntfId() {
   using namespace Zenet;
   Kel::describeTypes("Zenet", {TestIntfId::_fwkType(), LoopbackIntfId::_fwkType(),
                                TunnelIntfId::_fwkType(), VlanIntfId::_fwkType(),
                                MgmtIntfId::_fwkType(), VxlanTunnelIntfId::_fwkType(),
                                GreTunnelIntfId::_fwkType()});
}

void kelModuleIntfIntfId() {
   using namespace Zenet;
   Kel::moduleInitializedIs("IntfIntfId");
   Kel::registerTypes<TestIntfId, LoopbackIntfId, TunnelIntfId, VlanIntfId, MgmtIntfId,
                      VxlanTunnelIntfId, GreTunnelIntfId>();
   kelInitIntfIntfId();
}
