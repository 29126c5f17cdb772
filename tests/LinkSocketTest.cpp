// Kernel devices through route netlink: decoding that trusts no length, and
// the real kernel's answers (a dump of this namespace; as root, setting a
// device of a throwaway namespace up and hearing it).
#include "ChildProcess.h"
#include "LinkSocket.h"

#include <gtest/gtest.h>

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <vector>

using IntfApp::decodeLinkMessages;
using IntfApp::LinkEvent;
using IntfApp::LinkInfo;
using IntfApp::LinkSocket;

namespace {

// Builds netlink messages the way the kernel lays them out.
struct Msg {
   std::vector<uint8_t> b;
   explicit Msg(uint16_t type, int ifindex = 0, uint32_t flags = 0) {
      nlmsghdr h{};
      h.nlmsg_type = type;
      put(&h, sizeof h);
      if (type == RTM_NEWLINK || type == RTM_DELLINK) {
         ifinfomsg i{};
         i.ifi_index = ifindex;
         i.ifi_flags = flags;
         put(&i, sizeof i);
      }
   }
   void put(void const * p, size_t n) {
      auto const * c = static_cast<uint8_t const *>(p);
      b.insert(b.end(), c, c + n);
   }
   void pad() { b.resize(NLMSG_ALIGN(b.size())); }
   size_t attr(uint16_t type, void const * p, size_t n) {
      size_t at = b.size();
      rtattr a{uint16_t(RTA_LENGTH(n)), type};
      put(&a, sizeof a);
      put(p, n);
      pad();
      return at;
   }
   void u32(uint16_t type, uint32_t v) { attr(type, &v, 4); }
   void str(uint16_t type, char const * s) { attr(type, s, std::strlen(s) + 1); }
   // Closes a nested attribute opened at `at`.
   void close(size_t at) {
      uint16_t len = uint16_t(b.size() - at);
      std::memcpy(&b[at], &len, 2);
   }
   size_t open(uint16_t type) { return attr(type, nullptr, 0); }
   std::vector<uint8_t> done() {
      uint32_t len = uint32_t(b.size());
      std::memcpy(&b[0], &len, 4);
      return b;
   }
};

struct Seen {
   std::vector<std::pair<LinkEvent, LinkInfo>> events;
   std::string fault;
};

Seen decode(std::vector<uint8_t> const & bytes) {
   Seen s;
   s.fault = decodeLinkMessages(bytes.data(), bytes.size(),
                                [&](LinkEvent e, LinkInfo const & i) { s.events.emplace_back(e, i); });
   return s;
}

std::vector<uint8_t> vlanLink() {
   Msg m(RTM_NEWLINK, 7, IFF_UP | IFF_RUNNING);
   m.str(IFLA_IFNAME, "eth0.100");
   m.u32(IFLA_MTU, 1496);
   m.u32(IFLA_MAX_MTU, 9000);
   m.u32(IFLA_LINK, 2);
   uint8_t oper = IF_OPER_UP;
   m.attr(IFLA_OPERSTATE, &oper, 1);
   size_t info = m.open(IFLA_LINKINFO);
   m.str(IFLA_INFO_KIND, "vlan");
   size_t data = m.open(IFLA_INFO_DATA);
   uint16_t vid = 100;
   m.attr(IFLA_VLAN_ID, &vid, 2);
   m.close(data);
   m.close(info);
   rtnl_link_stats64 st{};
   st.rx_packets = 10;
   st.tx_bytes = 1ull << 40;
   st.multicast = 3;
   m.attr(IFLA_STATS64, &st, sizeof st);
   return m.done();
}

} // namespace

TEST(LinkMessages, AVlanLinkWithStatisticsDecodesEveryField) {
   Seen s = decode(vlanLink());
   ASSERT_EQ(s.fault, "");
   ASSERT_EQ(s.events.size(), 1u);
   auto const & [e, i] = s.events[0];
   EXPECT_EQ(e, LinkEvent::present);
   EXPECT_EQ(i.ifindex, 7);
   EXPECT_EQ(i.name, "eth0.100");
   EXPECT_EQ(i.mtu, 1496u);
   EXPECT_EQ(i.maxMtu, 9000u);
   EXPECT_EQ(i.parentIfindex, 2);
   EXPECT_EQ(i.operState, IF_OPER_UP);
   EXPECT_TRUE(i.vlan);
   EXPECT_EQ(i.vlanId, 100);
   EXPECT_FALSE(i.loopback);
   EXPECT_TRUE(i.hasStats);
   EXPECT_EQ(i.stats.rxPackets, 10u);
   EXPECT_EQ(i.stats.txBytes, 1ull << 40);
   EXPECT_EQ(i.stats.rxMulticast, 3u);
}

TEST(LinkMessages, SeveralMessagesInOneBufferEachArrive) {
   std::vector<uint8_t> all = vlanLink();
   Msg del(RTM_DELLINK, 7);
   del.str(IFLA_IFNAME, "eth0.100");
   auto d = del.done();
   all.insert(all.end(), d.begin(), d.end());
   Msg err(NLMSG_ERROR);
   int code = -EPERM;
   err.put(&code, sizeof code);
   auto e = err.done();
   all.insert(all.end(), e.begin(), e.end());
   auto fin = Msg(NLMSG_DONE).done();
   all.insert(all.end(), fin.begin(), fin.end());
   Seen s = decode(all);
   ASSERT_EQ(s.fault, "");
   ASSERT_EQ(s.events.size(), 4u);
   EXPECT_EQ(s.events[1].first, LinkEvent::gone);
   EXPECT_EQ(s.events[2].first, LinkEvent::error);
   EXPECT_EQ(s.events[2].second.ifindex, -EPERM);
   EXPECT_EQ(s.events[3].first, LinkEvent::done);
}

