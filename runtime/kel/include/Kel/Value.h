// Value types and enumerations, declared once as a table.
//
// A value type is a record whose fields are listed in one macro table:
//
//    #define KEL_FIELDS_LoadInterval(F)
//       F(Field, useDefault, bool, true)
//       F(Field, val, Seconds, 300.0)
//       F(Const, minVal, Seconds, 5.0)
//
//    struct LoadInterval {
//       KEL_VALUE_TYPE(LoadInterval, "Interface::LoadInterval", KEL_FIELDS_LoadInterval)
//    };
//    KEL_VALUE_FUNCS(LoadInterval)
//
// From that the record gets storage, accessors x() and mutators xIs(v),
// named constants, equality, the parsing constructor, and a compile-time
// field list (kelFields()) that one generic walker uses for the text form,
// and that the attribute log and reflection walk as well. A record may add a
// range check by declaring `void kelCheck() const`.
//
// Enumerations are declared the same way with KEL_ENUM.
#pragma once

#include <Kel/Concepts.h>
#include <Kel/Exception.h>
#include <Kel/GenericIf.h>
#include <Kel/NboAttrLog.h>
#include <Kel/Reflect.h>
#include <Kel/Text.h>

#include <cstdint>
#include <ostream>
#include <tuple>
#include <type_traits>

namespace Kel {

// Accessors return scalars by value and everything else by reference.
template <class T>
using Ret = std::conditional_t<std::is_scalar_v<T>, T, T const &>;

// "Interface::IntfStatus::OperStatusChange" -> "OperStatusChange".
constexpr const char * shortTypeName(const char * q) {
   const char * s = q;
   for (const char * p = q; *p; ++p) {
      if (p[0] == ':' && p[1] == ':') s = p + 2;
   }
   return s;
}

template <class C, class T>
struct FieldDesc {
   using Type = T;
   const char * name;
   T C::*member;
   AttributeId id;
};

template <class T>
struct ConstDesc {
   using Type = T;
   const char * name;
   T value;
   AttributeId id;
};


// A record may print itself in a form of its own (kelPrint) while still
// parsing the generic form.
template <class V>
concept HasPrint = requires(V const & v, String8 & s) { v.kelPrint(s); };

// A name the parser accepts and discards (a Derived row of a record).
template <class T>
struct IgnoredDesc {
   using Type = T;
   const char * name;
};

// Equality of two records: fields in declaration order, first difference
// decides. Doubles use ==, so a NaN field makes a record unequal to itself.
template <class V>
bool valueEquals(V const & a, V const & b) {
   return std::apply(
       [&](auto const &... f) { return ((a.*(f.member) == b.*(f.member)) && ...); },
       V::kelFields());
}

template <class V>
void printValue(String8 & out, V const & v) {
   std::string & o = out.str();
   o += "Value('";
   o += V::kelTypeName;
   o += "', ** {";
   bool first = true;
   std::apply(
       [&](auto const &... f) {
          (([&] {
              if (!first) o += ", ";
              first = false;
              o += '\'';
              o += f.name;
              o += "': ";
              Text<typename std::decay_t<decltype(f)>::Type>::print(out, v.*(f.member));
           }()),
           ...);
       },
       V::kelFields());
   o += "})";
}

namespace detail {

// Reads the quoted attribute name of a record field. Plain names (no
// escapes) come back as a view into the text, without a copy.
std::string_view readAttrName(TextIt & it, TextIt end, String8 & scratch);
void parseValueHeader(TextIt & it, TextIt end, const char * typeName);
[[noreturn]] void throwNoSuchAttr(const char * shortName, std::string_view name);
[[noreturn]] void throwPrematureEnd(const char * shortName);

template <class V, class F>
bool parseField(V & v, F const & f, std::string_view name, TextIt & it, TextIt end) {
   if (name != f.name) return false;
   deserializeAttr(it, end, &(v.*(f.member)), f.name);
   return true;
}

template <class F>
bool skipField(F const & f, std::string_view name, TextIt & it, TextIt end) {
   if (name != f.name) return false;
   typename F::Type ignored{};
   deserializeAttr(it, end, &ignored, f.name);
   return true;
}

} // namespace detail

// Parses "Value('<type>', ** {'a': ..., 'b': ...})". Fields may come in any
// order; a name given twice keeps the later value; fields not named keep
// their defaults.
template <class V>
void parseValue(V & v, TextIt & it, TextIt end) {
   try {
      detail::parseValueHeader(it, end, V::kelTypeName);
      String8 scratch;
      if (!acceptChar(it, end, '}')) {
         for (;;) {
            std::string_view name = detail::readAttrName(it, end, scratch);
            needString(it, end, ":");
            bool found = std::apply(
                [&](auto const &... f) {
                   return (detail::parseField(v, f, name, it, end) || ...);
                },
                V::kelFields());
            if (!found) {
               found = std::apply(
                   [&](auto const &... f) { return (detail::skipField(f, name, it, end) || ...); },
                   V::kelIgnored());
            }
            if (!found) detail::throwNoSuchAttr(V::kelShortName, name);
            if (acceptChar(it, end, ',')) {
               if (acceptChar(it, end, '}')) break;
               continue;
            }
            needString(it, end, "}");
            break;
         }
      }
      needString(it, end, ")");
   } catch (PrematureEndException const & e) {
      if (e.generic()) detail::throwPrematureEnd(V::kelShortName);
      throw;
   }
   if constexpr (HasCheck<V>) v.kelCheck();
}

template <ValueType V>
struct Text<V> {
   static void print(String8 & out, V const & v) {
      if constexpr (HasPrint<V>) {
         v.kelPrint(out);
      } else {
         printValue(out, v);
      }
   }
   static void parse(TextIt & it, TextIt end, V * v) {
      *v = V();
      parseValue(*v, it, end);
   }
};

// --- enumerations -------------------------------------------------------------


String8 enumString(EnumInfo const & info, uint32_t v);
uint32_t enumCheck(EnumInfo const & info, uint32_t v);
uint32_t enumFromName(EnumInfo const & info, std::string_view name);

template <Enumeration E>
struct Text<E> {
   static void print(String8 & out, E v) {
      out += '\'';
      out += enumString(kelEnumInfo(E{}), uint32_t(v));
      out += '\'';
   }
   static void parse(TextIt & it, TextIt end, E * v) {
      String8 name;
      parseQuoted(it, end, &name);
      *v = E(enumFromName(kelEnumInfo(E{}), name.view()));
   }
};

} // namespace Kel

