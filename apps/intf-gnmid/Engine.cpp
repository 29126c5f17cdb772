// The telemetry engine; see Engine.h.
#include "Engine.h"

#include "JsonTree.h"

#include <Kel/Trace.h>

namespace Gnmi {

// Hears every attribute of one entity (a status, a configuration, or the
// collection of a directory) and reports it by interface.
class Engine::Hear : public Kel::Entity::NotifieeConst {
 public:
   using Fn = std::function<void(Kel::AttributeId, void const *)>;
   explicit Hear(Fn fn) : fn_(std::move(fn)) { kelGenericIs(true); }
   void kelOnAttribute(Kel::AttributeId id, void const * key) override { fn_(id, key); }

 private:
   Fn fn_;
};

namespace {

int64_t wallNowNs() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
       .count();
}

Kel::NboAttrLog::Client::Options reconnecting() {
   Kel::NboAttrLog::Client::Options o;
   o.reconnect = true;
   return o;
}

Status error(Code c, std::string m) { return {c, std::move(m)}; }

std::optional<Enc> encodingOf(gnmi::Encoding e) {
   switch (e) {
   case gnmi::JSON: return Enc::json;
   case gnmi::JSON_IETF: return Enc::jsonIetf;
   case gnmi::PROTO: return Enc::proto;
   default: return std::nullopt;
   }
}

Status badEncoding(gnmi::Encoding e) {
   return error(Code::unimplemented, "encoding " + gnmi::Encoding_Name(e) +
                                         " is not served (JSON, JSON_IETF and PROTO are)");
}

// The elements of a path, checked: the old string form is refused and the
// origin must be the served schema's.
Status elemsOf(gnmi::Path const & p, std::vector<PathElem> * out) {
   if (p.element_size()) return error(Code::invalidArgument, "path uses the old \"element\" strings: use elem");
   if (!originServed(p.origin())) {
      return error(Code::invalidArgument, "origin \"" + p.origin() + "\" is not served (openconfig is)");
   }
   for (auto const & e : p.elem()) {
      PathElem pe{e.name(), {}};
      for (auto const & [k, v] : e.key()) pe.keys.emplace_back(k, v);
      std::sort(pe.keys.begin(), pe.keys.end());
      out->push_back(std::move(pe));
   }
   return {};
}

Status resolved(std::vector<PathElem> const & elems, Query * q) {
   std::string why;
   auto r = resolve(elems, &why);
   if (!r) return error(Code::invalidArgument, why);
   *q = *r;
   return {};
}

Frame frame(std::string bytes) { return std::make_shared<std::string const>(std::move(bytes)); }

} // namespace

Engine::Engine(Kel::ActivityLoop & loop, Options options)
      : loop_(loop), options_(std::move(options)), agent_(loop, options_.agentSocket, "", reconnecting()) {
   agent_.onSynced = [this](Kel::Ptr<Kel::Entity>) { remount_ = true; };
   if (!options_.configSocket.empty()) {
      config_ = std::make_unique<Kel::NboAttrLog::Client>(loop, options_.configSocket, "", reconnecting());
      config_->onSynced = [this](Kel::Ptr<Kel::Entity>) { remount_ = true; };
   }
}

Engine::~Engine() {
   for (auto & s : samplers_) {
      if (s.timer) loop_.timerDel(s.timer);
   }
   for (auto & [id, c] : clients_) {
      for (auto t : c.heartbeats) loop_.timerDel(t);
   }
}

// ---- following the model ---------------------------------------------------------------

void Engine::mounted() {
   auto dirHear = [this](Kel::AttributeId attr) {
      return Kel::makePtr<Hear>([this, attr](Kel::AttributeId id, void const * key) {
         if (id == attr && key) dirty_.insert(*static_cast<Zenet::IntfId const *>(key));
      });
   };
   statusDir_ = AgentTree::statusDir(agent_.root());
   clears_ = AgentTree::snapshotDir(agent_.root());
   statusDirHear_ = dirHear(AgentTree::statusCollectionId());
   statusDirHear_->notifierIs(statusDir_);
   configDir_ = config_ ? AgentTree::configDir(config_->root()) : nullptr;
   configDirHear_ = dirHear(AgentTree::configCollectionId());
   configDirHear_->notifierIs(configDir_);
   // Everything known and everything there now is compared again.
   for (auto const & [id, in] : intfs_) dirty_.insert(id);
   for (auto const & s : AgentTree::statuses(statusDir_)) dirty_.insert(s->intfId());
}

