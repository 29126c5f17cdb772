// Writes seed streams for the attribute-log fuzz target: what a writer
// sends for a few small trees, captured from a socket.
//    attr_log_seeds <dir>
#include "../tests/TestTypes.h"

#include <Kel/Stream.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>

using namespace KelTest;

namespace {

std::string capture(Kel::Ptr<Kel::Entity> tree, std::function<void()> changes) {
   int sv[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return {};
   Kel::NboAttrLog::Writer writer(sv[0], tree, "seed");
   Kel::NboAttrLog::Reader mount(sv[1], "");
   writer.onReadable();
   changes();
   writer.pump();
   ::shutdown(sv[0], SHUT_WR);
   std::string bytes;
   char buf[65536];
   ssize_t n;
   // The mount request went the other way; skip nothing here.
   while ((n = ::read(sv[1], buf, sizeof buf)) > 0) bytes.append(buf, size_t(n));
   ::close(sv[0]);
   ::close(sv[1]);
   return bytes;
}

} // namespace

int main(int argc, char ** argv) {
   if (argc != 2) return 2;
   Kel::registerTypes<Thing, Leaf, Queue, SubThing>();
   std::string dir = argv[1];
   auto save = [&](const char * name, std::string const & bytes) {
      std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
   };
   auto empty = Kel::makePtr<Thing>(1);
   save("empty_thing", capture(empty, [] {}));
   auto t = Kel::makePtr<Thing>(2);
   save("changes", capture(t, [&] {
      t->countIs(3);
      t->textIs("x");
      t->requestorIs("a", true);
      t->requestorDel("a");
      t->intervalIs(Interface::LoadInterval(false, 30));
      t->stateIs(Interface::IntfEnabledState::shutdown);
   }));
   auto full = Kel::makePtr<SubThing>(3);
   save("tree", capture(full, [&] {
      auto leaf = Kel::makePtr<Leaf>(Zenet::IntfId("Ethernet1"));
      full->leafIs(leaf);
      full->peerIs(leaf);
      full->byNameIs("et1", leaf);
      full->queuesIs(4, Interface::PktType::uc);
      full->orderedIs(9, "nine");
      full->extraIs(-5);
      full->requestIs(Interface::IntfConfigRequest(Zenet::IntfId("Vlan5"), "r"), true);
      full->leafDel(Zenet::IntfId("Ethernet1"));
   }));
   return 0;
}
