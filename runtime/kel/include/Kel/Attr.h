// The entity pattern, written once.
//
// An entity type lists its attributes in one macro table, in attribute
// identifier order, one row per attribute:
//
//    #define KEL_ATTRS_IntfConfig(X)
//       X(Ctor,    intfId, IntfId, Zenet::IntfId)
//       X(Ptr,     defaultConfig, DefaultConfig, IntfConfig const, Nullable)
//       X(Scalar,  description, Description, Kel::String8, {})
//       X(Derived, prettyName, PrettyName, Kel::String8)
//       X(Coll,    requestor, Requestor, Kel::HashMap, Kel::String8, bool)
//       ...
//
//    class IntfConfig : public Kel::Entity {
//       KEL_ENTITY(IntfConfig, Kel::Entity, "Interface::IntfConfig", KEL_ATTRS_IntfConfig)
//     public:
//       explicit IntfConfig(Zenet::IntfId id);   // sets the Ctor rows
//       ...hand-written behaviour...
//    };
//
// Each row carries the attribute's name twice (lower and upper camel case),
// since callbacks are named on + Name. KEL_ENTITY expands the table several
// times: identifiers (consecutive from the base type's end, 258 for a direct
// Kel::Entity), the reactor classes NotifieeConst and Notifiee with one
// callback per notifying attribute, storage, accessors, virtual mutators,
// and the attribute table the runtime walks. Every mutator body below is the
// only copy of that logic in the library.
//
// Row kinds:
//   Ctor      (name, Name, Type)                    identity, set by the constructor
//   Scalar    (name, Name, Type, default)           xIs(v), onX()
//   Ptr       (name, Name, Target, Nullable|NotNull) counted pointer, identity compare
//   WriteOnce (name, Name, Target)                  xIs(p) then handleX(prev) guard
//   Local     (name, Name, Target)                  process-local cache: const xIs, no notification
//   Cache     (name, Name, Target)                  the same without a generated accessor
//   InstChild (name, Name, T)                       one child constructed by name: xIs(name, ...), xDel()
//   Coll      (name, Name, MapT, Key, Value)         keyed values
//   EntColl   (name, Name, MapT, Key, T, keyAttr)    entities inserted by the caller, keyed by their own keyAttr
//   RefColl   (name, Name, MapT, Key, T)             entities referenced under a caller's key (not owned)
//   InstColl  (name, Name, MapT, Key, T)             children constructed from the key (+ more ctor args)
//   Derived   (name, Name, Type)                    hand-written accessor; identifier and table entry only
//   Const     (name, Name, Type, value)             constant accessor
//   Hook      (name, Name)                          an operation listed among the attributes
//   VScalar   (name, Name, Type, default)           a Scalar whose reader is virtual and returns
//                                                   a copy, so that an adapter can present it
//   Memo      (name, Name, Type, default)           process-local bookkeeping: const xIs, not
//                                                   replicated, no notification
//   Mutable   (name, Name, Type, default)           a Scalar set through a const handle (state a
//                                                   reader's look-up records), replicated
// Row kinds whose values live outside the entity are defined with their
// storage: Cell (Brik/ShmemCounter.h), Table (Smash/TableColl.h).
#pragma once

#include <Kel/Entity.h>
#include <Kel/HashMap.h>
#include <Kel/NboAttrLog.h>
#include <Kel/Reflect.h>
#include <Kel/Value.h>

#include <charconv>
#include <memory>
#include <set>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Kel {

template <class T, class It>
Ptr<GenericIterator> genericIterator(T const * owner, It it, AttrDesc const * desc) {
   return Ptr<GenericIterator>(new CollGenericIterator<It>(
       Ptr<Entity>(const_cast<T *>(owner)), std::move(it), desc));
}

struct AttrInfo {
   const char * name;
   AttributeId id;
   AttrKind kind;
};

template <template <class, class, class> class MapT, class K, class V>
struct MemberBaseOf;
template <class K, class V>
struct MemberBaseOf<HashMap, K, V> { using type = HashMapMember<K, V>; };
template <class K, class V>
struct MemberBaseOf<RbTreeMap, K, V> { using type = RbTreeMapMember<K, V>; };
template <template <class, class, class> class MapT, class K, class V>
using MemberBase = typename MemberBaseOf<MapT, K, V>::type;

// No-op rule: store only a different value. Entity pointers compare by
// identity, records by their operator==, doubles by == (NaN always differs).
// A replica refuses the write before anything changes.
template <class F, class V>
inline bool setField(F & field, V const & v, Entity const * owner) {
   if (field == v) return false;
   owner->kelCheckWritable();
   field = v;
   return true;
}

// Inserts or changes a keyed value; false when the key already held `v`.
template <class MapT, class K, class V>
bool collSet(MapT & m, K const & k, V const & v, Entity const * owner) {
   if (auto * mem = m.find(k)) {
      if (mem->value == v) return false;
      owner->kelCheckWritable();
      mem->value = v;
      return true;
   }
   owner->kelCheckWritable();
   m.insert(k, v);
   return true;
}

// "null _x parameter to mutator for Q::x not allowed"" (the closing quote
// is part of the text).
[[noreturn]] void throwNullParameter(const char * attr, const char * qualifiedType);

[[noreturn]] void throwCycle(Entity const * owner, Entity const * child);
// Refuses to make `child` a member of `owner` when `child` is `owner` or
// one of its ancestors: an entity tree has no cycles.
inline void checkNoCycle(Entity const * owner, Entity const * child) {
   if (child == owner) [[unlikely]] throwCycle(owner, child);
   // Only an entity with children can be an ancestor.
   if (!child->kelHasChildren()) return;
   for (Entity const * e = owner; e; e = e->parentRaw()) {
      if (e == child) [[unlikely]] throwCycle(owner, child);
   }
}

// The key a child's name stands for, where the key type reads names:
// names and strings are their own text, other keys parse it (a text that
// does not parse names no member).
template <class K>
bool keyFromName(std::string_view n, K * k) {
   if constexpr (std::is_same_v<K, Name> || std::is_same_v<K, String8>) {
      *k = K(n);
      return true;
   } else if constexpr (std::is_integral_v<K> && !std::is_same_v<K, bool>) {
      auto [p, ec] = std::from_chars(n.data(), n.data() + n.size(), *k);
      return ec == std::errc() && p == n.data() + n.size();
   } else if constexpr (std::is_constructible_v<K, std::string_view>) {
      try {
         *k = K(n);
         return true;
      } catch (Exception const &) {
         return false;
      }
   } else {
      return false;
   }
}

