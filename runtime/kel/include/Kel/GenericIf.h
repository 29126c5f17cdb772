// Reflection: values, records and entities read, written, iterated and
// constructed by attribute name, without compile-time knowledge of the type.
//
// A GenericIf wraps one instance: Builtin<T> a built-in or enumeration
// value, GenericValue<V> a record (V::GenericIf_), GenericEntity<E> an entity
// (E::GenericIf_). Everything goes through the type object's attribute
// descriptors, so no type has reflection code of its own: a set through
// reflection calls the type's ordinary mutator.
#pragma once

#include <Kel/Entity.h>
#include <Kel/Text.h>
#include <Kel/Type.h>

#include <type_traits>
#include <typeinfo>
#include <vector>

namespace Kel {

struct AttributeOp {
   enum Id : uint8_t { get, set, index, indexSet, del, call };
   Id op;
   AttributeId attr;
};

class GenericIf : public PtrInterface {
 public:
   using Ptr = Kel::Ptr<GenericIf>;
   using PtrConst = Kel::Ptr<GenericIf const>;
   class List;
   class Result;

   explicit GenericIf(bool isConst = false) : const_(isConst) {}
   // Whether this wrapper was made for a const instance (and refuses writes).
   bool isConst() const { return const_; }

   virtual KelType const * type() const = 0;
   virtual String8 strRep() const = 0;
   virtual Ptr clone() const = 0;
   // The wrapped instance when `t` is its type (or a base of it), else null.
   virtual void const * voidPtrIs(KelType const * t) const;

   AttributeId attributeId(String8 const & name) const;
   // The one entry point for get, set, index, indexSet, delete and call.
   virtual void attributeOp(AttributeOp const & op, PtrConst const & arg,
                            Kel::Ptr<Result> const & result);
   virtual Kel::Ptr<GenericIterator> attributeIteratorConst(AttributeId id) const;

   // Conveniences over attributeOp.
   Ptr attribute(String8 const & name);
   void attributeIs(String8 const & name, PtrConst const & v);
   Ptr attributeAt(String8 const & name, PtrConst const & key);
   // The same by identifier, for callers that look the name up once
   // (attributeId) and then read or write many times; in line, so that
   // such a call costs the one virtual call of attributeOp.
   inline Ptr attribute(AttributeId id);
   inline void attributeIs(AttributeId id, PtrConst const & v);

   [[noreturn]] static void throwConstException(const char * text);
   [[noreturn]] static void throwTypeException(String8 const & attr);
   [[noreturn]] static void throwUnknownAttrException(String8 const & type, String8 const & attr);
   [[noreturn]] static void throwBadIndexAttrException(String8 const & attr);
   [[noreturn]] static void throwOpNotSupportedException(String8 const & attr, int opId, bool);
   [[noreturn]] static void throwUnknownArgException(String8 const & type);
   // Throws the type exception for `attr` unless `g` is of type `t`.
   static void checkValueType(GenericIf const & g, KelType const * t, const char * attr);

 protected:
   // The instance the descriptors operate on.
   virtual void * instance() const = 0;
   // attributeOp on a given type object and instance: wrappers that know
   // both without a virtual call override attributeOp with it.
   void attributeOpOn(KelType const * t, void * obj, AttributeOp const & op, PtrConst const & arg,
                      Kel::Ptr<Result> const & result);
   // The same with the common cases inline: a get, or a set on a writable
   // wrapper, of an attribute that supports it. Everything else, errors
   // included, goes to attributeOpOn.
   void attributeOpQuick(KelType const * t, void * obj, AttributeOp const & op,
                         PtrConst const & arg, Kel::Ptr<Result> const & result);

 private:
   bool const_;
};

// Box for the result of an attributeOp.
class GenericIf::Result : public PtrInterface {
 public:
   Ptr val() const { return v_; }
   void valIs(Ptr v) { v_ = std::move(v); }
   // The value, leaving the box empty.
   Ptr valTake() { return std::move(v_); }

