#include <Kel/Attr.h>

namespace Kel {

void throwNullParameter(const char * attr, const char * qualifiedType) {
   // attr arrives as "_name"; the qualified attribute drops the underscore.
   throwRangeException(String8("null ") + attr + " parameter to mutator for " + qualifiedType +
                       "::" + (attr + 1) + " not allowed\"");
}

void throwCycle(Entity const * owner, Entity const * child) {
   throwRangeException(String8("Entity ") + child->name() + " cannot be placed in " + owner->name() +
                       ": it is that entity or one of its ancestors");
}

void throwReinstantiate(String8 const & child, const char * attr, String8 const & newValue,
                        String8 const & curValue) {
   throwNameInUseException(String8("Reinstantiating the entity with name ") + child +
                           " where constructor parameter attribute _" + attr +
                           " has a different value of " + newValue + " than the current value of " +
                           curValue + " not allowed");
}

} // namespace Kel

#include <Kel/Assert.h>

#include <cstdio>
#include <cstdlib>

void Kel::assertFail(const char * expr, const char * source, const char * function) {
   std::fprintf(stderr, "%s: %s: Assertion `%s' failed.\n", source, function, expr);
   std::fflush(stderr);
   std::abort();
}