void Engine::settle() {
   if (remount_) {
      remount_ = false;
      mounted();
   }
   while (!dirty_.empty()) {
      Zenet::IntfId id = *dirty_.begin();
      dirty_.erase(dirty_.begin());
      refresh(id);
   }
   while (!gone_.empty()) {
      uint64_t id = *gone_.begin();
      gone_.erase(gone_.begin());
      drop(id);
   }
}

void Engine::refresh(Zenet::IntfId id) {
   auto status = AgentTree::statusOf(statusDir_, id);
   auto it = intfs_.find(id);
   if (!status) {
      if (it != intfs_.end()) removeIntf(it);
      return;
   }
   if (it == intfs_.end()) {
      it = intfs_.emplace(id, Intf()).first;
      it->second.id = id;
      it->second.elem = Wire::intfElem(id.stringValue().str());
   }
   Intf & in = it->second;
   auto mark = [this, id](Kel::AttributeId, void const *) { dirty_.insert(id); };
   if (in.status != status) {
      in.status = status;
      in.statusHear = Kel::makePtr<Hear>(mark);
      in.statusHear->notifierIs(status);
      in.row = AgentTree::counterRow(*status);
   }
   auto config = AgentTree::configOf(configDir_, id);
   if (in.config != config) {
      in.config = config;
      in.configHear = config ? Kel::makePtr<Hear>(mark) : nullptr;
      if (config) in.configHear->notifierIs(config);
   }
   IntfValues v = stateValues(id, *status, config.ptr());
   LeafSet diff = 0, gone = 0;
   for (unsigned l = 0; l < firstCounter; ++l) {
      if (v.leaf[l] == in.values.leaf[l]) continue;
      diff |= LeafSet(1) << l;
      if (!v.leaf[l].present()) gone |= LeafSet(1) << l;
   }
   in.values = std::move(v);
   if (diff) changed(in, diff, gone);
}

void Engine::removeIntf(std::map<Zenet::IntfId, Intf>::iterator it) {
   std::map<std::string, Frame> byTarget;
   for (auto & [cid, c] : clients_) {
      if (!c.streaming) continue;
      bool matches = false;
      for (auto const & s : c.subs) matches = matches || !s.q.intf || *s.q.intf == it->first;
      if (!matches) continue;
      Frame & f = byTarget[c.target];
      if (!f) {
         std::string deletes;
         Wire::intfDelete(deletes, it->second.elem);
         f = frame(Wire::subscribeUpdate(
             Wire::notification(wallNowNs(), Wire::interfacesPrefix(c.target), {}, deletes)));
      }
      send(cid, {f});
   }
   for (auto & s : samplers_) s.sent.erase(it->first);
   intfs_.erase(it);
}

// ON_CHANGE: the changed leaves go to every client that asked for them on
// change, encoded once per set of leaves, encoding and target.
void Engine::changed(Intf const & in, LeafSet diff, LeafSet gone) {
   std::map<std::pair<Pass, LeafSet>, Frame> made;
   int64_t now = wallNowNs();
   for (auto & [cid, c] : clients_) {
      if (!c.streaming) continue;
      LeafSet mask = 0;
      for (auto const & s : c.subs) {
         if (s.mode == Mode::sample || (s.q.intf && *s.q.intf != in.id)) continue;
         mask |= s.q.leaves & stateLeaves;
      }
      mask &= diff;
      if (!mask) continue;
      Pass key{in.id, mask, c.enc, c.target};
      Frame & f = made[{key, mask & gone}];
      if (!f) {
         std::string updates, deletes;
         for (unsigned l = 0; l < firstCounter; ++l) {
            if (!(mask & (LeafSet(1) << l))) continue;
            if (in.values.leaf[l].present()) {
               Wire::leafUpdate(updates, in.elem, Leaf(l), in.values.leaf[l], c.enc);
            } else {
               std::vector<PathElem> path{{"interface", {{"name", in.values.name}}}};
               std::string p = leafInfo(l).path;
               for (size_t a = 0, b; a <= p.size(); a = b + 1) {
                  b = p.find('/', a);
                  if (b == std::string::npos) b = p.size();
                  path.push_back({p.substr(a, b - a), {}});
               }
               Wire::bytes(deletes, 5, Wire::elems(path));
            }
         }
         f = frame(Wire::subscribeUpdate(Wire::notification(now, Wire::interfacesPrefix(c.target), updates, deletes)));
      }
      send(cid, {f});
   }
}

