// A socket created inside a named network namespace.
#pragma once

namespace Zenet {

// Like socket(2), but the socket belongs to the network namespace
// `namespaceName`: null, "" or the default namespace's name create it where
// the caller is; another name enters the namespace through its handle
// /run/netns/<name> on the calling thread only, creates the socket and
// returns the thread to its own namespace, on every path. Returns the
// descriptor, or -1 with errno set (ENOENT for a namespace that does not
// exist). A name over 150 bytes is refused with Kel::RangeException
// "NamespaceName::bytes > 150 not allowed".
int socketAt(int domain, int type, int protocol, char const * namespaceName);

// The same for the namespace whose handle is the file `handlePath` (a
// namespace kept somewhere other than /run/netns).
int socketAtHandle(int domain, int type, int protocol, char const * handlePath);

} // namespace Zenet
