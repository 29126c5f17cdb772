// Type objects: one per type, created on first use and kept for the life of
// the process. A type object knows its qualified name, its base, its
// attributes (with type-erased operations that reflection uses) and how to
// make an instance from generic constructor arguments. Registering a type's
// name (typeNodeIs) makes it findable by name.
#pragma once

#include <Kel/Exception.h>
#include <Kel/Ptr.h>
#include <Kel/String8.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Kel {

using AttributeId = uint32_t;
class GenericIf;
class GenericIterator;
namespace NboAttrLog {
class Out;
class In;
class RefCodec;
class EntityAdapter;
template <class T, class Enable>
struct Nbo;
} // namespace NboAttrLog
class Entity;
class KelType;
// The kinds of attribute rows (see Attr.h).
enum class AttrKind : uint8_t {
   Ctor, Scalar, Ptr, WriteOnce, Local, Cache, InstChild, Coll, EntColl, RefColl, InstColl,
   Derived, Const, Hook,
   VScalar, Memo, Mutable,  // Kel/AttrValueKinds.h
   Cell,                    // Brik/ShmemCounter.h: a counter in a shared-memory cell
   Table                    // Smash/TableColl.h: rows of a shared-memory table
};

// Attribute flags, as the introspection walk reports them.
enum AttrFlags : uint32_t {
   attrCollection = 1 << 0,
   attrWritable = 1 << 1,
   attrNotifying = 1 << 2,
   attrInstantiating = 1 << 3,  // the type constructs the attribute's entities itself
   attrConstant = 1 << 4,
   attrDerived = 1 << 5,
   attrCtorParam = 1 << 6,
   attrLocal = 1 << 7,          // process-local: never replicated, never notified
   attrOperation = 1 << 8,      // a callable operation, not a value
};

// A place in a collection for a stream that sends it member by member.
struct CollCursor {
   virtual ~CollCursor() = default;
   // Encodes the next member's key; false past the last member.
   virtual bool next(NboAttrLog::Out & key) = 0;
};

// The type-erased operations of one attribute. An operation the attribute
// does not support is null.
struct AttrDesc {
   const char * name = nullptr;
   AttributeId id = 0;
   AttrKind kind{};
   uint32_t flags = 0;
   KelType const * (*valueType)() = nullptr;  // of the value, or of a collection's values
   KelType const * (*keyType)() = nullptr;    // collections only
   Ptr<GenericIf> (*get)(void const * obj) = nullptr;
   void (*set)(void * obj, GenericIf const & v) = nullptr;
   Ptr<GenericIf> (*index)(void const * obj, GenericIf const & key) = nullptr;
   void (*indexSet)(void * obj, GenericIf const & key, GenericIf const & v) = nullptr;
   void (*del)(void * obj, GenericIf const & key) = nullptr;
   Ptr<GenericIterator> (*iterate)(void const * obj) = nullptr;
   // Collections: a key as notifications pass it (a pointer to the key type).
   Ptr<GenericIf> (*keyToGeneric)(void const * key) = nullptr;
   // Operations (static functions reachable by name): arguments as a list.
   Ptr<GenericIf> (*call)(void * obj, GenericIf const & args) = nullptr;

