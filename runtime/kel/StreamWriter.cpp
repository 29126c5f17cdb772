#include "StreamIo.h"

#include <Kel/StreamMessages.h>
#include <Kel/StreamWriter.h>
#include <Kel/Trace.h>

#include <sys/socket.h>

#include <algorithm>
#include <mutex>

namespace Kel::NboAttrLog {

namespace {

TraceFacility trace("Kel::NboAttrLog");

} // namespace

// ---- EntityAdapter -------------------------------------------------------------------------------

EntityAdapter::BitLayout const * EntityAdapter::bitLayout(KelType const * t) {
   static std::mutex m;
   static auto * layouts = new std::unordered_map<KelType const *, std::unique_ptr<BitLayout>>;
   std::lock_guard<std::mutex> g(m);
   auto & l = (*layouts)[t];
   if (!l) {
      l = std::make_unique<BitLayout>();
      std::vector<uint16_t> bytes(t->logSets, 0);
      for (AttrDesc const & d : t->attributes()) {
         if (d.replicated()) bytes[d.logSet] = std::max<uint16_t>(bytes[d.logSet], uint16_t(d.logBit / 8 + 1));
      }
      uint16_t at = 0;
      for (uint16_t b : bytes) {
         l->start.push_back(at);
         at = uint16_t(at + b);
      }
      l->start.push_back(at);
   }
   return l.get();
}

EntityAdapter::EntityAdapter(Writer * w, Entity * e, uint32_t id)
      : w_(w), e_(e), id_(id), layout_(bitLayout(e->fwkType())) {
   kelGenericIs(true);
   bits_.assign(layout_->start.back(), '\0');
}

std::vector<uint8_t> EntityAdapter::dirtyBitSet(uint8_t set) const {
   if (set + 1u >= layout_->start.size()) return {};
   return std::vector<uint8_t>(bits_.begin() + layout_->start[set], bits_.begin() + layout_->start[set + 1]);
}

void EntityAdapter::setBit(AttrDesc const & d, bool v) {
   size_t i = bitIndex(d);
   char & byte = bits_[i / 8];
   uint8_t mask = uint8_t(1u << (i % 8));
   byte = char(v ? uint8_t(uint8_t(byte) | mask) : uint8_t(uint8_t(byte) & ~mask));
}

bool EntityAdapter::bit(AttrDesc const & d) const {
   size_t i = bitIndex(d);
   return uint8_t(bits_[i / 8]) & (1u << (i % 8));
}

bool EntityAdapter::dirty() const {
   for (char b : bits_) {
      if (b) return true;
   }
   if (!pending_) return false;
   for (auto const & [id, keys] : pending_->dirtyKeys) {
      if (!keys.empty()) return true;
   }
   return !pending_->cursors.empty();
}

void EntityAdapter::markAllDirty() {
   for (AttrDesc const & d : e_->fwkType()->attributes()) {
      if (d.replicated()) setBit(d, true);
   }
}

void EntityAdapter::kelOnAttribute(AttributeId id, void const * key) {
   AttrDesc const * d = e_->fwkType()->attribute(id);
   if (d && d->replicated()) w_->changed(this, *d, key);
}

void EntityAdapter::onZeroReferences() { w_->forget(this); }

bool EntityAdapter::flowOutSome() {
   for (AttrDesc const & d : e_->fwkType()->attributes()) {
      if (!d.replicated()) continue;
      if (bit(d)) {
         if (!w_->hasRoom() || w_->closed_) return false;
         setBit(d, false);
         if (d.logCursor) {
            // The whole collection, one member at a time.
            pending().cursors[d.id] = d.logCursor(e_);
         } else {
            w_->writeAttr(this, d);
         }
      }
      if (!pending_) continue;
      auto & cursors = pending_->cursors;
      if (auto c = cursors.find(d.id); c != cursors.end()) {
         while (true) {
            if (!w_->hasRoom() || w_->closed_) return false;
            Out key;
            if (!c->second->next(key)) break;
            w_->writeMember(this, d, std::string(key.data(), key.size()));
         }
         cursors.erase(c);
      }
      auto & dirtyKeys = pending_->dirtyKeys;
      auto it = dirtyKeys.find(d.id);
      if (it == dirtyKeys.end()) continue;
      auto & keys = it->second;
      while (!keys.empty()) {
         if (!w_->hasRoom() || w_->closed_) return false;
         std::string k = std::move(keys.extract(keys.begin()).value());
         w_->writeMember(this, d, k);
      }
      dirtyKeys.erase(it);
   }
   if (pending_ && pending_->cursors.empty() && pending_->dirtyKeys.empty()) pending_.reset();
   return true;
}

// ---- Writer ------------------------------------------------------------------------------------

Writer::Writer(int fd, Ptr<Entity> root, String8 name, size_t bufferBytes)
      : Writer(fd, std::move(root), std::move(name), [&] {
           ConnectionLimits l;
           l.bufferBytes = bufferBytes;
           return l;
        }()) {}

Writer::Writer(int fd, Ptr<Entity> root, String8 name, ConnectionLimits const & limits)
      : fd_(fd), root_(std::move(root)), name_(std::move(name)), limits_(limits),
        cap_(limits.bufferBytes) {
   setNonBlocking(fd_);
}

Writer::~Writer() {
   for (auto & [e, a] : adapters_) a->notifierIs(nullptr);
}

EntityAdapter * Writer::adapter(Entity const * e) const {
   auto it = adapters_.find(e);
   return it == adapters_.end() ? nullptr : it->second.ptr();
}

constexpr const char * peerWentAway = "peer went away";
constexpr const char * listed = "listing sent";

void Writer::close(String8 const & why) {
   if (closed_) return;
   // Tell the reader why, if the socket takes it now; one refused before
   // it was served learns first who refuses it.
   {
      Out msg;
      if (!served_) {
         size_t hello = beginFrame(msg, msgHello);
         msg.putString(name_.view());
         endFrame(msg, hello);
      }
      size_t frame = beginFrame(msg, msgClose);
      msg.putString(cut(why.view(), 1000).view());
      endFrame(msg, frame);
      out_.append(msg.data(), msg.size());
      while (pending() > 0) {
         ssize_t r = sendSome(fd_, out_.data() + sent_, pending());
         if (r <= 0) break;
         sent_ += size_t(r);
      }
   }
   closed_ = true;
   reason_ = why;
   // A reader leaving is a server's everyday event, not a failure.
   int level = why.view() == peerWentAway || why.view() == listed ? 1 : 0;
   KEL_TRACE(trace, level, "closing connection of " + name_ + ": " + cut(why.view()));
   ::shutdown(fd_, SHUT_RDWR);
   if (busy_ == 0) teardown();
}

void Writer::teardown() {
   if (tornDown_) return;
   tornDown_ = true;
   auto adapters = std::move(adapters_);
   adapters_.clear();
   for (auto & [e, a] : adapters) a->notifierIs(nullptr);
   adapters.clear();
   dirty_.clear();
   std::string().swap(out_);
   std::string().swap(in_);
   sent_ = 0;
   served_ = nullptr;
}

void Writer::onDropped() {
   // The handler may delete this writer: nothing of it is used afterwards.
   auto handler = std::move(closeHandler_);
   String8 reason = reason_;
   if (handler) handler(reason);
}

namespace {

// What a missing mount path's last entity does hold: "<where> holds a, b"
// (the first few names, sorted), so that the reader learns what it may mount.
String8 whatIsThere(Entity const & at, std::string_view where) {
   std::vector<std::string> names;
   at.kelForEachChild(
       [](void * ctx, Entity * child) { static_cast<std::vector<std::string> *>(ctx)->push_back(child->name().str()); },
       &names);
   std::sort(names.begin(), names.end());
   std::string held;
   constexpr size_t shown = 8;
   for (size_t i = 0; i < names.size() && i < shown; ++i) held += (i ? ", " : "") + cut(names[i], 40).str();
   if (names.size() > shown) held += " and " + std::to_string(names.size() - shown) + " more";
   String8 place = where.empty() ? String8("the served entity") : cut(where, 60);
   return place + (names.empty() ? String8(" holds no entities") : " holds " + String8(held));
}

} // namespace

Ptr<Entity> Writer::resolveMount(std::string_view path, String8 * why) const {
   Ptr<Entity> cur = root_;
   std::string_view rest = path;
   while (!rest.empty()) {
      size_t slash = rest.find('/');
      std::string_view name = rest.substr(0, slash);
      std::string_view reached = path.substr(0, size_t(name.data() - path.data()));
      rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
      if (name.empty() || name == "." || name == ".." || (slash != std::string_view::npos && rest.empty())) {
         *why = "mount path must name entities below the served root: " + cut(path);
         return nullptr;
      }
      Ptr<Entity> next = cur->kelChildNamed(name);
      if (!next) {
         if (!reached.empty()) reached.remove_suffix(1);  // its slash
         *why = "no entity at " + cut(path) + ": " + whatIsThere(*cur, reached);
         return nullptr;
      }
      cur = next;
   }
   return cur;
}

void Writer::onReadable() {
   if (closed_) return;
   Busy busy(this);
   if (readSome(fd_, in_) < 0) {
      close(peerWentAway);
      return;
   }
   // The reader sends one message: which path to mount.
   while (!closed_ && in_.size() >= 5) {
      uint32_t len = frameLength(in_.data());
      if (len == 0) return close("bad frame from reader");
      if (len > limits_.pathBytes + 16) {
         return close(format("mount request of %u bytes exceeds the limit of %zu", len,
                             limits_.pathBytes + 16));
      }
      if (in_.size() < 4 + size_t(len)) return;
      In in(in_.data() + 5, len - 1);
      uint8_t type = uint8_t(in_[4]);
      try {
         if ((type != msgMount && type != msgList) || served_) throw StreamError("unexpected message from reader");
         String8 path = in.nextString();
         if (path.size() > limits_.pathBytes) {
            throw StreamError(format("mount path of %zu bytes exceeds the limit of %zu", path.size(),
                                     limits_.pathBytes));
         }
         String8 why;
         Ptr<Entity> e = resolveMount(path.view(), &why);
         if (!e) throw StreamError(why);
         if (type == msgList) return list(e, in.nextU32());
         in_.erase(0, 4 + size_t(len));
         startServing(e);
      } catch (Exception const & ex) {
         return close(ex.message());
      }
   }
}

void Writer::list(Ptr<Entity> const & at, uint32_t depth) {
   // Depth first, an entity before its children, as a tree walk goes; the
   // answer is bounded by the connection's buffer.
   Out msg;
   size_t frame = beginFrame(msg, msgListing);
   size_t countAt = msg.size();
   msg.putU32(0);
   uint32_t count = 0;
   bool truncated = false;
   struct Item {
      Ptr<Entity> e;
      std::string path;
      uint32_t depth;
   };
   std::vector<Item> stack{{at, std::string(), 0}};
   std::vector<Entity *> children;
   while (!stack.empty()) {
      Item item = std::move(stack.back());
      stack.pop_back();
      std::string_view type = item.e->fwkType()->name().view();
      if (msg.size() + item.path.size() + type.size() + 8 > limits_.bufferBytes) {
         truncated = true;
         break;
      }
      msg.putString(item.path);
      msg.putString(type);
      ++count;
      if (item.depth == depth) continue;
      children.clear();
      item.e->kelForEachChild([](void * ctx, Entity * c) { static_cast<std::vector<Entity *> *>(ctx)->push_back(c); },
                              &children);
      for (auto it = children.rbegin(); it != children.rend(); ++it) {
         std::string name((*it)->name().view());
         stack.push_back({Ptr<Entity>(*it), item.path.empty() ? name : item.path + "/" + name, item.depth + 1});
      }
   }
   msg.patchU32(countAt, count);
   msg.put(truncated);
   endFrame(msg, frame);
   out_.append(msg.data(), msg.size());
   close(listed);
}

void Writer::startServing(Ptr<Entity> e) {
   served_ = e;
   syncPending_ = true;
   compose(msgHello, [&](Out & o) { o.putString(name_.view()); });
   // Naming the served entity creates it; its state, and through its
   // collections everything below it, flows out as dirty state, so that a
   // reader that does not read costs only the buffer.
   compose(msgRoot, [&](Out & o) { writeRef(o, e.ptr()); });
   flowOut_ = true;
   pump();
}

bool Writer::inSubtree(Entity const * e) const {
   for (; e; e = e->parentRaw()) {
      if (e == served_.ptr()) return true;
   }
   return false;
}

void Writer::writeRef(Out & out, Entity const * e) {
   if (!e) {
      out.putU8(0);
      return;
   }
   auto it = adapters_.find(e);
   if (it != adapters_.end()) {
      out.putU8(1);
      out.putU32(it->second->id());
      return;
   }
   // Below the served entity: its parent is known as such, or (rarely) the
   // walk up finds it.
   auto parent = adapters_.find(e->parentRaw());
   bool inside = e == served_.ptr() ||
                 (parent != adapters_.end() ? parent->second->inSubtree : inSubtree(e));
   if (inside || (newlyReferenced_ && !e->parentRaw())) {
      // First reference: the entity is created before this message.
      uint32_t id = nextId_++;
      Ptr<EntityAdapter> a(new EntityAdapter(this, const_cast<Entity *>(e), id));
      a->inSubtree = inside;
      adapters_.emplace(e, a);
      if (newlyReferenced_) newlyReferenced_->push_back(const_cast<Entity *>(e));
      out.putU8(1);
      out.putU32(id);
      return;
   }
   out.putU8(2);
   out.putString(e->fullName().view());
}

void Writer::sendNow() {
   while (pending() > 0) {
      ssize_t r = sendSome(fd_, out_.data() + sent_, pending());
      if (r < 0) return close(peerWentAway);
      if (r == 0) break;
      sent_ += size_t(r);
   }
   dropUsed(out_, sent_);
}

template <class F>
void Writer::compose(uint8_t type, F body) {
   if (closed_) return;
   Out msg;
   size_t frame = beginFrame(msg, type);
   std::vector<Entity *> fresh;
   std::vector<Entity *> * outer = newlyReferenced_;
   newlyReferenced_ = &fresh;
   body(msg);
   newlyReferenced_ = outer;
   endFrame(msg, frame);
   createAll(fresh);
   if (closed_) return;
   out_.append(msg.data(), msg.size());
   ++messages_;
   // Send early when a lot has piled up.
   if (pending() >= 65536) sendNow();
}

void Writer::createAll(std::vector<Entity *> const & fresh) {
   // Only constructor arguments can nest creations here (a member's state is
   // sent later, from the dirty list), so the depth is that of references
   // between constructor arguments.
   if (++createDepth_ > 64) {
      --createDepth_;
      return close("entities referenced by constructor arguments nest too deeply");
   }
   for (Entity * e : fresh) {
      if (closed_) break;
      EntityAdapter * a = adapter(e);
      if (!a) continue;
      compose(msgCreate, [&](Out & o) {
         KelType const * t = e->fwkType();
         o.putU32(a->id());
         o.putString(t->name().view());
         // Its base types, nearest first, and its name: a reader that does
         // not know the type makes a base it knows in its place.
         std::vector<KelType const *> bases;
         for (KelType const * b = t->base(); b && b->base(); b = b->base()) bases.push_back(b);  // depth < 256
         o.putU8(uint8_t(bases.size()));
         for (KelType const * b : bases) o.putString(b->name().view());
         if (!bases.empty()) o.putString(e->name().view());
         if (t->logWriteCtor) t->logWriteCtor(e, o, this);
      });
      if (closed_) break;
      a->notifierIs(e);
      a->markAllDirty();
      // Outside the initial state, an entity that appears while the
      // connection keeps up sends its state at once, in order with the
      // changes around it. What it creates in turn waits in the dirty list,
      // so that no subtree is sent by recursion.
      if (!syncPending_ && !immediate_ && !flowOut_ && hasRoom()) {
         immediate_ = true;
         bool done = a->flowOutSome();
         immediate_ = false;
         if (done || closed_) continue;
      }
      if (!a->inDirtyList) {
         a->inDirtyList = true;
         dirty_.push_back(a);
      }
      flowOut_ = true;
   }
   --createDepth_;
}

void Writer::writeAttr(EntityAdapter * a, AttrDesc const & d) {
   if (d.logCursor) {
      // A collection's bit asks for the whole collection.
      a->setBit(d, true);
      if (!a->inDirtyList) {
         a->inDirtyList = true;
         dirty_.push_back(a);
      }
      flowOut_ = true;
      return;
   }
   compose(msgAttr, [&](Out & o) {
      putAttrHead(o, a->id(), d.id);
      d.logWrite(a->entity(), o, this);
      o.putU8(tokenEnd);
   });
}

void Writer::writeMember(EntityAdapter * a, AttrDesc const & d, std::string const & key) {
   compose(msgMember, [&](Out & o) {
      putAttrHead(o, a->id(), d.id);
      In k(key.data(), key.size());
      d.logWriteMember(a->entity(), k, o, this);
      o.putU8(tokenEnd);
   });
}

void Writer::changed(EntityAdapter * a, AttrDesc const & d, void const * key) {
   if (closed_ || !served_) return;
   Busy busy(this);
   std::string k;
   if (key && d.logEncodeKey) {
      Out ko;
      d.logEncodeKey(key, ko);
      k.assign(ko.data(), ko.size());
   }
   if (!flowOut_ && hasRoom()) {
      if (d.logEncodeKey) {
         writeMember(a, d, k);
      } else {
         writeAttr(a, d);
      }
      return;
   }
   // No room: remember what changed, send its latest value later.
   flowOut_ = true;
   if (d.logEncodeKey) {
      a->pending().dirtyKeys[d.id].insert(std::move(k));
   } else {
      a->setBit(d, true);
   }
   if (!a->inDirtyList) {
      a->inDirtyList = true;
      dirty_.push_back(a);
   }
}

void Writer::forget(EntityAdapter * a) {
   if (tornDown_) return;
   Busy busy(this);
   uint32_t id = a->id();
   if (a->inDirtyList) {
      auto it = std::find(dirty_.begin(), dirty_.end(), a);
      if (it != dirty_.end()) dirty_.erase(it);
      a->inDirtyList = false;
   }
   Ptr<EntityAdapter> keep = a;
   adapters_.erase(a->entity());
   a->notifierIs(nullptr);
   if (closed_) return;
   compose(msgForget, [&](Out & o) { o.putU32(id); });
}

void Writer::pump() {
   if (closed_) return;
   Busy busy(this);
   for (int round = 0; round < 2 && !closed_; ++round) {
      sendNow();
      if (closed_ || !flowOut_) break;
      while (!closed_ && !dirty_.empty() && hasRoom()) {
         EntityAdapter * a = dirty_.front();
         Ptr<EntityAdapter> keep = a;
         if (!a->flowOutSome()) break;
         // Writing may have forgotten it (and taken it off the list).
         if (!dirty_.empty() && dirty_.front() == a) dirty_.pop_front();
         a->inDirtyList = false;
      }
      if (!closed_ && dirty_.empty()) {
         flowOut_ = false;
         if (syncPending_) {
            syncPending_ = false;
            compose(msgSyncDone, [](Out &) {});
         }
      }
   }
   if (!closed_) sendNow();
}

} // namespace Kel::NboAttrLog
