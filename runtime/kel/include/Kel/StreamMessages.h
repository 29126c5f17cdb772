// The messages of a replication stream. A frame is a 32-bit length (of
// what follows), a message type byte, the message. Attribute messages carry
// a transaction-begin and -end token (NboAttrLog.h) around the value so that
// a stream that has lost its place is caught.
#pragma once

#include <cstdint>

namespace Kel::NboAttrLog {

enum MsgType : uint8_t {
   msgMount = 1,
   msgHello = 2,
   msgCreate = 3,
   msgAttr = 4,
   msgMember = 5,
   msgCollAll = 6,
   msgSyncDone = 7,
   msgForget = 8,
   msgRoot = 9,   // names the served entity
   msgClose = 10, // the writer's reason for closing the connection
   msgList = 11,  // reader to writer, instead of a mount: what is served below a path
   msgListing = 12, // the writer's answer: paths and type names
};
constexpr uint32_t maxFrame = 64u << 20;

} // namespace Kel::NboAttrLog