// ---- passes ----------------------------------------------------------------------------

std::vector<Engine::Intf *> Engine::selected(std::optional<Zenet::IntfId> intf) {
   std::vector<Intf *> out;
   if (intf) {
      auto it = intfs_.find(*intf);
      if (it != intfs_.end()) out.push_back(&it->second);
   } else {
      for (auto & [id, in] : intfs_) out.push_back(&in);
   }
   return out;
}

// One pass over the selected interfaces: notifications grouped by the
// moment their values were taken (state now, counters when the agent
// sampled them), each at most about chunkBytes.
std::vector<Frame> Engine::frames(Pass const & p, Sampler * suppressing) {
   std::vector<Frame> out;
   std::string prefix = Wire::interfacesPrefix(p.target);
   int64_t now = wallNowNs();
   int64_t offset = AgentTree::monotonicToWallNs();
   std::vector<std::pair<int64_t, std::string>> open;
   auto flush = [&](std::string & u, int64_t ts) {
      if (u.empty()) return;
      out.push_back(frame(Wire::subscribeUpdate(Wire::notification(ts, prefix, u))));
      u.clear();
   };
   // Rows sampled together share a moment; a few moments are open at once.
   auto bucket = [&](int64_t ts) -> std::string & {
      for (auto it = open.rbegin(); it != open.rend(); ++it) {
         if (it->first == ts) return it->second;
      }
      if (open.size() >= 8) {
         flush(open.front().second, open.front().first);
         open.erase(open.begin());
      }
      open.emplace_back(ts, std::string());
      open.back().second.reserve(options_.chunkBytes + 4096);
      return open.back().second;
   };
   LeafSet stateWanted = p.leaves & stateLeaves, countersWanted = p.leaves & counterLeaves;
   auto const intfs = selected(p.intf);
   for (Intf * pin : intfs) {
      Intf & in = *pin;
      Sent * sent = suppressing ? &suppressing->sent[in.id] : nullptr;
      if (stateWanted) {
         std::string & u = bucket(now);
         for (unsigned l = 0; l < firstCounter; ++l) {
            if (!(stateWanted & (LeafSet(1) << l)) || !in.values.leaf[l].present()) continue;
            if (sent) {
               if ((sent->present & (LeafSet(1) << l)) && sent->leaf[l] == in.values.leaf[l]) continue;
               sent->present |= LeafSet(1) << l;
               sent->leaf[l] = in.values.leaf[l];
            }
            Wire::leafUpdate(u, in.elem, Leaf(l), in.values.leaf[l], p.enc);
         }
      }
      if (countersWanted) {
         if (!in.row) in.row = AgentTree::counterRow(*in.status);  // its first row may come later
         AgentTree::Counters c;
         if (AgentTree::readCounters(in.row, offset, &c, clears_)) {
            std::string & u = bucket(c.sampledNs);
            LeafSet have = c.present & countersWanted;
            for (unsigned i = 0; i < counterCount; ++i) {
               unsigned l = firstCounter + i;
               if (!(have & (LeafSet(1) << l))) continue;
               if (sent) {
                  Value v;
                  v.kind = Value::Kind::number;
                  v.number = c.value[i];
                  if ((sent->present & (LeafSet(1) << l)) && sent->leaf[l] == v) continue;
                  sent->present |= LeafSet(1) << l;
                  sent->leaf[l] = v;
               }
               Wire::counterUpdate(u, in.elem, Leaf(l), c.value[i], p.enc);
            }
         }
      }
      for (auto & [ts, u] : open) {
         if (u.size() >= options_.chunkBytes) flush(u, ts);
      }
   }
   for (auto & [ts, u] : open) flush(u, ts);
   return out;
}

