// The registry of interface details providers; see Intf/IntfDetailsProvider.h.
#include <Intf/IntfDetailsProvider.h>
#include <Intf/Startup.h>
#include <Kel/Trace.h>
#include <Kel/Type.h>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace Intf {

namespace {

Kel::TraceFacility trace("Intf::IntfDetailsProvider");

ProviderMap & registry() {
   static auto * m = new ProviderMap;
   return *m;
}

Kel::String8 range(Kel::String8 const & name, IntfDetailsProvider const * p) {
   return name + "(" + Kel::String8(std::to_string(p->ifIndexLow())) + ", " +
          Kel::String8(std::to_string(p->ifIndexHigh())) + ")";
}

} // namespace

void registerIntfDetailsProvider(IntfDetailsProvider * provider) {
   Kel::String8 key = provider->typeName();
   for (auto const & [name, existing] : registry()) {
      if (existing->ifIndexLow() <= provider->ifIndexHigh() &&
          provider->ifIndexLow() <= existing->ifIndexHigh()) {
         KEL_TRACE(trace, 0, "Warning ifIndex range for " + range(key, provider) +
                                 " overlaps range for " + range(name, existing));
      }
   }
   registry()[key] = provider;
   KEL_TRACE(trace, 1, "Registered provider for type " + key);
}

IntfDetailsProvider * intfDetailsProvider(Kel::Ptr<Interface::IntfStatus const> status) {
   if (!status) return nullptr;
   Interface::IntfStatus const & s = *status;
   int rc = 0;
   std::unique_ptr<char, void (*)(void *)> demangled(
       abi::__cxa_demangle(typeid(s).name(), nullptr, nullptr, &rc), std::free);
   Kel::String8 key = rc == 0 && demangled ? Kel::String8(demangled.get()) : Kel::String8(typeid(s).name());
   auto it = registry().find(key);
   if (it == registry().end()) {
      KEL_TRACE(trace, 2, "No provider found for typename " + key);
      return nullptr;
   }
   KEL_TRACE(trace, 2, "Found provider for typename " + key);
   return it->second;
}

ProviderMap const & providerMap() { return registry(); }

} // namespace Intf

void kelModuleIntfDetailsProvider() {
   Kel::moduleInitializedIs("IntfDetailsProvider");
   Intf::providerMap();
}
