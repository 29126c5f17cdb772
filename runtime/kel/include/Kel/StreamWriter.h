// The serving end of a replication stream: a Writer serves an entity
// subtree to one reader, the first time whole, then every change, and an
// EntityAdapter on each served entity hears its changes.
//
// Flow control: the writer never blocks. Output goes to a buffer that is
// sent without blocking; when the buffer is full the writer switches to
// flow-out: it only marks attributes dirty (bits per attribute, encoded keys
// per collection) and writes the latest values, in declaration order, as
// the buffer drains. Memory stays bounded by the number of attributes and
// collection keys, however many writes pile up.
#pragma once

#include <Kel/ActivityLoop.h>
#include <Kel/ConnectionLimits.h>
#include <Kel/Entity.h>
#include <Kel/NboAttrLog.h>
#include <Kel/String8.h>
#include <Kel/Type.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Kel::NboAttrLog {

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
   // Answers a listing request (what is served below `at`, `depth` levels
   // down) and closes.
   void list(Ptr<Entity> const & at, uint32_t depth);
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

} // namespace Kel::NboAttrLog
