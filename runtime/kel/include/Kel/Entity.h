// Entities and their reactors.
//
// An entity is a named, counted object with a parent, a 32-bit modification
// count and a list of reactors. A reactor (NotifieeConst) is itself counted;
// the entity's list holds plain pointers to it, so dropping the last outside
// reference to a reactor unbinds it. Notification walks a snapshot of the
// registered reactors holding one reference each, which is what makes
// registering, unregistering and releasing reactors from inside a callback
// safe.
#pragma once

#include <Kel/Exception.h>
#include <Kel/Ptr.h>
#include <Kel/String8.h>
#include <Kel/Type.h>

#include <cstdint>
#include <memory>

namespace Kel {

class Entity;

// Reactor base for any counted notifier.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
   // The notifier is going away: its count reached zero.
   virtual void onZeroReferences() {}
   // A callback of this reactor threw while attribute `id` was notified.
   virtual void onNotificationException(AttributeId) {}

 protected:
   bool kelDeletionWaitsForWalks() const override { return true; }
};

// The registered reactors of one entity. Bound reactors are kept in one
// array with the registered ones first, in registration order.
//
// Notification walks the array in place. An array that a running walk reads
// is never changed: the first change during the walk moves the list to a
// copy and the walked array is freed when the thread's walks are over, so a
// walk sees exactly the reactors registered when it started.
class ReactorList {
 public:
   ReactorList() = default;
   ReactorList(ReactorList const &) = delete;
   ReactorList & operator=(ReactorList const &) = delete;
   ~ReactorList() { release(data_); }

   uint32_t registered() const { return nreg_; }
   uint32_t bound() const { return nbound_; }
   PtrInterface::NotifieeConst * operator[](uint32_t i) const;

 private:
   friend class Entity;
   void bind(Entity * owner, void * r, bool registered);
   void unbind(void * r);
   void setRegistered(void * r, bool registered);
   // Before a change: leaves an array that a walk reads to that walk.
   void copyIfWalked() {
      if (walkers_) copyForChange();
   }
   void copyForChange();
   void release(void ** d);

   void ** data_ = nullptr;
   uint16_t nreg_ = 0;
   uint16_t nbound_ = 0;
   uint16_t cap_ = 0;
   // Flags of the owning entity, kept here where the word has room.
   uint8_t ownerFlags_ = 0;
   // Running walks that read data_ (not an earlier array).
   uint8_t walkers_ = 0;
};

// Strong references to the registered reactors at one instant.
// Up to eight live on the stack: notification allocates nothing below that.
class SnapshotIterator {
 public:
   static constexpr uint32_t inlineCapacity = 8;
   explicit SnapshotIterator(ReactorList const & l);
   ~SnapshotIterator() {
      // Entries not yet handed out (only after an exception escaped).
      for (uint32_t i = 0; i < n_; ++i) {
         if (data_[i]) data_[i]->referencesDec();
      }
      if (data_ != inline_) freeHeap();
   }
   SnapshotIterator(SnapshotIterator const &) = delete;
   SnapshotIterator & operator=(SnapshotIterator const &) = delete;

   uint32_t size() const { return n_; }
   // Hands out entry i and forgets it: the caller releases it.
   PtrInterface::NotifieeConst * take(uint32_t i) {
      auto * r = data_[i];
      data_[i] = nullptr;
      return r;
   }
   // Heap snapshots made so far (for tests and benchmarks).
   static uint64_t heapSnapshots();

 private:
   void allocHeap();
   void freeHeap();
   PtrInterface::NotifieeConst * inline_[inlineCapacity];
   PtrInterface::NotifieeConst ** data_;
   uint32_t n_;
};

class Entity : public PtrInterface {
 public:
   using Ptr = Kel::Ptr<Entity>;
   using PtrConst = Kel::Ptr<Entity const>;
   class NotifieeConst;
   class Notifiee;

   // Attribute identifiers of every type start here; the ones below are
   // the runtime's own.
   static constexpr AttributeId kelAttrEnd = 258;
   static constexpr uint8_t kelDepth = 0;
   static constexpr const char * kelTypeName = "Kel::Entity";

   explicit Entity(Name name) : name_(std::move(name)) {}
   Entity(Entity const &) = delete;
   Entity & operator=(Entity const &) = delete;
   ~Entity() override;

   Name const & name() const { return name_; }
   Kel::Ptr<Entity const> parent() const { return parent_; }
   Kel::Ptr<Entity> parent() { return parent_; }
   Entity * parentRaw() const { return parent_; }
   // The parent is a plain back pointer: the parent owns the child through
   // its collection, never the other way round.
   void parentIs(Kel::Ptr<Entity> const & p) { parent_ = p.ptr(); }
   void parentIs(Entity * p) { parent_ = p; }
   // "/"-separated names from the root down to this entity.
   String8 fullName() const;
   String8 uriPath() const { return fullName(); }

