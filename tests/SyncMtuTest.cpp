// MTU synchronisation: the expected-MTU rule against the status, the clip
// message, and (as root) the real kernel in throwaway namespaces, through
// each namespace's own loopback device.
#include <Intf/SyncMtu.h>
#include <Kel/Exception.h>
#include <Zenet/SocketAt.h>

#include "NetNs.h"

#include <gtest/gtest.h>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace Interface;
using Zenet::IntfId;
using Zenet::NamespaceName;

namespace {

struct Captured {
   Captured() : sink(std::make_shared<Kel::CapturingLogSink>()) {
      Kel::logSinkIs(sink);
      Kel::logClockIs([this] { return now; });
   }
   ~Captured() {
      Kel::logSinkIs(nullptr);
      Kel::logClockIs(nullptr);
   }
   std::shared_ptr<Kel::CapturingLogSink> sink;
   double now = 0;
};

Kel::Ptr<IntfStatus> status(IntfForwardingModel model, uint32_t maxMtu, uint32_t mtu,
                            char const * device = "") {
   auto s = intfStatusFactory(IntfId("Ethernet1"), nullptr, 1);
   s->forwardingModelIs(model);
   s->maxMtuIs(maxMtu);
   s->mtuIs(mtu);
   s->deviceNameIs(device);
   return s;
}

constexpr auto routed = IntfForwardingModel::intfForwardingModelRouted;
constexpr auto bridged = IntfForwardingModel::intfForwardingModelBridged;

NamespaceName ns(std::string const & n) { return NamespaceName(Kel::String8(n)); }

// The MTU of `device` as the kernel of namespace `n` has it, or -errno.
int kernelMtu(std::string const & n, char const * device) {
   int s = Zenet::socketAt(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, n.c_str());
   if (s < 0) return -errno;
   ifreq r{};
   std::strncpy(r.ifr_name, device, IFNAMSIZ - 1);
   int rc = ::ioctl(s, SIOCGIFMTU, &r);
   int e = errno;
   ::close(s);
   return rc == 0 ? r.ifr_mtu : -e;
}

ino_t ownNamespace() {
   struct stat st;
   ::stat("/proc/thread-self/ns/net", &st);
   return st.st_ino;
}

} // namespace

TEST(SyncMtu, TheStatusFollowsTheExpectedMtuOfEachForwardingModel) {
   Captured cap;
   auto config = intfConfigFactory(IntfId("Ethernet1"));
   struct Case {
      char const * what;
      IntfForwardingModel model;
      uint32_t maxMtu, configured;
      bool withConfig;
      uint32_t expected;
   } const cases[] = {
      {"routed without configuration", routed, 9000, 0, false, 1500},
      {"routed, configured below the maximum", routed, 9000, 9000, true, 9000},
      {"routed, configured above the maximum: clipped", routed, 9000, 9214, true, 9000},
      {"bridged: the configuration is ignored", bridged, 9000, 1400, true, 9000},
   };
   for (auto const & c : cases) {
      config->mtuIs(c.configured ? c.configured : 1500);
      auto s = status(c.model, c.maxMtu, 1234);
      EXPECT_TRUE(syncMtuInNs(s.ptr(), c.withConfig ? config.ptr() : nullptr, true, false,
                              ns("default"), -1))
          << c.what;
      EXPECT_EQ(s->mtu(), c.expected) << c.what;
      verifyMtu(s.ptr(), c.withConfig ? config.ptr() : nullptr);  // aborts if wrong
   }
   ASSERT_EQ(cap.sink->events.size(), 1u);  // only the clipped case logs
   EXPECT_EQ(cap.sink->events[0].message->name, "INTF_MAX_MTU_EXCEEDED");
   EXPECT_EQ(cap.sink->events[0].text,
             "Configured mtu (9214) exceeds the maximum mtu (9000) for interface Ethernet1");
}

TEST(SyncMtu, EveryClippedCallLogsItsMessageAndOnlyAFloodIsCutAndCounted) {
   Captured cap;
   auto config = intfConfigFactory(IntfId("Ethernet1"));
   config->mtuIs(9214);
   auto s = status(routed, 9000, 0);
   auto clip = [&] { syncMtuInNs(s.ptr(), config.ptr(), false, false, ns("default"), -1); };
   clip();
   clip();  // right after the first: still the caller's own message
   EXPECT_EQ(cap.sink->events.size(), 2u);
   for (int i = 0; i < 200; ++i) clip();  // a loop within one interval
   EXPECT_EQ(cap.sink->events.size(), 100u);
   cap.now += 10;
   clip();
   ASSERT_EQ(cap.sink->events.size(), 101u);
   EXPECT_EQ(cap.sink->events[100].suppressed, 102u);
}

