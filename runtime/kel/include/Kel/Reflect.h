// Type objects of built-ins, enumerations, records and entities, built from
// the same declarations that give the types their accessors (kelFields(),
// the entity attribute table). It knows those declarations only through
// what they provide, so it sits below them: Value.h (records,
// enumerations) and Attr.h (entities) include it for their type objects.
#pragma once

#include <Kel/Concepts.h>
#include <Kel/GenericIf.h>
#include <Kel/NboAttrLog.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace Kel {

// ---- built-ins -------------------------------------------------------------------------------

#define KEL_BUILTIN_NAME_(T, n) \
   template <>                  \
   struct BuiltinName<T> {      \
      static constexpr const char * value = n; \
   };
KEL_BUILTIN_NAME_(bool, "bool")
KEL_BUILTIN_NAME_(uint8_t, "U8")
KEL_BUILTIN_NAME_(uint16_t, "U16")
KEL_BUILTIN_NAME_(uint32_t, "U32")
KEL_BUILTIN_NAME_(unsigned long, "U64")
KEL_BUILTIN_NAME_(unsigned long long, "U64")
KEL_BUILTIN_NAME_(int8_t, "S8")
KEL_BUILTIN_NAME_(int16_t, "S16")
KEL_BUILTIN_NAME_(int32_t, "S32")
KEL_BUILTIN_NAME_(long, "S64")
KEL_BUILTIN_NAME_(long long, "S64")
KEL_BUILTIN_NAME_(double, "double")
KEL_BUILTIN_NAME_(String8, "Kel::String8")
KEL_BUILTIN_NAME_(Name, "Kel::Name")

template <class T>
KelType const * builtinType() {
   static KelType const t(BuiltinName<T>::value, KelType::Kind::builtin, nullptr, sizeof(T));
   return &t;
}

template <class T>
KelType const * typeOf() {
   if constexpr (IsPtr<T>::value) {
      return typeOf<std::remove_const_t<typename IsPtr<T>::Target>>();
   } else if constexpr (Enumeration<T>) {
      return kelFwkType(T{});
   } else if constexpr (requires { T::_fwkType(); }) {
      return T::_fwkType();
   } else {
      return builtinType<T>();
   }
}

// Calls a static function with the values of a generic argument list.
template <class R, class... A>
GenericIf::Ptr invokeGeneric(R (*fn)(A...), GenericIf const & args, const char * name) {
   auto const * list = dynamic_cast<GenericIf::List const *>(&args);
   if (!list || list->items().size() != sizeof...(A)) GenericIf::throwUnknownArgException(name);
   return [&]<size_t... I>(std::index_sequence<I...>) {
      return toGeneric(fn(fromGeneric<std::decay_t<A>>(*list->items()[I], name)...));
   }(std::index_sequence_for<A...>{});
}

// The name of T's factory (KEL_FACTORY, KEL_FACTORY_NAME in Attr.h); null
// when T names none. A base type's factory does not count for T.
template <class T>
constexpr const char * factoryNameOf() {
   if constexpr (requires { kelFactoryName(TypeTag<T>{}); }) {
      return kelFactoryName(TypeTag<T>{});
   } else {
      return nullptr;
   }
}

// Start-up: registers one type's qualified name, and records the name of
// its factory.
template <class T>
void registerType() {
   KelType const * t = typeOf<T>();
   if (const char * f = factoryNameOf<T>()) t->factoryNameIs(f);
   t->typeNodeIs(t->name());
}

// Registers each type, in the order given.
template <class... T>
void registerTypes() {
   (registerType<T>(), ...);
}

// ---- records --------------------------------------------------------------------------------

template <class V, size_t I>
GenericIf::Ptr valueFieldGet(void const * o) {
   constexpr auto f = std::get<I>(V::kelFields());
   return toGeneric(static_cast<V const *>(o)->*(f.member));
}

