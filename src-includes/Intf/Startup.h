// Start-up functions of the library's modules, run once at load time in
// this order by the library's static initialiser.
#pragma once

#include <Kel/Type.h>

void kelModuleIntfStatusDir();  // configuration and status directories
void kelModuleIntf();           // records, configuration, status and counter entities
void kelModuleIntfIntfId();     // typed identifier views
void kelModuleMovingAverage();  // rates (no types)

// What start-up did, one line per module then per registered type
// ("module Intf", "type Interface::IntfOperStatus", ...). A C symbol so that
// a process that loads the library with dlopen can ask for it.
extern "C" const char * intfStartupReport();