   // Replication; null for attributes that do not replicate. A replicated
   // attribute has a dirty bit: set logSet (one per type level), bit logBit.
   uint8_t logSet = 0;
   uint8_t logBit = 0;
   // Scalars: write the current value; read a value and apply it.
   void (*logWrite)(void const * obj, NboAttrLog::Out &, NboAttrLog::RefCodec *) = nullptr;
   void (*logRead)(void * obj, NboAttrLog::In &, NboAttrLog::RefCodec *) = nullptr;
   // Collections: encode a key given by a notification; write one member
   // (key, present, value) for an encoded key; read one and apply it
   // (insert, change or delete); write and read the whole collection.
   void (*logEncodeKey)(void const * key, NboAttrLog::Out &) = nullptr;
   void (*logWriteMember)(void const * obj, NboAttrLog::In & key, NboAttrLog::Out &,
                          NboAttrLog::RefCodec *) = nullptr;
   void (*logReadMember)(void * obj, NboAttrLog::In &, NboAttrLog::RefCodec *) = nullptr;
   void (*logWriteAll)(void const * obj, NboAttrLog::Out &, NboAttrLog::RefCodec *) = nullptr;
   void (*logReadAll)(void * obj, NboAttrLog::In &, NboAttrLog::RefCodec *) = nullptr;
   std::unique_ptr<CollCursor> (*logCursor)(void const * obj) = nullptr;
   bool replicated() const { return logWrite || logWriteAll; }
};

class KelType {
 public:
   enum class Kind : uint8_t { builtin, enumeration, value, entity };

   KelType(const char * name, Kind kind, KelType const * base, size_t size)
         : name_(name), kind_(kind), base_(base), size_(size) {}
   KelType(KelType const &) = delete;
   KelType & operator=(KelType const &) = delete;

   String8 const & name() const { return name_; }
   Kind kind() const { return kind_; }
   KelType const * base() const { return base_; }
   size_t size() const { return size_; }
   void sizeIs(size_t s) { size_ = s; }
   uint32_t typeFlags() const { return flags_; }
   void typeFlagsIs(uint32_t f) { flags_ = f; }
   // True when this type is `t` or derives from it.
   bool isA(KelType const * t) const;

   // Registers the type under its qualified name; the name must be the one
   // it was created with. Registering twice is harmless.
   void typeNodeIs(String8 const & qualifiedName) const;
   bool registered() const { return registered_; }

   // Entities: the name of the function that makes this type in code (see
   // KEL_FACTORY in Attr.h), recorded when the type is registered; empty
   // for a type that names none.
   String8 const & factoryName() const { return factoryName_; }
   void factoryNameIs(String8 const & n) const { factoryName_ = n; }

   // Attributes in identifier order, base type's first.
   std::vector<AttrDesc> const & attributes() const { return attrs_; }
   // Identifiers are consecutive, so the look-up by identifier is an index.
   AttrDesc const * attribute(AttributeId id) const {
      if (AttrDesc const * d = attributeAtIndex(id)) return d;
      return attributeSlow(id);
   }
   // The index alone, null when the attribute is not at its place (then
   // attribute(id) searches): for paths that must call nothing else.
   AttrDesc const * attributeAtIndex(AttributeId id) const {
      if (attrs_.empty()) return nullptr;
      AttrDesc const * b = attrs_.data();
      // Bounded by byte distance, which needs no division by the
      // descriptor's size; 32-bit offsets cannot overflow the product.
      uint32_t i = id - b->id;
      size_t bytes = reinterpret_cast<char const *>(b + attrs_.size()) -
                     reinterpret_cast<char const *>(b);
      return size_t(i) * sizeof(AttrDesc) < bytes && b[i].id == id ? &b[i] : nullptr;
   }
   // Small types are searched in line (lengths first, then bytes); larger
   // ones through a hash of the name.
   AttrDesc const * attribute(std::string_view name) const {
      size_t n = name.size();
      if (!byName_.empty() || names_.size() != attrs_.size() || n == 0) {
         return attributeByNameSlow(name);
      }
      for (size_t i = 0; i < names_.size(); ++i) {
         std::string_view a = names_[i];
         if (a.size() == n && sameBytes(a.data(), name.data(), n)) return &attrs_[i];
      }
      return nullptr;
   }
   // Equal bytes, for short names without a loop or a call: the first and
   // last words (overlapping when the name is shorter than two).
   static bool sameBytes(char const * a, char const * b, size_t n) {
      auto word = [](char const * p, auto w) {
         std::memcpy(&w, p, sizeof w);
         return w;
      };
      if (n >= 8 && n <= 16) {
         return word(a, uint64_t()) == word(b, uint64_t()) &&
                word(a + n - 8, uint64_t()) == word(b + n - 8, uint64_t());
      }
      if (n >= 4 && n < 8) {
         return word(a, uint32_t()) == word(b, uint32_t()) &&
                word(a + n - 4, uint32_t()) == word(b + n - 4, uint32_t());
      }
      return std::memcmp(a, b, n) == 0;
   }
   // Builds the look-up by name; the type's maker calls it once the
   // attributes are complete.
   void attributesDone();
   std::vector<String8> const & constructorArgNames() const { return ctorArgNames_; }
   std::vector<KelType const *> const & constructorArgTypes() const { return ctorArgTypes_; }

