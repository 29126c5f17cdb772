#include <Kel/Entity.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

namespace Kel {

namespace detail {
bool threadSafePointers = false;
constinit thread_local NotifyWalks notifyWalks __attribute__((tls_model("initial-exec")));
} // namespace detail

void VFPtrInterface::enableThreadSafePointers() { detail::threadSafePointers = true; }

// Counted objects are small and come and go often (reactors, reflection
// values, collection members): sizes up to 256 bytes are kept on per-thread
// free lists in 16-byte classes. Under AddressSanitizer every object goes to
// the global allocator so that use after free is still caught.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEL_NO_POOL 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KEL_NO_POOL 1
#endif

#ifndef KEL_NO_POOL
namespace {

constexpr size_t poolClass = 16;
constexpr size_t poolMax = 256;
struct FreeNode {
   FreeNode * next;
};
thread_local FreeNode * freeLists[poolMax / poolClass + 1] __attribute__((tls_model("initial-exec")));

} // namespace
#endif

void * PtrInterface::operator new(size_t n) {
#ifndef KEL_NO_POOL
   if (n <= poolMax) {
      size_t c = (n + poolClass - 1) / poolClass;
      if (FreeNode * f = freeLists[c]) {
         freeLists[c] = f->next;
         return f;
      }
      return ::operator new(c * poolClass);
   }
#endif
   return ::operator new(n);
}

void PtrInterface::operator delete(void * p, size_t n) noexcept {
#ifndef KEL_NO_POOL
   if (n <= poolMax) {
      size_t c = (n + poolClass - 1) / poolClass;
      auto * f = static_cast<FreeNode *>(p);
      f->next = freeLists[c];
      freeLists[c] = f;
      return;
   }
#endif
   (void)n;
   ::operator delete(p);
}

namespace {
// Objects whose last reference went while another object was being
// deleted: deleted by the outermost deletion, one after the other, so that
// a long chain of owners (a directory in a directory in ...) never costs
// one stack frame per link.
// Initial-exec, as the pool's lists: every last release reads them, and the
// general model costs a call into the dynamic linker in a shared library.
thread_local bool deleting __attribute__((tls_model("initial-exec"))) = false;
thread_local std::vector<PtrInterface *> * dying __attribute__((tls_model("initial-exec"))) = nullptr;

// What notification walks keep until they are over: reactor arrays that
// were replaced while walked, and reactors released during a walk.
thread_local std::vector<void **> * walkedArrays = nullptr;
thread_local std::vector<PtrInterface *> * walkedReactors = nullptr;
thread_local bool endingWalks = false;

void deleteNow(PtrInterface * p) {
   if (deleting) {
      if (!dying) dying = new std::vector<PtrInterface *>;
      dying->push_back(p);
      return;
   }
   deleting = true;
   delete p;
   while (dying && !dying->empty()) {
      PtrInterface * next = dying->back();
      dying->pop_back();
      delete next;
   }
   deleting = false;
}

} // namespace

void PtrInterface::kelLastReferenceGone() {
   // A large count while dying, so that references taken and dropped by
   // zero-reference handlers cannot bring it to zero a second time, and a
   // notification walk can tell that it was released.
   refs_ = dyingReferences;
   zeroReferencesIs(true);
   if (detail::notifyWalks.depth && kelDeletionWaitsForWalks()) {
      if (!walkedReactors) walkedReactors = new std::vector<PtrInterface *>;
      walkedReactors->push_back(this);
      detail::notifyWalks.pending = true;
      return;
   }
   deleteNow(this);
}

void detail::notifyWalksEnded() {
   // Deleting a reactor may notify again, and that walk ends here too: the
   // outermost call does all the work.
   if (endingWalks) return;
   endingWalks = true;
   notifyWalks.pending = false;
   std::vector<void **> arrays;
   std::vector<PtrInterface *> reactors;
   while ((walkedArrays && !walkedArrays->empty()) || (walkedReactors && !walkedReactors->empty())) {
      if (walkedArrays) arrays.swap(*walkedArrays);
      if (walkedReactors) reactors.swap(*walkedReactors);
      for (void ** d : arrays) ::operator delete(d);
      // In the order they were released.
      for (PtrInterface * r : reactors) deleteNow(r);
      arrays.clear();
      reactors.clear();
   }
   notifyWalks.pending = false;
   endingWalks = false;
}

// --- ReactorList ---------------------------------------------------------------

void ReactorList::release(void ** d) {
   if (!d) return;
   if (walkers_) {
      if (!walkedArrays) walkedArrays = new std::vector<void **>;
      walkedArrays->push_back(d);
      detail::notifyWalks.pending = true;
      return;
   }
   ::operator delete(d);
}

void ReactorList::copyForChange() {
   void ** d = static_cast<void **>(::operator new(cap_ * sizeof(void *)));
   std::memcpy(d, data_, nbound_ * sizeof(void *));
   release(data_);
   data_ = d;
   walkers_ = 0;
}

void ReactorList::bind(Entity *, void * r, bool registered) {
   if (nbound_ == 0xffff) throwRangeException("too many reactors on one entity");
   if (nbound_ == cap_) {
      uint32_t cap = cap_ ? uint32_t(cap_) * 2 : 2;
      if (cap > 0xffff) cap = 0xffff;
      void ** d = static_cast<void **>(::operator new(cap * sizeof(void *)));
      if (nbound_) std::memcpy(d, data_, nbound_ * sizeof(void *));
      release(data_);
      data_ = d;
      walkers_ = 0;
      cap_ = uint16_t(cap);
   } else {
      copyIfWalked();
   }
   data_[nbound_++] = r;
   if (registered) setRegistered(r, true);
}

void ReactorList::unbind(void * r) {
   copyIfWalked();
   setRegistered(r, false);
   for (uint32_t i = nreg_; i < nbound_; ++i) {
      if (data_[i] == r) {
         std::memmove(&data_[i], &data_[i + 1], (nbound_ - i - 1) * sizeof(void *));
         --nbound_;
         break;
      }
   }
   if (nbound_ == 0) {
      release(data_);
      data_ = nullptr;
      cap_ = 0;
   }
}

// Moves `r` to the end of the registered prefix, or just past it, keeping
// the relative order of every other reactor.
void ReactorList::setRegistered(void * r, bool registered) {
   uint32_t i = 0;
   while (i < nbound_ && data_[i] != r) ++i;
   if (i == nbound_) return;
   bool is = i < nreg_;
   if (is == registered) return;
   copyIfWalked();
   if (registered) {
      std::memmove(&data_[nreg_ + 1], &data_[nreg_], (i - nreg_) * sizeof(void *));
      data_[nreg_] = r;
      ++nreg_;
   } else {
      std::memmove(&data_[i], &data_[i + 1], (nreg_ - i - 1) * sizeof(void *));
      data_[nreg_ - 1] = r;
      --nreg_;
   }
}

// --- SnapshotIterator ---------------------------------------------------------------

namespace {
uint64_t heapSnapshotCount = 0;
}

uint64_t SnapshotIterator::heapSnapshots() { return heapSnapshotCount; }

void SnapshotIterator::allocHeap() {
   data_ = new PtrInterface::NotifieeConst *[n_];
   ++heapSnapshotCount;
}

void SnapshotIterator::freeHeap() { delete[] data_; }

// --- Entity ----------------------------------------------------------------------

namespace {

// Peers of read-only replicas, by entity; replicas of one peer share its name.
std::unordered_map<Entity const *, std::shared_ptr<String8 const>> & proxyPeers() {
   static auto * m = new std::unordered_map<Entity const *, std::shared_ptr<String8 const>>;
   return *m;
}

} // namespace

void Entity::kelReadOnlyProxyIs(String8 const & peer) {
   kelReadOnlyProxyIs(std::make_shared<String8 const>(peer));
}

void Entity::kelReadOnlyProxyIs(std::shared_ptr<String8 const> const & peer) {
   reactors_.ownerFlags_ |= readOnlyFlag;
   proxyPeers()[this] = peer;
}

void Entity::kelRefuseWrite() const {
   auto const & w = detail::notifyWalks;
   if (w.applying == this && w.applyingDepth == w.depth) return;
   auto it = proxyPeers().find(this);
   throwInternalException(String8("write-update from readonly proxy: ") + fullName() +
                          " peerName: " +
                          (it == proxyPeers().end() || !it->second ? String8() : *it->second));
}

Kel::Ptr<Entity> globalRootEntity();

Kel::Ptr<Entity> Entity::entity(std::string_view path) const {
   Kel::Ptr<Entity> cur(const_cast<Entity *>(this));
   if (!path.empty() && path[0] == '/') cur = globalRootEntity();
   while (!path.empty() && cur) {
      size_t slash = path.find('/');
      std::string_view name = path.substr(0, slash);
      path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
      if (name.empty() || name == ".") continue;
      if (name == "..") {
         cur = cur->parent_;
         continue;
      }
      cur = cur->kelChildNamed(name);
   }
   return cur;
}

Entity::~Entity() {
   if (reactors_.ownerFlags_ & readOnlyFlag) proxyPeers().erase(this);
   // Unbind whoever is still bound, so no reactor keeps a dangling notifier.
   while (reactors_.bound()) {
      auto * r = static_cast<Entity::NotifieeConst *>(reactors_.data_[0]);
      reactors_.unbind(r);
      r->notifier_ = nullptr;
   }
}

void Entity::zeroReferencesIs(bool z) {
   if (!z || !reactors_.bound()) return;
   std::vector<Kel::Ptr<Entity::NotifieeConst>> bound;
   for (uint32_t i = 0; i < reactors_.bound(); ++i) {
      bound.emplace_back(static_cast<Entity::NotifieeConst *>(reactors_.data_[i]));
   }
   for (auto & r : bound) {
      if (r->references() == 1 || r->kelDying()) continue;  // released meanwhile
      try {
         r->onZeroReferences();
      } catch (...) {
      }
   }
}

String8 Entity::fullName() const {
   // Up the chain first, then the names in order: no recursion per level.
   std::vector<Entity const *> chain;
   for (Entity const * e = this; e; e = e->parent_) chain.push_back(e);
   String8 p;
   for (size_t i = chain.size(); i-- > 0;) {
      if (i + 1 < chain.size() && (p.empty() || p.view().back() != '/')) p += '/';
      p += chain[i]->name_;
   }
   return p;
}

void Entity::kelDeliverException(PtrInterface::NotifieeConst * r, AttributeId id) {
   try {
      r->onNotificationException(id);
   } catch (...) {
      // A reactor that cannot handle its own failure does not get to stop
      // the notification of the others.
   }
}

// --- reactors ----------------------------------------------------------------------

Entity::NotifieeConst::~NotifieeConst() {
   if (notifier_) notifier_->reactors_.unbind(this);
}

void Entity::NotifieeConst::kelNotifierIs(Entity const * e) {
   Entity * ne = const_cast<Entity *>(e);
   if (ne == notifier_) return;
   if (notifier_) notifier_->reactors_.unbind(this);
   notifier_ = ne;
   if (notifier_) notifier_->reactors_.bind(notifier_, this, wantRegistered_);
}

void Entity::NotifieeConst::isRegisteredNotifieeIs(bool b) {
   wantRegistered_ = b;
   if (notifier_) notifier_->reactors_.setRegistered(this, b);
}

} // namespace Kel