 private:
   Ptr v_;
};

namespace detail {
// The get of attributeOpQuick, apart so that every path there ends in a
// tail call and the common cases save no registers.
[[gnu::noinline]] inline void attributeGetInto(GenericIf::Result & r, AttrDesc const * d,
                                               void const * obj) {
   r.valIs(d->get(obj));
}
} // namespace detail

inline void GenericIf::attributeOpQuick(KelType const * t, void * obj, AttributeOp const & op,
                                        PtrConst const & arg, Kel::Ptr<Result> const & result) {
   if (AttrDesc const * d = t->attributeAtIndex(op.attr)) {
      if (op.op == AttributeOp::set) {
         if (d->set && arg && !const_) return d->set(obj, *arg);
      } else if (op.op == AttributeOp::get && d->get && result) {
         return detail::attributeGetInto(*result, d, obj);
      }
   }
   return attributeOpOn(t, obj, op, arg, result);
}

namespace detail {
// A result box on the stack, with the one counted pointer handed to
// attributeOp. The pointer's reference is never dropped (it is released
// unchanged), so nothing can bring the count to zero and free the box.
struct StackResult {
   ~StackResult() { p.release(); }
   GenericIf::Result box;
   Kel::Ptr<GenericIf::Result> p{&box};
};
inline Kel::Ptr<GenericIf::Result> const noResult;
} // namespace detail

inline GenericIf::Ptr GenericIf::attribute(AttributeId id) {
   detail::StackResult r;
   attributeOp(AttributeOp{AttributeOp::get, id}, nullptr, r.p);
   return r.box.valTake();
}

inline void GenericIf::attributeIs(AttributeId id, PtrConst const & v) {
   attributeOp(AttributeOp{AttributeOp::set, id}, v, detail::noResult);
}

// A list of generic values (constructor arguments, call arguments).
class GenericIf::List : public GenericIf {
 public:
   List() = default;
   explicit List(std::vector<PtrConst> items) : items_(std::move(items)) {}
   std::vector<PtrConst> const & items() const { return items_; }
   void append(PtrConst v) { items_.push_back(std::move(v)); }
   KelType const * type() const override;
   String8 strRep() const override;
   Ptr clone() const override { return Ptr(new List(items_)); }

 protected:
   void * instance() const override { return nullptr; }

 private:
   std::vector<PtrConst> items_;
};

// Iterator over a collection attribute.
class GenericIterator : public PtrInterface {
 public:
   virtual bool nonNull() const = 0;
   virtual GenericIf::Ptr iterKey() const = 0;
   virtual GenericIf::Ptr iterObj() const = 0;
   virtual void iterInc() = 0;
   virtual void iterDel() = 0;
   virtual Kel::Ptr<GenericIterator> iterClone() const = 0;
};

// ---- type objects of built-ins, enumerations, records -----------------------------------------

template <class T>
KelType const * typeOf();

// ---- wrappers -------------------------------------------------------------------------------

// A built-in, enumeration or record value.
template <class T>
class GenericValue : public GenericIf {
 public:
   explicit GenericValue(T v, bool isConst = false) : GenericIf(isConst), v_(std::move(v)) {}
   T const & value() const { return v_; }
   void valIs(T const & v) {
      if (isConst()) throwConstException("attempting to modify a const instance");
      v_ = v;
   }
   KelType const * type() const override { return typeOf<T>(); }
   String8 strRep() const override { return valueToStrep(v_); }
   Ptr clone() const override { return Ptr(new GenericValue(v_, isConst())); }
   void const * voidPtrIs(KelType const * t) const override {
      return type()->isA(t) ? &v_ : nullptr;
   }
   void attributeOp(AttributeOp const & op, PtrConst const & arg,
                    Kel::Ptr<Result> const & result) override {
      attributeOpQuick(typeOf<T>(), &v_, op, arg, result);
   }

 protected:
   void * instance() const override { return const_cast<T *>(&v_); }

 private:
   T v_;
};

template <class T>
using Builtin = GenericValue<T>;

// Any entity wrapper, whatever its entity type.
class GenericEntityBase : public GenericIf {
 public:
   using GenericIf::GenericIf;
   virtual Entity * entityRaw() const = 0;
};

// An entity, held by a counted pointer.
template <class E>
class GenericEntity : public GenericEntityBase {
 public:
   explicit GenericEntity(Kel::Ptr<E> e, bool isConst = false)
         : GenericEntityBase(isConst), e_(std::move(e)),
           type_(e_ ? e_->fwkType() : E::_fwkType()) {}
   Kel::Ptr<E> const & entity() const { return e_; }
   Entity * entityRaw() const override { return e_.ptr(); }
   KelType const * type() const override { return type_; }
   void attributeOp(AttributeOp const & op, PtrConst const & arg,
                    Kel::Ptr<Result> const & result) override {
      attributeOpQuick(type_, static_cast<Entity *>(e_.ptr()), op, arg, result);
   }
   String8 strRep() const override { return e_ ? e_->fullName() : String8("None"); }
   Ptr clone() const override { return Ptr(new GenericEntity(e_, isConst())); }
   void const * voidPtrIs(KelType const * t) const override {
      return e_ && type()->isA(t) ? static_cast<Entity const *>(e_.ptr()) : nullptr;
   }

