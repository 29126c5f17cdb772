#include <Kel/Value.h>

namespace Kel {

namespace detail {

std::string_view readAttrName(TextIt & it, TextIt end, String8 & scratch) {
   skipBlanks(it, end);
   if (it == end) throw PrematureEndException();
   if (*it == '\'') {
      // Fast path: a plain name with no escapes is returned in place.
      TextIt p = it + 1;
      while (p != end && *p != '\'' && *p != '\\') ++p;
      if (p != end && *p == '\'') {
         std::string_view name(it + 1, size_t(p - it - 1));
         it = p + 1;
         return name;
      }
   }
   parseQuoted(it, end, &scratch);
   return scratch.view();
}

void parseValueHeader(TextIt & it, TextIt end, const char * typeName) {
   needString(it, end, "Value");
   needString(it, end, "(");
   skipBlanks(it, end);
   if (it == end) throw PrematureEndException();
   String8 quoted;
   quoted += '\'';
   quoted += typeName;
   quoted += '\'';
   needString(it, end, quoted.view());
   needString(it, end, ",");
   needString(it, end, "**");
   needString(it, end, "{");
}

void throwNoSuchAttr(const char * shortName, std::string_view name) {
   throwRangeException(String8(shortName) + " has no such attribute: " + name);
}

void throwPrematureEnd(const char * shortName) {
   throw PrematureEndException(String8("premature end of value type ") + shortName);
}

} // namespace detail

String8 enumString(EnumInfo const & info, uint32_t v) {
   if (const char * n = info.nameOf(v)) return String8(n);
   return format("%s(%d)", info.shortName, int(v));
}

uint32_t enumCheck(EnumInfo const & info, uint32_t v) {
   if (!info.nameOf(v)) throwRangeException(info.shortName);
   return v;
}

uint32_t enumFromName(EnumInfo const & info, std::string_view name) {
   for (uint32_t i = 0; i < info.count; ++i) {
      if (name == info.entries[i].name) return info.entries[i].value;
   }
   // The printed form of an unnamed number, "Name(%d)", reads back as that number.
   std::string_view prefix(info.shortName);
   if (name.size() > prefix.size() + 2 && name.substr(0, prefix.size()) == prefix &&
       name[prefix.size()] == '(' && name.back() == ')') {
      TextIt it = name.data() + prefix.size() + 1;
      TextIt end = name.data() + name.size() - 1;
      try {
         int64_t v = parseS64(it, end, INT32_MIN, INT32_MAX);
         if (it == end) return uint32_t(int32_t(v));
      } catch (RangeException const &) {
      }
   }
   throwRangeException(String8(info.shortName) + " has no enumerator named " +
                       valueToStrep(String8(name)));
}

} // namespace Kel
