// rtnetlink link message decoding; see LinkMessages.h.
#include "LinkMessages.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>

namespace IntfApp {

namespace {

// A walk over netlink attributes within [p, end).
struct Attrs {
   uint8_t const * p;
   uint8_t const * end;
   std::string * fault;

   // The next attribute, or false at the end or on a malformed one.
   bool next(uint16_t * type, uint8_t const ** payload, size_t * len) {
      if (p == end) return false;
      if (size_t(end - p) < sizeof(rtattr)) return bad("truncated attribute header");
      rtattr a;
      std::memcpy(&a, p, sizeof a);
      if (a.rta_len < sizeof(rtattr) || a.rta_len > size_t(end - p)) {
         return bad("attribute length out of bounds");
      }
      *type = a.rta_type & NLA_TYPE_MASK;
      *payload = p + RTA_LENGTH(0);
      *len = a.rta_len - RTA_LENGTH(0);
      size_t step = RTA_ALIGN(a.rta_len);
      p = step >= size_t(end - p) ? end : p + step;
      return true;
   }
   bool bad(char const * why) {
      if (fault->empty()) *fault = why;
      p = end;
      return false;
   }
};

uint32_t u32(uint8_t const * payload, size_t len) {
   uint32_t v = 0;
   std::memcpy(&v, payload, len < 4 ? len : 4);
   return v;
}

void linkInfo(uint8_t const * p, size_t len, LinkInfo & info, std::string * fault) {
   Attrs a{p, p + len, fault};
   uint16_t type;
   uint8_t const * payload;
   size_t plen;
   bool isVlan = false;
   uint8_t const * data = nullptr;
   size_t dataLen = 0;
   while (a.next(&type, &payload, &plen)) {
      if (type == IFLA_INFO_KIND) {
         isVlan = plen >= 4 && std::memcmp(payload, "vlan", 4) == 0 && (plen == 4 || payload[4] == 0);
      } else if (type == IFLA_INFO_DATA) {
         data = payload;
         dataLen = plen;
      }
   }
   info.vlan = isVlan;
   if (!isVlan || !data) return;
   Attrs d{data, data + dataLen, fault};
   while (d.next(&type, &payload, &plen)) {
      if (type == IFLA_VLAN_ID && plen >= 2) {
         uint16_t id;
         std::memcpy(&id, payload, 2);
         info.vlanId = id;
      }
   }
}

} // namespace

std::string decodeLinkMessages(void const * data, size_t size,
                               std::function<void(LinkEvent, LinkInfo const &)> const & each) {
   auto const * p = static_cast<uint8_t const *>(data);
   auto const * end = p + size;
   std::string fault;
   while (p < end) {
      if (size_t(end - p) < sizeof(nlmsghdr)) return "truncated message header";
      nlmsghdr h;
      std::memcpy(&h, p, sizeof h);
      if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > size_t(end - p)) {
         return "message length out of bounds";
      }
      uint8_t const * body = p + NLMSG_HDRLEN;
      size_t bodyLen = h.nlmsg_len - NLMSG_HDRLEN;
      size_t step = NLMSG_ALIGN(h.nlmsg_len);
      p = step >= size_t(end - p) ? end : p + step;

      LinkInfo info;
      if (h.nlmsg_type == NLMSG_DONE) {
         each(LinkEvent::done, info);
         continue;
      }
      if (h.nlmsg_type == NLMSG_ERROR) {
         if (bodyLen < sizeof(int)) return "truncated error message";
         int err;
         std::memcpy(&err, body, sizeof err);
         if (err == 0) continue;  // an acknowledgement
         info.ifindex = err;
         each(LinkEvent::error, info);
         continue;
      }
      if (h.nlmsg_type != RTM_NEWLINK && h.nlmsg_type != RTM_DELLINK) continue;
      if (bodyLen < sizeof(ifinfomsg)) return "truncated link message";
      ifinfomsg ifi;
      std::memcpy(&ifi, body, sizeof ifi);
      info.ifindex = ifi.ifi_index;
      info.flags = ifi.ifi_flags;
      info.loopback = (ifi.ifi_flags & IFF_LOOPBACK) != 0;
      size_t off = NLMSG_ALIGN(sizeof(ifinfomsg));
      Attrs a{body + (off < bodyLen ? off : bodyLen), body + bodyLen, &fault};
      uint16_t type;
      uint8_t const * payload;
      size_t plen;
      while (a.next(&type, &payload, &plen)) {
         switch (type) {
         case IFLA_IFNAME:
            info.name.assign(reinterpret_cast<char const *>(payload), strnlen(
                                reinterpret_cast<char const *>(payload), plen));
            break;
         case IFLA_MTU: info.mtu = u32(payload, plen); break;
         case IFLA_MAX_MTU: info.maxMtu = u32(payload, plen); break;
         case IFLA_LINK: info.parentIfindex = int(u32(payload, plen)); break;
         case IFLA_OPERSTATE: info.operState = plen ? payload[0] : 0; break;
         case IFLA_LINKINFO: linkInfo(payload, plen, info, &fault); break;
         case IFLA_STATS64: {
            rtnl_link_stats64 s{};
            std::memcpy(&s, payload, plen < sizeof s ? plen : sizeof s);
            info.hasStats = plen >= 9 * sizeof(uint64_t);
            info.stats = {s.rx_packets, s.tx_packets, s.rx_bytes,   s.tx_bytes, s.rx_errors,
                          s.tx_errors,  s.rx_dropped, s.tx_dropped, s.multicast};
            break;
         }
         default: break;
         }
      }
      if (!fault.empty()) return fault;
      if (info.name.empty() || info.ifindex <= 0) return "link message without name or index";
      each(h.nlmsg_type == RTM_NEWLINK ? LinkEvent::present : LinkEvent::gone, info);
   }
   return "";
}

} // namespace IntfApp
