// The library's one static initialiser. Static initialisers of different
// source files run in no defined order, so the modules' start-up functions
// are called from here, in the order the model requires; type objects are
// made on first use and never depend on initialisation order.
#include <Intf/Startup.h>
#include <Kel/Dir.h>
#include <Kel/Value.h>

#include <iostream>

namespace {

struct Startup {
   Startup() {
      static std::ios_base::Init streams;  // the standard streams, once
      // The runtime's plain directory, so that replicas can rebuild trees of them.
      Kel::registerTypes<Kel::Dir>();
      kelModuleIntfStatusDir();
      kelModuleIntf();
      kelModuleSmashIntf();
      kelModuleSmashIntfCounter();
      kelModuleIntfIntfId();
      kelModuleIntfDetailsProvider();
      kelModuleMovingAverage();
      kelModuleSyncMtu();
      kelModuleCliSaveIntfConfigWalk();
      kelModuleIntfGroup();
   }
};

Startup startup;

} // namespace

extern "C" const char * intfStartupReport() {
   static std::string report;
   report.clear();
   for (auto const & m : Kel::initializedModules()) report += "module " + m.str() + "\n";
   for (auto const * t : Kel::registeredTypes()) report += "type " + t->name().str() + "\n";
   return report.c_str();
}
