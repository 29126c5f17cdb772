// A reactor on every member of one entity collection, present and future:
// the watcher hears the collection, makes a member reactor for each member
// that appears (and, when asked, for the ones already there), moves it to
// a member that replaces another under the same key, and drops it when the
// member goes or when the collection's owner goes away.
//
//   auto w = Kel::watchCollection(configDir, &AllIntfConfigDir::intfConfig,
//                                 AllIntfConfigDir::kelId_intfConfig,
//                                 [](Kel::Ptr<IntfConfig const> const &) { return Kel::makePtr<MyReactor>(); });
#pragma once

#include <Kel/Entity.h>
#include <Kel/GenericIf.h>

#include <functional>
#include <map>
#include <type_traits>

namespace Kel {

template <class Dir, class Key, class Member, class R>
class CollectionWatcher : public Entity::NotifieeConst {
 public:
   using Lookup = ::Kel::Ptr<Member> (Dir::*)(Key const &) const;
   using Make = std::function<::Kel::Ptr<R>(::Kel::Ptr<Member const> const &)>;

   CollectionWatcher(Lookup lookup, AttributeId attr, Make make)
         : lookup_(lookup), attr_(attr), make_(std::move(make)) {
      kelGenericIs(true);
   }
   ~CollectionWatcher() override { reactors_.clear(); }

   // Watches `dir`'s collection; with hearPresent, its present members get
   // their reactors now.
   void watch(::Kel::Ptr<Dir const> const & dir, bool hearPresent) {
      reactors_.clear();
      notifierIs(dir);
      if (!dir || !hearPresent) return;
      AttrDesc const * d = dir->fwkType()->attribute(attr_);
      if (!d || !d->iterate) return;
      for (auto it = d->iterate(dir.ptr()); it && it->nonNull(); it->iterInc()) {
         update(fromGeneric<Key>(*it->iterKey(), d->name));
      }
   }
   // The reactor on the member under `key`, or null.
   R * reactor(Key const & key) const {
      auto it = reactors_.find(key);
      return it == reactors_.end() ? nullptr : it->second.ptr();
   }
   size_t watched() const { return reactors_.size(); }

   void kelOnAttribute(AttributeId id, void const * key) override {
      if (id == attr_ && key) update(*static_cast<Key const *>(key));
   }
   // The owner is going: its members go with it.
   void onZeroReferences() override { reactors_.clear(); }

 private:
   void update(Key const & key) {
      Dir const * dir = static_cast<Dir const *>(notifier().ptr());
      ::Kel::Ptr<Member> m = dir ? (dir->*lookup_)(key) : ::Kel::Ptr<Member>();
      auto it = reactors_.find(key);
      if (!m) {
         if (it != reactors_.end()) reactors_.erase(it);
         return;
      }
      if (it != reactors_.end() && it->second->notifier().ptr() == m.ptr()) return;
      ::Kel::Ptr<R> r = make_(::Kel::Ptr<Member const>(m));
      if (!r) return;
      r->notifierIs(::Kel::Ptr<Member const>(m));
      reactors_[key] = r;
   }

   Lookup lookup_;
   AttributeId attr_;
   Make make_;
   std::map<Key, ::Kel::Ptr<R>> reactors_;
};

template <class Dir, class Key, class Member, class MakeFn>
auto watchCollection(Ptr<Dir const> const & dir, Ptr<Member> (Dir::*lookup)(Key const &) const,
                     AttributeId attr, MakeFn make, bool hearPresent = true) {
   using R = std::remove_pointer_t<decltype(make(Ptr<Member const>()).ptr())>;
   auto w = makePtr<CollectionWatcher<Dir, Key, Member, R>>(lookup, attr, std::move(make));
   w->watch(dir, hearPresent);
   return w;
}

} // namespace Kel