// The owned child of a collection named `n`: by the collection's hash when
// the name reads as a key, else by a walk over the members.
template <class C>
Ptr<Entity> childByName(C const & c, std::string_view n) {
   typename C::KeyType k{};
   if (keyFromName(n, &k)) {
      auto * m = c.find(k);
      if (m && m->value && m->value->name() == n) return m->value;
      using K = typename C::KeyType;
      if (std::is_same_v<K, Name> || std::is_same_v<K, String8>) return nullptr;
   }
   for (auto * m = c.first(); m; m = c.next(m)) {
      if (m->value && m->value->name() == n) return m->value;
   }
   return nullptr;
}

// A collection's encoded keys one at a time, for a stream that sends a
// collection member by member. Holds its place through removals.
template <class C, class Key>
struct CollCursorOf : CollCursor {
   explicit CollCursorOf(C const * c) : c_(c) {}
   bool next(NboAttrLog::Out & key) override {
      if (!started_) {
         it_ = c_->begin();
         started_ = true;
      } else if (it_) {
         ++it_;
      }
      if (!it_) return false;
      NboAttrLog::Nbo<Key>::write(key, it_.key(), nullptr);
      return true;
   }
   C const * c_;
   typename C::IteratorConst it_;
   bool started_ = false;
};

// The write-once guard: clearing is undone, a first set or a rewrite of
// the same entity is accepted, anything else is reported (and stays stored).
template <class P>
void writeOnceGuard(P & field, P const & prev, const char * qualifiedAttr) {
   if (!field) {
      if (prev) field = prev;
      return;
   }
   if (!prev || prev == field) return;
   throwInternalException(String8(qualifiedAttr) +
                              " is a write-once variable. Illegal attempt to change it after "
                              "it has already been set ",
                          Exception::IdBitArray().add(Exception::writeOnceId));
}

// Instantiating collections: a second instantiation under the same key
// must repeat the constructor parameters after the key.
[[noreturn]] void throwReinstantiate(String8 const & child, const char * attr,
                                     String8 const & newValue, String8 const & curValue);

template <class T, class... A>
void checkReinstantiate(T const & child, A const &... args) {
   constexpr auto ctor = T::kelCtorFields();
   // A child with no constructor rows of its own (it is made from its
   // name) has nothing to compare.
   // The key is the first Ctor row, or the name when every row follows it.
   constexpr size_t skip = sizeof...(A) == std::tuple_size_v<decltype(ctor)> ? 0 : 1;
   static_assert(sizeof...(A) == 0 || sizeof...(A) + skip <= std::tuple_size_v<decltype(ctor)>,
                 "more constructor arguments than constructor parameters");
   auto given = std::forward_as_tuple(args...);
   [&]<size_t... I>(std::index_sequence<I...>) {
      (([&] {
          auto const & f = std::get<I + skip>(ctor);
          auto const & cur = child.*(f.member);
          auto const & nv = std::get<I>(given);
          if (!(cur == nv)) {
             throwReinstantiate(child.name(), f.name, valueToStrep(nv), valueToStrep(cur));
          }
       }()),
       ...);
   }(std::index_sequence_for<A...>{});
}

} // namespace Kel

// ---- identifiers ------------------------------------------------------------------------
#define KEL_EA_ID_(kind, name, ...) kelId_##name,

// ---- attribute table --------------------------------------------------------------------
#define KEL_EA_INFO_(kind, name, ...) ::Kel::AttrInfo{#name, kelId_##name, ::Kel::AttrKind::kind},

