// Tree walks with a filter; see Kel/EntityWalk.h.
#include <Kel/EntityWalk.h>

#include <algorithm>
#include <vector>

namespace Kel {

size_t EntityWalk::walk(::Kel::Ptr<Entity> const & root) {
   size_t queued = 0;
   std::vector<::Kel::Ptr<Entity>> stack;
   if (root) stack.push_back(root);
   std::vector<Entity *> children;
   while (!stack.empty()) {
      ::Kel::Ptr<Entity> e = std::move(stack.back());
      stack.pop_back();
      unsigned result = 0;
      doFilter(e, &result);
      if (result) {
         matches_.push_back(e);
         ++queued;
      }
      children.clear();
      e->kelForEachChild([](void * ctx, Entity * c) { static_cast<std::vector<Entity *> *>(ctx)->push_back(c); },
                         &children);
      // Last child first on the stack, so the first is walked next.
      for (auto it = children.rbegin(); it != children.rend(); ++it) stack.emplace_back(*it);
   }
   return queued;
}

::Kel::Ptr<Entity> EntityWalk::nextMatch() {
   if (matches_.empty()) return nullptr;
   ::Kel::Ptr<Entity> e = std::move(matches_.front());
   matches_.pop_front();
   return e;
}

} // namespace Kel
