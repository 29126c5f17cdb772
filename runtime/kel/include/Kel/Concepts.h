// What the generic walkers need to know of a type before the type's own
// headers are complete: is it a record, does it check its range, is it an
// enumeration.
#pragma once

#include <cstdint>
#include <type_traits>

namespace Kel {

template <class V>
concept ValueType = requires { V::kelIsValueType; };

// A record that checks its own range (`void kelCheck() const`, throwing
// when a value is out of it).
template <class V>
concept HasCheck = requires(V const & v) { v.kelCheck(); };

struct EnumEntry {
   uint32_t value;
   const char * name;
};

struct EnumInfo {
   const char * shortName;
   const char * typeName;
   EnumEntry const * entries;
   uint32_t count;

   const char * nameOf(uint32_t v) const {
      for (uint32_t i = 0; i < count; ++i) {
         if (entries[i].value == v) return entries[i].name;
      }
      return nullptr;
   }
};

template <class E>
concept Enumeration = std::is_enum_v<E> && requires(E e) { kelEnumInfo(e); };

} // namespace Kel
