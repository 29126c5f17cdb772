// Network namespace names: at most 150 bytes, however they arrive.
#include <Intf/GlobalIntfConfig.h>
#include <Kel/Stream.h>
#include <Zenet/NamespaceName.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>

using Kel::NboAttrLog::In;
using Kel::NboAttrLog::Nbo;
using Kel::NboAttrLog::Out;
using Zenet::NamespaceName;

namespace {

const Kel::String8 refusal("NamespaceName::bytes > 150 not allowed");

// Every way a name reaches a record; returns the refusal text or "ok".
std::string viaConstructor(Kel::String8 const & n) {
   NamespaceName ns(n);
   return ns.name() == n ? "ok" : "changed";
}
std::string viaText(Kel::String8 const & n) {
   NamespaceName ns;
   Kel::strepToValue(Kel::String8("Value('Zenet::NamespaceName', ** {'name': '") + n + "'})", &ns);
   return ns.name() == n ? "ok" : "changed";
}
std::string viaReflection(Kel::String8 const & n) {
   NamespaceName::GenericIf_ g(NamespaceName{});
   g.attributeIs("name", Kel::toGeneric(n));
   return g.value().name() == n ? "ok" : "changed";
}
std::string viaAttributeLog(Kel::String8 const & n) {
   Out out;
   Nbo<Kel::String8>::write(out, n, nullptr);
   In in(out.data(), out.size());
   return Nbo<NamespaceName>::read(in, nullptr).name() == n ? "ok" : "changed";
}

std::string outcome(std::function<std::string(Kel::String8 const &)> const & way, size_t bytes) {
   try {
      return way(Kel::String8(std::string(bytes, 'n')));
   } catch (Kel::RangeException const & e) {
      return e.message().str();
   }
}

} // namespace

TEST(NamespaceName, AtMost150BytesWhicheverWayTheNameArrives) {
   const std::pair<const char *, std::function<std::string(Kel::String8 const &)>> ways[] = {
       {"constructor", viaConstructor},
       {"text", viaText},
       {"reflection", viaReflection},
       {"attribute log", viaAttributeLog}};
   for (auto const & [what, way] : ways) {
      EXPECT_EQ(outcome(way, 0), "ok") << what;
      EXPECT_EQ(outcome(way, 150), "ok") << what;
      EXPECT_EQ(outcome(way, 151), refusal.str()) << what;
      EXPECT_EQ(outcome(way, 4096), refusal.str()) << what;
   }
}

TEST(NamespaceName, TheDefaultNamespaceIsAFreshName) {
   EXPECT_EQ(NamespaceName::defaultNamespace(), NamespaceName());
   EXPECT_EQ(NamespaceName::defaultNamespace(), NamespaceName(Zenet::DEFAULT_NS));
   EXPECT_NE(NamespaceName::defaultNamespace(), NamespaceName("ns1"));
}

TEST(NamespaceName, AReplicaRefusesALongNameAndKeepsItsOwn) {
   auto config = Kel::makePtr<Interface::IntfNamespaceConfig>(Zenet::IntfId("Ethernet1"));
   NamespaceName longest(Kel::String8(std::string(150, 'a')));
   config->netNsNameIs(longest);
   // What a writer sends for it, captured from a real writer.
   int sv[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
   std::string bytes;
   {
      Kel::NboAttrLog::Writer writer(sv[0], config, "w");
      Kel::NboAttrLog::Reader mountOnly(sv[1], "");
      writer.onReadable();
      writer.pump();
      ::shutdown(sv[0], SHUT_WR);
      char buf[65536];
      for (ssize_t n; (n = ::read(sv[1], buf, sizeof buf)) > 0;) bytes.append(buf, size_t(n));
   }
   ::close(sv[0]);
   ::close(sv[1]);
   // Then a change to 151 bytes that no writer of this library would send.
   Out f;
   f.putU32(0);
   f.putU8(Kel::NboAttrLog::msgAttr);
   f.putU32(1);  // the served entity
   f.putU32(Interface::IntfNamespaceConfig::kelId_netNsName);
   f.putU8(Kel::NboAttrLog::tokenBegin);
   f.putString(std::string(151, 'b'));
   f.putU8(Kel::NboAttrLog::tokenEnd);
   f.patchU32(0, uint32_t(f.size() - 4));

   int devnull = ::open("/dev/null", O_RDWR);
   Kel::NboAttrLog::Reader reader(devnull, "");
   reader.receive(bytes.data(), bytes.size());
   ASSERT_TRUE(reader.synced());
   auto replica = Kel::dynamicCast<Interface::IntfNamespaceConfig>(reader.root());
   ASSERT_TRUE(replica);
   EXPECT_EQ(replica->netNsName(), longest);
   reader.receive(f.data(), f.size());
   ::close(devnull);
   EXPECT_TRUE(reader.closed());
   EXPECT_EQ(reader.closeReason(), refusal);
   EXPECT_EQ(replica->netNsName(), longest);
}