// Writes one field: no effect when equal, else the record's range check
// runs on the would-be value before it is stored.
template <class V, size_t I>
void valueFieldSet(void * o, GenericIf const & g) {
   constexpr auto f = std::get<I>(V::kelFields());
   using T = typename decltype(f)::Type;
   V & v = *static_cast<V *>(o);
   T nv = fromGeneric<T>(g, f.name);
   if (v.*(f.member) == nv) return;
   V copy = v;
   copy.*(f.member) = nv;
   if constexpr (HasCheck<V>) copy.kelCheck();
   v = copy;
}

template <class V, size_t I>
GenericIf::Ptr valueConstGet(void const *) {
   constexpr auto c = std::get<I>(V::kelConsts());
   return toGeneric(c.value);
}

template <class V>
GenericIf::Ptr valueFromList(GenericIf const & args);

template <class V>
KelType const * makeValueType() {
   auto * t = new KelType(V::kelTypeName, KelType::Kind::value, nullptr, sizeof(V));
   constexpr auto fields = V::kelFields();
   constexpr auto consts = V::kelConsts();
   [&]<size_t... I>(std::index_sequence<I...>) {
      (t->attrs_.push_back(AttrDesc{
           std::get<I>(fields).name, std::get<I>(fields).id, AttrKind::Scalar, attrWritable,
           &typeOf<typename std::decay_t<decltype(std::get<I>(fields))>::Type>, nullptr,
           &valueFieldGet<V, I>, &valueFieldSet<V, I>}),
       ...);
   }(std::make_index_sequence<std::tuple_size_v<decltype(fields)>>{});
   [&]<size_t... I>(std::index_sequence<I...>) {
      (t->attrs_.push_back(AttrDesc{
           std::get<I>(consts).name, std::get<I>(consts).id, AttrKind::Const, attrConstant,
           &typeOf<typename std::decay_t<decltype(std::get<I>(consts))>::Type>, nullptr,
           &valueConstGet<V, I>}),
       ...);
   }(std::make_index_sequence<std::tuple_size_v<decltype(consts)>>{});
   for (AttrDesc const & d : V::kelExtraDescs()) t->attrs_.push_back(d);
   std::sort(t->attrs_.begin(), t->attrs_.end(),
             [](AttrDesc const & a, AttrDesc const & b) { return a.id < b.id; });
   t->newInstance = &valueFromList<V>;
   t->attributesDone();
   return t;
}

// Builds a record from a list of field values in declaration order. A
// shorter list leaves the remaining fields at their defaults.
template <class V>
GenericIf::Ptr valueFromList(GenericIf const & args) {
   auto const * list = dynamic_cast<GenericIf::List const *>(&args);
   if (!list) GenericIf::throwTypeException(V::kelShortName);
   constexpr auto fields = V::kelFields();
   constexpr size_t n = std::tuple_size_v<decltype(fields)>;
   if (list->items().size() > n) GenericIf::throwUnknownArgException(V::kelShortName);
   V v;
   [&]<size_t... I>(std::index_sequence<I...>) {
      ((I < list->items().size()
            ? void(v.*(std::get<I>(fields).member) =
                       fromGeneric<typename std::decay_t<decltype(std::get<I>(fields))>::Type>(
                           *list->items()[I], std::get<I>(fields).name))
            : void()),
       ...);
   }(std::make_index_sequence<n>{});
   if constexpr (HasCheck<V>) v.kelCheck();
   return GenericIf::Ptr(new GenericValue<V>(v));
}

// ---- enumerations ----------------------------------------------------------------------------

KelType const * makeEnumType(EnumInfo const & info, size_t size);

// ---- entities -----------------------------------------------------------------------------------

