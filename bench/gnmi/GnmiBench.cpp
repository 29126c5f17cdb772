// gnmi_bench: intf-gnmid's figures, each measured beside its baseline in
// the same run, against a synthetic host agent served by this process (a
// status tree and a counter table of N interfaces, rows rewritten every
// 100 ms as the agent would) and the real intf-gnmid as a child process.
//
//   gnmi.sample_us_per_intf  intf-gnmid's processor time (from its
//                            schedstat) per interface per SAMPLE update,
//                            10,000 interfaces, one subscriber; beside it,
//                            what this process spends on the same update
//                            the plain way (table read and the generated
//                            classes, a notification per interface)
//   gnmi.on_change_vs_mount  a status change to the update at a gNMI
//                            client, over the change to the reactor of a
//                            reader process that mounts the tree; the same
//                            changes heard by both, medians
//   gnmi.subscribers_100     intf-gnmid's processor time per update with
//                            100 subscribers to the same paths, over one
//                            subscriber's (200 interfaces)
#include "AgentTree.h"
#include <Intf/IntfStatusDir.h>
#include "Paths.h"

#include "gnmi.grpc.pb.h"

#include <Intf/IntfStatus.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Agent.h>
#include <Kel/Dir.h>
#include <Smash/Table.h>

#include <grpcpp/grpcpp.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double monoNow() { return std::chrono::duration<double>(Clock::now().time_since_epoch()).count(); }

// The synthetic agent: the host agent's tree, as intf-agent builds it.
struct Agent {
   explicit Agent(unsigned n) {
      root = Kel::makePtr<Kel::Dir>(Kel::Name("agent"));
      dir = Kel::makePtr<Interface::AgentIntfStatusDir>(Kel::Name("intf"));
      root->mkdir("interface/status/eth")->entryIs(dir);
      table = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
      table->counterOpen(Smash::Role::writer, IntfApp::agentCounterTablePath, 2 * n);
      auto counters = Kel::makePtr<Interface::SmashIntfCounterDirDir>(Kel::Name("intf"));
      counters->tableIs(table);
      root->mkdir("interface/counter/eth")->entryIs(counters);
      for (unsigned i = 1; i <= n; ++i) {
         Zenet::IntfId id(("Ethernet" + std::to_string(i)).c_str());
         auto s = Interface::intfStatusFactory(id, nullptr, 1);
         s->mtuIs(1500);
         s->operStatusIs(Interface::IntfOperStatus::intfOperUp);
         dir->intfStatusIs(s);
         ids.push_back(id);
      }
      sample();
   }
   // A new row for every interface, as one sampling of the agent.
   void sample() {
      ++round;
      double now = monoNow();  // one moment for the whole round, as the agent's
      for (size_t i = 0; i < ids.size(); ++i) {
         Smash::Interface::IntfCounter row;
         row.keyIs(ids[i]);
         Interface::IntfStatistics st;
         st.inOctetsIs(round * 1000003 + i);
         st.inUcastPktsIs(round * 1001 + i);
         st.outOctetsIs(Brik::MaybeU63(round * 999983 + i));
         st.outUcastPktsIs(round * 999);
         st.lastUpdateIs(now);
         row.statisticsIs(st);
         table->counterIs(row);
      }
      table->counterCommit();
   }
   Kel::Dir::Ptr root;
   Kel::Ptr<Interface::AgentIntfStatusDir> dir;
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> table;
   std::vector<Zenet::IntfId> ids;
   uint64_t round = 0;
};

// Processor time of a process so far, from the scheduler's own count.
double cpuSeconds(pid_t pid) {
   std::ifstream f("/proc/" + std::to_string(pid) + "/schedstat");
   double ns = 0;
   f >> ns;
   return ns / 1e9;
}

struct Gnmid {
   Gnmid(std::string const & gnmid, std::string const & sock, std::string const & prefix) {
      int err[2];
      if (::pipe(err) != 0) return;
      pid = ::fork();
      if (pid == 0) {
         ::dup2(err[1], 2);
         ::execl(gnmid.c_str(), gnmid.c_str(), "--listen", "127.0.0.1:0", "--socket", sock.c_str(), "--config-socket",
                 "", "--shm-prefix", prefix.c_str(), "--client-queue-bytes", "268435456", nullptr);
         ::_exit(127);
      }
      ::close(err[1]);
      fd = err[0];
      std::string text;
      char buf[512];
      std::smatch m;
      while (!std::regex_search(text, m, std::regex("serving gNMI on (\\S+)"))) {
         ssize_t n = ::read(fd, buf, sizeof buf);
         if (n <= 0) return;
         text.append(buf, size_t(n));
      }
      address = m[1];
   }
   ~Gnmid() {
      if (pid > 0) {
         ::kill(pid, SIGTERM);
         ::waitpid(pid, nullptr, 0);
      }
      if (fd >= 0) ::close(fd);
   }
   pid_t pid = -1;
   int fd = -1;
   std::string address;
};

