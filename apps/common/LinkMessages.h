// Kernel network devices as rtnetlink describes them: decoding of link
// messages (a dump's answers and the notifications that follow) into plain
// records. Decoding trusts nothing in the bytes: every length is checked
// against the buffer, and a malformed message ends the decoding with a
// reason instead of reading past it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace IntfApp {

// The kernel's 64-bit statistics of a device, the fields the model counts.
struct LinkStats {
   uint64_t rxPackets = 0, txPackets = 0, rxBytes = 0, txBytes = 0;
   uint64_t rxErrors = 0, txErrors = 0, rxDropped = 0, txDropped = 0;
   uint64_t rxMulticast = 0;
};

struct LinkInfo {
   int ifindex = 0;
   std::string name;
   uint32_t flags = 0;      // IFF_* of the device
   uint32_t mtu = 0;
   uint32_t maxMtu = 0;     // 0 when the kernel does not say
   uint8_t operState = 0;   // IF_OPER_*
   bool loopback = false;
   bool vlan = false;
   uint16_t vlanId = 0;
   int parentIfindex = 0;   // the lower device of a VLAN, 0 if none
   bool hasStats = false;
   LinkStats stats;
};

enum class LinkEvent { present, gone, done, error };

// Decodes one buffer of netlink messages as read from the socket. Calls
// `each` for every link message (present for RTM_NEWLINK, gone for
// RTM_DELLINK), for the end of a dump (done) and for a kernel error message
// (error; info.ifindex holds the negative errno). Returns "" when the
// buffer was well formed, else why not; link messages before the fault have
// been delivered.
std::string decodeLinkMessages(void const * data, size_t size,
                               std::function<void(LinkEvent, LinkInfo const &)> const & each);

} // namespace IntfApp