// The reflection wrapper and the type object of every declared type (records
// and entities alike), made on first use.
#define KEL_TYPE_OBJECT_(Wrapper, maker)                                              \
   using GenericIf_ = ::Kel::Wrapper<KelSelf>;                                        \
   static ::Kel::KelType const * _fwkType() {                                         \
      static ::Kel::KelType const * t = ::Kel::maker<KelSelf>();                      \
      return t;                                                                       \
   }

// ---- value type pattern -------------------------------------------------------------

#define KEL_VF_STORAGE_Field(name, Type, dflt) Type name##_ = dflt;
#define KEL_VF_STORAGE_Const(name, Type, value)
#define KEL_VF_STORAGE_Derived(name, Type)
#define KEL_VF_STORAGE_Call(name)
#define KEL_VF_STORAGE_(kind, ...) KEL_VF_STORAGE_##kind(__VA_ARGS__)

#define KEL_VF_ACCESS_Field(name, Type, dflt)                                         \
   ::Kel::Ret<Type> name() const { return name##_; }                                  \
   void name##Is(Type const & v) { name##_ = v; }
#define KEL_VF_ACCESS_Const(name, Type, value) static constexpr Type name = value;
#define KEL_VF_ACCESS_Derived(name, Type)
#define KEL_VF_ACCESS_Call(name)
#define KEL_VF_ACCESS_(kind, ...) KEL_VF_ACCESS_##kind(__VA_ARGS__)

#define KEL_VF_DESC_Field(name, Type, dflt) \
   , std::make_tuple(::Kel::FieldDesc<KelSelf, Type>{#name, &KelSelf::name##_, kelId_##name})
#define KEL_VF_DESC_Const(name, Type, value)
#define KEL_VF_DESC_Derived(name, Type)
#define KEL_VF_DESC_Call(name)
#define KEL_VF_DESC_(kind, ...) KEL_VF_DESC_##kind(__VA_ARGS__)

#define KEL_VF_CONST_Field(name, Type, dflt)
#define KEL_VF_CONST_Const(name, Type, value) \
   , std::make_tuple(::Kel::ConstDesc<Type>{#name, value, kelId_##name})
#define KEL_VF_CONST_Derived(name, Type)
#define KEL_VF_CONST_Call(name)
#define KEL_VF_CONST_(kind, ...) KEL_VF_CONST_##kind(__VA_ARGS__)

#define KEL_VF_IGNORED_Field(name, Type, dflt)
#define KEL_VF_IGNORED_Const(name, Type, value)
#define KEL_VF_IGNORED_Derived(name, Type) , std::make_tuple(::Kel::IgnoredDesc<Type>{#name})
#define KEL_VF_IGNORED_Call(name)
#define KEL_VF_IGNORED_(kind, ...) KEL_VF_IGNORED_##kind(__VA_ARGS__)

// Reflection of the rows that are neither fields nor constants.
#define KEL_VF_EXTRA_Field(name, Type, dflt)
#define KEL_VF_EXTRA_Const(name, Type, value)
// Name, identifier, kind and flags of an attribute descriptor `d`.
#define KEL_DESC_ID_(an, ak, af)                                                      \
   d.name = #an;                                                                      \
   d.id = kelId_##an;                                                                 \
   d.kind = ::Kel::AttrKind::ak;                                                      \
   d.flags = af;
#define KEL_VF_EXTRA_Derived(an, Type)                                                \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_DESC_ID_(an, Derived, ::Kel::attrDerived)                                   \
      d.valueType = &::Kel::typeOf<Type>;                                             \
      d.get = [](void const * o) {                                                    \
         return ::Kel::toGeneric(static_cast<KelSelf const *>(o)->an());              \
      };                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_VF_EXTRA_Call(an)                                                         \
   {                                                                                  \
      ::Kel::AttrDesc d;                                                              \
      KEL_DESC_ID_(an, Hook, ::Kel::attrOperation)                                    \
      d.call = [](void *, ::Kel::GenericIf const & args) {                            \
         return ::Kel::invokeGeneric(&KelSelf::an, args, #an);                        \
      };                                                                              \
      v.push_back(d);                                                                 \
   }
#define KEL_VF_EXTRA_(kind, ...) KEL_VF_EXTRA_##kind(__VA_ARGS__)

#define KEL_VF_ID_(kind, name, ...) kelId_##name,

#define KEL_VALUE_TYPE(Type, QualName, FIELDS)                                        \
 public:                                                                              \
   using KelSelf = Type;                                                              \
   static constexpr bool kelIsValueType = true;                                       \
   static constexpr const char * kelTypeName = QualName;                              \
   static constexpr const char * kelShortName = ::Kel::shortTypeName(QualName);       \
   FIELDS(KEL_VF_ACCESS_)                                                             \
   Type() = default;                                                                  \
   Type(::Kel::String8::IteratorConst & it, ::Kel::String8::IteratorConst const & end) \
   {                                                                                  \
      ::Kel::parseValue(*this, it, end);                                              \
   }                                                                                  \
   bool operator==(Type const & o) const { return ::Kel::valueEquals(*this, o); }     \
   bool operator!=(Type const & o) const { return !(*this == o); }                    \
   /* Attribute identifiers: table order from 258, constants included. */            \
   enum : ::Kel::AttributeId { kelAttrBegin_ = 257, FIELDS(KEL_VF_ID_) kelAttrEnd_ };   \
   static constexpr auto kelFields() { return std::tuple_cat(std::tuple<>() FIELDS(KEL_VF_DESC_)); } \
   static constexpr auto kelConsts() { return std::tuple_cat(std::tuple<>() FIELDS(KEL_VF_CONST_)); } \
   static constexpr auto kelIgnored() {                                                \
      return std::tuple_cat(std::tuple<>() FIELDS(KEL_VF_IGNORED_));                   \
   }                                                                                   \
   static std::vector<::Kel::AttrDesc> kelExtraDescs() {                               \
      std::vector<::Kel::AttrDesc> v;                                                  \
      FIELDS(KEL_VF_EXTRA_)                                                            \
      return v;                                                                        \
   }                                                                                   \
   KEL_TYPE_OBJECT_(GenericValue, makeValueType)                                      \
   /* The attribute-log encoding of the record, made from its field list. */          \
   using KelNboAttrLogSa = ::Kel::NboAttrLog::Nbo<KelSelf, void>;                     \
                                                                                      \
 private:                                                                             \
   FIELDS(KEL_VF_STORAGE_)                                                            \
                                                                                      \
 public:

// Namespace-scope companions of a value type: text form and stream output.
#define KEL_VALUE_FUNCS(Type)                                                         \
   inline ::Kel::String8 valueToStrep(Type const & v) { return ::Kel::valueToStrep(v); } \
   inline std::ostream & operator<<(std::ostream & os, Type const & v) {              \
      return os << valueToStrep(v);                                                   \
   }

// ---- enumeration pattern -------------------------------------------------------------

#define KEL_ENUM_DECL_(name, value) name = value,
#define KEL_ENUM_ENTRY_(name, value) ::Kel::EnumEntry{value, #name},

// Declares `enum class Name : uint32_t` with its text form and checked
// conversions NameInstance(unsigned) and NameInstance(String8).
#define KEL_ENUM(Name, QualName, VALUES)                                              \
   enum class Name : uint32_t { VALUES(KEL_ENUM_DECL_) };                             \
   inline ::Kel::EnumInfo const & kelEnumInfo(Name) {                                 \
      static constexpr ::Kel::EnumEntry entries[] = {VALUES(KEL_ENUM_ENTRY_)};        \
      static constexpr ::Kel::EnumInfo info{                                          \
          #Name, QualName, entries, uint32_t(sizeof entries / sizeof entries[0])};    \
      return info;                                                                    \
   }                                                                                  \
   inline ::Kel::KelType const * _fwkType_##Name() {                                  \
      static ::Kel::KelType const * t =                                               \
          ::Kel::makeEnumType(kelEnumInfo(Name{}), sizeof(Name));                     \
      return t;                                                                       \
   }                                                                                  \
   inline ::Kel::KelType const * kelFwkType(Name) { return _fwkType_##Name(); }       \
   inline ::Kel::String8 stringValue(Name v) {                                        \
      return ::Kel::enumString(kelEnumInfo(v), uint32_t(v));                          \
   }                                                                                  \
   inline ::Kel::String8 valueToStrep(Name v) { return ::Kel::valueToStrep(v); }      \
   inline Name Name##Instance(unsigned v) {                                           \
      return Name(::Kel::enumCheck(kelEnumInfo(Name{}), v));                          \
   }                                                                                  \
   inline Name Name##Instance(::Kel::String8 const & s) {                             \
      return Name(::Kel::enumFromName(kelEnumInfo(Name{}), s.view()));                \
   }                                                                                  \
   inline void sequenceToValue(::Kel::TextIt & it, ::Kel::TextIt end, Name * v) {     \
      ::Kel::sequenceToValue(it, end, v);                                             \
   }                                                                                  \
   inline std::ostream & operator<<(std::ostream & os, Name v) {                      \
      return os << stringValue(v);                                                    \
   }
