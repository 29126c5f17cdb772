#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Kel {

namespace {

TraceFacility trace("Kel::NboAttrLog");

void setNonBlocking(int fd) {
   int fl = fcntl(fd, F_GETFL, 0);
   if (fl >= 0) fcntl(fd, F_SETFL, fl | O_NONBLOCK);
}

// Sends without blocking and without SIGPIPE; returns bytes sent, 0 when
// the socket is full, -1 on a broken connection.
ssize_t sendSome(int fd, char const * p, size_t n) {
   ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
   if (r < 0 && errno == ENOTSOCK) r = ::write(fd, p, n);
   if (r >= 0) return r;
   if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
   return -1;
}

// Reads what is available; -1 on end of stream or error, 0 when none.
ssize_t readSome(int fd, std::string & into) {
   char buf[65536];
   ssize_t r = ::read(fd, buf, sizeof buf);
   if (r > 0) {
      into.append(buf, size_t(r));
      return r;
   }
   if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return 0;
   return -1;
}

// Sets a flag for the lifetime of a scope.
struct ApplyingUpdate {
   ApplyingUpdate() : prev(detail::applyingReplicaUpdate) { detail::applyingReplicaUpdate = true; }
   ~ApplyingUpdate() { detail::applyingReplicaUpdate = prev; }
   bool prev;
};

} // namespace

// ---- ActivityLoop ----------------------------------------------------------------------------

void ActivityLoop::add(Source * s) { sources_.push_back(s); }

void ActivityLoop::remove(Source * s) {
   sources_.erase(std::remove(sources_.begin(), sources_.end(), s), sources_.end());
}

int ActivityLoop::runOnce(int timeoutMs) {
   std::vector<pollfd> fds;
   std::vector<Source *> srcs = sources_;
   for (Source * s : srcs) {
      short ev = POLLIN;
      if (s->wantWrite()) ev |= POLLOUT;
      fds.push_back(pollfd{s->fd(), ev, 0});
   }
   int n = ::poll(fds.data(), fds.size(), timeoutMs);
   int handled = 0;
   for (size_t i = 0; n > 0 && i < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      ++handled;
      if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) srcs[i]->onReadable();
      if (fds[i].revents & POLLOUT) srcs[i]->onWritable();
   }
   for (Source * s : srcs) s->onRoundEnd();
   return handled;
}

namespace NboAttrLog {

// ---- EntityAdapter -------------------------------------------------------------------------------

EntityAdapter::EntityAdapter(Writer * w, Entity * e, uint32_t id) : w_(w), e_(e), id_(id) {
   kelGenericIs(true);
   KelType const * t = e->fwkType();
   bits_.resize(t->logSets);
   for (AttrDesc const & d : t->attributes()) {
      if (!d.replicated()) continue;
      auto & set = bits_[d.logSet];
      if (set.size() < size_t(d.logBit / 8 + 1)) set.resize(d.logBit / 8 + 1);
   }
}

void EntityAdapter::setBit(AttrDesc const & d, bool v) {
   uint8_t & byte = bits_[d.logSet][d.logBit / 8];
   uint8_t mask = uint8_t(1u << (d.logBit % 8));
   byte = v ? uint8_t(byte | mask) : uint8_t(byte & ~mask);
}

bool EntityAdapter::bit(AttrDesc const & d) const {
   return bits_[d.logSet][d.logBit / 8] & (1u << (d.logBit % 8));
}

bool EntityAdapter::dirty() const {
   for (auto const & set : bits_) {
      for (uint8_t b : set) {
         if (b) return true;
      }
   }
   for (auto const & [id, keys] : dirtyKeys_) {
      if (!keys.empty()) return true;
   }
   return false;
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
         if (!w_->hasRoom()) return false;
         setBit(d, false);
         w_->writeAttr(this, d);
      }
      auto it = dirtyKeys_.find(d.id);
      if (it == dirtyKeys_.end()) continue;
      auto & keys = it->second;
      while (!keys.empty()) {
         if (!w_->hasRoom()) return false;
         std::string k = std::move(keys.back());
         keys.pop_back();
         w_->writeMember(this, d, k);
      }
      dirtyKeys_.erase(it);
   }
   return true;
}

// ---- Writer ------------------------------------------------------------------------------------

Writer::Writer(int fd, Ptr<Entity> root, String8 name, size_t bufferBytes)
      : fd_(fd), root_(std::move(root)), name_(std::move(name)), cap_(bufferBytes) {
   setNonBlocking(fd_);
}

Writer::~Writer() {
   for (auto & [e, a] : adapters_) a->notifierIs(nullptr);
}

EntityAdapter * Writer::adapter(Entity const * e) const {
   auto it = adapters_.find(e);
   return it == adapters_.end() ? nullptr : it->second.ptr();
}

void Writer::close(String8 const & why) {
   if (closed_) return;
   closed_ = true;
   KEL_TRACE(trace, 0, "closing connection of " + name_ + ": " + why);
   for (auto & [e, a] : adapters_) a->notifierIs(nullptr);
   adapters_.clear();
   dirty_.clear();
}