 protected:
   void * instance() const override { return static_cast<Entity *>(e_.ptr()); }

 private:
   Kel::Ptr<E> e_;
   // The entity's type, fixed for the wrapper's life (the entity is).
   KelType const * type_;
};

// ---- conversions between typed values and generic ones -----------------------------------

// Results of the built-in number and flag types come and go at every
// reflective read. Each thread keeps one box per such type: when nobody but
// the thread holds it, the next value goes into it instead of a new box, so
// a read and its release cost two count changes and no allocation or
// deletion. The boxes sit in one fixed array in initial-exec thread storage
// (a process that loads the library with dlopen has little of it to give).
// Under AddressSanitizer every value gets its own box, so that a use after
// release is still caught.
#if defined(__SANITIZE_ADDRESS__)
#define KEL_NO_SPARE_VALUES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEL_NO_SPARE_VALUES 1
#endif
#endif

namespace detail {
// The slot of T's spare box; -1 for types that have none.
template <class T>
constexpr int spareSlot = -1;
template <> inline constexpr int spareSlot<bool> = 0;
template <> inline constexpr int spareSlot<uint8_t> = 1;
template <> inline constexpr int spareSlot<uint16_t> = 2;
template <> inline constexpr int spareSlot<uint32_t> = 3;
template <> inline constexpr int spareSlot<unsigned long> = 4;
template <> inline constexpr int spareSlot<unsigned long long> = 5;
template <> inline constexpr int spareSlot<int8_t> = 6;
template <> inline constexpr int spareSlot<int16_t> = 7;
template <> inline constexpr int spareSlot<int32_t> = 8;
template <> inline constexpr int spareSlot<long> = 9;
template <> inline constexpr int spareSlot<long long> = 10;
template <> inline constexpr int spareSlot<double> = 11;
constexpr int spareSlots = 12;
// This thread's spare boxes (slot spareSlot<T> is a GenericValue<T>), each
// holding one reference.
extern constinit thread_local GenericIf * spareValues[spareSlots]
    __attribute__((tls_model("initial-exec")));
// Makes `fresh` the thread's spare in `slot` (dropping the previous one,
// which is still in use) and returns it; the spares are released when the
// thread ends.
GenericIf::Ptr spareValueIs(int slot, GenericIf * fresh);
} // namespace detail

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Kel::Ptr<T>> : std::true_type {
   using Target = T;
};

template <class T>
GenericIf::Ptr toGeneric(T const & v) {
   if constexpr (IsPtr<T>::value) {
      using E = std::remove_const_t<typename IsPtr<T>::Target>;
      return GenericIf::Ptr(
          new GenericEntity<E>(Kel::Ptr<E>(const_cast<E *>(v.ptr())), std::is_const_v<typename IsPtr<T>::Target>));
   } else {
#ifndef KEL_NO_SPARE_VALUES
      if constexpr (detail::spareSlot<T> >= 0) {
         GenericIf * s = detail::spareValues[detail::spareSlot<T>];
         if (s && s->references() == 1) {
            static_cast<GenericValue<T> *>(s)->valIs(v);
            return GenericIf::Ptr(s);
         }
         return detail::spareValueIs(detail::spareSlot<T>, new GenericValue<T>(v));
      }
#endif
      return GenericIf::Ptr(new GenericValue<T>(v));
   }
}

// The typed value of `g`, which must be of type T (entities: of a type
// derived from T's target, or a null entity).
template <class T>
T fromGeneric(GenericIf const & g, const char * attr) {
   if constexpr (IsPtr<T>::value) {
      using Target = typename IsPtr<T>::Target;
      auto const * e = dynamic_cast<GenericEntityBase const *>(&g);
      if (!e) GenericIf::throwTypeException(attr);
      Entity * raw = e->entityRaw();
      if (!raw) return T();
      auto * t = dynamic_cast<std::remove_const_t<Target> *>(raw);
      if (!t) GenericIf::throwTypeException(attr);
      return T(t);
   } else {
      // Only a GenericValue<T> reports T's type object; the wrapper's own
      // class is compared first, which needs no virtual call.
      if (typeid(g) != typeid(GenericValue<T>)) [[unlikely]] {
         GenericIf::checkValueType(g, typeOf<T>(), attr);
      }
      return static_cast<GenericValue<T> const &>(g).value();
   }
}

} // namespace Kel
