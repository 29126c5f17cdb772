// The limits of a replication connection: what writers, readers and
// servers (Agent.h) hold each peer to.
#pragma once

#include <chrono>
#include <cstddef>

namespace Kel::NboAttrLog {

// What one connection may cost and carry. A peer past a limit loses its
// connection, with the limit named in the reason.
struct ConnectionLimits {
   // Writer: bytes waiting to be sent; past it, changes wait as dirty state
   // (latest value only), so a stalled reader costs about this much.
   size_t bufferBytes = 1u << 20;
   // The largest message accepted.
   size_t frameBytes = 4u << 20;
   // A peer's name (the writer's, in its greeting).
   size_t nameBytes = 1024;
   // A mount path.
   size_t pathBytes = 4096;
   // Entities one writer may create in a reader.
   size_t entities = 4u << 20;
   // Bytes of the names of the entities one writer holds in a reader
   // (counted like `entities`): a message may carry a name of up to
   // frameBytes, and a reader keeps every name it was given.
   size_t entityNameBytes = 256u << 20;
   // Server: how long a reader may take to ask for its mount.
   std::chrono::milliseconds mountWait{10000};
   // Server: connections held at once.
   size_t connections = 256;
};

} // namespace Kel::NboAttrLog
