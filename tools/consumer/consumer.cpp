// A program outside the library's tree, built against the installed package:
// it creates an interface configuration, publishes it to a second process
// over the attribute log and reads it back there. Exits 0 only when the
// value read back is the one written.
#include <Intf/IntfConfigDir.h>
#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int main() {
   int sv[2];
   if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 2;
   pid_t pid = ::fork();
   if (pid < 0) return 2;
   if (pid == 0) {  // the publishing agent
      ::close(sv[0]);
      auto dir = Kel::makePtr<Interface::AllIntfConfigDir>(Kel::Name("config"));
      auto cfg = Interface::intfConfigFactory(Zenet::IntfId("Ethernet7"));
      cfg->descriptionIs("uplink to spine1");
      cfg->mtuIs(9000);
      dir->intfConfigIs(cfg);
      Kel::ActivityLoop loop;
      Kel::NboAttrLog::Writer writer(sv[1], dir, "consumerAgent");
      loop.add(&writer);
      loop.runUntil([&] { return writer.closed(); }, 10000);
      ::_exit(0);
   }
   ::close(sv[1]);
   Kel::registerTypes<Kel::Dir>();
   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Reader reader(sv[0], "");
   loop.add(&reader);
   bool ok = loop.runUntil([&] { return reader.synced() || reader.closed(); }, 10000) &&
             reader.synced();
   std::string got = "nothing";
   if (ok) {
      auto dir = Kel::dynamicCast<Interface::AllIntfConfigDir>(reader.root());
      auto cfg = dir ? dir->intfConfig(Zenet::IntfId("Ethernet7")) : nullptr;
      if (cfg) got = cfg->description().str() + " mtu " + std::to_string(cfg->mtu());
   }
   ::shutdown(sv[0], SHUT_RDWR);
   ::close(sv[0]);
   int status = 0;
   ::waitpid(pid, &status, 0);
   std::printf("consumer read back Ethernet7: %s\n", got.c_str());
   return got == "uplink to spine1 mtu 9000" ? 0 : 1;
}