void Engine::send(uint64_t id, std::vector<Frame> const & fs) {
   auto it = clients_.find(id);
   if (it == clients_.end()) return;
   for (auto const & f : fs) {
      if (!it->second.sink->push(f)) {
         gone_.insert(id);
         return;
      }
   }
}

void Engine::tick(Sampler * s) {
   Sampler * suppressing = nullptr;
   if (s->suppress) {
      auto now = std::chrono::steady_clock::now();
      if (s->heartbeat.count() && now - s->lastFull >= s->heartbeat) {
         s->sent.clear();  // a heartbeat: everything again
         s->lastFull = now;
      }
      suppressing = s;
   }
   auto fs = frames(s->pass, suppressing);
   if (fs.empty()) return;
   for (uint64_t id : s->members) send(id, fs);
}

// ---- Get -------------------------------------------------------------------------------

Status Engine::get(gnmi::GetRequest const & req, std::string * response) {
   auto enc = encodingOf(req.encoding());
   if (!enc) return badEncoding(req.encoding());
   for (auto const & m : req.use_models()) {
      if (m.name() != moduleName) return error(Code::invalidArgument, "model " + m.name() + " is not served");
   }
   LeafSet storeMask = 0;
   for (unsigned l = 0; l < leafCount; ++l) {
      Datastore d = leafInfo(l).store;
      bool take = req.type() == gnmi::GetRequest::ALL ||
                  (req.type() == gnmi::GetRequest::CONFIG && d == Datastore::config && l != unsigned(Leaf::name)) ||
                  (req.type() == gnmi::GetRequest::STATE && d != Datastore::config) ||
                  (req.type() == gnmi::GetRequest::OPERATIONAL && d == Datastore::operational);
      if (take) storeMask |= LeafSet(1) << l;
   }
   if (req.type() == gnmi::GetRequest::CONFIG) storeMask |= bit(Leaf::name);
   std::vector<PathElem> prefix;
   if (Status s = elemsOf(req.prefix(), &prefix); !s.ok()) return s;
   std::string const & target = req.prefix().target();
   std::string out;
   int64_t now = wallNowNs();
   for (auto const & path : req.path()) {
      std::vector<PathElem> elems = prefix;
      if (Status s = elemsOf(path, &elems); !s.ok()) return s;
      if (!path.origin().empty() && !req.prefix().origin().empty() && path.origin() != req.prefix().origin()) {
         return error(Code::invalidArgument, "the path's origin differs from the prefix's");
      }
      Query q;
      if (Status s = resolved(elems, &q); !s.ok()) return s;
      auto intfs = selected(q.intf);
      if (q.intf && intfs.empty()) {
         return error(Code::notFound, "interface[name=" + q.intf->stringValue().str() + "]: no such interface");
      }
      LeafSet leaves = q.leaves & storeMask;
      std::vector<IntfValues> values;
      values.reserve(intfs.size());
      for (Intf const * in : intfs) {
         values.push_back(in->values);
         if (leaves & counterLeaves) {
            AgentTree::CounterRow row = in->row ? in->row : AgentTree::counterRow(*in->status);
            AgentTree::Counters c;
            if (AgentTree::readCounters(row, AgentTree::monotonicToWallNs(), &c, clears_)) setCounters(values.back(), c);
         }
      }
      if (*enc != Enc::proto && (q.node == Node::root || q.node == Node::interfaces)) {
         std::vector<IntfValues const *> ptrs;
         for (auto const & v : values) ptrs.push_back(&v);
         std::string updates;
         Wire::jsonUpdate(updates, Wire::elems(elems), jsonOfList(q.node, ptrs, leaves), *enc);
         out += Wire::getNotification(Wire::notification(now, Wire::rootPrefix(target), updates));
         continue;
      }
      bool found = false;
      for (size_t i = 0; i < values.size(); ++i) {
         IntfValues const & v = values[i];
         std::string updates;
         if (*enc != Enc::proto && q.node != Node::leaf) {
            std::string json = jsonOfInterface(q.node, v, leaves);
            if (json.empty()) continue;
            // The path with this interface's name in its key.
            std::vector<PathElem> concrete = elems;
            for (auto & e : concrete) {
               if (e.name == "interface") e.keys = {{"name", v.name}};
            }
            Wire::jsonUpdate(updates, Wire::elems(concrete), json, *enc);
            out += Wire::getNotification(Wire::notification(now, Wire::rootPrefix(target), updates));
            found = true;
            continue;
         }
         for (unsigned l = 0; l < leafCount; ++l) {
            if ((leaves & (LeafSet(1) << l)) && v.leaf[l].present()) {
               Wire::leafUpdate(updates, intfs[i]->elem, Leaf(l), v.leaf[l], *enc);
            }
         }
         if (updates.empty()) continue;
         found = true;
         int64_t ts = leaves & stateLeaves ? now : v.countersNs;
         out += Wire::getNotification(Wire::notification(ts, Wire::interfacesPrefix(target), updates));
      }
      if (!found && q.intf && q.leaf != Leaf::count) {
         return error(Code::notFound, std::string(leafInfo(q.leaf).path) + " of interface[name=" +
                                          q.intf->stringValue().str() + "]: no value (not given by this host)");
      }
   }
   *response = std::move(out);
   return {};
}