TEST(LinkMessages, MalformedBytesEndDecodingWithAReason) {
   auto good = vlanLink();
   struct Case {
      char const * what;
      std::vector<uint8_t> bytes;
      std::string fault;
   };
   std::vector<Case> cases;
   cases.push_back({"cut header", std::vector<uint8_t>(good.begin(), good.begin() + 10),
                    "truncated message header"});
   auto longer = good;
   uint32_t len = uint32_t(good.size() + 4);
   std::memcpy(longer.data(), &len, 4);
   cases.push_back({"message longer than the buffer", longer, "message length out of bounds"});
   auto tiny = good;
   len = 3;
   std::memcpy(tiny.data(), &len, 4);
   cases.push_back({"message shorter than its header", tiny, "message length out of bounds"});
   auto attr = good;
   uint16_t alen = 0xfff0;  // the first attribute claims more than the message
   std::memcpy(&attr[NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(ifinfomsg))], &alen, 2);
   cases.push_back({"attribute beyond its message", attr, "attribute length out of bounds"});
   Msg nested(RTM_NEWLINK, 3);
   nested.str(IFLA_IFNAME, "v");
   size_t info = nested.open(IFLA_LINKINFO);
   nested.str(IFLA_INFO_KIND, "vlan");
   uint16_t bad[2] = {200, IFLA_INFO_DATA};
   nested.put(bad, sizeof bad);
   nested.close(info);
   cases.push_back({"nested attribute beyond its parent", nested.done(),
                    "attribute length out of bounds"});
   Msg nameless(RTM_NEWLINK, 4);
   nameless.u32(IFLA_MTU, 1500);
   cases.push_back({"no name", nameless.done(), "link message without name or index"});
   Msg shortLink(NLMSG_ERROR);
   cases.push_back({"error without code", shortLink.done(), "truncated error message"});
   for (auto const & c : cases) EXPECT_EQ(decode(c.bytes).fault, c.fault) << c.what;
}

TEST(LinkSocket, ADumpOfThisNamespaceFindsItsLoopbackDevice) {
   LinkSocket s(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), false);
   ASSERT_TRUE(s.valid()) << s.error();
   ASSERT_TRUE(s.requestDump()) << s.error();
   bool done = false;
   LinkInfo lo;
   for (int i = 0; i < 200 && !done; ++i) {
      ASSERT_TRUE(s.readAvailable([&](LinkEvent e, LinkInfo const & info) {
         if (e == LinkEvent::done) done = true;
         if (e == LinkEvent::present && info.loopback) lo = info;
      })) << s.error();
      if (!done) ::usleep(5000);
   }
   ASSERT_TRUE(done);
   EXPECT_EQ(lo.name, "lo");
   EXPECT_GT(lo.ifindex, 0);
   EXPECT_GT(lo.mtu, 0u);
   EXPECT_TRUE(lo.hasStats);
}

// In a child in a namespace of its own (only root may make one): lo starts
// down; setting it up is acknowledged, heard by a listening socket and seen
// in the next dump.
TEST(LinkSocket, SettingADeviceUpIsAnsweredAndHeard) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to make a network namespace";
   int pipefd[2];
   ASSERT_EQ(::pipe(pipefd), 0);
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      ::close(pipefd[0]);
      std::string r;
      if (::unshare(CLONE_NEWNET) != 0) {
         r = "skip: unshare: " + std::string(std::strerror(errno));
      } else {
         LinkSocket listen(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), true);
         LinkSocket ctl(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), false);
         int lo = 0;
         bool wasUp = true, heardUp = false, dumpUp = false, done = false;
         ctl.requestDump();
         for (int i = 0; i < 200 && !done; ++i) {
            ctl.readAvailable([&](LinkEvent e, LinkInfo const & info) {
               if (e == LinkEvent::done) done = true;
               if (e == LinkEvent::present && info.loopback) {
                  lo = info.ifindex;
                  wasUp = info.flags & IFF_UP;
               }
            });
            if (!done) ::usleep(5000);
         }
         int rc = ctl.setUp(lo, true);
         for (int i = 0; i < 200 && !heardUp; ++i) {
            listen.readAvailable([&](LinkEvent e, LinkInfo const & info) {
               if (e == LinkEvent::present && info.ifindex == lo && (info.flags & IFF_UP)) heardUp = true;
            });
            if (!heardUp) ::usleep(5000);
         }
         done = false;
         ctl.requestDump();
         for (int i = 0; i < 200 && !done; ++i) {
            ctl.readAvailable([&](LinkEvent e, LinkInfo const & info) {
               if (e == LinkEvent::done) done = true;
               if (e == LinkEvent::present && info.ifindex == lo) dumpUp = info.flags & IFF_UP;
            });
            if (!done) ::usleep(5000);
         }
         int bad = ctl.setUp(9999, true);
         r = "lo=" + std::to_string(lo > 0) + " wasUp=" + std::to_string(wasUp) +
             " rc=" + std::to_string(rc) + " heard=" + std::to_string(heardUp) +
             " dump=" + std::to_string(dumpUp) + " missing=" + std::to_string(bad == ENODEV);
      }
      (void)!::write(pipefd[1], r.data(), r.size());
      ::_exit(0);
   }
   ::close(pipefd[1]);
   std::string r;
   char buf[256];
   ssize_t n;
   while ((n = ::read(pipefd[0], buf, sizeof buf)) > 0) r.append(buf, size_t(n));
   ::close(pipefd[0]);
   int status = 0;
   ::waitpid(pid, &status, 0);
   if (r.rfind("skip:", 0) == 0) GTEST_SKIP() << r;
   EXPECT_EQ(r, "lo=1 wasUp=0 rc=0 heard=1 dump=1 missing=1");
}
