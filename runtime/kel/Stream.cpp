#include <Kel/Dir.h>
#include <Kel/Stream.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace Kel {

namespace {

TraceFacility trace("Kel::NboAttrLog");

void setNonBlocking(int fd) {
   int fl = fcntl(fd, F_GETFL, 0);
   if (fl >= 0) fcntl(fd, F_SETFL, fl | O_NONBLOCK);
}

// write() to a descriptor that is not a socket (a pipe), with SIGPIPE held
// back for this thread: a peer that went away must not end the process.
// A SIGPIPE this write raised is taken off again; one already pending
// stays.
ssize_t writeNoSignal(int fd, char const * p, size_t n) {
   sigset_t pipe, old, pending;
   sigemptyset(&pipe);
   sigaddset(&pipe, SIGPIPE);
   sigpending(&pending);
   bool wasPending = sigismember(&pending, SIGPIPE);
   pthread_sigmask(SIG_BLOCK, &pipe, &old);
   ssize_t r = ::write(fd, p, n);
   int err = errno;
   if (r < 0 && err == EPIPE && !wasPending) {
      struct timespec none = {0, 0};
      while (sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
      }
   }
   pthread_sigmask(SIG_SETMASK, &old, nullptr);
   errno = err;
   return r;
}

// Sends without blocking and without SIGPIPE; returns bytes sent, 0 when
// the socket is full, -1 on a broken connection.
ssize_t sendSome(int fd, char const * p, size_t n) {
   ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
   if (r < 0 && errno == ENOTSOCK) r = writeNoSignal(fd, p, n);
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

// Long peer-supplied texts are cut in traces and reasons.
String8 cut(std::string_view s, size_t max = 120) {
   if (s.size() <= max) return String8(s);
   return String8(s.substr(0, max)) + format("... (%zu bytes)", s.size());
}

uint32_t frameLength(char const * f) {
   return (uint32_t(uint8_t(f[0])) << 24) | (uint32_t(uint8_t(f[1])) << 16) |
          (uint32_t(uint8_t(f[2])) << 8) | uint8_t(f[3]);
}

} // namespace

// ---- ActivityLoop ----------------------------------------------------------------------------

void ActivityLoop::add(Source * s) { sources_.push_back(s); }

void ActivityLoop::remove(Source * s) {
   auto it = std::find(sources_.begin(), sources_.end(), s);
   if (it == sources_.end()) return;
   sources_.erase(it);
   removed_.push_back(s);
}

ActivityLoop::TimerId ActivityLoop::timerIs(std::chrono::nanoseconds delay, std::function<void()> fn,
                                            std::chrono::nanoseconds period) {
   TimerId id = nextTimer_++;
   timers_.emplace(id, Timer{std::chrono::steady_clock::now() + delay, period, std::move(fn)});
   return id;
}

void ActivityLoop::timerDel(TimerId id) { timers_.erase(id); }

int ActivityLoop::waitMs(int timeoutMs) const {
   if (timers_.empty()) return timeoutMs;
   auto now = std::chrono::steady_clock::now();
   auto next = timers_.begin()->second.due;
   for (auto const & [id, t] : timers_) next = std::min(next, t.due);
   if (next <= now) return 0;
   auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
   return timeoutMs < 0 || ms < timeoutMs ? int(ms) : timeoutMs;
}

int ActivityLoop::runTimers() {
   if (timers_.empty()) return 0;
   auto now = std::chrono::steady_clock::now();
   // Due timers in order of due time; each is looked up again before it
   // runs, since an earlier callback may have cancelled it.
   std::vector<std::pair<std::chrono::steady_clock::time_point, TimerId>> due;
   for (auto const & [id, t] : timers_) {
      if (t.due <= now) due.emplace_back(t.due, id);
   }
   std::sort(due.begin(), due.end());
   for (auto const & [when, id] : due) {
      auto it = timers_.find(id);
      if (it == timers_.end()) continue;
      std::function<void()> fn = it->second.fn;
      if (it->second.period.count() > 0) {
         auto & t = it->second;
         do {
            t.due += t.period;
         } while (t.due <= now);
      } else {
         timers_.erase(it);
      }
      fn();
   }
   return int(due.size());
}

int ActivityLoop::runOnce(int timeoutMs) {
   removed_.clear();
   std::vector<pollfd> fds;
   std::vector<Source *> srcs;
   for (Source * s : sources_) {
      if (s->finished()) continue;
      short ev = POLLIN;
      if (s->wantWrite()) ev |= POLLOUT;
      fds.push_back(pollfd{s->fd(), ev, 0});
      srcs.push_back(s);
   }
   bool anyFinished = srcs.size() != sources_.size();
   int n = ::poll(fds.data(), fds.size(), anyFinished ? 0 : waitMs(timeoutMs));
   auto gone = [&](Source * s) {
      return std::find(removed_.begin(), removed_.end(), s) != removed_.end();
   };
   int handled = 0;
   for (size_t i = 0; n > 0 && i < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      ++handled;
      Source * s = srcs[i];
      if (gone(s) || s->finished()) continue;
      if (fds[i].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) s->onReadable();
      if (!gone(s) && !s->finished() && (fds[i].revents & POLLNVAL)) {
         // A descriptor closed under its source would come back from every
         // poll at once: a source that did not finish on it leaves the loop.
         KEL_TRACE(trace, 0, format("descriptor %d is not open: its source leaves the loop", fds[i].fd));
         remove(s);
         continue;
      }
      if (!gone(s) && !s->finished() && (fds[i].revents & POLLOUT)) s->onWritable();
   }
   for (Source * s : srcs) {
      if (!gone(s) && !s->finished()) s->onRoundEnd();
   }
   // Finished sources leave the loop, then hear it; they may delete themselves.
   std::vector<Source *> finished;
   for (Source * s : sources_) {
      if (s->finished()) finished.push_back(s);
   }
   for (Source * s : finished) {
      remove(s);
      s->onDropped();
   }
   return handled + runTimers();
}

namespace NboAttrLog {

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

void Writer::close(String8 const & why) {
   if (closed_) return;
   // Tell the reader why, if the socket takes it now.
   {
      Out msg;
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
   int level = why.view() == peerWentAway ? 1 : 0;
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

Ptr<Entity> Writer::resolveMount(std::string_view path, String8 * why) const {
   Ptr<Entity> cur = root_;
   std::string_view rest = path;
   while (!rest.empty() && cur) {
      size_t slash = rest.find('/');
      std::string_view name = rest.substr(0, slash);
      rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
      if (name.empty() || name == "." || name == ".." || (slash != std::string_view::npos && rest.empty())) {
         *why = "mount path must name entities below the served root: " + cut(path);
         return nullptr;
      }
      cur = cur->kelChildNamed(name);
   }
   if (!cur) *why = "no entity at " + cut(path);
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
         if (type != msgMount || served_) throw StreamError("unexpected message from reader");
         String8 path = in.nextString();
         if (path.size() > limits_.pathBytes) {
            throw StreamError(format("mount path of %zu bytes exceeds the limit of %zu", path.size(),
                                     limits_.pathBytes));
         }
         String8 why;
         Ptr<Entity> e = resolveMount(path.view(), &why);
         if (!e) throw StreamError(why);
         in_.erase(0, 4 + size_t(len));
         startServing(e);
      } catch (Exception const & ex) {
         return close(ex.message());
      }
   }
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
   if (sent_ == out_.size()) {
      out_.clear();
      sent_ = 0;
   } else if (sent_ > (1u << 20)) {
      out_.erase(0, sent_);
      sent_ = 0;
   }
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
         o.putU32(a->id());
         o.putString(e->fwkType()->name().view());
         if (e->fwkType()->logWriteCtor) e->fwkType()->logWriteCtor(e, o, this);
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

// ---- Reader ------------------------------------------------------------------------------------

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
   KEL_TRACE(trace, 0, "closing connection to " + cut(peer_.view()) + ": " + cut(why.view()));
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
         KelType const * t = findType(typeName.view());
         if (!t || !t->logNewEntity) throw StreamError("unknown type " + cut(typeName.view()));
         if (byId_.count(id)) throw StreamError(format("entity %u created twice", id));
         if (byId_.size() + forgotten_.size() >= limits_.entities) {
            throw StreamError(format("more than %zu entities from one writer", limits_.entities));
         }
         Ptr<Entity> e = t->logNewEntity(in, this);
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
         Entity * e = entityById(in.nextU32());
         AttrDesc const * d = e->fwkType()->attribute(in.nextU32());
         if (!d || !d->replicated()) throw StreamError("unknown attribute");
         if (in.nextU8() != tokenBegin) throw StreamError("missing transaction begin");
         owningTarget_ = d->kind == AttrKind::EntColl || d->kind == AttrKind::InstColl ||
                         d->kind == AttrKind::InstChild;
         {
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

} // namespace NboAttrLog
} // namespace Kel