   // Makes an instance from generic constructor arguments (a GenericIf::List);
   // null when the type cannot be instantiated that way.
   std::function<Ptr<GenericIf>(GenericIf const & args)> newInstance;
   // Entities only: the same, returning the entity.
   std::function<Ptr<Entity>(GenericIf const & args)> newEntity;

   // Replication of creation: the constructor arguments, and a new entity
   // made from them.
   void (*logWriteCtor)(Entity const *, NboAttrLog::Out &, NboAttrLog::RefCodec *) = nullptr;
   Ptr<Entity> (*logNewEntity)(NboAttrLog::In &, NboAttrLog::RefCodec *) = nullptr;
   // Number of dirty-bit sets (type levels) of this type.
   uint8_t logSets = 0;

   // Filled by the type's maker, before the type object is published.
   std::vector<AttrDesc> attrs_;
   std::vector<String8> ctorArgNames_;
   std::vector<KelType const *> ctorArgTypes_;

 private:
   AttrDesc const * attributeSlow(AttributeId id) const;
   AttrDesc const * attributeByNameSlow(std::string_view name) const;
   std::unordered_map<std::string_view, uint32_t> byName_;
   // The attributes' names with their lengths, in attribute order: a
   // search compares lengths before bytes and never measures a name.
   std::vector<std::string_view> names_;
   String8 name_;
   Kind kind_;
   KelType const * base_;
   size_t size_;
   uint32_t flags_ = 0;
   mutable bool registered_ = false;
   mutable String8 factoryName_;
};

// Stands for type T in a call, so that a function declared for T (found
// by argument-dependent look-up in T's namespace) matches T exactly, never
// one of its bases.
template <class T>
struct TypeTag {};

// Registered types by qualified name; null when none.
KelType const * findType(std::string_view qualifiedName);
// Every registered type, in registration order.
std::vector<KelType const *> registeredTypes();

// Receives the description of each module's types at start-up, as a nested
// walk: namespace, type, attributes, scope exits.
class IntrospectionReactor {
 public:
   virtual ~IntrospectionReactor() = default;
   virtual void handleNameSpace(String8 const &) {}
   virtual void handleType(KelType const *, KelType const * /*base*/) {}
   virtual void handleAttr(String8 const &, KelType const *, uint32_t /*flags*/) {}
   virtual void handleAttrContextExit() {}
   virtual void handleScopeExit() {}
   // The reactor the modules describe themselves to. The default one keeps
   // the walk as indented text (schema()).
   static IntrospectionReactor & global();
   static void globalIs(IntrospectionReactor * r);
   // The schema text kept by the default reactor.
   static String8 schema();
};

// Runs the introspection walk for `types` (all of one namespace).
void describeTypes(String8 const & nameSpace, std::vector<KelType const *> const & types);

// Start-up log: module names in the order their initialisers ran.
void moduleInitializedIs(const char * module);
std::vector<String8> initializedModules();

// Names of built-in types ("bool", "U8".."U64", "S8".."S64", "double",
// "Kel::String8", ...). A library's own unit types specialise it too.
template <class T>
struct BuiltinName;
template <class T>
KelType const * builtinType();

} // namespace Kel
