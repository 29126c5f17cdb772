// What both ends of a replication connection share: reads and sends that
// never block on the descriptor, the buffers they fill and drain, the length
// of a frame, and peer-supplied texts cut for traces and reasons. Internal
// to the library: not exported.
#pragma once

#include <Kel/String8.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#pragma GCC visibility push(hidden)

namespace Kel::NboAttrLog {

void setNonBlocking(int fd);

// Sends without blocking and without SIGPIPE; returns bytes sent, 0 when
// the socket is full, -1 on a broken connection.
ssize_t sendSome(int fd, char const * p, size_t n);

// Reads what is available; -1 on end of stream or error, 0 when none.
ssize_t readSome(int fd, std::string & into);

// Drops the first `used` bytes of a connection's buffer: at once when all
// are used, else once more than 1 MiB is, so that the rest is not moved for
// every message.
void dropUsed(std::string & buf, size_t & used);

// Long peer-supplied texts are cut in traces and reasons.
String8 cut(std::string_view s, size_t max = 120);

// A frame's length, from its first four bytes.
inline uint32_t frameLength(char const * f) {
   return (uint32_t(uint8_t(f[0])) << 24) | (uint32_t(uint8_t(f[1])) << 16) |
          (uint32_t(uint8_t(f[2])) << 8) | uint8_t(f[3]);
}

} // namespace Kel::NboAttrLog

#pragma GCC visibility pop
