#include "StreamIo.h"

#include <Kel/Dir.h>
#include <Kel/StreamMessages.h>
#include <Kel/StreamReader.h>
#include <Kel/Trace.h>

#include <sys/socket.h>

#include <algorithm>

namespace Kel::NboAttrLog {

namespace {

TraceFacility trace("Kel::NboAttrLog");

// Lifts the refusal of writes for one replica entity while an update is
// applied to it.
struct ApplyingUpdate {
   explicit ApplyingUpdate(Entity const * e)
         : prev(detail::notifyWalks.applying), prevDepth(detail::notifyWalks.applyingDepth) {
      detail::notifyWalks.applying = e;
      detail::notifyWalks.applyingDepth = detail::notifyWalks.depth;
   }
   ~ApplyingUpdate() {
      detail::notifyWalks.applying = prev;
      detail::notifyWalks.applyingDepth = prevDepth;
   }
   void const * prev;
   uint32_t prevDepth;
};

} // namespace

Reader::Reader(int fd, String8 path) : Reader(fd, std::move(path), ConnectionLimits()) {}

Reader::Reader(int fd, String8 path, ConnectionLimits const & limits) : fd_(fd), limits_(limits) {
   setNonBlocking(fd_);
   Out o;
   o.putU32(0);
   o.putU8(msgMount);
   o.putString(path.view());
   o.patchU32(0, uint32_t(o.size() - 4));
   out_.assign(o.data(), o.size());
   onWritable();
}

// Hears a forgotten replica go and stops counting it.
class Reader::ForgottenWatch : public Entity::NotifieeConst {
 public:
   ForgottenWatch(Reader * r, Entity const * e) : r_(r), e_(e) { kelGenericIs(true); }
   void onZeroReferences() override {
      Kel::Ptr<ForgottenWatch> keep(this);  // erased below while still being called
      notifierIs(nullptr);
      r_->nameBytes_ -= std::min(r_->nameBytes_, e_->name().size());
      r_->forgotten_.erase(e_);
   }