   uint32_t modificationCount() const { return kelSpare_; }
   uint32_t reactorCount() const { return reactors_.registered(); }
   ReactorList const & reactors() const { return reactors_; }

   void zeroReferencesIs(bool) override;
   // The type object of Kel::Entity, and of this entity's dynamic type.
   static KelType const * _fwkType();
   virtual KelType const * fwkType() const { return _fwkType(); }

   // The child of this entity with the given name (in any owning
   // collection); null when none.
   virtual Kel::Ptr<Entity> kelChildNamed(std::string_view) const { return nullptr; }
   // Every child in an owning collection.
   virtual void kelForEachChild(void (*fn)(void * ctx, Entity * child), void * ctx) const {
      (void)fn;
      (void)ctx;
   }
   // Whether any owning collection holds a child.
   virtual bool kelHasChildren() const { return false; }
   // Looks up a "/"-separated path of child names below this entity ("" is
   // this entity, ".." its parent); a path starting with "/" starts at the
   // process's root directory. Null when a name is missing.
   Kel::Ptr<Entity> entity(std::string_view path) const;

   // A replica of an entity served by another process: local writes are
   // refused. peer names the process it comes from.
   bool isReadOnlyProxy() const { return reactors_.ownerFlags_ & readOnlyFlag; }
   void kelReadOnlyProxyIs(String8 const & peer);
   void kelReadOnlyProxyIs(std::shared_ptr<String8 const> const & peer);

   // --- used by the generated pattern -----------------------------------
   void kelModified() { ++kelSpare_; }
   // Every mutator asks before it changes anything.
   void kelCheckWritable() const {
      if (reactors_.ownerFlags_ & readOnlyFlag) kelRefuseWrite();
   }
   bool kelHasReactors() const { return reactors_.registered() != 0; }

   // Calls (reactor->*Fn)(args...) on the reactors registered when it is
   // called that are of at least type N (a reactor of a base type bound to
   // a derived entity has no callback for the derived type's attributes),
   // skipping those released meanwhile.
   template <class N, auto Fn, class... A>
   [[gnu::noinline]] void kelNotify(AttributeId id, A const &... args) const;

 protected:
   // A member leaving an owning collection stops pointing back at it.
   template <class V>
   void kelDetach(V const &) {}
   template <class T>
   void kelDetach(Kel::Ptr<T> const & child) {
      if (child && child->parentRaw() == this) child->parentIs(nullptr);
   }

 private:
   friend class NotifieeConst;
   static constexpr uint8_t readOnlyFlag = 1;
   template <class N, auto Fn, class... A>
   static void kelCall(Entity::NotifieeConst * r, AttributeId id, A const &... args);
   // With thread-safe counts: a counted snapshot of the list, as another
   // thread may drop a reactor at any time.
   template <class N, auto Fn, class... A>
   void kelNotifySnapshot(AttributeId id, A const &... args) const;
   static void kelDeliverException(PtrInterface::NotifieeConst * r, AttributeId id);
   void kelRefuseWrite() const;

   Entity * parent_ = nullptr;
   Name name_;
   mutable ReactorList reactors_;
};

class Entity::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
   using Ptr = Kel::Ptr<NotifieeConst>;
   NotifieeConst() = default;
   ~NotifieeConst() override;

   Kel::Ptr<Entity const> notifier() const { return notifier_; }
   // Binds to `e` (unbinding from the previous notifier). A bound reactor
   // is registered unless isRegisteredNotifieeIs(false) was said.
   void notifierIs(Kel::Ptr<Entity const> const & e) { kelNotifierIs(e.ptr()); }
   bool isRegisteredNotifiee() const { return wantRegistered_; }
   void isRegisteredNotifieeIs(bool b);

   // Depth in the entity type chain of the type this reactor observes.
   uint8_t kelDepth() const { return depth_; }

   // A generic reactor hears every attribute of its entity, whatever the
   // entity's type, through kelOnAttribute instead of the typed callbacks
   // (replication and reflection adapters are generic).
   bool kelGeneric() const { return generic_; }
   // `key` points at the collection key for a collection attribute, else
   // null. Only generic reactors are called here; an agent's generic
   // reactor derives from Kel::GenericReactor (Kel/GenericReactor.h).
   virtual void kelOnAttribute(AttributeId id, void const * key) {
      (void)id;
      (void)key;
   }

 protected:
   void kelNotifierIs(Entity const * e);
   Entity * kelNotifierRaw() const { return notifier_; }
   void kelDepthIs(uint8_t d) { depth_ = d; }
   void kelGenericIs(bool g) { generic_ = g; }

 private:
   friend class Entity;
   friend class ReactorList;
   Entity * notifier_ = nullptr;
   bool wantRegistered_ = true;
   bool generic_ = false;
   uint8_t depth_ = 0;
};