// ---- subscriptions ---------------------------------------------------------------------

Status Engine::parseSub(gnmi::Subscription const & in, std::vector<PathElem> const & prefix, Sub * out) const {
   std::vector<PathElem> elems = prefix;
   if (Status s = elemsOf(in.path(), &elems); !s.ok()) return s;
   if (Status s = resolved(elems, &out->q); !s.ok()) return s;
   switch (in.mode()) {
   case gnmi::SAMPLE: out->mode = Mode::sample; break;
   case gnmi::ON_CHANGE: out->mode = Mode::onChange; break;
   case gnmi::TARGET_DEFINED: out->mode = Mode::targetDefined; break;
   default: return error(Code::unimplemented, "subscription mode " + std::to_string(in.mode()) + " is not served");
   }
   if (out->mode == Mode::onChange && !(out->q.leaves & stateLeaves)) {
      return error(Code::unimplemented,
                   "counters are sampled, never sent on change: subscribe to them with SAMPLE or TARGET_DEFINED");
   }
   auto ns = [](uint64_t v) { return std::chrono::nanoseconds(int64_t(std::min<uint64_t>(v, uint64_t(1) << 62))); };
   out->interval = in.sample_interval() ? ns(in.sample_interval()) : options_.defaultInterval;
   out->heartbeat = ns(in.heartbeat_interval());
   out->suppress = in.suppress_redundant();
   auto ms = [](std::chrono::nanoseconds d) { return std::to_string(d.count() / 1000000) + " ms"; };
   if (out->interval < options_.minInterval) {
      return error(Code::invalidArgument, "sample_interval " + ms(out->interval) + " is below the least served, " +
                                              ms(options_.minInterval));
   }
   if (out->heartbeat.count() && out->heartbeat < options_.minInterval) {
      return error(Code::invalidArgument, "heartbeat_interval " + ms(out->heartbeat) +
                                              " is below the least served, " + ms(options_.minInterval));
   }
   return {};
}