 private:
   Reader * r_;
   Entity const * e_;
};

void Reader::forgottenDrop() {
   auto all = std::move(forgotten_);
   forgotten_.clear();
   for (auto & [e, w] : all) w->notifierIs(nullptr);
}

Reader::~Reader() { forgottenDrop(); }

void Reader::onWritable() {
   while (!closed_ && sent_ < out_.size()) {
      ssize_t r = sendSome(fd_, out_.data() + sent_, out_.size() - sent_);
      if (r <= 0) return;
      sent_ += size_t(r);
   }
}

void Reader::onReadable() {
   if (closed_) return;
   std::string chunk;
   ssize_t r;
   while ((r = readSome(fd_, chunk)) > 0) {
      if (chunk.size() >= (1u << 20)) break;
   }
   if (!chunk.empty()) receive(chunk.data(), chunk.size());
   if (r < 0 && !closed_) close("writer went away");
}

void Reader::onDropped() {
   // The handler may delete this reader: nothing of it is used afterwards.
   auto handler = std::move(closeHandler_);
   String8 reason = reason_;
   if (handler) handler(reason);
}

void Reader::onRoundEnd() {
   if (!syncToTell_ || closed_) return;
   syncToTell_ = false;
   auto handler = std::move(syncHandler_);  // once per connection; it may delete this reader
   if (handler) handler();
}

void Reader::close(String8 const & why) {
   if (closed_) return;
   closed_ = true;
   reason_ = why;
   // A writer that never named itself is left unnamed rather than named "".
   String8 to = peer_.empty() ? String8() : " to " + cut(peer_.view());
   KEL_TRACE(trace, 0, "closing connection" + to + ": " + cut(why.view()));
   ::shutdown(fd_, SHUT_RDWR);
   std::string().swap(in_);
   std::string().swap(out_);
   consumed_ = sent_ = 0;
   // Ids mean nothing any more. A synced replica stays as last known; what
   // a writer that never finished its initial state sent is dropped.
   byId_.clear();
   forgottenDrop();
   nameBytes_ = 0;
   if (!synced_) root_ = nullptr;
}

Entity * Reader::entityById(uint32_t id) const {
   auto it = byId_.find(id);
   if (it == byId_.end()) throw StreamError(format("unknown entity %u", id));
   return it->second.ptr();
}

Ptr<Entity> Reader::standIn(String8 const & typeName, std::vector<String8> const & bases, String8 const & name,
                            In & ctorArgs) {
   for (auto const & b : bases) {
      KelType const * t = findType(b.view());
      if (!t || !t->logNewEntity || !t->constructorArgNames().empty()) continue;
      Out args;
      args.putString(name.view());
      In in(args.data(), args.size());
      Ptr<Entity> e = t->logNewEntity(in, this);
      ctorArgs.skipRest();
      if (standInTypes_.insert(typeName.str()).second) {
         KEL_TRACE(trace, 0, cut(typeName.view()) + " is not registered here: read as its base " + t->name() +
                                 ", without the rows of its own");
      }
      return e;
   }
   throw StreamError("unknown type " + cut(typeName.view()) +
                     ": register it in this process (Kel::registerTypes) with the declaration its server publishes");
}

Ptr<Entity> Reader::readRef(In & in) {
   uint8_t kind = in.nextU8();
   if (kind == 0) return nullptr;
   if (kind == 1) return Ptr<Entity>(entityById(in.nextU32()));
   if (kind == 2) {
      // Outside the mounted tree: found by its full name in this process's
      // tree, if it is there. Such an entity may be referred to, never
      // adopted into a replica's owning collection.
      String8 path = in.nextString();
      if (owningTarget_) throw StreamError("a reference by name cannot become a member of " + cut(path.view()) + "'s new owner");
      Ptr<Entity> found = !path.empty() && path[0] == '/' ? globalDir()->entity(path.view()) : nullptr;
      if (!found) unresolved_ = path;
      return found;
   }
   throw StreamError("bad entity reference");
}

void Reader::receive(char const * p, size_t n) {
   if (closed_) return;
   in_.append(p, n);
   while (!closed_ && in_.size() - consumed_ >= 4) {
      char const * f = in_.data() + consumed_;
      uint32_t len = frameLength(f);
      if (len == 0) return close("bad frame length");
      if (len > limits_.frameBytes) {
         return close(format("message of %u bytes exceeds the limit of %zu", len, limits_.frameBytes));
      }
      if (in_.size() - consumed_ < 4 + size_t(len)) break;
      In in(f + 5, len - 1);
      uint8_t type = uint8_t(f[4]);
      consumed_ += 4 + size_t(len);
      try {
         Expect expect(Exception::rangeId);
         apply(type, in);
         if (!in.atEnd()) throw StreamError("message longer than its content");
         ++applied_;
      } catch (UnknownEnum const &) {
         unknownEnumsInc();  // the update is skipped, the stream goes on
      } catch (Exception const & e) {
         close(e.message());
      } catch (std::bad_alloc const &) {
         close("out of memory applying an update");
      }
      owningTarget_ = false;
   }
   if (closed_) return;
   dropUsed(in_, consumed_);
}

void Reader::apply(uint8_t type, In & in) {
   switch (type) {
      case msgHello: {
         String8 name = in.nextString();
         if (name.size() > limits_.nameBytes) {
            throw StreamError(format("writer name of %zu bytes exceeds the limit of %zu", name.size(),
                                     limits_.nameBytes));
         }
         peer_ = name;
         peerShared_ = std::make_shared<String8 const>(peer_);
         return;
      }
      case msgCreate: {
         uint32_t id = in.nextU32();
         String8 typeName = in.nextString();
         std::vector<String8> bases(in.nextU8());
         for (auto & b : bases) b = in.nextString();
         String8 name = bases.empty() ? String8() : in.nextString();
         if (byId_.count(id)) throw StreamError(format("entity %u created twice", id));
         if (byId_.size() + forgotten_.size() >= limits_.entities) {
            throw StreamError(format("more than %zu entities from one writer", limits_.entities));
         }
         KelType const * t = findType(typeName.view());
         Ptr<Entity> e;
         if (t && t->logNewEntity) {
            e = t->logNewEntity(in, this);
         } else {
            e = standIn(typeName, bases, name, in);
            standIns_.insert(id);
         }
         if (e->name().size() > limits_.entityNameBytes - std::min(nameBytes_, limits_.entityNameBytes)) {
            throw StreamError(format("entity names of one writer exceed %zu bytes", limits_.entityNameBytes));
         }
         nameBytes_ += e->name().size();
         if (!peerShared_) peerShared_ = std::make_shared<String8 const>(peer_);
         e->kelReadOnlyProxyIs(peerShared_);
         byId_.emplace(id, e);
         return;
      }
      case msgAttr:
      case msgMember:
      case msgCollAll: {
         uint32_t id = in.nextU32();
         Entity * e = entityById(id);
         AttrDesc const * d = e->fwkType()->attribute(in.nextU32());
         if (!d && standIns_.count(id)) {
            in.skipRest();  // an attribute of the type the stand-in does not know
            return;
         }
         if (!d || !d->replicated()) throw StreamError("unknown attribute");
         if (in.nextU8() != tokenBegin) throw StreamError("missing transaction begin");
         owningTarget_ = d->kind == AttrKind::EntColl || d->kind == AttrKind::InstColl ||
                         d->kind == AttrKind::InstChild;
         unresolved_ = String8();
         try {
            ApplyingUpdate applying(e);
            if (type == msgAttr && d->logRead) {
               d->logRead(e, in, this);
            } else if (type == msgMember && d->logReadMember) {
               d->logReadMember(e, in, this);
            } else if (type == msgCollAll && d->logReadAll) {
               d->logReadAll(e, in, this);
            } else {
               throw StreamError("message does not fit the attribute");
            }
         } catch (UnknownEnum const &) {
            throw;
         } catch (RangeException const &) {
            // Refused because a reference led outside the mount (a null
            // refusal, say): name where it leads, not the refusal.
            if (unresolved_.empty()) throw;
            throw StreamError(cut(e->fullName().view()) + ": " + String8(d->name) + " refers to " +
                              cut(unresolved_.view()) +
                              ", outside the mounted path; mount an entity that holds both");
         }
         owningTarget_ = false;
         if (in.nextU8() != tokenEnd) throw StreamError("missing transaction end");
         return;
      }
      case msgSyncDone:
         // The replica handed on is the writer's served entity, never
         // nothing or an entity of this process.
         if (!root_) throw StreamError("the initial state ended without a root");
         synced_ = true;
         syncToTell_ = true;
         return;
      case msgForget: {
         auto it = byId_.find(in.nextU32());
         if (it == byId_.end()) return;
         standIns_.erase(it->first);
         Ptr<Entity> e = std::move(it->second);
         byId_.erase(it);
         if (e->references() > 1) {
            Ptr<ForgottenWatch> w(new ForgottenWatch(this, e.ptr()));
            w->notifierIs(e);
            forgotten_.emplace(e.ptr(), std::move(w));
         } else {
            nameBytes_ -= std::min(nameBytes_, e->name().size());
         }
         return;  // an entity nothing else holds goes here
      }
      case msgRoot:
         if (root_) throw StreamError("the root was named twice");
         if (in.nextU8() != 1) throw StreamError("the root must be an entity of the stream");
         root_ = entityById(in.nextU32());
         return;
      case msgClose:
         throw StreamError("writer closed the connection: " + cut(in.nextString().view(), 1000));
      default:
         throw StreamError(format("unknown message type %u", unsigned(type)));
   }
}

} // namespace Kel::NboAttrLog