// Iterator over a collection attribute of an entity.
template <class It>
class CollGenericIterator : public GenericIterator {
 public:
   CollGenericIterator(Kel::Ptr<Entity> owner, It it, AttrDesc const * desc)
         : owner_(std::move(owner)), it_(std::move(it)), desc_(desc) {}
   bool nonNull() const override { return bool(it_); }
   GenericIf::Ptr iterKey() const override { return toGeneric(it_.key()); }
   GenericIf::Ptr iterObj() const override { return toGeneric(it_.value()); }
   void iterInc() override { ++it_; }
   // Removes the member under the iterator through the collection's
   // ordinary delete; the iterator can still be advanced.
   void iterDel() override {
      if (it_ && desc_->del) desc_->del(owner_.ptr(), *iterKey());
   }
   Kel::Ptr<GenericIterator> iterClone() const override {
      return Kel::Ptr<GenericIterator>(new CollGenericIterator(owner_, it_, desc_));
   }

 private:
   Kel::Ptr<Entity> owner_;
   It it_;
   AttrDesc const * desc_;
};

// Whether E is made from its name followed by its Ctor rows (and not from
// the rows alone): then the name travels before the rows.
template <class E, size_t... I>
constexpr bool namedCtorOf(std::index_sequence<I...>) {
   constexpr auto c = E::kelCtorFields();
   using Args = std::tuple<std::remove_const_t<typename std::decay_t<decltype(std::get<I>(c))>::Type>...>;
   return sizeof...(I) > 0 && !std::is_constructible_v<E, std::tuple_element_t<I, Args>...> &&
          std::is_constructible_v<E, Name, std::tuple_element_t<I, Args>...>;
}
template <class E>
constexpr bool namedCtor() {
   return namedCtorOf<E>(std::make_index_sequence<std::tuple_size_v<decltype(E::kelCtorFields())>>{});
}

// The constructor arguments of an entity type, and its factory from a
// generic list of them: the Ctor rows in order, or the name alone.
template <class E, size_t... I>
void entityFactories(KelType * t, std::index_sequence<I...>) {
   constexpr auto ctor = E::kelCtorFields();
   (t->ctorArgNames_.push_back(std::get<I>(ctor).name), ...);
   (t->ctorArgTypes_.push_back(
        typeOf<std::remove_const_t<typename std::decay_t<decltype(std::get<I>(ctor))>::Type>>()),
    ...);
   if constexpr (sizeof...(I) > 0 &&
                 std::is_constructible_v<
                     E, std::remove_const_t<
                            typename std::decay_t<decltype(std::get<I>(ctor))>::Type>...>) {
      t->newEntity = [](GenericIf const & args) -> Kel::Ptr<Entity> {
         auto const * list = dynamic_cast<GenericIf::List const *>(&args);
         constexpr auto c = E::kelCtorFields();
         if (!list || list->items().size() != sizeof...(I)) {
            GenericIf::throwUnknownArgException(E::kelTypeName);
         }
         return Kel::Ptr<Entity>(new E(fromGeneric<std::remove_const_t<
                                           typename std::decay_t<decltype(std::get<I>(c))>::Type>>(
             *list->items()[I], std::get<I>(c).name)...));
      };
   } else if constexpr (sizeof...(I) > 0 &&
                        std::is_constructible_v<
                            E, Name, std::remove_const_t<typename std::decay_t<
                                         decltype(std::get<I>(ctor))>::Type>...>) {
      // A constructor that takes the name before the Ctor rows.
      t->ctorArgNames_.insert(t->ctorArgNames_.begin(), "name");
      t->ctorArgTypes_.insert(t->ctorArgTypes_.begin(), typeOf<String8>());
      t->newEntity = [](GenericIf const & args) -> Kel::Ptr<Entity> {
         auto const * list = dynamic_cast<GenericIf::List const *>(&args);
         constexpr auto c = E::kelCtorFields();
         if (!list || list->items().size() != sizeof...(I) + 1) {
            GenericIf::throwUnknownArgException(E::kelTypeName);
         }
         return Kel::Ptr<Entity>(new E(Name(fromGeneric<String8>(*list->items()[0], "name")),
                                       fromGeneric<std::remove_const_t<
                                           typename std::decay_t<decltype(std::get<I>(c))>::Type>>(
                                           *list->items()[I + 1], std::get<I>(c).name)...));
      };
   } else if constexpr (sizeof...(I) == 0 && std::is_constructible_v<E, Name>) {
      t->newEntity = [](GenericIf const & args) -> Kel::Ptr<Entity> {
         auto const * list = dynamic_cast<GenericIf::List const *>(&args);
         if (!list || list->items().size() != 1) {
            GenericIf::throwUnknownArgException(E::kelTypeName);
         }
         return Kel::Ptr<Entity>(new E(Name(fromGeneric<String8>(*list->items()[0], "name"))));
      };
   }
}

