// Text forms of values: printing (valueToStrep) and parsing
// (strepToValue, sequenceToValue, deserializeAttr).
//
// Every printable type has a specialisation of Kel::Text<T> with
//    static void print(String8 & out, T const & v);   // appends
//    static void parse(TextIt & it, TextIt end, T * v);
// The free functions below are the public spellings over it. Built-ins
// print the way the scripting layer reads them: True/False, decimal
// integers, doubles in their shortest exact form with a ".0" when
// integral, strings in single quotes with backslash escapes.
#pragma once

#include <Kel/Exception.h>
#include <Kel/String8.h>

#include <concepts>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Kel {

using TextIt = String8::IteratorConst;

template <class T, class Enable = void>
struct Text;  // specialised per printable type

template <class T>
concept Printable = requires(String8 & s, T const & v) { Text<T>::print(s, v); };

// --- low-level scanning -----------------------------------------------------

inline void skipBlanks(TextIt & it, TextIt end) {
   while (it != end && (*it == ' ' || *it == '\t' || *it == '\n' || *it == '\r')) ++it;
}

// Skips blanks, then consumes `token` or throws: PrematureEndException when
// the text ends first, RangeException naming the token otherwise.
void needString(TextIt & it, TextIt end, std::string_view token);

// Skips blanks and consumes `c` if it is next; false (nothing consumed but
// blanks) otherwise. Throws PrematureEndException at the end of text.
bool acceptChar(TextIt & it, TextIt end, char c);

// Reads a quoted string ('...' or "...") with backslash escapes.
void parseQuoted(TextIt & it, TextIt end, String8 * out);
// Appends `s` in single quotes, escaping quotes, backslashes and bytes
// outside printable ASCII.
void printQuoted(String8 & out, std::string_view s);

// Reads the characters of a number token (sign, digits, '.', exponent,
// letters of inf/nan) and returns them; throws PrematureEndException on
// empty text.
std::string_view scanNumberToken(TextIt & it, TextIt end);

void printU64(String8 & out, uint64_t v);
void printS64(String8 & out, int64_t v);
void printDouble(String8 & out, double v);
uint64_t parseU64(TextIt & it, TextIt end, uint64_t max);
int64_t parseS64(TextIt & it, TextIt end, int64_t min, int64_t max);
double parseDouble(TextIt & it, TextIt end);

// --- Text<T> for built-ins ---------------------------------------------------

template <>
struct Text<bool> {
   static void print(String8 & out, bool v) { out += v ? "True" : "False"; }
   static void parse(TextIt & it, TextIt end, bool * v);
};

template <std::unsigned_integral T>
struct Text<T, std::enable_if_t<!std::is_same_v<T, bool>>> {
   static void print(String8 & out, T v) { printU64(out, v); }
   static void parse(TextIt & it, TextIt end, T * v) {
      *v = static_cast<T>(parseU64(it, end, std::numeric_limits<T>::max()));
   }
};

template <std::signed_integral T>
struct Text<T> {
   static void print(String8 & out, T v) { printS64(out, v); }
   static void parse(TextIt & it, TextIt end, T * v) {
      *v = static_cast<T>(parseS64(it, end, std::numeric_limits<T>::min(),
                                   std::numeric_limits<T>::max()));
   }
};

template <>
struct Text<double> {
   static void print(String8 & out, double v) { printDouble(out, v); }
   static void parse(TextIt & it, TextIt end, double * v) { *v = parseDouble(it, end); }
};

template <>
struct Text<String8> {
   static void print(String8 & out, String8 const & v) { printQuoted(out, v.view()); }
   static void parse(TextIt & it, TextIt end, String8 * v) { parseQuoted(it, end, v); }
};

template <>
struct Text<Name> {
   static void print(String8 & out, Name const & v) { printQuoted(out, v.view()); }
   static void parse(TextIt & it, TextIt end, Name * v) { parseQuoted(it, end, v); }
};

// --- public spellings ----------------------------------------------------------

template <Printable T>
String8 valueToStrep(T const & v) {
   String8 s;
   Text<T>::print(s, v);
   return s;
}
inline String8 valueToStrep(const char * v) {
   String8 s;
   printQuoted(s, v);
   return s;
}

// Parses a bool, string or enumeration at `it`.
template <class T>
void sequenceToValue(TextIt & it, TextIt end, T * v) {
   Text<T>::parse(it, end, v);
}

// Parses one attribute value of a record; a parse error is re-raised with the
// attribute's name added.
template <class T>
void deserializeAttr(TextIt & it, TextIt end, T * field, String8 const & attrName) {
   try {
      Text<T>::parse(it, end, field);
   } catch (PrematureEndException const &) {
      throw;
   } catch (RangeException const & e) {
      rethrowFromDeserializeAttr(e, attrName);
   }
}

// Raises "junk at column %lld deserializing %s" when text is left over.
void checkNoJunk(TextIt it, String8 const & text);

// Parses the whole of `text` as a T.
template <class T>
void strepToValue(String8 const & text, T * out) {
   TextIt it = text.begin();
   Text<T>::parse(it, text.end(), out);
   checkNoJunk(it, text);
}

} // namespace Kel
