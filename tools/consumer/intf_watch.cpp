// intf-watch: follows intf-agent's interfaces from another process, the way
// an agent outside this library's tree would, from docs/AGENTS.md and the
// installed headers alone. Each change of an interface's operational status
// is printed as it arrives, and every interval a line per interface with its
// rates:
//
//   mounted /run/intf/agent.sock: 3 interfaces
//   oper Loopback7 intfOperDown changes=2 at=1718000000.123
//   rates Loopback7 in=8224.0bps 1.0pps out=0.0bps 0.0pps
//   lost: writer went away
//
// It keeps watching across restarts of the agent (mounting its tree again).
//
//   intf-watch [--socket PATH] [--interval SECONDS]
//     --socket PATH       intf-agent's socket (default /run/intf/agent.sock,
//                         its place when run as root; docs/AGENTS.md)
//     --interval SECONDS  between rate rounds (default 1)
//
// It runs until it is stopped (SIGTERM, SIGINT), or exits with status 1
// when the server at the socket is not intf-agent.
#include <Intf/IntfStatusDir.h>
#include <Kel/Agent.h>
#include <Kel/CollectionWatcher.h>


#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using Statuses = Interface::AgentIntfStatusDir;

// The row docs/AGENTS.md says to follow: inside onOperStatus() the change
// record is that of the change being told.
struct OperWatch : Interface::IntfStatus::NotifieeConst {
   void onOperStatus() override {
      auto s = notifier();
      auto change = s->operStatusChange();
      std::printf("oper %s %s changes=%u at=%.3f\n", s->intfId().stringValue().charPtr(),
                  stringValue(s->operStatus()).charPtr(), change.count(), change.time());
   }
};

int usage() {
   std::fprintf(stderr, "usage: intf-watch [--socket PATH] [--interval SECONDS]\n");
   return 2;
}

} // namespace

int main(int argc, char ** argv) {
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   std::string socket = "/run/intf/agent.sock";  // where intf-agent serves as root
   double interval = 1;
   for (int i = 1; i < argc; i += 2) {
      std::string option = argv[i];
      if (i + 1 >= argc) return usage();
      char const * value = argv[i + 1];
      char * end = nullptr;
      if (option == "--socket") {
         socket = value;
      } else if (option == "--interval") {
         interval = std::strtod(value, &end);
         if (*end || !std::isfinite(interval) || interval < 0.01) return usage();
      } else {
         return usage();
      }
   }

   Kel::ActivityLoop loop;
   Kel::NboAttrLog::Client::Options reconnecting;
   reconnecting.reconnect = true;
   // The root: statuses under interface/status, their counters under
   // interface/counter (the counter look-up needs both).
   Kel::NboAttrLog::Client agent(loop, socket, "", reconnecting);
   Kel::Ptr<Statuses> statuses;
   bool notTheAgent = false;
   Kel::Ptr<Kel::CollectionWatcher<Statuses, Zenet::IntfId, Interface::IntfStatus, OperWatch>> opers;
   agent.onSynced = [&](Kel::Ptr<Kel::Entity> root) {
      statuses = Kel::dynamicCast<Statuses>(root->entity("interface/status/eth/intf"));
      if (!statuses) {
         std::fprintf(stderr, "intf-watch: %s serves no interface/status/eth/intf: is it intf-agent's?\n",
                      socket.c_str());
         notTheAgent = true;
         return;
      }
      opers = Kel::watchCollection(Statuses::PtrConst(statuses), &Statuses::intfStatus, Statuses::kelId_intfStatus,
                                   [](Kel::Ptr<Interface::IntfStatus const> const &) {
                                      return Kel::makePtr<OperWatch>();
                                   });
      std::printf("mounted %s: %u interfaces\n", socket.c_str(), unsigned(statuses->intfStatusSize()));
   };
   agent.onClosed = [&](Kel::String8 const & why) {
      if (!statuses) return;  // a failed attempt to connect again
      std::printf("lost: %s\n", why.charPtr());
      opers = nullptr;
      statuses = nullptr;
   };

   auto period = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(interval));
   loop.timerIs(
       period,
       [&] {
          if (!statuses) return;
          for (auto const & m : statuses->intfStatusRange()) {
             Interface::IntfStatus::Ptr s = m.value();
             auto counter = s->counter();  // found once, then kept
             if (!counter) continue;       // traced by the look-up
             auto r = counter->rates();
             std::printf("rates %s in=%.1fbps %.1fpps out=%.1fbps %.1fpps\n", s->intfId().stringValue().charPtr(),
                         r.inBitsRate(), r.inPktsRate(), r.outBitsRate(), r.outPktsRate());
          }
       },
       period);
   while (!notTheAgent) loop.runOnce(-1);
   return 1;
}
