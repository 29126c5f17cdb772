#include <Kel/Attr.h>
#include <Kel/GenericIf.h>
#include <Kel/Type.h>

#include <map>
#include <mutex>

namespace Kel {

namespace {

struct Registry {
   std::mutex mutex;
   std::map<std::string, KelType const *, std::less<>> byName;
   std::vector<KelType const *> inOrder;
   std::vector<String8> modules;
};

Registry & registry() {
   static Registry * r = new Registry;  // never destroyed: types live until exit
   return *r;
}

} // namespace

bool KelType::isA(KelType const * t) const {
   for (KelType const * k = this; k; k = k->base_) {
      if (k == t) return true;
   }
   return false;
}

void KelType::typeNodeIs(String8 const & qualifiedName) const {
   if (qualifiedName != name_) {
      throwInternalException(String8("type ") + name_ + " registered as " + qualifiedName);
   }
   Registry & r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   if (registered_) return;
   auto [it, fresh] = r.byName.emplace(name_.str(), this);
   if (!fresh && it->second != this) {
      throwInternalException(String8("two types registered as ") + name_);
   }
   r.inOrder.push_back(this);
   registered_ = true;
}

AttrDesc const * KelType::attributeSlow(AttributeId id) const {
   for (auto const & a : attrs_) {
      if (a.id == id) return &a;
   }
   return nullptr;
}

void KelType::attributesDone() {
   byName_.clear();
   names_.clear();
   for (auto const & a : attrs_) names_.emplace_back(a.name ? a.name : "");
   // Small types are searched directly, which is faster than hashing.
   if (attrs_.size() <= 16) return;
   for (uint32_t i = 0; i < attrs_.size(); ++i) byName_.emplace(attrs_[i].name, i);
}

AttrDesc const * KelType::attributeByNameSlow(std::string_view name) const {
   if (!byName_.empty()) {
      auto it = byName_.find(name);
      return it == byName_.end() ? nullptr : &attrs_[it->second];
   }
   // No table: an empty name, or attributes not yet declared complete.
   if (name.empty()) return nullptr;
   for (auto const & a : attrs_) {
      if (a.name && name == a.name) return &a;
   }
   return nullptr;
}

KelType const * findType(std::string_view qualifiedName) {
   Registry & r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   auto it = r.byName.find(qualifiedName);
   return it == r.byName.end() ? nullptr : it->second;
}

std::vector<KelType const *> registeredTypes() {
   Registry & r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   return r.inOrder;
}

void moduleInitializedIs(const char * module) {
   Registry & r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   r.modules.emplace_back(module);
}

std::vector<String8> initializedModules() {
   Registry & r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   return r.modules;
}

// ---- introspection ----------------------------------------------------------------------------

namespace {

// Keeps the walk as indented text: one line per namespace, type and attribute.
class SchemaReactor : public IntrospectionReactor {
 public:
   void handleNameSpace(String8 const & n) override { line("namespace " + n.str()); ++depth_; }
   void handleType(KelType const * t, KelType const * base) override {
      line("type " + t->name().str() + (base ? " : " + base->name().str() : std::string()));
      ++depth_;
   }
   void handleAttr(String8 const & n, KelType const * t, uint32_t flags) override {
      line("attr " + n.str() + " " + (t ? t->name().str() : std::string("-")) +
           Kel::format(" flags=0x%x", flags).str());
   }
   void handleAttrContextExit() override {}
   void handleScopeExit() override { --depth_; }
   String8 text;

 private:
   void line(std::string const & s) {
      text += std::string(size_t(depth_) * 2, ' ');
      text += s;
      text += '\n';
   }
   int depth_ = 0;
};

SchemaReactor & schemaReactor() {
   static SchemaReactor * r = new SchemaReactor;
   return *r;
}

IntrospectionReactor * globalReactor = nullptr;

} // namespace

IntrospectionReactor & IntrospectionReactor::global() {
   return globalReactor ? *globalReactor : schemaReactor();
}

void IntrospectionReactor::globalIs(IntrospectionReactor * r) { globalReactor = r; }

String8 IntrospectionReactor::schema() { return schemaReactor().text; }

void describeTypes(String8 const & nameSpace, std::vector<KelType const *> const & types) {
   IntrospectionReactor & r = IntrospectionReactor::global();
   r.handleNameSpace(nameSpace);
   for (KelType const * t : types) {
      r.handleType(t, t->base());
      size_t inherited = t->base() ? t->base()->attributes().size() : 0;
      auto const & attrs = t->attributes();
      for (size_t i = inherited; i < attrs.size(); ++i) {
         r.handleAttr(attrs[i].name, attrs[i].valueType ? attrs[i].valueType() : nullptr,
                      attrs[i].flags);
         r.handleAttrContextExit();
      }
      r.handleScopeExit();
   }
   r.handleScopeExit();
}

// ---- enumerations -----------------------------------------------------------------------------

KelType const * makeEnumType(EnumInfo const & info, size_t size) {
   auto * t = new KelType(info.typeName, KelType::Kind::enumeration, nullptr, size);
   AttributeId id = 258;
   for (uint32_t i = 0; i < info.count; ++i) {
      // Each enumerator is a named constant of the type.
      AttrDesc d;
      d.name = info.entries[i].name;
      d.id = id++;
      d.kind = AttrKind::Const;
      d.flags = attrConstant;
      d.valueType = &builtinType<uint32_t>;
      t->attrs_.push_back(d);
   }
   t->attributesDone();
   return t;
}

// ---- the entity base type -----------------------------------------------------------------------

KelType const * Entity::_fwkType() {
   static KelType const * t = new KelType("Kel::Entity", KelType::Kind::entity, nullptr,
                                          sizeof(Entity));
   return t;
}

} // namespace Kel
