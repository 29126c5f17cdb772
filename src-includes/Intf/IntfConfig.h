// The configured intent for one interface. Its enabled states fall back,
// one level deep, to a default configuration when left unknown.
#pragma once

#include <Intf/Types.h>
#include <Kel/Attr.h>

namespace Interface {

class IntfConfig;

#define KEL_ATTRS_IntfConfig(X)                                                       \
   X(Ctor, intfId, IntfId, Zenet::IntfId)                                             \
   X(Ptr, defaultConfig, DefaultConfig, Interface::IntfConfig const, Nullable)        \
   X(Scalar, description, Description, Kel::String8, {})                              \
   X(Derived, prettyName, PrettyName, Kel::String8)                                   \
   X(Scalar, linkStatusLogging, LinkStatusLogging, Interface::IntfLoggingMode,        \
     Interface::IntfLoggingMode::useGlobal)                                           \
   X(Scalar, adminEnabledStateLocal, AdminEnabledStateLocal, Interface::IntfEnabledState, \
     Interface::IntfEnabledState::unknownEnabledState)                                \
   X(Derived, adminEnabledState, AdminEnabledState, Interface::IntfEnabledState)      \
   X(Derived, adminEnabled, AdminEnabled, bool)                                       \
   X(Scalar, enabledStateLocal, EnabledStateLocal, Interface::IntfEnabledState,       \
     Interface::IntfEnabledState::unknownEnabledState)                                \
   X(Derived, enabledState, EnabledState, Interface::IntfEnabledState)                \
   X(Scalar, enabledStateReason, EnabledStateReason, Kel::String8, {})                \
   X(Derived, enabled, Enabled, bool)                                                 \
   X(Const, enabledDefault, EnabledDefault, bool, true)                               \
   X(Scalar, loadInterval, LoadInterval, Interface::LoadInterval, {})                 \
   X(Coll, requestor, Requestor, Kel::HashMap, Kel::String8, bool)                    \
   X(Scalar, mtu, Mtu, uint32_t, 1500)
class IntfConfig : public Kel::Entity {
   KEL_ENTITY(IntfConfig, Kel::Entity, "Interface::IntfConfig", KEL_ATTRS_IntfConfig)
 public:
   // Named by the identifier's text.
   explicit IntfConfig(Zenet::IntfId intfId) : Kel::Entity(intfId.stringValue()), intfId_(intfId) {}
   // Named otherwise: the configuration template "defaultIntfConfig" that
   // other configurations fall back to.
   IntfConfig(Kel::Name name, Zenet::IntfId intfId) : Kel::Entity(std::move(name)), intfId_(intfId) {}

   // The identifier's text, then " (description)" when there is one.
   Kel::String8 prettyName() const;
   // The local state unless unknown, else the default configuration's local
   // state (never its own fallback), else unknown.
   IntfEnabledState adminEnabledState() const {
      return fallback(adminEnabledStateLocal_, &IntfConfig::adminEnabledStateLocal_);
   }
   IntfEnabledState enabledState() const {
      return fallback(enabledStateLocal_, &IntfConfig::enabledStateLocal_);
   }
   // Enabled unless the state is shutdown: unknown reads as enabled.
   bool adminEnabled() const { return adminEnabledState() != IntfEnabledState::shutdown; }
   bool enabled() const { return enabledState() != IntfEnabledState::shutdown; }

   // Through the virtual state mutators, so that a derived configuration
   // that overrides them sees these too. There is no way back to unknown.
   virtual void adminEnabledIs(bool flag) {
      adminEnabledStateLocalIs(flag ? IntfEnabledState::enabled : IntfEnabledState::shutdown);
   }
   virtual void enabledIs(bool flag) {
      enabledStateLocalIs(flag ? IntfEnabledState::enabled : IntfEnabledState::shutdown);
   }

 private:
   IntfEnabledState fallback(IntfEnabledState local,
                             IntfEnabledState IntfConfig::*member) const {
      if (local != IntfEnabledState::unknownEnabledState) return local;
      if (defaultConfig_) return (*defaultConfig_).*member;
      return IntfEnabledState::unknownEnabledState;
   }
};
KEL_FACTORY(intfConfigFactory, IntfConfig);

} // namespace Interface
