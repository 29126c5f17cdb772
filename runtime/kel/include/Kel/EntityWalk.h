// A walk over an entity tree that asks a filter about every entity and
// queues the ones it selects. Order: depth-first, an entity before its
// children; the children in the order of the entity's owning attributes
// (base type's first, then declaration order), each collection in its
// iteration order. The walk keeps no stack per level of the tree.
#pragma once

#include <Kel/Attr.h>

#include <deque>

namespace Kel {

#define KEL_ATTRS_EntityWalk(X)
class EntityWalk : public Entity {
   KEL_ENTITY(EntityWalk, Entity, "Kel::EntityWalk", KEL_ATTRS_EntityWalk)
 public:
   explicit EntityWalk(Name name) : Entity(std::move(name)) {}

   // Walks the tree below and including `root`; returns the number of
   // entities queued by this walk.
   size_t walk(::Kel::Ptr<Entity> const & root);
   // The filter: sets *result to non-zero to select `entity`. Selects nothing
   // unless overridden.
   virtual void doFilter(::Kel::Ptr<Entity> const & entity, unsigned * result) {
      (void)entity;
      *result = 0;
   }
   // The selected entities, in walk order; nextMatch takes the first (null
   // when none is left).
   std::deque<::Kel::Ptr<Entity>> const & matches() const { return matches_; }
   ::Kel::Ptr<Entity> nextMatch();

 private:
   std::deque<::Kel::Ptr<Entity>> matches_;
};
KEL_FACTORY(entityWalkFactory, EntityWalk);

} // namespace Kel
