// Route netlink socket of one namespace; see LinkSocket.h.
#include "LinkSocket.h"

#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace IntfApp {

LinkSocket::LinkSocket(int fd, bool listen) : fd_(fd) {
   if (fd_ < 0) {
      error_ = "no socket";
      return;
   }
   sockaddr_nl addr{};
   addr.nl_family = AF_NETLINK;
   addr.nl_groups = listen ? RTMGRP_LINK : 0;
   // Room for a dump of many devices between two reads.
   int rcv = 4 << 20;
   ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);
   if (::bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
      error_ = std::string("bind: ") + std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
   }
}

LinkSocket::~LinkSocket() {
   if (fd_ >= 0) ::close(fd_);
}

bool LinkSocket::requestDump() {
   struct {
      nlmsghdr h;
      ifinfomsg i;
   } req{};
   req.h.nlmsg_len = sizeof req;
   req.h.nlmsg_type = RTM_GETLINK;
   req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   req.h.nlmsg_seq = seq_++;
   req.i.ifi_family = AF_UNSPEC;
   if (::send(fd_, &req, sizeof req, 0) != ssize_t(sizeof req)) {
      error_ = std::string("dump request: ") + std::strerror(errno);
      return false;
   }
   return true;
}

bool LinkSocket::readAvailable(std::function<void(LinkEvent, LinkInfo const &)> const & each) {
   std::vector<uint8_t> buf(64 * 1024);
   while (true) {
      ssize_t n = ::recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
         if (errno == EINTR) continue;
         // ENOBUFS: notifications were lost; the caller dumps again.
         error_ = std::string("read: ") + std::strerror(errno);
         return false;
      }
      if (n == 0) return true;
      std::string why = decodeLinkMessages(buf.data(), size_t(n), each);
      if (!why.empty()) {
         error_ = "malformed message from the kernel: " + why;
         return false;
      }
   }
}

int LinkSocket::setUp(int ifindex, bool up) {
   struct {
      nlmsghdr h;
      ifinfomsg i;
   } req{};
   uint32_t seq = seq_++;
   req.h.nlmsg_len = sizeof req;
   req.h.nlmsg_type = RTM_NEWLINK;
   req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
   req.h.nlmsg_seq = seq;
   req.i.ifi_family = AF_UNSPEC;
   req.i.ifi_index = ifindex;
   req.i.ifi_flags = up ? IFF_UP : 0;
   req.i.ifi_change = IFF_UP;
   if (::send(fd_, &req, sizeof req, 0) != ssize_t(sizeof req)) return errno;
   // Anything but the answer to this request is dropped while waiting (see
   // the header: use a socket that does not listen).
   std::vector<uint8_t> buf(64 * 1024);
   for (int rounds = 0; rounds < 1000; ++rounds) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 2000) <= 0) return ETIMEDOUT;
      ssize_t n = ::recv(fd_, buf.data(), buf.size(), 0);
      if (n < 0) {
         if (errno == EINTR) continue;
         return errno;
      }
      uint8_t const * q = buf.data();
      uint8_t const * end = q + n;
      while (size_t(end - q) >= sizeof(nlmsghdr)) {
         nlmsghdr h;
         std::memcpy(&h, q, sizeof h);
         if (h.nlmsg_len < sizeof h || h.nlmsg_len > size_t(end - q)) break;
         if (h.nlmsg_type == NLMSG_ERROR && h.nlmsg_seq == seq &&
             h.nlmsg_len >= NLMSG_HDRLEN + sizeof(int)) {
            int err;
            std::memcpy(&err, q + NLMSG_HDRLEN, sizeof err);
            return -err;
         }
         q += NLMSG_ALIGN(h.nlmsg_len);
      }
   }
   return ETIMEDOUT;
}

} // namespace IntfApp
