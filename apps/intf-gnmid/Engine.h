// The telemetry engine of intf-gnmid, on the thread of its activity loop:
// it mounts the host agent's tree (and the configuration agent's, when one
// answers), follows every interface's status and configuration through
// reactors, reads counters from the agent's shared-memory table, and turns
// Get requests and subscriptions into gNMI responses.
//
// Responses are encoded once (Wire.h) and handed to every client that
// takes the same data: SAMPLE subscriptions to the same paths, interval,
// encoding and target share one sampler and its frames; an ON_CHANGE
// update is encoded once per set of leaves, encoding and target. A client
// is a Sink: the engine only queues frames into it; sending, and bounding
// what a slow client may hold, is the sink's business.
//
// Interfaces: a status change is heard by a reactor and handled once the
// loop round ends (settle): the interface's state leaves are computed again
// and only those that changed go to ON_CHANGE subscribers; an interface
// that goes is sent as a deletion. When the agent restarts the engine
// remounts, compares, and goes on: counters keep coming from the same
// table, so they never go backwards.
#pragma once

#include "AgentTree.h"
#include "Schema.h"
#include "Values.h"
#include "Wire.h"

#include "gnmi.pb.h"

#include <Kel/Agent.h>

#include <chrono>
#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Gnmi {

// gRPC status codes, as the engine reports them.
enum class Code : int { ok = 0, invalidArgument = 3, notFound = 5, resourceExhausted = 8, unimplemented = 12 };
struct Status {
   Code code = Code::ok;
   std::string message;
   bool ok() const { return code == Code::ok; }
};

// One SubscribeResponse, encoded, shared by every client that takes it.
using Frame = std::shared_ptr<std::string const>;

class Sink {
 public:
   virtual ~Sink() = default;
   // Queues one response; false once the stream has ended (closed by the
   // client, or over its bound), after which the engine forgets it.
   virtual bool push(Frame const & f) = 0;
   // Ends the stream with `status`: after what is queued (ONCE).
   virtual void finish(Status const & s) = 0;
};

class Engine {
 public:
   struct Options {
      std::string agentSocket;
      std::string configSocket;  // "" for none
      std::chrono::nanoseconds minInterval = std::chrono::milliseconds(100);
      std::chrono::nanoseconds defaultInterval = std::chrono::seconds(10);
      size_t chunkBytes = 256 * 1024;  // a notification's size, about
   };
   Engine(Kel::ActivityLoop & loop, Options options);
   ~Engine();
   Engine(Engine const &) = delete;
   Engine & operator=(Engine const &) = delete;

   // A Get: the GetResponse's bytes, or why not.
   Status get(gnmi::GetRequest const & request, std::string * response);
   // The first request of Subscribe stream `id`. On failure nothing is kept
   // and the caller ends the stream with the status.
   Status subscribe(uint64_t id, std::shared_ptr<Sink> sink, gnmi::SubscriptionList const & list);
   // A Poll on stream `id`.
   Status poll(uint64_t id);
   void unsubscribe(uint64_t id);

   // Run after every loop round: handles what the mounts changed.
   void settle();

 private:
   class Hear;
   struct Intf {
      Zenet::IntfId id;
      std::string elem;  // Wire::intfElem
      Kel::Ptr<Interface::IntfStatus> status;
      Kel::Ptr<Interface::IntfConfig> config;
      Kel::Ptr<Hear> statusHear, configHear;
      AgentTree::CounterRow row;
      IntfValues values;  // state and configuration leaves
   };
   enum class Mode : uint8_t { sample, onChange, targetDefined };
   struct Sub {
      Query q;
      Mode mode;
      std::chrono::nanoseconds interval{0}, heartbeat{0};
      bool suppress = false;
   };
   // What a pass sends: which interfaces and leaves, how, to which target.
   struct Pass {
      std::optional<Zenet::IntfId> intf;
      LeafSet leaves = 0;
      Enc enc = Enc::jsonIetf;
      std::string target;
      bool operator<(Pass const & o) const {
         return std::tie(intf, leaves, enc, target) < std::tie(o.intf, o.leaves, o.enc, o.target);
      }
   };
   // Last values sent by a sampler that suppresses repeats.
   struct Sent {
      LeafSet present = 0;
      std::array<Value, leafCount> leaf;
   };
   struct Sampler {
      Pass pass;
      std::chrono::nanoseconds interval{0}, heartbeat{0};
      bool suppress = false;
      std::set<uint64_t> members;
      Kel::ActivityLoop::TimerId timer = 0;
      std::map<Zenet::IntfId, Sent> sent;
      std::chrono::steady_clock::time_point lastFull;
   };
   struct Client {
      std::shared_ptr<Sink> sink;
      Enc enc = Enc::jsonIetf;
      std::string target;
      gnmi::SubscriptionList::Mode mode = gnmi::SubscriptionList::STREAM;
      std::vector<Sub> subs;
      std::vector<Sampler *> samplers;  // in samplers_
      std::vector<Kel::ActivityLoop::TimerId> heartbeats;
      bool streaming = false;  // initial pass sent: changes go to it
   };

   void mounted();
   void refresh(Zenet::IntfId id);
   void removeIntf(std::map<Zenet::IntfId, Intf>::iterator it);
   void changed(Intf const & in, LeafSet changed, LeafSet gone);
   std::vector<Frame> frames(Pass const & p, Sampler * suppressing);
   void send(uint64_t id, std::vector<Frame> const & frames);
   void tick(Sampler * s);
   void drop(uint64_t id);
   Status parseSub(gnmi::Subscription const & in, std::vector<PathElem> const & prefix, Sub * out) const;
   std::vector<Intf *> selected(std::optional<Zenet::IntfId> intf);

   Kel::ActivityLoop & loop_;
   Options options_;
   Kel::NboAttrLog::Client agent_;
   std::unique_ptr<Kel::NboAttrLog::Client> config_;
   Kel::Ptr<Kel::Entity> statusDir_, configDir_;
   AgentTree::Clears clears_;
   Kel::Ptr<Hear> statusDirHear_, configDirHear_;
   bool remount_ = false;
   std::set<Zenet::IntfId> dirty_;
   std::map<Zenet::IntfId, Intf> intfs_;
   std::map<uint64_t, Client> clients_;
   std::list<Sampler> samplers_;
   // The samplers clients share, by what they send and how often.
   std::map<std::pair<Pass, int64_t>, Sampler *> shared_;
   std::set<uint64_t> gone_;                           // clients whose sink refused: dropped in settle()
};

} // namespace Gnmi