void Writer::onReadable() {
   if (closed_) return;
   if (readSome(fd_, in_) < 0) {
      close("peer went away");
      return;
   }
   // The reader sends one message: which path to mount.
   while (in_.size() >= 5) {
      uint32_t len = (uint32_t(uint8_t(in_[0])) << 24) | (uint32_t(uint8_t(in_[1])) << 16) |
                     (uint32_t(uint8_t(in_[2])) << 8) | uint8_t(in_[3]);
      if (len == 0 || len > maxFrame) return close("bad frame from reader");
      if (in_.size() < 4 + size_t(len)) return;
      In in(in_.data() + 5, len - 1);
      uint8_t type = uint8_t(in_[4]);
      try {
         if (type != msgMount || served_) throw StreamError("unexpected message from reader");
         String8 path = in.nextString();
         Ptr<Entity> e = root_->entity(path.view());
         if (!e) throw StreamError("no entity at " + path);
         in_.erase(0, 4 + size_t(len));
         startServing(e);
      } catch (Exception const & ex) {
         return close(ex.message());
      }
   }
}

void Writer::startServing(Ptr<Entity> e) {
   served_ = e;
   compose(msgHello, [&](Out & o) { o.putString(name_.view()); });
   // Creating the served entity creates, through the references of its
   // collections, everything below it.
   emitCreate(e.ptr());
   compose(msgSyncDone, [](Out &) {});
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
   if (inSubtree(e) || (newlyReferenced_ && !e->parentRaw())) {
      // First reference: the entity is created before this message.
      uint32_t id = nextId_++;
      Ptr<EntityAdapter> a(new EntityAdapter(this, const_cast<Entity *>(e), id));
      adapters_.emplace(e, a);
      if (newlyReferenced_) newlyReferenced_->push_back(const_cast<Entity *>(e));
      out.putU8(1);
      out.putU32(id);
      return;
   }
   out.putU8(2);
   out.putString(e->fullName().view());
}

template <class F>
void Writer::compose(uint8_t type, F body) {
   Out msg;
   size_t frame = beginFrame(msg, type);
   std::vector<Entity *> fresh;
   std::vector<Entity *> * outer = newlyReferenced_;
   newlyReferenced_ = &fresh;
   body(msg);
   newlyReferenced_ = outer;
   endFrame(msg, frame);
   createAll(fresh);
   out_.append(msg.data(), msg.size());
   ++messages_;
   // Send early when a lot has piled up.
   if (pending() >= 65536) {
      ssize_t r = sendSome(fd_, out_.data() + sent_, pending());
      if (r < 0) {
         close("peer went away");
      } else {
         sent_ += size_t(r);
      }
   }
}

void Writer::createAll(std::vector<Entity *> const & fresh) {
   for (Entity * e : fresh) {
      EntityAdapter * a = adapter(e);
      if (!a) continue;
      // Create message first, then the entity's whole state.
      compose(msgCreate, [&](Out & o) {
         o.putU32(a->id());
         o.putString(e->fwkType()->name().view());
         if (e->fwkType()->logWriteCtor) e->fwkType()->logWriteCtor(e, o, this);
      });
      a->notifierIs(e);
      emitState(a);
   }
}

void Writer::emitCreate(Entity * e) {
   // A reference to the entity makes the writer create it.
   compose(msgRoot, [&](Out & o) { writeRef(o, e); });
}

void Writer::emitState(EntityAdapter * a) {
   for (AttrDesc const & d : a->entity()->fwkType()->attributes()) {
      if (!d.replicated()) continue;
      if (d.logWriteAll) {
         compose(msgCollAll, [&](Out & o) {
            putAttrHead(o, a->id(), d.id);
            d.logWriteAll(a->entity(), o, this);
            o.putU8(tokenEnd);
         });
      } else {
         writeAttr(a, d);
      }
   }
}

void Writer::writeAttr(EntityAdapter * a, AttrDesc const & d) {
   if (d.logWriteAll) {
      // A collection's bit is its has-synced bit: send it whole.
      compose(msgCollAll, [&](Out & o) {
         putAttrHead(o, a->id(), d.id);
         d.logWriteAll(a->entity(), o, this);
         o.putU8(tokenEnd);
      });
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
      auto & keys = a->dirtyKeys_[d.id];
      if (std::find(keys.begin(), keys.end(), k) == keys.end()) keys.push_back(std::move(k));
   } else {
      a->setBit(d, true);
   }
   if (!a->inDirtyList) {
      a->inDirtyList = true;
      dirty_.push_back(a);
   }
}

void Writer::forget(EntityAdapter * a) {
   uint32_t id = a->id();
   if (a->inDirtyList) dirty_.erase(std::find(dirty_.begin(), dirty_.end(), a));
   Ptr<EntityAdapter> keep = a;
   adapters_.erase(a->entity());
   a->notifierIs(nullptr);
   if (closed_) return;
   compose(msgForget, [&](Out & o) { o.putU32(id); });
}

