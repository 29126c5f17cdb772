// The kernel's network devices of one namespace as the agent follows them:
// a route netlink socket that hears link notifications and answers the
// agent's dumps (one socket for both, so that a dump's answers and the
// notifications reach the agent in the order the kernel made them), a
// second, non-listening one to set devices up and down, and a datagram
// socket for MTU changes, all three opened inside the namespace.
#pragma once

#include "LinkSocket.h"

#include <Kel/ActivityLoop.h>

#include <functional>
#include <memory>
#include <string>

namespace IntfApp {

class LinkNamespace : public Kel::ActivityLoop::Source {
 public:
   // Hears every device message, the end of each dump, and failures of
   // the socket after which the namespace dumps again from scratch.
   struct Events {
      virtual ~Events() = default;
      virtual void onLink(LinkNamespace & ns, LinkEvent event, LinkInfo const & info) = 0;
      virtual void onDumpDone(LinkNamespace & ns) = 0;
      virtual void onLinkFailure(LinkNamespace & ns, std::string const & why) = 0;
   };

   // Opens the sockets in namespace `name` (the default namespace's name
   // for the agent's own) found in `dir`; valid() tells if that worked.
   LinkNamespace(std::string name, std::string dir, Events & events);
   ~LinkNamespace() override;
   LinkNamespace(LinkNamespace const &) = delete;
   LinkNamespace & operator=(LinkNamespace const &) = delete;

   bool valid() const { return listen_ && listen_->valid(); }
   std::string const & error() const { return error_; }
   std::string const & name() const { return name_; }
   bool isDefault() const;

   // Asks for every device with its statistics. The kernel runs one dump
   // per socket: asked while one is under way, it refuses the new one, and
   // the end of the old one is not taken for the end of the new one (the
   // next request asks again). False when the request could not be sent.
   bool requestDump();
   bool dumping() const { return dumping_; }
   // Sets a device administratively up or down: 0 or the kernel's errno.
   int setUp(int ifindex, bool up);
   // A datagram socket in the namespace for device ioctls, or -1.
   int ioctlFd();

   int fd() const override;
   void onReadable() override;

 private:
   int open(int domain, int type, int protocol);

   std::string name_, dir_;
   Events & events_;
   std::unique_ptr<LinkSocket> listen_, control_;
   int ioctlFd_ = -1;
   bool dumping_ = false;
   std::string error_;
};

} // namespace IntfApp
