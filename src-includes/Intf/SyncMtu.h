// Keeping interface MTUs consistent with what the interface can carry and,
// for routed interfaces, with the configuration, and pushing them into the
// kernel's network devices in each interface's network namespace.
//
// The expected MTU: for a routed interface the configured MTU (1500 without
// a configuration), clipped to maxMtu with a structured log message
// (INTF_MAX_MTU_EXCEEDED); for any other forwarding model, maxMtu.
#pragma once

#include <Intf/IntfConfig.h>
#include <Intf/IntfStatus.h>
#include <Kel/Assert.h>
#include <Kel/Log.h>
#include <Zenet/NamespaceName.h>

namespace Interface {

// Syncs in statusLocal's namespace (the default namespace without one, or
// when its name is empty). `status` must not be null.
bool syncMtu(IntfStatus * status, IntfStatusLocal * statusLocal, IntfConfig const * config,
             bool updateStatus, bool updateKernel, S32 fd);
// With maxMtu 0 the status MTU becomes 0 (when updateStatus) and nothing
// else happens. Otherwise the kernel gets the expected MTU (when
// updateKernel and the status names a device), and the status follows when
// the kernel took it. Returns whether the kernel step succeeded.
bool syncMtuInNs(IntfStatus * status, IntfConfig const * config, bool updateStatus,
                 bool updateKernel, Zenet::NamespaceName ns, int fd);
// Sets `device`'s MTU in namespace `ns` through `fd`, or through a datagram
// socket opened in the namespace when fd is -1: 0, or the errno of the failure.
int setMtuInNs(char const * device, unsigned mtu, Zenet::NamespaceName ns, int fd);
bool setMtu(char const * device, unsigned mtu);
// Asserts that the status MTU is the expected one.
void verifyMtu(IntfStatus * status, IntfConfig const * config);

// The structured log message of a clipped MTU.
Kel::LogMessage const & intfMaxMtuExceeded();

} // namespace Interface
