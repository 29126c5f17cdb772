#include <Kel/Dir.h>

namespace Kel {

Dir::Ptr Dir::mkdir(std::string_view path) {
   Dir::Ptr cur(this);
   while (!path.empty()) {
      size_t slash = path.find('/');
      std::string_view name = path.substr(0, slash);
      path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
      if (name.empty()) continue;
      Entity::Ptr e = cur->entry(Name(name));
      if (!e) {
         Dir::Ptr d(new Dir(Name(name)));
         cur->entryIs(d);
         cur = d;
         continue;
      }
      Dir::Ptr d = dynamicCast<Dir>(e);
      if (!d) throwRangeException(String8("not a directory: ") + e->fullName());
      cur = d;
   }
   return cur;
}

Dir::Ptr globalDir() {
   static Dir * root = [] {
      Dir * d = new Dir(Name(""));
      d->referencesInc();  // lives until the process ends
      return d;
   }();
   return Dir::Ptr(root);
}

Ptr<Entity> globalRootEntity() { return globalDir(); }

} // namespace Kel
