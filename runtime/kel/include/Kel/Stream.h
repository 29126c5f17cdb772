// Replication of an entity subtree between processes over a byte stream
// (any file descriptor; Unix-domain stream sockets in practice).
//
// A Writer serves a subtree; a Reader mounts it by path. The reader first
// receives the whole current state, then every change. On the reader every
// update is applied through the entity's ordinary mutator, so its reactors
// fire as for local writes; creations replay through the type object.
// Replicas refuse local writes.
//
// Frames: a 32-bit length (of what follows), a message type byte, the
// message. Attribute messages carry a transaction-begin and -end token
// around the value so that a stream that has lost its place is caught.
//
// Flow control: the writer never blocks. Output goes to a buffer that is
// sent without blocking; when the buffer is full the writer switches to
// flow-out: it only marks attributes dirty (bits per attribute, encoded keys
// per collection) and writes the latest values, in declaration order, as
// the buffer drains. Memory stays bounded by the number of attributes and
// collection keys, however many writes pile up.
#pragma once

#include <Kel/Entity.h>
#include <Kel/NboAttrLog.h>
#include <Kel/Trace.h>
#include <Kel/Type.h>

#include <time.h>

#include <cstdint>
#include <chrono>
#include <deque>
#include <map>
#include <functional>
#include <set>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Kel {

// A poll() loop over file descriptors.
class ActivityLoop {
 public:
   class Source {
    public:
      virtual ~Source() = default;
      virtual int fd() const = 0;
      virtual bool wantWrite() const { return false; }
      virtual void onReadable() {}
      virtual void onWritable() {}
      // Called once per round after events: a chance to send what piled up.
      virtual void onRoundEnd() {}
      // A finished source (a closed connection) is no longer polled; at the
      // end of the round the loop drops it and then calls onDropped, which
      // may delete the source.
      virtual bool finished() const { return false; }
      virtual void onDropped() {}
   };
   void add(Source * s);
   // Stops polling `s`; safe from inside a callback of any source, also of
   // `s` itself, which may then be deleted.
   void remove(Source * s);
   // Waits up to timeoutMs (or the next timer) for activity and handles it,
   // then runs the timers that are due. Returns the number of sources that
   // had events plus the timers that ran.
   int runOnce(int timeoutMs);
   // Runs rounds until `done()` or the time runs out; true when done.
   template <class Pred>
   bool runUntil(Pred done, int timeoutMs);
   size_t sources() const { return sources_.size(); }

   // Timers on the monotonic clock, run by runOnce when due (a round waits
   // no longer than the next timer). A periodic timer is due every `period`
   // after its first time, not `period` after its callback ran, so it does
   // not drift; rounds it missed are skipped, not run in a burst. A callback
   // may add or cancel timers, its own included.
   using TimerId = uint64_t;
   TimerId timerIs(std::chrono::nanoseconds delay, std::function<void()> fn,
                   std::chrono::nanoseconds period = std::chrono::nanoseconds(0));
   void timerDel(TimerId id);
   size_t timers() const { return timers_.size(); }

 private:
   struct Timer {
      std::chrono::steady_clock::time_point due;
      std::chrono::nanoseconds period;
      std::function<void()> fn;
   };
   int runTimers();
   int waitMs(int timeoutMs) const;
   std::vector<Source *> sources_;
   std::map<TimerId, Timer> timers_;
   TimerId nextTimer_ = 1;
   // Removed during the current round: skipped for the rest of it.
   std::vector<Source *> removed_;
};

namespace NboAttrLog {

enum MsgType : uint8_t {
   msgMount = 1,
   msgHello = 2,
   msgCreate = 3,
   msgAttr = 4,
   msgMember = 5,
   msgCollAll = 6,
   msgSyncDone = 7,
   msgForget = 8,
   msgRoot = 9,   // names the served entity
   msgClose = 10, // the writer's reason for closing the connection
};
constexpr uint32_t maxFrame = 64u << 20;

// What one connection may cost and carry. A peer past a limit loses its
// connection, with the limit named in the reason.
struct ConnectionLimits {
   // Writer: bytes waiting to be sent; past it, changes wait as dirty state
   // (latest value only), so a stalled reader costs about this much.
   size_t bufferBytes = 1u << 20;
   // The largest message accepted.
   size_t frameBytes = 4u << 20;
   // A peer's name (the writer's, in its greeting).
   size_t nameBytes = 1024;
   // A mount path.
   size_t pathBytes = 4096;
   // Entities one writer may create in a reader.
   size_t entities = 4u << 20;
   // Bytes of the names of the entities one writer holds in a reader
   // (counted like `entities`): a message may carry a name of up to
   // frameBytes, and a reader keeps every name it was given.
   size_t entityNameBytes = 256u << 20;
   // Server: how long a reader may take to ask for its mount.
   std::chrono::milliseconds mountWait{10000};
   // Server: connections held at once.
   size_t connections = 256;
};

class Writer;

// The writer's reactor on each served entity: tracks what is dirty.
class EntityAdapter : public Entity::NotifieeConst {
 public:
   EntityAdapter(Writer * w, Entity * e, uint32_t id);
   uint32_t id() const { return id_; }
   Entity * entity() const { return e_; }
   void kelOnAttribute(AttributeId id, void const * key) override;
   void onZeroReferences() override;
   // Writes dirty attributes in declaration order until the writer's buffer
   // is full; true when nothing is left dirty.
   bool flowOutSome();
   bool dirty() const;
   // Everything to be sent: a fresh entity's whole state.
   void markAllDirty();
   // KelDirtyBitSet<set>, byte by byte (bit 1 of byte 0 is the first
   // replicated attribute of that type level).
   std::vector<uint8_t> dirtyBitSet(uint8_t set) const;
   bool inDirtyList = false;
   bool inSubtree = false;  // below the served entity (not only referenced)

