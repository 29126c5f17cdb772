// Typed views of an interface identifier, one per interface family. A view
// holds nothing but the identifier's 64-bit word; its static operations
// test the family and pull the family's numbers out of an identifier.
// Asking a view for a part of another family's identifier is a programming
// error and aborts the process.
#pragma once

#include <Kel/Assert.h>
#include <Kel/Value.h>
#include <Zenet/IntfId.h>

namespace Zenet {

// The pattern every view shares: stored word, the name as a derived read,
// ordering by the identifier, the decimal text form.
#define ZENET_INTF_VIEW_COMMON(View)                                                  \
   explicit View(IntfId id) : intfId_(id.intfIdValue()) {}                            \
   IntfId id() const { return IntfId(intfId_); }                                      \
   Kel::String8 stringValue() const { return id().stringValue(); }                    \
   void kelPrint(Kel::String8 & out) const { Kel::printU64(out, intfId_); }           \
   friend bool operator<(View const & a, View const & b) { return a.id() < b.id(); }  \
   friend bool operator<=(View const & a, View const & b) { return a.id() <= b.id(); } \
   friend bool operator>(View const & a, View const & b) { return a.id() > b.id(); }  \
   friend bool operator>=(View const & a, View const & b) { return a.id() >= b.id(); }

#define KEL_FIELDS_TestIntfId(F)                                                      \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, testIntfIdType, uint8_t, 10)                                              \
   F(Call, isTestIntfId)                                                              \
   F(Call, module)                                                                    \
   F(Call, port)
struct TestIntfId {
   KEL_VALUE_TYPE(TestIntfId, "Zenet::TestIntfId", KEL_FIELDS_TestIntfId)
   ZENET_INTF_VIEW_COMMON(TestIntfId)
   static bool isTestIntfId(IntfId intfId);
   // 0 for a name without a module part.
   static U16 module(IntfId intfId);
   // Part 0 whatever the number of parts.
   static U16 port(IntfId intfId);
};

#define KEL_FIELDS_LoopbackIntfId(F)                                                  \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, loopbackIntfIdType, uint8_t, 3)                                           \
   F(Call, isLoopbackIntfId)                                                          \
   F(Call, port)
struct LoopbackIntfId {
   KEL_VALUE_TYPE(LoopbackIntfId, "Zenet::LoopbackIntfId", KEL_FIELDS_LoopbackIntfId)
   ZENET_INTF_VIEW_COMMON(LoopbackIntfId)
   static bool isLoopbackIntfId(IntfId intfId);
   static U16 port(IntfId intfId);
};

#define KEL_FIELDS_TunnelIntfId(F)                                                    \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, tunnelIntfIdType, uint8_t, 15)                                            \
   F(Call, isTunnelIntfId)                                                            \
   F(Call, port)
struct TunnelIntfId {
   KEL_VALUE_TYPE(TunnelIntfId, "Zenet::TunnelIntfId", KEL_FIELDS_TunnelIntfId)
   ZENET_INTF_VIEW_COMMON(TunnelIntfId)
   static bool isTunnelIntfId(IntfId intfId);
   static U16 port(IntfId intfId);
};

#define KEL_FIELDS_VlanIntfId(F)                                                      \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, vlanIntfIdType, uint8_t, 1)                                               \
   F(Call, isVlanIntfId)                                                              \
   F(Call, vlanId)
struct VlanIntfId {
   KEL_VALUE_TYPE(VlanIntfId, "Zenet::VlanIntfId", KEL_FIELDS_VlanIntfId)
   ZENET_INTF_VIEW_COMMON(VlanIntfId)
   static bool isVlanIntfId(IntfId intfId);
   static U16 vlanId(IntfId intfId);
};

#define KEL_FIELDS_MgmtIntfId(F)                                                      \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, mgmtIntfIdType, uint8_t, 2)                                               \
   F(Call, isMgmtIntfId)                                                              \
   F(Call, module)                                                                    \
   F(Call, port)
struct MgmtIntfId {
   KEL_VALUE_TYPE(MgmtIntfId, "Zenet::MgmtIntfId", KEL_FIELDS_MgmtIntfId)
   ZENET_INTF_VIEW_COMMON(MgmtIntfId)
   static bool isMgmtIntfId(IntfId intfId);
   static U16 module(IntfId intfId);
   // Unlike TestIntfId::port, refuses a name of more than two parts.
   static U16 port(IntfId intfId);
};

#define KEL_FIELDS_VxlanTunnelIntfId(F)                                               \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, vxlanTunnelIntfIdType, uint8_t, 56)                                       \
   F(Call, isVxlanTunnelIntfId)                                                       \
   F(Call, vxlanTunnelId)
struct VxlanTunnelIntfId {
   KEL_VALUE_TYPE(VxlanTunnelIntfId, "Zenet::VxlanTunnelIntfId", KEL_FIELDS_VxlanTunnelIntfId)
   ZENET_INTF_VIEW_COMMON(VxlanTunnelIntfId)
   static bool isVxlanTunnelIntfId(IntfId intfId);
   static U16 vxlanTunnelId(IntfId intfId);
};

#define KEL_FIELDS_GreTunnelIntfId(F)                                                 \
   F(Field, intfId, uint64_t, 0)                                                      \
   F(Derived, stringValue, Kel::String8)                                              \
   F(Const, greTunnelIntfIdType, uint8_t, 57)                                         \
   F(Call, isGreTunnelIntfId)                                                         \
   F(Call, greTunnelId)
struct GreTunnelIntfId {
   KEL_VALUE_TYPE(GreTunnelIntfId, "Zenet::GreTunnelIntfId", KEL_FIELDS_GreTunnelIntfId)
   ZENET_INTF_VIEW_COMMON(GreTunnelIntfId)
   static bool isGreTunnelIntfId(IntfId intfId);
   static U16 greTunnelId(IntfId intfId);
};

KEL_VALUE_FUNCS(TestIntfId)
KEL_VALUE_FUNCS(LoopbackIntfId)
KEL_VALUE_FUNCS(TunnelIntfId)
KEL_VALUE_FUNCS(VlanIntfId)
KEL_VALUE_FUNCS(MgmtIntfId)
KEL_VALUE_FUNCS(VxlanTunnelIntfId)
KEL_VALUE_FUNCS(GreTunnelIntfId)

} // namespace Zenet

// Registers the module's types (start-up).
void kelModuleIntfIntfId();