class Entity::Notifiee : public Entity::NotifieeConst {
 public:
   Kel::Ptr<Entity> notifier() const { return kelNotifierRaw(); }
   void notifierIs(Kel::Ptr<Entity> const & e) { kelNotifierIs(e.ptr()); }
};

inline PtrInterface::NotifieeConst * ReactorList::operator[](uint32_t i) const {
   return static_cast<Entity::NotifieeConst *>(data_[i]);
}

inline SnapshotIterator::SnapshotIterator(ReactorList const & l) : n_(l.registered()) {
   if (n_ <= inlineCapacity) {
      data_ = inline_;
   } else {
      allocHeap();
   }
   bool plain = !detail::threadSafePointers;
   for (uint32_t i = 0; i < n_; ++i) {
      data_[i] = l[i];
      if (plain) {
         data_[i]->referencesIncPlain();
      } else {
         data_[i]->referencesInc();
      }
   }
}

inline void const * kelFirstArg() { return nullptr; }
template <class K>
void const * kelFirstArg(K const & k) {
   return &k;
}

template <class N, auto Fn, class... A>
inline void Entity::kelCall(Entity::NotifieeConst * r, AttributeId id, A const &... args) {
   try {
      if (r->kelGeneric()) {
         r->kelOnAttribute(id, kelFirstArg(args...));
      } else if (r->kelDepth() >= N::kelTypeDepth) {
         (static_cast<N *>(r)->*Fn)(args...);
      }
   } catch (...) {
      kelDeliverException(r, id);
   }
}

template <class N, auto Fn, class... A>
void Entity::kelNotify(AttributeId id, A const &... args) const {
   if (detail::threadSafePointers || reactors_.walkers_ == 0xff) [[unlikely]] {
      kelNotifySnapshot<N, Fn>(id, args...);
      return;
   }
   // Keep this entity alive across callbacks that may drop the last outside
   // reference to it (an entity no pointer holds yet is not counted).
   bool counted = referencesPlain() != 0;
   if (counted) referencesIncPlain();
   // The walk's depth is also what keeps a replica update's lifted refusal
   // and an expected-exception scope opened outside from reaching into the
   // callbacks (Kel::Expect).
   detail::NotifyWalks & walks = detail::notifyWalks;
   ++walks.depth;
   void * const * walked = reactors_.data_;
   uint32_t n = reactors_.registered();
   ++reactors_.walkers_;
   for (uint32_t i = 0; i < n; ++i) {
      auto * r = static_cast<Entity::NotifieeConst *>(walked[i]);
      uint32_t refs = r->referencesPlain();
      if (refs - 1 >= PtrInterface::dyingReferences - 1) [[unlikely]] {
         // Released meanwhile, its deletion waiting for the walk to end;
         // or never held by anyone, and released here like one whose
         // owner let it go.
         if (refs == 0) {
            r->referencesIncPlain();
            r->referencesDecPlain();
         }
         continue;
      }
      kelCall<N, Fn>(r, id, args...);
   }
   // A change during the walk moved the list to a new array, whose walkers
   // are counted afresh.
   if (reactors_.data_ == walked) --reactors_.walkers_;
   if (--walks.depth == 0 && walks.pending) detail::notifyWalksEnded();
   if (counted) referencesDecPlain();
}

template <class N, auto Fn, class... A>
void Entity::kelNotifySnapshot(AttributeId id, A const &... args) const {
   Kel::Ptr<Entity const> self(references() ? this : nullptr);
   SnapshotIterator snap(reactors_);
   // Counted as a walk for the scopes it must not extend (see kelNotify);
   // its reactors are kept alive by the snapshot's own references.
   detail::NotifyWalks & walks = detail::notifyWalks;
   ++walks.depth;
   for (uint32_t i = 0, n = snap.size(); i < n; ++i) {
      auto * r = static_cast<Entity::NotifieeConst *>(snap.take(i));
      // Only the snapshot holds it, or its deletion waits for an outer
      // walk: released meanwhile.
      if (r->references() != 1 && !r->kelDying()) kelCall<N, Fn>(r, id, args...);
      r->referencesDec();
   }
   if (--walks.depth == 0 && walks.pending) detail::notifyWalksEnded();
}

} // namespace Kel
