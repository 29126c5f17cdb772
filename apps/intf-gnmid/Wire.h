// gNMI messages written straight in the protobuf wire format, for what the
// target sends often: notifications of leaf updates and deletions and the
// sync response, as whole SubscribeResponse (or GetResponse) bytes. Written
// once per update and shared by every client that takes it; the generated
// classes read requests and are what the tests check these bytes with.
//
// Notifications carry the prefix /interfaces (with the client's target,
// when it named one) and leaf paths interface[name=N]/state/...; each
// interface's key element is encoded once and kept (IntfElem).
#pragma once

#include "Schema.h"
#include "Values.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Gnmi {

enum class Enc : uint8_t { json, jsonIetf, proto };

namespace Wire {

void varint(std::string & out, uint64_t v);
void key(std::string & out, unsigned field, unsigned wireType);
void bytes(std::string & out, unsigned field, std::string_view b);
void number(std::string & out, unsigned field, uint64_t v);

// The encoded Path.elem field of interface[name=N].
std::string intfElem(std::string const & name);
// The encoded elem fields of a whole path.
std::string elems(std::vector<PathElem> const & path);
// The Notification.prefix field: /interfaces, with the target if any.
std::string interfacesPrefix(std::string const & target);
// The Notification.prefix field of the root, with the target if any.
std::string rootPrefix(std::string const & target);

// Appends an Update (Notification.update field) of one leaf of the
// interface whose key element is `intf`.
void leafUpdate(std::string & updates, std::string_view intf, Leaf l, Value const & v, Enc enc);
// The same for a counter, without making a Value.
void counterUpdate(std::string & updates, std::string_view intf, Leaf l, uint64_t v, Enc enc);
// An Update of any path (its encoded elem fields) with a JSON value.
void jsonUpdate(std::string & updates, std::string_view pathElems, std::string_view json, Enc enc);

// A Notification's bytes.
std::string notification(int64_t timestampNs, std::string_view prefix, std::string_view updates,
                         std::string_view deletes = {});
// SubscribeResponse{update: notification}, GetResponse{notification} and
// SubscribeResponse{sync_response: true}.
std::string subscribeUpdate(std::string_view notification);
std::string getNotification(std::string_view notification);
std::string syncResponse();
// Appends a Notification.delete field for interface[name=N].
void intfDelete(std::string & deletes, std::string_view intf);

} // namespace Wire
} // namespace Gnmi