gnmi::Path pathOf(std::vector<std::string> const & elems) {
   gnmi::Path p;
   for (auto const & e : elems) p.add_elem()->set_name(e);
   return p;
}

// A subscriber on its own thread, counting what it receives.
struct Subscriber {
   Subscriber(std::string const & address, gnmi::SubscribeRequest const & req) {
      grpc::ChannelArguments args;
      args.SetMaxReceiveMessageSize(64 << 20);
      args.SetInt("grpc.use_local_subchannel_pool", 1);  // a connection of its own, like a collector
      stub = gnmi::gNMI::NewStub(grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), args));
      stream = stub->Subscribe(&ctx);
      stream->Write(req);
      thread = std::thread([this] {
         gnmi::SubscribeResponse r;
         while (stream->Read(&r)) {
            if (r.has_update()) {
               notifications++;
               updates += r.update().update_size();
               if (onUpdate) onUpdate(r.update());
            } else if (r.sync_response()) {
               synced = true;
            }
         }
      });
   }
   ~Subscriber() {
      ctx.TryCancel();
      thread.join();
   }
   std::function<void(gnmi::Notification const &)> onUpdate;
   std::unique_ptr<gnmi::gNMI::Stub> stub;
   grpc::ClientContext ctx;
   std::unique_ptr<grpc::ClientReaderWriter<gnmi::SubscribeRequest, gnmi::SubscribeResponse>> stream;
   std::thread thread;
   std::atomic<uint64_t> notifications{0}, updates{0};
   std::atomic<bool> synced{false};
};

gnmi::SubscribeRequest sampleRequest(std::chrono::milliseconds interval) {
   gnmi::SubscribeRequest req;
   auto * list = req.mutable_subscribe();
   list->set_encoding(gnmi::PROTO);
   auto * s = list->add_subscription();
   *s->mutable_path() = pathOf({"interfaces", "interface", "state", "counters"});
   s->set_mode(gnmi::SAMPLE);
   s->set_sample_interval(uint64_t(std::chrono::nanoseconds(interval).count()));
   return req;
}

// Runs the loop (serving the tree, rewriting rows every 100 ms) until done().
template <class Pred>
bool serve(Kel::ActivityLoop & loop, Pred done, double seconds) {
   return loop.runUntil(done, int(seconds * 1000));
}

struct World {
   World(unsigned n, std::string const & gnmidPath)
         : prefix("/intf-gnmibench-" + std::to_string(::getpid()) + "-"),
           sock("/tmp/intf-gnmibench-" + std::to_string(::getpid()) + ".sock"), agent((Smash::shmPrefixIs(prefix), n)),
           server(loop, sock, agent.root, "bench-agent"),
           sampler(loop.timerIs(std::chrono::milliseconds(100), [this] { agent.sample(); },
                                std::chrono::milliseconds(100))),
           gnmid(gnmidPath, sock, prefix) {}
   ~World() { Smash::removeTable(IntfApp::agentCounterTablePath); }
   std::string prefix, sock;
   Kel::ActivityLoop loop;
   Agent agent;
   Kel::NboAttrLog::Server server;
   Kel::ActivityLoop::TimerId sampler;
   Gnmid gnmid;
};

