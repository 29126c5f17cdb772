// The mounting end of a replication stream: a Reader mounts a subtree that
// a Writer serves and keeps a replica of it. Every update is applied
// through the entity's ordinary mutator, so its reactors fire as for local
// writes; creations replay through the type object. Replicas refuse local
// writes.
#pragma once

#include <Kel/ActivityLoop.h>
#include <Kel/ConnectionLimits.h>
#include <Kel/Entity.h>
#include <Kel/NboAttrLog.h>
#include <Kel/String8.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Kel::NboAttrLog {

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
   // In place of an entity of a type this process does not know: the
   // nearest of its bases that it knows and makes from a name alone.
   Ptr<Entity> standIn(String8 const & typeName, std::vector<String8> const & bases, String8 const & name,
                       In & ctorArgs);

   int fd_;
   ConnectionLimits limits_;
   std::shared_ptr<String8 const> peerShared_;
   // Set while applying to an owning collection: a reference by name
   // (to an entity of this process) may not be placed there.
   bool owningTarget_ = false;
   // The full name of the last reference by name that this process does not
   // hold, within the message being applied: named when the update fails.
   String8 unresolved_;
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
   // Entities made as a base of their type: updates of the type's own
   // attributes are skipped. Each such type is traced once per connection.
   std::unordered_set<uint32_t> standIns_;
   std::unordered_set<std::string> standInTypes_;
   // Replicas the writer forgot while something here still holds them (a
   // replica's collection, say): they count against limits.entities until
   // they go, so that forgetting what it created lets no writer past it.
   class ForgottenWatch;
   std::unordered_map<Entity const *, Ptr<ForgottenWatch>> forgotten_;
   void forgottenDrop();
   // Name bytes of the replicas counted against limits.entities.
   size_t nameBytes_ = 0;
};

} // namespace Kel::NboAttrLog