template <class E>
KelType const * makeEntityType() {
   KelType const * base = E::KelBase::_fwkType();
   auto * t = new KelType(E::kelTypeName, KelType::Kind::entity, base, sizeof(E));
   t->attrs_ = base->attributes();
   // Dirty bits: one set per type level; bit 0 stays unused, the replicated
   // attributes take bits 1, 2, ... in declaration order (a collection's bit
   // is its has-synced bit).
   t->logSets = uint8_t(E::kelDepth);
   uint8_t bit = 1;
   for (AttrDesc d : E::kelAttrDescs()) {
      if (d.replicated()) {
         d.logSet = uint8_t(E::kelDepth - 1);
         d.logBit = bit++;
      }
      t->attrs_.push_back(d);
   }
   constexpr auto ctor = E::kelCtorFields();
   if constexpr (std::tuple_size_v<decltype(ctor)> > 0) {
      t->logWriteCtor = [](Entity const * e, NboAttrLog::Out & out, NboAttrLog::RefCodec * rc) {
         E const * self = static_cast<E const *>(e);
         if constexpr (namedCtor<E>()) out.putString(e->name().view());
         std::apply(
             [&](auto const &... f) {
                (NboAttrLog::Nbo<std::remove_const_t<typename std::decay_t<decltype(f)>::Type>>::
                     write(out, self->*(f.member), rc),
                 ...);
             },
             E::kelCtorFields());
      };
      t->logNewEntity = [](NboAttrLog::In & in, NboAttrLog::RefCodec * rc) -> Kel::Ptr<Entity> {
         return [&]<size_t... I>(std::index_sequence<I...>) -> Kel::Ptr<Entity> {
            constexpr auto c = E::kelCtorFields();
            // Arguments are read in order, before construction.
            [[maybe_unused]] Name name;
            if constexpr (namedCtor<E>()) name = Name(in.nextString());
            std::tuple<std::remove_const_t<typename std::decay_t<decltype(std::get<I>(c))>::Type>...>
                args{NboAttrLog::Nbo<std::remove_const_t<
                    typename std::decay_t<decltype(std::get<I>(c))>::Type>>::read(in, rc)...};
            if constexpr (namedCtor<E>()) {
               return Kel::Ptr<Entity>(new E(name, std::get<I>(args)...));
            } else if constexpr (std::is_constructible_v<E, decltype(std::get<I>(args))...>) {
               return Kel::Ptr<Entity>(new E(std::get<I>(args)...));
            } else {
               throwRangeException(String8("cannot construct ") + E::kelTypeName);
            }
         }(std::make_index_sequence<std::tuple_size_v<decltype(E::kelCtorFields())>>{});
      };
   } else if constexpr (std::is_constructible_v<E, Name>) {
      t->logWriteCtor = [](Entity const * e, NboAttrLog::Out & out, NboAttrLog::RefCodec *) {
         out.putString(e->name().view());
      };
      t->logNewEntity = [](NboAttrLog::In & in, NboAttrLog::RefCodec *) -> Kel::Ptr<Entity> {
         return Kel::Ptr<Entity>(new E(Name(in.nextString())));
      };
   }
   entityFactories<E>(t, std::make_index_sequence<std::tuple_size_v<decltype(ctor)>>{});
   t->attributesDone();
   if (t->newEntity) {
      t->newInstance = [t](GenericIf const & args) -> GenericIf::Ptr {
         return GenericIf::Ptr(new GenericEntity<Entity>(t->newEntity(args)));
      };
   }
   return t;
}

} // namespace Kel