// intf-gnmid's processor seconds per pass with `subscribers` clients.
double cpuPerPass(World & w, unsigned subscribers, unsigned passes, std::chrono::milliseconds interval) {
   std::vector<std::unique_ptr<Subscriber>> subs;
   for (unsigned i = 0; i < subscribers; ++i) subs.push_back(std::make_unique<Subscriber>(w.gnmid.address, sampleRequest(interval)));
   auto all = [&](auto pred) { return std::all_of(subs.begin(), subs.end(), [&](auto const & s) { return pred(*s); }); };
   size_t perPass = w.agent.ids.size() * 10;  // counter leaves the rows give
   bool ready = serve(w.loop, [&] { return all([&](Subscriber const & s) { return s.synced && s.updates >= 2 * perPass; }); }, 60);
   if (!ready) std::fprintf(stderr, "gnmi_bench: the subscribers did not get going\n");
   uint64_t start = subs[0]->updates;
   double cpu0 = cpuSeconds(w.gnmid.pid);
   serve(w.loop, [&] { return subs[0]->updates >= start + passes * perPass; }, 120);
   double cpu = cpuSeconds(w.gnmid.pid) - cpu0;
   double done = double(subs[0]->updates - start) / double(perPass);
   return cpu / done;
}

// The plain way: read each row through the table and build a
// notification per interface with the generated classes.
double plainUsPerIntf(Agent & a) {
   auto reader = Kel::makePtr<Smash::Interface::AllIntfCounterDir>(Kel::Name("counter"));
   reader->counterOpen(Smash::Role::reader, IntfApp::agentCounterTablePath);
   std::string out;
   auto t0 = std::chrono::steady_clock::now();
   timespec c0, c1;
   ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
   unsigned rounds = 20;
   for (unsigned r = 0; r < rounds; ++r) {
      for (auto id : a.ids) {
         Smash::RowBuffer<Smash::Interface::IntfCounter> b;
         if (!reader->counterFind(id, b.slot())) continue;
         auto const & s = b.row().statistics();
         gnmi::SubscribeResponse resp;
         auto * n = resp.mutable_update();
         n->set_timestamp(int64_t(s.lastUpdate() * 1e9));
         auto * e = n->mutable_prefix()->add_elem();
         e->set_name("interface");
         (*e->mutable_key())["name"] = id.stringValue().str();
         std::pair<char const *, uint64_t> const leaves[] = {
            {"in-octets", s.inOctets()}, {"in-pkts", s.inUcastPkts() + s.inMulticastPkts()},
            {"in-unicast-pkts", s.inUcastPkts()}, {"out-octets", s.outOctets().value()},
            {"out-pkts", s.outUcastPkts()}, {"in-errors", s.inErrors()}};
         for (auto const & [name, v] : leaves) {
            auto * u = n->add_update();
            u->mutable_path()->add_elem()->set_name(name);
            u->mutable_val()->set_uint_val(v);
         }
         resp.SerializeToString(&out);
      }
   }
   ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
   (void)t0;
   double s = double(c1.tv_sec - c0.tv_sec) + double(c1.tv_nsec - c0.tv_nsec) / 1e9;
   return s / rounds / double(a.ids.size()) * 1e6;
}

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

} // namespace