TEST(SyncMtu, ANullStatusIsTheAssertionOnIntfStatus) {
   EXPECT_DEATH(syncMtu(nullptr, nullptr, nullptr, true, false, -1), "SyncMtu: .*: Assertion `intfStatus' failed");
}

TEST(SyncMtu, AnUnknownMaximumZeroesTheStatusAndAMissingDeviceSkipsTheKernel) {
   auto s = status(routed, 0, 1500, "no-such-device");
   EXPECT_TRUE(syncMtuInNs(s.ptr(), nullptr, true, true, ns("default"), -1));
   EXPECT_EQ(s->mtu(), 0u);
   auto unnamed = status(routed, 9000, 1400);
   EXPECT_TRUE(syncMtuInNs(unnamed.ptr(), nullptr, true, true, ns("default"), -1));
   EXPECT_EQ(unnamed->mtu(), 1500u);
}

TEST(SyncMtu, NamespaceNamesAreCheckedBeforeAnythingHappens) {
   std::string longName(151, 'n');
   try {
      Zenet::socketAt(AF_INET, SOCK_DGRAM, 0, longName.c_str());
      FAIL() << "accepted";
   } catch (Kel::RangeException const & e) {
      EXPECT_STREQ(e.what(), "NamespaceName::bytes > 150 not allowed");
   }
   errno = 0;
   EXPECT_EQ(Zenet::socketAt(AF_INET, SOCK_DGRAM, 0, "intf-test-no-such-namespace"), -1);
   EXPECT_EQ(errno, ENOENT);
}

TEST(SyncMtu, TheKernelOfEachNamespaceGetsItsOwnMtu) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
   std::string tag = std::to_string(::getpid());
   NetNs a("intf-mtu-a-" + tag), b("intf-mtu-b-" + tag);
   if (!a.ok() || !b.ok()) GTEST_SKIP() << "cannot make namespaces: " << a.error() << b.error();
   ino_t home = ownNamespace();

   EXPECT_EQ(setMtuInNs("lo", 1400, ns(a.name()), -1), 0);
   EXPECT_EQ(setMtuInNs("lo", 9000, ns(b.name()), -1), 0);
   EXPECT_EQ(kernelMtu(a.name(), "lo"), 1400);
   EXPECT_EQ(kernelMtu(b.name(), "lo"), 9000);
   EXPECT_EQ(ownNamespace(), home);

   // Through syncMtu, with the namespace from the status's local part.
   auto s = status(routed, 16000, 1400, "lo");
   auto local = Kel::makePtr<IntfStatusLocal>(IntfId("Ethernet1"));
   local->netNsNameIs(ns(a.name()));
   auto config = intfConfigFactory(IntfId("Ethernet1"));
   config->mtuIs(4000);
   EXPECT_TRUE(syncMtu(s.ptr(), local.ptr(), config.ptr(), true, true, -1));
   EXPECT_EQ(s->mtu(), 4000u);
   EXPECT_EQ(kernelMtu(a.name(), "lo"), 4000);
   EXPECT_EQ(kernelMtu(b.name(), "lo"), 9000);

   // Refusals leave the status as it was: an MTU the kernel does not take
   // (lo takes any MTU an int holds, so one past that), a device that is
   // not there.
   config->mtuIs(0x80000000u);
   s->maxMtuIs(0xffffffffu);
   EXPECT_FALSE(syncMtu(s.ptr(), local.ptr(), config.ptr(), true, true, -1));
   EXPECT_EQ(s->mtu(), 4000u);
   EXPECT_EQ(kernelMtu(a.name(), "lo"), 4000);
   EXPECT_EQ(setMtuInNs("nosuchdev0", 1500, ns(a.name()), -1), ENODEV);
   EXPECT_EQ(setMtuInNs("lo", 1500, ns("intf-test-no-such-namespace"), -1), EBADF);
   EXPECT_EQ(ownNamespace(), home);
}