 private:
   friend class Writer;
   void setBit(AttrDesc const & d, bool v);
   bool bit(AttrDesc const & d) const;
   Writer * w_;
   Entity * e_;
   uint32_t id_;
   // Where each type level's bits start in bits_, shared by every adapter
   // of the type; one adapter per entity served, so it is kept small.
   struct BitLayout {
      std::vector<uint16_t> start;  // per set, then the total
   };
   static BitLayout const * bitLayout(KelType const * t);
   size_t bitIndex(AttrDesc const & d) const { return layout_->start[d.logSet] * 8u + d.logBit; }
   BitLayout const * layout_;
   std::string bits_;  // the dirty bits of every set, flat (short: held inline)
   // Changed collection keys and collections being sent member by member
   // (a set dirty bit of a collection starts one): only while there are any.
   struct Pending {
      std::unordered_map<AttributeId, std::set<std::string>> dirtyKeys;
      std::unordered_map<AttributeId, std::unique_ptr<CollCursor>> cursors;
   };
   Pending & pending() {
      if (!pending_) pending_ = std::make_unique<Pending>();
      return *pending_;
   }
   std::unique_ptr<Pending> pending_;
};

class Writer : public ActivityLoop::Source, private RefCodec {
 public:
   // Serves `root` (and its subtree) to the peer at `fd`, once the peer has
   // asked for a path below it. `name` is how the peer will name us. The
   // descriptor stays the caller's: the writer shuts it down when the
   // connection closes, the caller closes it.
   Writer(int fd, Ptr<Entity> root, String8 name, size_t bufferBytes = 1 << 20);
   Writer(int fd, Ptr<Entity> root, String8 name, ConnectionLimits const & limits);
   ~Writer() override;
   Writer(Writer const &) = delete;
   Writer & operator=(Writer const &) = delete;

   int fd() const override { return fd_; }
   bool wantWrite() const override { return !closed_ && pending() > 0; }
   void onReadable() override;
   void onWritable() override { pump(); }
   void onRoundEnd() override { pump(); }
   bool finished() const override { return closed_; }
   void onDropped() override;

   // Sends what can be sent now, then writes dirty state if there is room.
   void pump();
   bool serving() const { return served_ != nullptr; }
   // True once the whole initial state has been handed to the socket's
   // buffer (the reader is told with the sync message).
   bool synced() const { return served_ && !syncPending_; }
   bool closed() const { return closed_; }
   String8 const & closeReason() const { return reason_; }
   // Called (by the activity loop, after it dropped the writer) with the
   // reason the connection closed; it may delete the writer.
   void closeHandlerIs(std::function<void(String8 const &)> h) { closeHandler_ = std::move(h); }
   // Closes the connection: the reader is told why, the descriptor is shut
   // down, and what the connection held is freed once no call is using it.
   void close(String8 const & why);
   ConnectionLimits const & limits() const { return limits_; }
   size_t adapters() const { return adapters_.size(); }
   bool flowOut() const { return flowOut_; }
   size_t pending() const { return out_.size() - sent_; }
   size_t bufferBytes() const { return cap_; }
   uint64_t messagesWritten() const { return messages_; }
   EntityAdapter * adapter(Entity const * e) const;

 private:
   friend class EntityAdapter;
   bool hasRoom() const { return pending() < cap_; }
   void changed(EntityAdapter * a, AttrDesc const & d, void const * key);
   void forget(EntityAdapter * a);
   void startServing(Ptr<Entity> e);
   // Builds one message with `body` and appends it, after the creations of
   // entities it references for the first time.
   template <class F>
   void compose(uint8_t type, F body);
   void createAll(std::vector<Entity *> const & fresh);
   void writeAttr(EntityAdapter * a, AttrDesc const & d);
   void writeMember(EntityAdapter * a, AttrDesc const & d, std::string const & key);
   void writeRef(Out & out, Entity const * e) override;
   Ptr<Entity> readRef(In &) override { return nullptr; }
   bool inSubtree(Entity const * e) const;
   void sendNow();
   void teardown();
   Ptr<Entity> resolveMount(std::string_view path, String8 * why) const;
   // Entry points count themselves busy; the last one out of a closed
   // writer frees what the connection held.
   struct Busy {
      explicit Busy(Writer * w) : w(w) { ++w->busy_; }
      ~Busy() {
         if (--w->busy_ == 0 && w->closed_) w->teardown();
      }
      Writer * w;
   };

