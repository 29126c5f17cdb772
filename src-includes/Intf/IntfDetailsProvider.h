// Per-kind details of interfaces, found by the most-derived type name of
// an interface's status. Providers are registered by the code that defines
// them (during start-up); the registry never owns or deletes them.
#pragma once

#include <Intf/IntfStatus.h>
#include <Kel/String8.h>

#include <cstdint>
#include <map>

namespace Intf {

class IntfDetailsProvider {
 public:
   IntfDetailsProvider(int32_t ifIndexLow, int32_t ifIndexHigh)
         : ifIndexLow_(ifIndexLow), ifIndexHigh_(ifIndexHigh) {}
   virtual ~IntfDetailsProvider() = default;
   // The qualified name of the status type this provider serves.
   virtual Kel::String8 typeName() const = 0;
   // The interface indexes of its kind, both inclusive.
   int32_t ifIndexLow() const { return ifIndexLow_; }
   int32_t ifIndexHigh() const { return ifIndexHigh_; }

 private:
   int32_t ifIndexLow_;
   int32_t ifIndexHigh_;
};

using ProviderMap = std::map<Kel::String8, IntfDetailsProvider *>;

// Adds the provider under its type name, replacing an earlier one (the
// last registration wins); overlapping index ranges are traced as warnings.
void registerIntfDetailsProvider(IntfDetailsProvider * provider);
// The provider for the dynamic type of *status (exact name, no base-type
// fall-back), or null.
IntfDetailsProvider * intfDetailsProvider(Kel::Ptr<Interface::IntfStatus const> status);
ProviderMap const & providerMap();

} // namespace Intf
