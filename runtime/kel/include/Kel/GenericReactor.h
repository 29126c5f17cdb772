// A reactor that hears every attribute of any entity, whatever its type,
// with the attribute's name, its new value and, for a collection, the key:
// generic values that print in their text form (strRep()).
#pragma once

#include <Kel/Entity.h>
#include <Kel/GenericIf.h>

namespace Kel {

class GenericReactor : public Entity::NotifieeConst {
 public:
   GenericReactor() { kelGenericIs(true); }
   // `value` is the attribute's value, for a collection the member's under
   // `key` (its default, or null for entities, when the key went); `key` is
   // null for an attribute that is not a collection.
   virtual void onAttributeValue(String8 const & name, GenericIf::Ptr const & value,
                                 GenericIf::Ptr const & key) = 0;

   void kelOnAttribute(AttributeId id, void const * key) override {
      Entity const * e = notifier().ptr();
      if (!e) return;
      AttrDesc const * d = e->fwkType()->attribute(id);
      if (!d) return;
      GenericIf::Ptr k, v;
      if (key && d->keyToGeneric) {
         k = d->keyToGeneric(key);
         if (d->index) v = d->index(e, *k);
      } else if (d->get) {
         v = d->get(e);
      }
      onAttributeValue(String8(d->name), v, k);
   }
};

} // namespace Kel