int main(int argc, char ** argv) {
   if (argc < 2) {
      std::fprintf(stderr, "usage: gnmi_bench PATH-OF-intf-gnmid [on_change]\n");
      return 2;
   }
   std::string gnmid = argv[1];
   ::signal(SIGPIPE, SIG_IGN);
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   Kel::traceLevelIs("Kel::NboAttrLog", -1);

   bool onlyOnChange = argc > 2 && std::string(argv[2]) == "on_change";
   if (!onlyOnChange) {
      World w(10000, gnmid);
      if (w.gnmid.address.empty()) return std::fprintf(stderr, "intf-gnmid did not start\n"), 1;
      double perPass = cpuPerPass(w, 1, 20, std::chrono::milliseconds(250));
      double ours = perPass / 10000 * 1e6;
      double plain = plainUsPerIntf(w.agent);
      std::printf("gnmi.sample_us_per_intf: intf-gnmid %.3f ms per SAMPLE update of 10,000 interfaces (10 counters "
                  "each), %.3f us per interface; the plain way in this process (table read, generated classes, a "
                  "notification per interface, no sending): %.3f us\n",
                  perPass * 1e3, ours, plain);
      std::printf("BENCH gnmi.sample_us_per_intf %.2f <= 2\n", ours);
   }
   if (!onlyOnChange) {
      // Small enough that this process, which reads all hundred streams,
      // keeps up on two cores.
      World w(200, gnmid);
      double one = cpuPerPass(w, 1, 20, std::chrono::milliseconds(250));
      double hundred = cpuPerPass(w, 100, 8, std::chrono::milliseconds(500));
      std::printf("gnmi.subscribers_100: intf-gnmid %.3f ms per update of 200 interfaces with 1 subscriber, "
                  "%.3f ms with 100\n",
                  one * 1e3, hundred * 1e3);
      std::printf("BENCH gnmi.subscribers_100 %.2f <= 20\n", hundred / one);
   }
   {
      World w(100, gnmid);
      // A reader process that mounts the tree and tells a pipe when it hears
      // an oper status change.
      int heard[2];
      if (::pipe(heard) != 0) return 1;
      pid_t reader = ::fork();
      if (reader == 0) {
         Kel::ActivityLoop loop;
         Kel::NboAttrLog::Client client(loop, w.sock, "");
         loop.runUntil([&] { return client.synced(); }, 10000);
         auto dir = Gnmi::AgentTree::statusDir(client.root());
         std::vector<Kel::Ptr<Kel::Entity::NotifieeConst>> rs;
         struct R : Interface::IntfStatus::NotifieeConst {
            int fd;
            void onOperStatus() override { (void)!::write(fd, "x", 1); }
         };
         for (auto const & s : Gnmi::AgentTree::statuses(dir)) {
            auto r = Kel::makePtr<R>();
            r->fd = heard[1];
            r->notifierIs(s);
            rs.push_back(r);
         }
         (void)!::write(heard[1], "r", 1);
         for (;;) loop.runOnce(-1);
      }
      // The reader's pipe, heard on this loop.
      struct PipeSource : Kel::ActivityLoop::Source {
         int f = -1;
         unsigned got = 0;
         Clock::time_point when;
         int fd() const override { return f; }
         void onReadable() override {
            char b[64];
            ssize_t n = ::read(f, b, sizeof b);
            if (n > 0) {
               got += unsigned(n);
               when = Clock::now();
            }
         }
      } src;
      src.f = heard[0];
      w.loop.add(&src);
      if (!serve(w.loop, [&] { return src.got > 0; }, 10)) std::fprintf(stderr, "gnmi_bench: the reader did not mount\n");
      gnmi::SubscribeRequest req;
      auto * list = req.mutable_subscribe();
      list->set_encoding(gnmi::PROTO);
      auto * s = list->add_subscription();
      *s->mutable_path() = pathOf({"interfaces", "interface", "state", "oper-status"});
      s->set_mode(gnmi::ON_CHANGE);
      std::atomic<uint64_t> seen{0};
      std::atomic<int64_t> at{0};
      Subscriber sub(w.gnmid.address, req);
      sub.onUpdate = [&](gnmi::Notification const &) {
         at = Clock::now().time_since_epoch().count();
         seen++;
      };
      if (!serve(w.loop, [&] { return sub.synced.load(); }, 10)) std::fprintf(stderr, "gnmi_bench: no sync\n");
      std::vector<double> toGnmi, toMount;
      int missed = 0;
      for (int i = 0; i < 200; ++i) {
         uint64_t before = seen;
         auto st = w.agent.dir->intfStatus(w.agent.ids[size_t(i) % w.agent.ids.size()]);
         auto t0 = Clock::now();
         using S = Interface::IntfOperStatus;
         st->operStatusIs(st->operStatus() == S::intfOperUp ? S::intfOperDown : S::intfOperUp);
         unsigned had = src.got;
         serve(w.loop, [&] { return src.got > had && seen > before; }, 5);
         if (src.got <= had || seen <= before) {
            std::fprintf(stderr, "gnmi_bench: change %d not heard (reader %d, gNMI client %d)\n", i, int(src.got > had),
                         int(seen > before));
            if (++missed > 3) break;
            continue;
         }
         toMount.push_back(std::chrono::duration<double, std::micro>(src.when - t0).count());
         toGnmi.push_back(std::chrono::duration<double, std::micro>(Clock::time_point(Clock::duration(at.load())) - t0).count());
         serve(w.loop, [] { return false; }, 0.005);  // let things settle between changes
      }
      w.loop.remove(&src);
      ::kill(reader, SIGKILL);
      ::waitpid(reader, nullptr, 0);
      if (toGnmi.empty()) return std::fprintf(stderr, "no change was heard\n"), 1;
      double g = median(toGnmi), m = median(toMount);
      std::printf("gnmi.on_change_vs_mount: %zu oper status changes; median to the gNMI client's update %.1f us, "
                  "to the mounted reader's reactor %.1f us\n",
                  toGnmi.size(), g, m);
      std::printf("BENCH gnmi.on_change_vs_mount %.2f <= 1.5\n", g / m);
   }
   return 0;
}