// ---- constructor-parameter descriptors (instantiating collections compare them) ------------
#define KEL_EA_CTORF_Ctor(name, Name, Type)                                           \
   , std::make_tuple(                                                                 \
         ::Kel::FieldDesc<KelSelf, Type const>{#name, &KelSelf::name##_, kelId_##name})
#define KEL_EA_CTORF_(kind, name, ...) KEL_EA_CTORF_IF_##kind(name, __VA_ARGS__)
#define KEL_EA_CTORF_IF_Ctor(name, ...) KEL_EA_CTORF_Ctor(name, __VA_ARGS__)
#define KEL_EA_CTORF_IF_Scalar(...)
#define KEL_EA_CTORF_IF_Ptr(...)
#define KEL_EA_CTORF_IF_WriteOnce(...)
#define KEL_EA_CTORF_IF_Local(...)
#define KEL_EA_CTORF_IF_Cache(...)
#define KEL_EA_CTORF_IF_InstChild(...)
#define KEL_EA_CTORF_IF_Coll(...)
#define KEL_EA_CTORF_IF_EntColl(...)
#define KEL_EA_CTORF_IF_RefColl(...)
#define KEL_EA_CTORF_IF_InstColl(...)
#define KEL_EA_CTORF_IF_Derived(...)
#define KEL_EA_CTORF_IF_Const(...)
#define KEL_EA_CTORF_IF_Hook(...)

// ---- reactor callbacks ----------------------------------------------------------------------
#define KEL_EA_CB_(kind, name, Name, ...) KEL_EA_CB_##kind(Name, __VA_ARGS__)
#define KEL_EA_CB_Ctor(Name, ...)
#define KEL_EA_CB_Scalar(Name, ...) virtual void on##Name() {}
#define KEL_EA_CB_Ptr(Name, ...) virtual void on##Name() {}
#define KEL_EA_CB_WriteOnce(Name, ...) virtual void on##Name() {}
#define KEL_EA_CB_Local(Name, ...)
#define KEL_EA_CB_Cache(Name, ...)
#define KEL_EA_CB_InstChild(Name, ...) virtual void on##Name() {}
#define KEL_EA_CB_Coll(Name, MapT, Key, ...) virtual void on##Name(Key) {}
#define KEL_EA_CB_EntColl(Name, MapT, Key, ...) virtual void on##Name(Key) {}
#define KEL_EA_CB_RefColl(Name, MapT, Key, ...) virtual void on##Name(Key) {}
#define KEL_EA_CB_InstColl(Name, MapT, Key, ...) virtual void on##Name(Key) {}
#define KEL_EA_CB_Derived(Name, ...)
#define KEL_EA_CB_Const(Name, ...)
#define KEL_EA_CB_Hook(Name, ...)

// ---- children: owning collections, by name and all -------------------------------------------
#define KEL_EA_CHILD_(kind, name, ...) KEL_EA_CHILD_##kind(name)
#define KEL_EA_CHILD_OWNED_(an)                                                       \
   if (auto c = ::Kel::childByName(an##_, n)) return c;
#define KEL_EA_CHILD_EntColl(name) KEL_EA_CHILD_OWNED_(name)
#define KEL_EA_CHILD_InstColl(name) KEL_EA_CHILD_OWNED_(name)
#define KEL_EA_CHILD_Ctor(name)
#define KEL_EA_CHILD_Scalar(name)
#define KEL_EA_CHILD_Ptr(name)
#define KEL_EA_CHILD_WriteOnce(name)
#define KEL_EA_CHILD_Local(name)
#define KEL_EA_CHILD_Cache(name)
#define KEL_EA_CHILD_InstChild(an) \
   if (an##_ && an##_->name() == n) return an##_;
#define KEL_EA_CHILD_Coll(name)
#define KEL_EA_CHILD_RefColl(name)
#define KEL_EA_CHILD_Derived(name)
#define KEL_EA_CHILD_Const(name)
#define KEL_EA_CHILD_Hook(name)
// Whether any owning attribute holds a child.
#define KEL_EA_HAS_(kind, name, ...) KEL_EA_HAS_##kind(name)
#define KEL_EA_HAS_OWNED_(name) if (name##_.size()) return true;
#define KEL_EA_HAS_EntColl(name) KEL_EA_HAS_OWNED_(name)
#define KEL_EA_HAS_InstColl(name) KEL_EA_HAS_OWNED_(name)
#define KEL_EA_HAS_InstChild(name) if (name##_) return true;
#define KEL_EA_HAS_Ctor(name)
#define KEL_EA_HAS_Scalar(name)
#define KEL_EA_HAS_Ptr(name)
#define KEL_EA_HAS_WriteOnce(name)
#define KEL_EA_HAS_Local(name)
#define KEL_EA_HAS_Cache(name)
#define KEL_EA_HAS_Coll(name)
#define KEL_EA_HAS_RefColl(name)
#define KEL_EA_HAS_Derived(name)
#define KEL_EA_HAS_Const(name)
#define KEL_EA_HAS_Hook(name)
#define KEL_EA_EACH_(kind, name, ...) KEL_EA_EACH_##kind(name)
#define KEL_EA_EACH_OWNED_(name) \
   for (auto * m = name##_.first(); m; m = name##_.next(m)) fn(ctx, m->value.ptr());
#define KEL_EA_EACH_EntColl(name) KEL_EA_EACH_OWNED_(name)
#define KEL_EA_EACH_InstColl(name) KEL_EA_EACH_OWNED_(name)
#define KEL_EA_EACH_Ctor(name)
#define KEL_EA_EACH_Scalar(name)
#define KEL_EA_EACH_Ptr(name)
#define KEL_EA_EACH_WriteOnce(name)
#define KEL_EA_EACH_Local(name)
#define KEL_EA_EACH_Cache(name)
#define KEL_EA_EACH_InstChild(name) \
   if (name##_) fn(ctx, name##_.ptr());
#define KEL_EA_EACH_Coll(name)
#define KEL_EA_EACH_RefColl(name)
#define KEL_EA_EACH_Derived(name)
#define KEL_EA_EACH_Const(name)
#define KEL_EA_EACH_Hook(name)

// ---- clearing the back pointers of owned children when the owner goes ---------------------
#define KEL_EA_DETACH_(kind, name, ...) KEL_EA_DETACH_##kind(name)
#define KEL_EA_DETACH_OWNED_(name) \
   for (auto * m = name##_.first(); m; m = name##_.next(m)) kelDetach(m->value);
#define KEL_EA_DETACH_EntColl(name) KEL_EA_DETACH_OWNED_(name)
#define KEL_EA_DETACH_InstColl(name) KEL_EA_DETACH_OWNED_(name)
#define KEL_EA_DETACH_Ctor(name)
#define KEL_EA_DETACH_Scalar(name)
#define KEL_EA_DETACH_Ptr(name)
#define KEL_EA_DETACH_WriteOnce(name)
#define KEL_EA_DETACH_Local(name)
#define KEL_EA_DETACH_Cache(name)
#define KEL_EA_DETACH_InstChild(name) kelDetach(name##_);
#define KEL_EA_DETACH_Coll(name)
#define KEL_EA_DETACH_RefColl(name)
#define KEL_EA_DETACH_Derived(name)
#define KEL_EA_DETACH_Const(name)
#define KEL_EA_DETACH_Hook(name)



// ---- replication descriptors ---------------------------------------------------------------
#define KEL_EA_LOG_SCALAR_(an, T)                                                     \
   d.logWrite = [](void const * o, ::Kel::NboAttrLog::Out & out,                      \
                   ::Kel::NboAttrLog::RefCodec * rc) {                                \
      ::Kel::NboAttrLog::Nbo<T>::write(out, KEL_EA_SELF_->an##_, rc);                 \
   };                                                                                 \
   d.logRead = [](void * o, ::Kel::NboAttrLog::In & in, ::Kel::NboAttrLog::RefCodec * rc) { \
      KEL_EA_MSELF_->an##Is(::Kel::NboAttrLog::Nbo<T>::read(in, rc));                  \
   };
// APPLY(k, v) inserts or changes one member on the reader.
#define KEL_EA_LOG_COLL_(an, Key, Value, APPLY)                                       \
   d.logEncodeKey = [](void const * k, ::Kel::NboAttrLog::Out & out) {                \
      ::Kel::NboAttrLog::Nbo<Key>::write(out, *static_cast<Key const *>(k), nullptr); \
   };                                                                                 \
   d.logWriteMember = [](void const * o, ::Kel::NboAttrLog::In & kb,                  \
                         ::Kel::NboAttrLog::Out & out, ::Kel::NboAttrLog::RefCodec * rc) { \
      Key k = ::Kel::NboAttrLog::Nbo<Key>::read(kb, nullptr);                         \
      ::Kel::NboAttrLog::Nbo<Key>::write(out, k, nullptr);                            \
      auto * m = KEL_EA_SELF_->an##_.find(k);                                         \
      out.put(m != nullptr);                                                          \
      if (m) ::Kel::NboAttrLog::Nbo<Value>::write(out, m->value, rc);                 \
   };                                                                                 \
   d.logReadMember = [](void * o, ::Kel::NboAttrLog::In & in,                         \
                        ::Kel::NboAttrLog::RefCodec * rc) {                           \
      Key k = ::Kel::NboAttrLog::Nbo<Key>::read(in, nullptr);                         \
      if (in.nextbool()) {                                                            \
         Value v = ::Kel::NboAttrLog::Nbo<Value>::read(in, rc);                       \
         APPLY(k, v);                                                                 \
      } else {                                                                        \
         KEL_EA_MSELF_->an##Del(k);                                                   \
      }                                                                               \
   };                                                                                 \
   d.logCursor = [](void const * o) -> std::unique_ptr<::Kel::CollCursor> {          \
      using C = std::decay_t<decltype(KEL_EA_SELF_->an##_)>;                          \
      return std::make_unique<::Kel::CollCursorOf<C, Key>>(&KEL_EA_SELF_->an##_);    \
   };                                                                                 \
   d.logWriteAll = [](void const * o, ::Kel::NboAttrLog::Out & out,                   \
                      ::Kel::NboAttrLog::RefCodec * rc) {                             \
      auto const & c = KEL_EA_SELF_->an##_;                                           \
      out.putU32(c.size());                                                           \
      for (auto * m = c.first(); m; m = c.next(m)) {                                  \
         ::Kel::NboAttrLog::Nbo<Key>::write(out, m->key, nullptr);                    \
         ::Kel::NboAttrLog::Nbo<Value>::write(out, m->value, rc);                     \
      }                                                                               \
   };                                                                                 \
   d.logReadAll = [](void * o, ::Kel::NboAttrLog::In & in, ::Kel::NboAttrLog::RefCodec * rc) { \
      /* The whole message is read before anything is applied: a message */          \
      /* that fails part way changes nothing. */                                      \
      std::vector<std::pair<Key, Value>> all;                                         \
      for (uint32_t n = in.nextU32(); n > 0; --n) {                                   \
         Key k = ::Kel::NboAttrLog::Nbo<Key>::read(in, nullptr);                      \
         all.emplace_back(std::move(k), ::Kel::NboAttrLog::Nbo<Value>::read(in, rc)); \
      }                                                                               \
      std::set<Key, ::Kel::KeyLess> seen;                                             \
      for (auto const & [k, v] : all) {                                               \
         APPLY(k, v);                                                                 \
         seen.insert(k);                                                              \
      }                                                                               \
      /* Members the writer no longer has go. */                                      \
      std::vector<Key> gone;                                                          \
      auto const & c = KEL_EA_MSELF_->an##_;                                          \
      for (auto * m = c.first(); m; m = c.next(m)) {                                  \
         if (!seen.count(m->key)) gone.push_back(m->key);                             \
      }                                                                               \
      for (auto const & k : gone) KEL_EA_MSELF_->an##Del(k);                          \
   };
#define KEL_EA_APPLY_SET_(an) [&](auto const & k, auto const & v) { KEL_EA_MSELF_->an##Is(k, v); }

// ---- reflection descriptors ------------------------------------------------------------------
// One AttrDesc per row; the lambdas call the ordinary accessors and mutators.
#define KEL_EA_SELF_ static_cast<KelSelf const *>(o)
#define KEL_EA_MSELF_ static_cast<KelSelf *>(o)
#define KEL_EA_DESC_(ak, an, Name, ...) KEL_EA_DESC_##ak(an, Name, __VA_ARGS__)
#define KEL_EA_DESC_HEAD_(an, ak, af, T) \
   KEL_DESC_ID_(an, ak, af)                 \
   d.valueType = &::Kel::typeOf<T>;
#define KEL_EA_DESC_GET_(an)                                                        \
   d.get = [](void const * o) { return ::Kel::toGeneric(KEL_EA_SELF_->an()); };
#define KEL_EA_DESC_SET_(an, T)                                                     \
   d.set = [](void * o, ::Kel::GenericIf const & v) {                                 \
      KEL_EA_MSELF_->an##Is(::Kel::fromGeneric<T>(v, #an));                       \
   };
#define KEL_EA_DESC_COLL_(an, Key, Value)                                           \
   d.keyType = &::Kel::typeOf<Key>;                                                   \
   d.keyToGeneric = [](void const * k) { return ::Kel::toGeneric(*static_cast<Key const *>(k)); }; \
   d.index = [](void const * o, ::Kel::GenericIf const & k) {                         \
      return ::Kel::toGeneric(KEL_EA_SELF_->an(::Kel::fromGeneric<Key>(k, #an))); \
   };                                                                                 \
   d.del = [](void * o, ::Kel::GenericIf const & k) {                                 \
      KEL_EA_MSELF_->an##Del(::Kel::fromGeneric<Key>(k, #an));                    \
   };                                                                                 \
   d.iterate = [](void const * o) {                                                   \
      return ::Kel::genericIterator(KEL_EA_SELF_, KEL_EA_SELF_->an##IteratorConst(), \
                                    KEL_EA_SELF_->fwkType()->attribute(kelId_##an)); \
   };
#define KEL_EA_DESC_Ctor(an, Name, Type)                                            \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Ctor, ::Kel::attrCtorParam, Type)                       \
      KEL_EA_DESC_GET_(an) v.push_back(d);                                          \
   }
// Scalars, pointers and write-once pointers: a value read and written
// whole, replicated as one attribute message.
#define KEL_EA_DESC_VALUE_(an, ak, T)                                                 \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, ak, ::Kel::attrWritable | ::Kel::attrNotifying, T)        \
      KEL_EA_DESC_GET_(an) KEL_EA_DESC_SET_(an, T) KEL_EA_LOG_SCALAR_(an, T)          \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_Scalar(an, Name, Type, dflt) KEL_EA_DESC_VALUE_(an, Scalar, Type)
#define KEL_EA_DESC_Ptr(an, Name, Target, nullable) \
   KEL_EA_DESC_VALUE_(an, Ptr, ::Kel::Ptr<Target>)
#define KEL_EA_DESC_WriteOnce(an, Name, Target) \
   KEL_EA_DESC_VALUE_(an, WriteOnce, ::Kel::Ptr<Target>)
#define KEL_EA_DESC_Cache(an, Name, Target)                                         \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Cache, ::Kel::attrLocal, ::Kel::Ptr<Target>)              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_InstChild(an, Name, T)                                            \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, InstChild, ::Kel::attrInstantiating | ::Kel::attrNotifying, \
                        ::Kel::Ptr<T>)                                                \
      KEL_EA_DESC_GET_(an)                                                            \
      d.logWrite = [](void const * o, ::Kel::NboAttrLog::Out & out,                   \
                      ::Kel::NboAttrLog::RefCodec * rc) {                             \
         ::Kel::NboAttrLog::Nbo<::Kel::Ptr<T>>::write(out, KEL_EA_SELF_->an##_, rc);  \
      };                                                                              \
      d.logRead = [](void * o, ::Kel::NboAttrLog::In & in, ::Kel::NboAttrLog::RefCodec * rc) { \
         KEL_EA_MSELF_->kelInsert##Name(::Kel::NboAttrLog::Nbo<::Kel::Ptr<T>>::read(in, rc)); \
      };                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_Local(an, Name, Target)                                         \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Local, ::Kel::attrLocal, ::Kel::Ptr<Target>)            \
      KEL_EA_DESC_GET_(an) v.push_back(d);                                          \
   }
#define KEL_EA_DESC_Coll(an, Name, MapT, Key, Value)                                \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Coll,                                                   \
                        ::Kel::attrCollection | ::Kel::attrWritable | ::Kel::attrNotifying, \
                        Value)                                                        \
      KEL_EA_DESC_COLL_(an, Key, Value)                                             \
      d.indexSet = [](void * o, ::Kel::GenericIf const & k, ::Kel::GenericIf const & x) { \
         KEL_EA_MSELF_->an##Is(::Kel::fromGeneric<Key>(k, #an),                   \
                                 ::Kel::fromGeneric<Value>(x, #an));                \
      };                                                                              \
      KEL_EA_LOG_COLL_(an, Key, Value, KEL_EA_APPLY_SET_(an))                         \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_EntColl(an, Name, MapT, Key, T, keyAttr)                        \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, EntColl,                                                \
                        ::Kel::attrCollection | ::Kel::attrWritable | ::Kel::attrNotifying, \
                        ::Kel::Ptr<T>)                                                \
      KEL_EA_DESC_COLL_(an, Key, ::Kel::Ptr<T>)                                     \
      KEL_EA_DESC_SET_(an, ::Kel::Ptr<T>)                                             \
      KEL_EA_LOG_COLL_(an, Key, ::Kel::Ptr<T>, [&](auto const & k, auto const & v) {  \
         if (!v || !(v->keyAttr() == k)) ::Kel::throwRangeException("Entity is the wrong type"); \
         KEL_EA_MSELF_->an##Is(v);                                                    \
      })                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_RefColl(an, Name, MapT, Key, T)                                 \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, RefColl,                                                \
                        ::Kel::attrCollection | ::Kel::attrWritable | ::Kel::attrNotifying, \
                        ::Kel::Ptr<T>)                                                \
      KEL_EA_DESC_COLL_(an, Key, ::Kel::Ptr<T>)                                     \
      d.indexSet = [](void * o, ::Kel::GenericIf const & k, ::Kel::GenericIf const & x) { \
         KEL_EA_MSELF_->an##Is(::Kel::fromGeneric<Key>(k, #an),                   \
                                 ::Kel::fromGeneric<::Kel::Ptr<T>>(x, #an));        \
      };                                                                              \
      KEL_EA_LOG_COLL_(an, Key, ::Kel::Ptr<T>, KEL_EA_APPLY_SET_(an))                 \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_InstColl(an, Name, MapT, Key, T)                                \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, InstColl,                                               \
                        ::Kel::attrCollection | ::Kel::attrInstantiating |            \
                            ::Kel::attrNotifying,                                     \
                        ::Kel::Ptr<T>)                                                \
      KEL_EA_DESC_COLL_(an, Key, ::Kel::Ptr<T>)                                     \
      KEL_EA_LOG_COLL_(an, Key, ::Kel::Ptr<T>, [&](auto const & k, auto const & v) {  \
         if (!v) ::Kel::throwRangeException("Entity is the wrong type");              \
         KEL_EA_MSELF_->kelInsert##Name(k, v);                                        \
      })                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_Derived(an, Name, Type)                                         \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Derived, ::Kel::attrDerived, Type)                      \
      KEL_EA_DESC_GET_(an) v.push_back(d);                                          \
   }
#define KEL_EA_DESC_Const(an, Name, Type, value)                                    \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_EA_DESC_HEAD_(an, Const, ::Kel::attrConstant, Type)                       \
      d.get = [](void const *) { return ::Kel::toGeneric(Type(value)); };             \
      v.push_back(d);                                                                 \
   }
#define KEL_EA_DESC_Hook(an, Name, ...)                                                \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_DESC_ID_(an, Hook, ::Kel::attrOperation)                                    \
      v.push_back(d);                                                                 \
   }

// ---- storage ------------------------------------------------------------------------------
#define KEL_EA_STORE_(kind, name, Name, ...) KEL_EA_STORE_##kind(name, Name, __VA_ARGS__)
#define KEL_EA_STORE_Ctor(name, Name, Type) Type const name##_;
#define KEL_EA_STORE_Scalar(name, Name, Type, dflt) Type name##_ = dflt;
#define KEL_EA_STORE_Ptr(name, Name, Target, nullable) ::Kel::Ptr<Target> name##_;
#define KEL_EA_STORE_WriteOnce(name, Name, Target) ::Kel::Ptr<Target> name##_;
#define KEL_EA_STORE_Local(name, Name, Target) mutable ::Kel::Ptr<Target> name##_;
#define KEL_EA_STORE_Cache(name, Name, Target) mutable ::Kel::Ptr<Target> name##_;
#define KEL_EA_STORE_InstChild(name, Name, T) ::Kel::Ptr<T> name##_;
#define KEL_EA_STORE_Coll(name, Name, MapT, Key, Value) MapT<Kel##Name, Key, Value> name##_;
#define KEL_EA_STORE_EntColl(name, Name, MapT, Key, T, keyAttr) \
   MapT<Kel##Name, Key, ::Kel::Ptr<T>> name##_;
#define KEL_EA_STORE_RefColl(name, Name, MapT, Key, T) MapT<Kel##Name, Key, ::Kel::Ptr<T>> name##_;
#define KEL_EA_STORE_InstColl(name, Name, MapT, Key, T) MapT<Kel##Name, Key, ::Kel::Ptr<T>> name##_;
#define KEL_EA_STORE_Derived(...)
#define KEL_EA_STORE_Const(...)
#define KEL_EA_STORE_Hook(...)

// ---- member classes of collections -----------------------------------------------------------
#define KEL_EA_MEMBER_(kind, name, Name, ...) KEL_EA_MEMBER_##kind(Name, __VA_ARGS__)
#define KEL_EA_MEMBER_COLL_(Name, MapT, Key, Value)                                    \
   struct Kel##Name : ::Kel::MemberBase<MapT, Key, Value> {                            \
      using KelMemberBase = ::Kel::MemberBase<MapT, Key, Value>;                      \
      using KelMemberBase::KelMemberBase;                                             \
   };
#define KEL_EA_MEMBER_Ctor(...)
#define KEL_EA_MEMBER_Scalar(...)
#define KEL_EA_MEMBER_Ptr(...)
#define KEL_EA_MEMBER_WriteOnce(...)
#define KEL_EA_MEMBER_Local(...)
#define KEL_EA_MEMBER_Cache(...)
#define KEL_EA_MEMBER_InstChild(...)
#define KEL_EA_MEMBER_Coll(Name, MapT, Key, Value) KEL_EA_MEMBER_COLL_(Name, MapT, Key, Value)
#define KEL_EA_MEMBER_EntColl(Name, MapT, Key, T, keyAttr) \
   KEL_EA_MEMBER_COLL_(Name, MapT, Key, ::Kel::Ptr<T>)
#define KEL_EA_MEMBER_RefColl(Name, MapT, Key, T) KEL_EA_MEMBER_COLL_(Name, MapT, Key, ::Kel::Ptr<T>)
#define KEL_EA_MEMBER_InstColl(Name, MapT, Key, T) KEL_EA_MEMBER_COLL_(Name, MapT, Key, ::Kel::Ptr<T>)
#define KEL_EA_MEMBER_Derived(...)
#define KEL_EA_MEMBER_Const(...)
#define KEL_EA_MEMBER_Hook(...)

// ---- accessors and mutators -----------------------------------------------------------------
#define KEL_EA_NOTIFY_(Name, ...)                                                     \
   if (kelHasReactors())                                                              \
      this->template kelNotify<NotifieeConst, &NotifieeConst::on##Name>(__VA_ARGS__)

#define KEL_EA_API_(kind, name, Name, ...) KEL_EA_API_##kind(name, Name, __VA_ARGS__)

#define KEL_EA_API_Ctor(name, Name, Type) \
   ::Kel::Ret<Type> name() const { return name##_; }

#define KEL_EA_API_Scalar(name, Name, Type, dflt)                                     \
   ::Kel::Ret<Type> name() const { return name##_; }                                  \
   virtual void name##Is(Type const & v) {                                            \
      if (!::Kel::setField(name##_, v, this)) return;                                 \
      kelModified();                                                                  \
      KEL_EA_NOTIFY_(Name, kelId_##name);                                             \
   }

#define KEL_EA_NULLCHECK_Nullable(name)
#define KEL_EA_NULLCHECK_NotNull(name) \
   if (!v) ::Kel::throwNullParameter("_" #name, kelTypeName);

#define KEL_EA_API_Ptr(name, Name, Target, nullable)                                  \
   ::Kel::Ptr<Target> name() const { return name##_; }                                \
   virtual void name##Is(::Kel::Ptr<Target> const & v) {                              \
      if (name##_ == v) return; /* the no-op rule comes first */                      \
      KEL_EA_NULLCHECK_##nullable(name)                                               \
      if (!::Kel::setField(name##_, v, this)) return;                                 \
      kelModified();                                                                  \
      KEL_EA_NOTIFY_(Name, kelId_##name);                                             \
   }

#define KEL_EA_API_WriteOnce(name, Name, Target)                                      \
   ::Kel::Ptr<Target> name() const { return name##_; }                                \
   virtual void handle##Name(::Kel::Ptr<Target> const & prev) {                       \
      ::Kel::writeOnceGuard(name##_, prev, kelQualifiedAttr(#name).charPtr());        \
   }                                                                                  \
   virtual void name##Is(::Kel::Ptr<Target> const & v) {                              \
      if (name##_ == v) return;                                                       \
      kelCheckWritable();                                                             \
      ::Kel::Ptr<Target> prev = name##_;                                              \
      name##_ = v;                                                                    \
      kelModified();                                                                  \
      handle##Name(prev);                                                             \
      KEL_EA_NOTIFY_(Name, kelId_##name);                                             \
   }

/* A process-local cache with no accessor of its own (the type's hand-written
   reader fills it on first use); set through a const handle, no notification. */
#define KEL_EA_API_Cache(name, Name, Target)                                          \
   virtual void name##Is(::Kel::Ptr<Target> const & v) const {                        \
      if (!(name##_ == v)) name##_ = v;                                               \
   }

/* A single child the entity constructs itself: kept while the constructor
   name matches, replaced by a new child otherwise. */
#define KEL_EA_API_InstChild(an, Nm, T)                                           \
   ::Kel::Ptr<T> an() const { return an##_; }                                     \
   template <class... A>                                                              \
   ::Kel::Ptr<T> new##Nm(::Kel::Name const & n, A const &... a) {                   \
      kelCheckWritable();                                                             \
      ::Kel::Ptr<T> v(new T(n, a...));                                                \
      kelInsert##Nm(v);                                                             \
      return v;                                                                       \
   }                                                                                  \
   template <class... A>                                                              \
   ::Kel::Ptr<T> an##Is(::Kel::Name const & n, A const &... a) {                    \
      if (an##_ && an##_->name() == n) return an##_;                            \
      return new##Nm(n, a...);                                                      \
   }                                                                                  \
   void an##Del() { kelInsert##Nm(nullptr); }                                     \
   void kelInsert##Nm(::Kel::Ptr<T> const & v) {                                    \
      if (an##_ == v) return;                                                       \
      kelCheckWritable();                                                             \
      if (v) ::Kel::checkNoCycle(this, v.ptr());                                      \
      if (v) v->parentIs(this);                                                       \
      kelDetach(an##_);                                                             \
      an##_ = v;                                                                    \
      kelModified();                                                                  \
      KEL_EA_NOTIFY_(Nm, kelId_##an);                                             \
   }

#define KEL_EA_API_Local(name, Name, Target)                                          \
   ::Kel::Ptr<Target> name() const { return name##_; }                                \
   virtual void name##Is(::Kel::Ptr<Target> const & v) const {                        \
      if (!(name##_ == v)) name##_ = v;                                               \
   }

// The part every collection shares: look-up, iteration, delete, notify.
#define KEL_EA_COLL_COMMON_(name, Name, MapT, Key, Value)                              \
   using Name##Coll = MapT<Kel##Name, Key, Value>;                                      \
   using Name##IteratorConst = typename Name##Coll::IteratorConst;                     \
   using Name##Iterator = typename Name##Coll::Iterator;                               \
   Name##IteratorConst name##IteratorConst() const { return name##_.begin(); }        \
   Name##Iterator name##Iterator() { return name##_.begin(); }                        \
   Name##IteratorConst name##IteratorConst(Key const & k) const {                     \
      return name##_.iterator(k);                                                     \
   }                                                                                  \
   uint32_t name##Size() const { return name##_.size(); }                             \
   /* for (auto const & m : x.name##Range()) ... m.key(), m.value() */               \
   ::Kel::CollRange<Name##IteratorConst> name##Range() const { return {name##_.begin()}; } \
   virtual void name##Del(Key const & k) {                                            \
      if (auto * m = name##_.find(k)) {                                               \
         kelCheckWritable();                                                          \
         kelDetach(m->value);                                                         \
         name##_.erase(m);                                                            \
         kelModified();                                                               \
         name##Notify(k);                                                             \
      }                                                                               \
   }                                                                                  \
   virtual void name##Del(Name##Iterator & it) {                                      \
      auto * m = it.member();                                                         \
      if (!m || !m->inTable) return;                                                  \
      kelCheckWritable();                                                             \
      Key k = m->key;                                                                 \
      kelDetach(m->value);                                                            \
      name##_.erase(m);                                                               \
      kelModified();                                                                  \
      name##Notify(k);                                                                \
   }                                                                                  \
   virtual void name##Notify(Key const & k) { KEL_EA_NOTIFY_(Name, kelId_##name, k); } \
   void name##DelAll() {                                                              \
      for (auto it = name##_.begin(); it; ++it) name##Del(it);                        \
   }

#define KEL_EA_API_Coll(name, Name, MapT, Key, Value)                                  \
   Value name(Key const & k) const {                                                  \
      auto * m = name##_.find(k);                                                     \
      return m ? m->value : Value();                                                  \
   }                                                                                  \
   KEL_EA_COLL_COMMON_(name, Name, MapT, Key, Value)                                   \
   virtual void name##Is(Key const & k, Value const & v) {                            \
      if (!::Kel::collSet(name##_, k, v, this)) return;                               \
      kelModified();                                                                  \
      name##Notify(k);                                                                \
   }                                                                                  \
   /* Inserts (or changes) a member: the same as name##Is. */                         \
   void new##Name(Key const & k, Value const & v) { name##Is(k, v); }

#define KEL_EA_ENTITY_LOOKUP_(name, Key, T)                                           \
   ::Kel::Ptr<T> name(Key const & k) const {                                          \
      auto * m = name##_.find(k);                                                     \
      return m ? m->value : ::Kel::Ptr<T>();                                          \
   }

#define KEL_EA_API_EntColl(name, Name, MapT, Key, T, keyAttr)                          \
   KEL_EA_ENTITY_LOOKUP_(name, Key, T)                                                \
   /* Inserts or replaces without notifying; the member becomes a child. */           \
   virtual void name##New(::Kel::Ptr<T> const & v) {                                  \
      Key k = v->keyAttr();                                                           \
      ::Kel::checkNoCycle(this, v.ptr());                                             \
      v->parentIs(this);                                                              \
      if (auto * m = name##_.find(k)) {                                               \
         kelDetach(m->value);                                                         \
         m->value = v;                                                                \
      } else {                                                                        \
         name##_.insert(k, v);                                                        \
      }                                                                               \
   }                                                                                  \
   KEL_EA_COLL_COMMON_(name, Name, MapT, Key, ::Kel::Ptr<T>)                           \
   virtual void name##Is(::Kel::Ptr<T> const & v) {                                   \
      if (!v) ::Kel::throwNullParameter("_" #name, kelTypeName);                      \
      Key k = v->keyAttr();                                                           \
      auto * m = name##_.find(k);                                                     \
      if (m && m->value == v) return;                                                 \
      kelCheckWritable();                                                             \
      name##New(v);                                                                   \
      kelModified();                                                                  \
      name##Notify(k);                                                                \
   }

#define KEL_EA_API_RefColl(name, Name, MapT, Key, T)                                   \
   KEL_EA_ENTITY_LOOKUP_(name, Key, T)                                                \
   KEL_EA_COLL_COMMON_(name, Name, MapT, Key, ::Kel::Ptr<T>)                           \
   /* Inserts or replaces without announcing it. */                                  \
   void name##New(Key const & k, ::Kel::Ptr<T> const & v) {                           \
      if (!v) ::Kel::throwNullParameter("_" #name, kelTypeName);                      \
      if (::Kel::collSet(name##_, k, v, this)) kelModified();                         \
   }                                                                                  \
   void name##Is(Key const & k, ::Kel::Ptr<T> const & v) {                            \
      if (!v) ::Kel::throwNullParameter("_" #name, kelTypeName);                      \
      if (!::Kel::collSet(name##_, k, v, this)) return;                               \
      kelModified();                                                                  \
      name##Notify(k);                                                                \
   }

#define KEL_EA_API_InstColl(name, Name, MapT, Key, T)                                  \
   KEL_EA_ENTITY_LOOKUP_(name, Key, T)                                                \
   KEL_EA_COLL_COMMON_(name, Name, MapT, Key, ::Kel::Ptr<T>)                           \
   /* Constructs the child from the key and further constructor arguments. */         \
   template <class... A>                                                              \
   ::Kel::Ptr<T> new##Name(Key const & k, A const &... a) {                           \
      kelCheckWritable();                                                             \
      ::Kel::Ptr<T> v(new T(k, a...));                                                \
      kelInsert##Name(k, v);                                                          \
      return v;                                                                       \
   }                                                                                  \
   /* Inserts a child made elsewhere (a replayed creation) under its key. */          \
   void kelInsert##Name(Key const & k, ::Kel::Ptr<T> const & v) {                     \
      if (auto * m = name##_.find(k); m && m->value == v) return;                     \
      kelCheckWritable();                                                             \
      ::Kel::checkNoCycle(this, v.ptr());                                             \
      v->parentIs(this);                                                              \
      if (auto * m = name##_.find(k)) {                                               \
         kelDetach(m->value);                                                         \
         m->value = v;                                                                \
      } else {                                                                        \
         name##_.insert(k, v);                                                        \
      }                                                                               \
      kelModified();                                                                  \
      name##Notify(k);                                                                \
   }                                                                                  \
   /* Finds the child for the key or constructs it; a differing further */            \
   /* constructor argument is refused. */                                             \
   template <class... A>                                                              \
   ::Kel::Ptr<T> name##Is(Key const & k, A const &... a) {                            \
      if (auto * m = name##_.find(k)) {                                               \
         ::Kel::checkReinstantiate(*m->value, a...);                                  \
         return m->value;                                                             \
      }                                                                               \
      return new##Name(k, a...);                                                      \
   }

#define KEL_EA_API_Derived(...)
#define KEL_EA_API_Const(name, Name, Type, value) \
   static constexpr Type name() { return value; }
#define KEL_EA_API_Hook(...)

// ---- the pattern ------------------------------------------------------------------------------
#define KEL_ENTITY(Type, Base, QualName, ATTRS)                                       \
 public:                                                                              \
   using KelSelf = Type;                                                              \
   using KelBase = Base;                                                              \
   using Ptr = ::Kel::Ptr<Type>;                                                      \
   using PtrConst = ::Kel::Ptr<Type const>;                                           \
   static constexpr const char * kelTypeName = QualName;                              \
   static constexpr uint8_t kelDepth = Base::kelDepth + 1;                            \
   enum : ::Kel::AttributeId {                                                        \
      kelAttrBegin_ = Base::kelAttrEnd - 1,                                           \
      ATTRS(KEL_EA_ID_) kelAttrEndMarker_                                             \
   };                                                                                 \
   static constexpr ::Kel::AttributeId kelAttrEnd = kelAttrEndMarker_;                \
   /* This type's own attributes, in identifier order. */                              \
   static constexpr ::Kel::AttrInfo kelAttrs[] = {                                    \
       ATTRS(KEL_EA_INFO_)::Kel::AttrInfo{nullptr, 0, ::Kel::AttrKind::Hook}};        \
   static constexpr uint32_t kelAttrCount = sizeof kelAttrs / sizeof kelAttrs[0] - 1;  \
   static constexpr auto kelCtorFields() {                                            \
      return std::tuple_cat(std::tuple<>() ATTRS(KEL_EA_CTORF_));                     \
   }                                                                                  \
   /* Reflection: this type's own attribute descriptors, and its type object. */       \
   static std::vector<::Kel::AttrDesc> kelAttrDescs() {                               \
      std::vector<::Kel::AttrDesc> v;                                                 \
      ATTRS(KEL_EA_DESC_)                                                             \
      return v;                                                                       \
   }                                                                                  \
   KEL_TYPE_OBJECT_(GenericEntity, makeEntityType)                                    \
   /* The attribute-log adapter of every entity: the one generic writer adapter. */  \
   using KelNboAttrLogSa = ::Kel::NboAttrLog::EntityAdapter;                          \
   ::Kel::KelType const * fwkType() const override { return _fwkType(); }            \
   ::Kel::Ptr<::Kel::Entity> kelChildNamed(std::string_view n) const override {       \
      ATTRS(KEL_EA_CHILD_)                                                            \
      return Base::kelChildNamed(n);                                                  \
   }                                                                                  \
   void kelForEachChild(void (*fn)(void *, ::Kel::Entity *), void * ctx) const override { \
      Base::kelForEachChild(fn, ctx);                                                 \
      ATTRS(KEL_EA_EACH_)                                                             \
   }                                                                                  \
   bool kelHasChildren() const override {                                             \
      ATTRS(KEL_EA_HAS_)                                                              \
      return Base::kelHasChildren();                                                  \
   }                                                                                  \
   class NotifieeConst : public Base::NotifieeConst {                                 \
    public:                                                                           \
      using Ptr = ::Kel::Ptr<NotifieeConst>;                                          \
      static constexpr uint8_t kelTypeDepth = Type::kelDepth;                         \
      NotifieeConst() { this->kelDepthIs(kelTypeDepth); }                             \
      ::Kel::Ptr<Type const> notifier() const {                                       \
         return static_cast<Type const *>(this->kelNotifierRaw());                   \
      }                                                                               \
      void notifierIs(::Kel::Ptr<Type const> const & e) { this->kelNotifierIs(e.ptr()); } \
      ATTRS(KEL_EA_CB_)                                                               \
   };                                                                                 \
   class Notifiee : public NotifieeConst {                                            \
    public:                                                                           \
      ::Kel::Ptr<Type> notifier() const {                                             \
         return static_cast<Type *>(this->kelNotifierRaw());                         \
      }                                                                               \
      void notifierIs(::Kel::Ptr<Type> const & e) { this->kelNotifierIs(e.ptr()); }  \
   };                                                                                 \
   ATTRS(KEL_EA_MEMBER_)                                                              \
   /* Children outlive nothing by accident: their back pointers are cleared. */       \
   ~Type() override { ATTRS(KEL_EA_DETACH_) }                                         \
                                                                                      \
 private:                                                                             \
   ATTRS(KEL_EA_STORE_)                                                               \
   static ::Kel::String8 kelQualifiedAttr(const char * attr) {                        \
      return ::Kel::String8(kelTypeName) + "." + attr;                                \
   }                                                                                  \
                                                                                      \
 public:                                                                              \
   ATTRS(KEL_EA_API_)

// ---- factories -------------------------------------------------------------------------------
// Every entity type has a factory, named after the type with a lower-case
// first letter and "Factory" (IntfStatusDir: intfStatusDirFactory), made by
//
//    KEL_FACTORY(intfStatusDirFactory, IntfStatusDir)
//
// at namespace scope after the type's class, in the type's namespace. It
// defines
//
//    template <class... A> Kel::Ptr<IntfStatusDir> intfStatusDirFactory(A &&... a)
//
// which takes the arguments of a public constructor (creation by type name
// uses one of them: the Ctor rows, the name, or the name then the rows) and
// no others, and records the factory's name for the type object, which
// learns it when the type is registered (Kel::registerTypes). A factory
// written by hand, because it does more than construct, is named the same
// way with KEL_FACTORY_NAME(factoryName, Type).
#define KEL_FACTORY_NAME(factoryName, Type)                                           \
   [[maybe_unused]] constexpr const char * kelFactoryName(::Kel::TypeTag<Type>) {     \
      return #factoryName;                                                            \
   }                                                                                  \
   static_assert(std::is_base_of_v<::Kel::Entity, Type>, #Type " is not an entity type")

#define KEL_FACTORY(factoryName, Type)                                                \
   template <class... A>                                                              \
      requires std::is_constructible_v<Type, A...>                                    \
   inline ::Kel::Ptr<Type> factoryName(A &&... a) {                                   \
      return ::Kel::Ptr<Type>(new Type(std::forward<A>(a)...));                       \
   }                                                                                  \
   KEL_FACTORY_NAME(factoryName, Type)

#include <Kel/AttrValueKinds.h>