void Writer::pump() {
   if (closed_) return;
   for (int round = 0; round < 2; ++round) {
      while (pending() > 0) {
         ssize_t r = sendSome(fd_, out_.data() + sent_, pending());
         if (r < 0) return close("peer went away");
         if (r == 0) break;
         sent_ += size_t(r);
      }
      if (sent_ == out_.size()) {
         out_.clear();
         sent_ = 0;
      } else if (sent_ > (1u << 20)) {
         out_.erase(0, sent_);
         sent_ = 0;
      }
      if (!flowOut_) return;
      while (!dirty_.empty() && hasRoom()) {
         EntityAdapter * a = dirty_.front();
         if (!a->flowOutSome()) break;
         a->inDirtyList = false;
         dirty_.pop_front();
      }
      if (dirty_.empty()) flowOut_ = false;
   }
}

// ---- Reader ------------------------------------------------------------------------------------

Reader::Reader(int fd, String8 path) : fd_(fd) {
   setNonBlocking(fd_);
   Out o;
   o.putU32(0);
   o.putU8(msgMount);
   o.putString(path.view());
   o.patchU32(0, uint32_t(o.size() - 4));
   out_.assign(o.data(), o.size());
   onWritable();
}

Reader::~Reader() = default;

void Reader::onWritable() {
   while (sent_ < out_.size()) {
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

void Reader::close(String8 const & why) {
   if (closed_) return;
   closed_ = true;
   reason_ = why;
   KEL_TRACE(trace, 0, "closing connection to " + peer_ + ": " + why);
}

Entity * Reader::entityById(uint32_t id) const {
   auto it = byId_.find(id);
   if (it == byId_.end()) throw StreamError(format("unknown entity %u", id));
   return it->second.ptr();
}

Ptr<Entity> Reader::readRef(In & in) {
   uint8_t kind = in.nextU8();
   if (kind == 0) return nullptr;
   if (kind == 1) return Ptr<Entity>(entityById(in.nextU32()));
   if (kind == 2) {
      // Outside the mounted tree: found by its full name in this process's
      // tree, if it is there.
      String8 path = in.nextString();
      if (path.empty() || path[0] != '/') return nullptr;
      return globalDir()->entity(path.view());
   }
   throw StreamError("bad entity reference");
}

void Reader::receive(char const * p, size_t n) {
   if (closed_) return;
   in_.append(p, n);
   while (!closed_ && in_.size() - consumed_ >= 4) {
      char const * f = in_.data() + consumed_;
      uint32_t len = (uint32_t(uint8_t(f[0])) << 24) | (uint32_t(uint8_t(f[1])) << 16) |
                     (uint32_t(uint8_t(f[2])) << 8) | uint8_t(f[3]);
      if (len == 0 || len > maxFrame) return close("bad frame length");
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
   }
   if (consumed_ == in_.size()) {
      in_.clear();
      consumed_ = 0;
   } else if (consumed_ > (1u << 20)) {
      in_.erase(0, consumed_);
      consumed_ = 0;
   }
}

void Reader::apply(uint8_t type, In & in) {
   switch (type) {
      case msgHello:
         peer_ = in.nextString();
         return;
      case msgCreate: {
         uint32_t id = in.nextU32();
         String8 typeName = in.nextString();
         KelType const * t = findType(typeName.view());
         if (!t || !t->logNewEntity) throw StreamError("unknown type " + typeName);
         if (byId_.count(id)) throw StreamError(format("entity %u created twice", id));
         Ptr<Entity> e = t->logNewEntity(in, this);
         e->kelReadOnlyProxyIs(peer_);
         byId_.emplace(id, e);
         return;
      }
      case msgAttr:
      case msgMember:
      case msgCollAll: {
         Entity * e = entityById(in.nextU32());
         AttrDesc const * d = e->fwkType()->attribute(in.nextU32());
         if (!d || !d->replicated()) throw StreamError("unknown attribute");
         if (in.nextU8() != tokenBegin) throw StreamError("missing transaction begin");
         {
            ApplyingUpdate applying;
            if (type == msgAttr && d->logRead) {
               d->logRead(e, in, this);
            } else if (type == msgMember && d->logReadMember) {
               d->logReadMember(e, in, this);
            } else if (type == msgCollAll && d->logReadAll) {
               d->logReadAll(e, in, this);
            } else {
               throw StreamError("message does not fit the attribute");
            }
         }
         if (in.nextU8() != tokenEnd) throw StreamError("missing transaction end");
         return;
      }
      case msgSyncDone:
         synced_ = true;
         return;
      case msgForget:
         byId_.erase(in.nextU32());
         return;
      case msgRoot:
         root_ = readRef(in);
         return;
      default:
         throw StreamError(format("unknown message type %u", unsigned(type)));
   }
}

} // namespace NboAttrLog
} // namespace Kel
