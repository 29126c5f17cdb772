// A route netlink socket for one network namespace: asks the kernel for all
// its devices (with their statistics), hears devices appear, change and go,
// and sets a device up or down.
//
// The socket is opened by the caller inside the namespace it is to watch
// (see Zenet::socketAt) and handed over: LinkSocket owns and closes it.
#pragma once

#include "LinkMessages.h"

#include <cstdint>
#include <string>

namespace IntfApp {

class LinkSocket {
 public:
   // Takes ownership of `fd`, a NETLINK_ROUTE socket; binds it, joined to
   // the link notification group when `listen`. valid() tells if that worked.
   LinkSocket(int fd, bool listen);
   ~LinkSocket();
   LinkSocket(LinkSocket const &) = delete;
   LinkSocket & operator=(LinkSocket const &) = delete;

   bool valid() const { return fd_ >= 0; }
   int fd() const { return fd_; }
   // The reason the socket is not valid, or the last failure.
   std::string const & error() const { return error_; }

   // Asks for every device; the answers arrive through readAvailable and
   // end with a LinkEvent::done.
   bool requestDump();
   // Decodes whatever the socket holds now, without blocking. False when
   // the socket failed or the kernel sent something malformed (error()).
   bool readAvailable(std::function<void(LinkEvent, LinkInfo const &)> const & each);
   // Sets the device administratively up or down and waits for the
   // kernel's answer: 0, or the errno it refused with. Messages other than
   // the answer are dropped meanwhile, so use a socket that does not listen.
   int setUp(int ifindex, bool up);

 private:
   int fd_;
   uint32_t seq_ = 1;
   std::string error_;
};

} // namespace IntfApp
