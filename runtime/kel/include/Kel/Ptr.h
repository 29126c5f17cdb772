// Intrusive reference counting: every entity, reactor and collection member
// carries its own count, so a raw pointer can always be turned back into a
// counted one and a counted pointer is one word.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace Kel {

namespace detail {
// Set once by VFPtrInterface::enableThreadSafePointers(); read on every count
// change. Counts are plain integers until then.
extern bool threadSafePointers;
// Notification walks on this thread (Entity::kelNotify), and what is
// scoped by them. While any walk runs, a walked reactor list changes by
// copy and a reactor whose last reference goes is deleted only when the
// walks are over; `pending` says that something waits for that moment.
// Scopes that must not reach into reactors (an expected exception, a lifted
// replica refusal) record the depth they were opened at instead of being
// saved and restored around every walk: a deeper walk is outside them.
struct NotifyWalks {
   uint32_t depth = 0;
   bool pending = false;
   // The replica entity a replication stream is applying an update to, and
   // the walk depth it began at: its refusal of writes is lifted for that
   // update only (not for other entities, and not for the reactors the
   // update notifies).
   uint32_t applyingDepth = 0;
   void const * applying = nullptr;
};
extern constinit thread_local NotifyWalks notifyWalks __attribute__((tls_model("initial-exec")));
// Frees what the walks kept: replaced reactor arrays, released reactors.
void notifyWalksEnded();
} // namespace detail

// A counted object. The count starts at 0; the first Ptr takes it to 1.
// When it falls back to 0, zeroReferencesIs(true) runs, then the object is
// deleted.
class PtrInterface {
 public:
   class NotifieeConst;

   PtrInterface() = default;
   PtrInterface(PtrInterface const &) : refs_(0) {}
   PtrInterface & operator=(PtrInterface const &) { return *this; }
   virtual ~PtrInterface() = default;

   uint32_t references() const {
      if (detail::threadSafePointers) {
         return std::atomic_ref<uint32_t>(refs_).load(std::memory_order_acquire);
      }
      return refs_;
   }
   void referencesInc() const {
      if (detail::threadSafePointers) {
         std::atomic_ref<uint32_t>(refs_).fetch_add(1, std::memory_order_relaxed);
      } else {
         ++refs_;
      }
   }
   void referencesDec() const {
      uint32_t left;
      if (detail::threadSafePointers) {
         left = std::atomic_ref<uint32_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1;
      } else {
         left = --refs_;
      }
      if (left == 0) const_cast<PtrInterface *>(this)->kelLastReferenceGone();
   }

   // The same, for callers that have read the thread-safety switch once
   // and know counts are plain integers.
   void referencesIncPlain() const { ++refs_; }
   void referencesDecPlain() const {
      if (--refs_ == 0) const_cast<PtrInterface *>(this)->kelLastReferenceGone();
   }

   // Called with true when the count reaches 0, just before deletion.
   // Entities tell their reactors here (onZeroReferences).
   virtual void zeroReferencesIs(bool) {}

   // The count of an object whose last reference has gone: it is being
   // deleted, or its deletion waits for the end of a notification.
   static constexpr uint32_t dyingReferences = 1u << 30;
   bool kelDying() const { return references() >= dyingReferences; }
   // The count for callers that know counts are plain integers.
   uint32_t referencesPlain() const { return refs_; }

   // Allocation goes through the runtime so that it can be counted and
   // replaced in one place.
   static void * operator new(size_t n);
   // Sized: the virtual destructor passes the size of the whole object.
   static void operator delete(void * p, size_t n) noexcept;
   static void * operator new(size_t, void * where) noexcept { return where; }

 protected:
   // Whether deletion waits while a notification walk runs on this thread
   // (reactors: a walk may still read them).
   virtual bool kelDeletionWaitsForWalks() const { return false; }

 private:
   void kelLastReferenceGone();

   mutable uint32_t refs_ = 0;

 protected:
   // Free for subclasses to use (an entity keeps its modification count
   // here, filling the word beside the reference count).
   uint32_t kelSpare_ = 0;
};

struct VFPtrInterface {
   // Switches every reference count of the process to atomic operations.
   // Call before a second thread touches shared objects.
   static void enableThreadSafePointers();
};

// Counted pointer. Ptr<T const> is the read-only form.
template <class T>
class Ptr {
 public:
   Ptr() = default;
   Ptr(std::nullptr_t) {}
   Ptr(T * p) : p_(p) { if (p_) p_->referencesInc(); }
   Ptr(Ptr const & o) : p_(o.p_) { if (p_) p_->referencesInc(); }
   Ptr(Ptr && o) noexcept : p_(o.p_) { o.p_ = nullptr; }
   template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
   Ptr(Ptr<U> const & o) : p_(o.ptr()) { if (p_) p_->referencesInc(); }
   template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
   Ptr(Ptr<U> && o) noexcept : p_(o.release()) {}
   ~Ptr() { if (p_) p_->referencesDec(); }

   Ptr & operator=(Ptr const & o) {
      // Take the new reference before dropping the old one.
      T * old = p_;
      p_ = o.p_;
      if (p_) p_->referencesInc();
      if (old) old->referencesDec();
      return *this;
   }
   Ptr & operator=(Ptr && o) noexcept {
      if (this != &o) {
         T * old = p_;
         p_ = o.p_;
         o.p_ = nullptr;
         if (old) old->referencesDec();
      }
      return *this;
   }
   Ptr & operator=(std::nullptr_t) {
      T * old = p_;
      p_ = nullptr;
      if (old) old->referencesDec();
      return *this;
   }

   T * ptr() const { return p_; }
   T * get() const { return p_; }
   T * operator->() const { return p_; }
   T & operator*() const { return *p_; }
   explicit operator bool() const { return p_ != nullptr; }
   // Gives up the reference without releasing it.
   T * release() { T * p = p_; p_ = nullptr; return p; }

   template <class U>
   friend bool operator==(Ptr const & a, Ptr<U> const & b) { return a.ptr() == b.ptr(); }
   friend bool operator==(Ptr const & a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
   T * p_ = nullptr;
};

template <class T, class U>
Ptr<T> dynamicCast(Ptr<U> const & p) {
   return Ptr<T>(dynamic_cast<T *>(p.ptr()));
}

template <class T, class... A>
Ptr<T> makePtr(A &&... a) {
   return Ptr<T>(new T(std::forward<A>(a)...));
}

} // namespace Kel