Status Engine::subscribe(uint64_t id, std::shared_ptr<Sink> sink, gnmi::SubscriptionList const & list) {
   Client c;
   c.sink = std::move(sink);
   auto enc = encodingOf(list.encoding());
   if (!enc) return badEncoding(list.encoding());
   c.enc = *enc;
   c.mode = list.mode();
   if (c.mode != gnmi::SubscriptionList::STREAM && c.mode != gnmi::SubscriptionList::ONCE &&
       c.mode != gnmi::SubscriptionList::POLL) {
      return error(Code::unimplemented, "subscription list mode " + std::to_string(c.mode) + " is not served");
   }
   if (list.use_aliases()) return error(Code::unimplemented, "aliases are not served");
   for (auto const & m : list.use_models()) {
      if (m.name() != moduleName) return error(Code::invalidArgument, "model " + m.name() + " is not served");
   }
   if (list.subscription_size() == 0) return error(Code::invalidArgument, "the subscription list is empty");
   c.target = list.prefix().target();
   std::vector<PathElem> prefix;
   if (Status s = elemsOf(list.prefix(), &prefix); !s.ok()) return s;
   for (auto const & in : list.subscription()) {
      Sub s;
      if (Status st = parseSub(in, prefix, &s); !st.ok()) return st;
      // Outside STREAM the mode does not matter: a pass sends everything.
      if (c.mode != gnmi::SubscriptionList::STREAM) s.mode = Mode::sample;
      c.subs.push_back(s);
   }
   auto [it, fresh] = clients_.emplace(id, std::move(c));
   if (!fresh) return error(Code::invalidArgument, "the stream already has a subscription list");
   Client & cl = it->second;
   if (!list.updates_only()) {
      for (auto const & s : cl.subs) {
         LeafSet leaves = s.q.leaves;
         if (s.mode == Mode::onChange) leaves &= stateLeaves;
         send(id, frames({s.q.intf, leaves, cl.enc, cl.target}, nullptr));
      }
   }
   send(id, {frame(Wire::syncResponse())});
   if (cl.mode == gnmi::SubscriptionList::ONCE) {
      cl.sink->finish({});
      clients_.erase(id);
      return {};
   }
   if (cl.mode == gnmi::SubscriptionList::POLL) return {};
   cl.streaming = true;
   for (auto const & s : cl.subs) {
      // Counters are sampled; with TARGET_DEFINED the state goes on change.
      LeafSet sampled = s.mode == Mode::sample        ? s.q.leaves
                      : s.mode == Mode::targetDefined ? s.q.leaves & counterLeaves
                                                      : 0;
      if (sampled) {
         Pass p{s.q.intf, sampled, cl.enc, cl.target};
         Sampler * sm = nullptr;
         auto key = std::make_pair(p, int64_t(s.interval.count()));
         if (!s.suppress) {
            auto f = shared_.find(key);
            if (f != shared_.end()) sm = f->second;
         }
         if (!sm) {
            sm = &samplers_.emplace_back();
            sm->pass = p;
            sm->interval = s.interval;
            sm->heartbeat = s.heartbeat;
            sm->suppress = s.suppress;
            sm->lastFull = std::chrono::steady_clock::now();
            if (s.suppress) {
               // What the initial pass sent is what later passes leave out.
               if (!list.updates_only()) frames(p, sm);
            } else {
               shared_[key] = sm;
            }
            sm->timer = loop_.timerIs(s.interval, [this, sm] { tick(sm); }, s.interval);
         }
         if (sm->members.insert(id).second) cl.samplers.push_back(sm);
      }
      if (s.mode != Mode::sample && s.heartbeat.count()) {
         Pass p{s.q.intf, s.q.leaves & stateLeaves, cl.enc, cl.target};
         cl.heartbeats.push_back(loop_.timerIs(s.heartbeat, [this, id, p] { send(id, frames(p, nullptr)); },
                                               s.heartbeat));
      }
   }
   return {};
}

Status Engine::poll(uint64_t id) {
   auto it = clients_.find(id);
   if (it == clients_.end() || it->second.mode != gnmi::SubscriptionList::POLL) {
      return error(Code::invalidArgument, "Poll is only for a subscription list of mode POLL");
   }
   Client & c = it->second;
   for (auto const & s : c.subs) send(id, frames({s.q.intf, s.q.leaves, c.enc, c.target}, nullptr));
   send(id, {frame(Wire::syncResponse())});
   return {};
}

void Engine::unsubscribe(uint64_t id) { drop(id); }

void Engine::drop(uint64_t id) {
   auto it = clients_.find(id);
   if (it == clients_.end()) return;
   for (auto t : it->second.heartbeats) loop_.timerDel(t);
   for (Sampler * s : it->second.samplers) {
      s->members.erase(id);
      if (!s->members.empty()) continue;
      loop_.timerDel(s->timer);
      auto key = std::make_pair(s->pass, int64_t(s->interval.count()));
      if (auto f = shared_.find(key); f != shared_.end() && f->second == s) shared_.erase(f);
      samplers_.remove_if([s](Sampler const & x) { return &x == s; });
   }
   clients_.erase(it);
}

} // namespace Gnmi
