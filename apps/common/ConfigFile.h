// The configuration file of the interface agents: what an operator writes,
// parsed into settings that the configuration agent turns into the model's
// configuration entities.
//
//   # one statement per line; '#' starts a comment that runs to the end
//   global load-interval=60 link-status-logging=on
//   Ethernet1 admin=up mtu=9000 load-interval=30 description="uplink to spine 1"
//   Ethernet2 admin=down device=veth2 netns=blue
//
// A statement is `global` or an interface name, followed by settings
// `key=value`. A value is a bare word or a double-quoted string in which \"
// and \\ stand for " and \. Settings of an interface:
//   admin          up | down
//   mtu            1 to 2147483647 bytes: every MTU the kernel takes (a
//                  device's own limits are the kernel's to check; lo takes
//                  65536 and more); left out, the device keeps its MTU
//   load-interval  5 to 600 seconds, or `default` (follow the global one)
//   description    any text up to 240 bytes
//   netns          the network namespace the interface lives in
//   device         the kernel device that carries the interface (1 to 15
//                  bytes, no '/' or blank), overriding the agents' mapping
// Settings of `global`: load-interval (5 to 600 seconds), link-status-logging
// (on | off). A setting left out keeps its default; an admin state or MTU
// left out is not applied to the device at all.
#pragma once

#include <Intf/Types.h>
#include <Zenet/IntfId.h>
#include <Zenet/NamespaceName.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace IntfApp {

struct IntfSettings {
   Zenet::IntfId intfId;
   unsigned line = 0;  // where the interface is configured
   std::optional<bool> adminUp;
   std::optional<uint32_t> mtu;
   std::optional<Interface::LoadInterval> loadInterval;
   std::optional<std::string> description;
   std::optional<Zenet::NamespaceName> netNs;
   std::optional<std::string> device;
};

struct GlobalSettings {
   std::optional<Interface::LoadInterval> loadInterval;
   std::optional<Interface::IntfLoggingMode> linkStatusLogging;
};

struct ConfigFile {
   GlobalSettings global;
   std::vector<IntfSettings> intfs;  // in file order
   IntfSettings const * intf(Zenet::IntfId id) const;
};

// A file that cannot be used: what() is "<file>:<line>: <reason>" (line 0
// for the file as a whole).
class ConfigError : public std::runtime_error {
 public:
   ConfigError(std::string const & file, unsigned line, std::string const & reason);
   unsigned line() const { return line_; }

 private:
   unsigned line_;
};

// The largest MTU the kernel takes (its MTU is a signed int).
inline constexpr uint64_t maxMtu = 2147483647;

// Files larger than this are refused whole.
inline constexpr size_t maxConfigBytes = 1 << 20;

// Parses the whole text; the first bad line throws ConfigError.
ConfigFile parseConfig(std::string_view text, std::string const & fileName);
// The bytes of a file; a file that cannot be read throws ConfigError (line
// 0) "cannot be read: <the system's reason>", one too large "larger than ...".
std::string readConfigText(std::string const & path);
// Reads and parses a file.
ConfigFile readConfigFile(std::string const & path);

} // namespace IntfApp
