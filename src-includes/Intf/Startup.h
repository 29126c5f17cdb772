// Start-up functions of the library's modules, run once at load time in
// this order by the library's static initialiser.
#pragma once

#include <Kel/Type.h>

void kelModuleIntfStatusDir();  // configuration and status directories
void kelModuleIntf();           // records, configuration, status and counter entities
void kelModuleSmashIntf();      // shared-memory counter rows and table directories
void kelModuleSmashIntfCounter();  // adapters presenting table rows as counters
void kelModuleIntfIntfId();     // typed identifier views
void kelModuleIntfDetailsProvider();  // per-kind interface details registry (no types)
void kelModuleMovingAverage();  // rates (no types)
void kelModuleSyncMtu();        // MTUs into the kernel; its log message
void kelModuleCliSaveIntfConfigWalk();  // the configuration save filter
void kelModuleIntfGroup();      // interface groups

// What start-up did, one line per module then per registered type
// ("module Intf", "type Interface::IntfOperStatus", ...). A C symbol so that
// a process that loads the library with dlopen can ask for it.
extern "C" const char * intfStartupReport();
