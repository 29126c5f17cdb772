// Text form of a counted entity reference inside a record: the entity's
// full name quoted, or None. Parsing looks the name up from the process's
// root directory; a name that is not there reads as null, an entity of
// another type is refused.
#pragma once

#include <Kel/Dir.h>
#include <Kel/Text.h>

#include <type_traits>

template <class T>
struct Kel::Text<Kel::Ptr<T>> {
   static void print(String8 & out, Kel::Ptr<T> const & p) {
      if (p) {
         printQuoted(out, p->fullName().view());
      } else {
         out += "None";
      }
   }
   static void parse(TextIt & it, TextIt end, Kel::Ptr<T> * p) {
      skipBlanks(it, end);
      if (it == end) throw PrematureEndException();
      if (*it != '\'' && *it != '"') {
         needString(it, end, "None");
         *p = nullptr;
         return;
      }
      String8 path;
      parseQuoted(it, end, &path);
      Kel::Ptr<Entity> e = globalDir()->entity(path.view());
      if (!e) {
         *p = nullptr;
         return;
      }
      auto * t = dynamic_cast<std::remove_const_t<T> *>(e.ptr());
      if (!t) throwRangeException("Entity is the wrong type");
      *p = Kel::Ptr<T>(t);
   }
};