   int fd_;
   Ptr<Entity> root_;
   Ptr<Entity> served_;
   String8 name_;
   ConnectionLimits limits_;
   size_t cap_;
   int busy_ = 0;
   int createDepth_ = 0;
   bool syncPending_ = false;
   bool immediate_ = false;
   bool tornDown_ = false;
   String8 reason_;
   std::function<void(String8 const &)> closeHandler_;
   std::string out_;
   size_t sent_ = 0;
   std::string in_;
   bool flowOut_ = false;
   bool closed_ = false;
   uint64_t messages_ = 0;
   uint32_t nextId_ = 1;
   std::unordered_map<Entity const *, Ptr<EntityAdapter>> adapters_;
   std::deque<EntityAdapter *> dirty_;
   std::vector<Entity *> * newlyReferenced_ = nullptr;
};

class Reader : public ActivityLoop::Source, private RefCodec {
 public:
   // Mounts the subtree at `path` below the writer's served root: names
   // separated by "/", "" for the served root itself. The descriptor stays
   // the caller's: the reader shuts it down when the connection closes.
   Reader(int fd, String8 path);
   Reader(int fd, String8 path, ConnectionLimits const & limits);
   ~Reader() override;
   Reader(Reader const &) = delete;
   Reader & operator=(Reader const &) = delete;

   int fd() const override { return fd_; }
   bool wantWrite() const override { return !closed_ && sent_ < out_.size(); }
   void onReadable() override;
   void onWritable() override;
   bool finished() const override { return closed_; }
   void onDropped() override;
   // Called (by the activity loop, after it dropped the reader) with the
   // reason the connection closed; it may delete the reader.
   void closeHandlerIs(std::function<void(String8 const &)> h) { closeHandler_ = std::move(h); }
   // Called at the end of the round in which the initial state became
   // complete; it may delete the reader (after removing it from the loop).
   void syncHandlerIs(std::function<void()> h) { syncHandler_ = std::move(h); }
   void onRoundEnd() override;

   // Applies received bytes (what onReadable does with what it reads).
   void receive(char const * p, size_t n);
   Ptr<Entity> root() const { return root_; }
   bool synced() const { return synced_; }
   bool closed() const { return closed_; }
   String8 const & closeReason() const { return reason_; }
   String8 const & peerName() const { return peer_; }
   uint64_t unknownEnums() const { return unknownEnums_; }
   void unknownEnumsInc() { ++unknownEnums_; }
   uint64_t messagesApplied() const { return applied_; }
   size_t entities() const { return byId_.size(); }

 private:
   void apply(uint8_t type, In & in);
   void close(String8 const & why);
   void writeRef(Out &, Entity const *) override {}
   Ptr<Entity> readRef(In & in) override;
   Entity * entityById(uint32_t id) const;

   int fd_;
   ConnectionLimits limits_;
   std::shared_ptr<String8 const> peerShared_;
   // Set while applying to an owning collection: a reference by name
   // (to an entity of this process) may not be placed there.
   bool owningTarget_ = false;
   bool syncToTell_ = false;
   std::function<void(String8 const &)> closeHandler_;
   std::function<void()> syncHandler_;
   std::string out_;
   size_t sent_ = 0;
   std::string in_;
   size_t consumed_ = 0;
   Ptr<Entity> root_;
   String8 peer_;
   bool synced_ = false;
   bool closed_ = false;
   String8 reason_;
   uint64_t unknownEnums_ = 0;
   uint64_t applied_ = 0;
   std::unordered_map<uint32_t, Ptr<Entity>> byId_;
   // Replicas the writer forgot while something here still holds them (a
   // replica's collection, say): they count against limits.entities until
   // they go, so that forgetting what it created lets no writer past it.
   class ForgottenWatch;
   std::unordered_map<Entity const *, Ptr<ForgottenWatch>> forgotten_;
   void forgottenDrop();
   // Name bytes of the replicas counted against limits.entities.
   size_t nameBytes_ = 0;
};

} // namespace NboAttrLog

template <class Pred>
bool ActivityLoop::runUntil(Pred done, int timeoutMs) {
   // Deadline on a monotonic clock, checked between rounds.
   struct timespec start;
   clock_gettime(CLOCK_MONOTONIC, &start);
   for (;;) {
      if (done()) return true;
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
      if (elapsed >= timeoutMs) return done();
      runOnce(int(timeoutMs - elapsed) < 10 ? int(timeoutMs - elapsed) : 10);
   }
}

} // namespace Kel

