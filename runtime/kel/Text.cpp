#include <Kel/Text.h>

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace Kel {

constinit thread_local Expect::Scope Expect::current_ = {-1, 0};

uint32_t hashBytes(const char * p, size_t n) {
   uint64_t h = 0x9e3779b97f4a7c15ULL ^ n;
   while (n >= 8) {
      uint64_t w;
      std::memcpy(&w, p, 8);
      h = (h ^ w) * 0x100000001b3ULL;
      h ^= h >> 29;
      p += 8;
      n -= 8;
   }
   uint64_t w = 0;
   std::memcpy(&w, p, n);
   h = (h ^ w) * 0x100000001b3ULL;
   return mix32(h);
}

String8 format(const char * fmt, ...) {
   char buf[256];
   va_list ap;
   va_start(ap, fmt);
   int n = vsnprintf(buf, sizeof buf, fmt, ap);
   va_end(ap);
   if (n < 0) return String8();
   if (size_t(n) < sizeof buf) return String8(buf, size_t(n));
   std::string s(size_t(n) + 1, '\0');
   va_start(ap, fmt);
   vsnprintf(s.data(), s.size(), fmt, ap);
   va_end(ap);
   s.resize(size_t(n));
   return String8(std::move(s));
}

void throwRangeException(const char * text) { throw RangeException(text); }
void throwRangeException(String8 const & text) { throw RangeException(text); }
void throwNameInUseException(String8 const & text) { throw NameInUseException(text); }
void throwInternalException(const char * text) { throw InternalException(text); }
void throwInternalException(String8 const & text) { throw InternalException(text); }
void throwInternalException(String8 const & text, Exception::IdBitArray ids) {
   throw InternalException(text, ids);
}
void rethrowFromDeserializeAttr(RangeException const & e, String8 const & attrName) {
   throw RangeException(e.message() + " in attribute " + attrName);
}

namespace {

// What the text holds at the point of an error: up to 16 bytes in double
// quotes, so that the single quotes of the text itself read plainly.
String8 snippet(TextIt it, TextIt end) {
   size_t n = size_t(end - it);
   String8 q;
   printQuoted(q, std::string_view(it, n < 16 ? n : 16));
   std::string s = q.str().substr(1, q.size() - 2);
   std::string out = "\"";
   for (size_t i = 0; i < s.size(); ++i) {
      if (s[i] == '\\' && i + 1 < s.size() && s[i + 1] == '\'') continue;
      out += s[i];
   }
   out += '"';
   return String8(out);
}

} // namespace

void needString(TextIt & it, TextIt end, std::string_view token) {
   skipBlanks(it, end);
   size_t avail = size_t(end - it);
   size_t n = token.size() < avail ? token.size() : avail;
   if (std::string_view(it, n) != token.substr(0, n)) {
      throw RangeException(String8("expected ") + token + " but found " + snippet(it, end));
   }
   if (n < token.size()) throw PrematureEndException();
   it += token.size();
}

bool acceptChar(TextIt & it, TextIt end, char c) {
   skipBlanks(it, end);
   if (it == end) throw PrematureEndException();
   if (*it != c) return false;
   ++it;
   return true;
}

void parseQuoted(TextIt & it, TextIt end, String8 * out) {
   skipBlanks(it, end);
   if (it == end) throw PrematureEndException();
   char q = *it;
   if (q != '\'' && q != '"') {
      throw RangeException(String8("expected a quoted string but found ") + snippet(it, end));
   }
   std::string & s = out->str();
   s.clear();
   TextIt p = it + 1;
   for (;;) {
      TextIt start = p;
      while (p != end && *p != q && *p != '\\') ++p;
      s.append(start, p);
      if (p == end) throw PrematureEndException();
      if (*p == q) break;
      ++p;  // backslash
      if (p == end) throw PrematureEndException();
      char c = *p++;
      switch (c) {
         case 'n': s += '\n'; break;
         case 't': s += '\t'; break;
         case 'r': s += '\r'; break;
         case '0': s += '\0'; break;
         case '\\': case '\'': case '"': s += c; break;
         case 'x': {
            if (end - p < 2) throw PrematureEndException();
            unsigned v = 0;
            auto r = std::from_chars(p, p + 2, v, 16);
            if (r.ptr != p + 2) {
               throw RangeException(String8("bad \\x escape in string at ") + snippet(p, end));
            }
            s += char(v);
            p += 2;
            break;
         }
         default:
            throw RangeException(String8("unknown escape \\") + std::string_view(&c, 1) +
                                 " in string");
      }
   }
   it = p + 1;
}

void printQuoted(String8 & out, std::string_view s) {
   std::string & o = out.str();
   o += '\'';
   for (unsigned char c : s) {
      switch (c) {
         case '\'': o += "\\'"; break;
         case '\\': o += "\\\\"; break;
         case '\n': o += "\\n"; break;
         case '\t': o += "\\t"; break;
         case '\r': o += "\\r"; break;
         default:
            if (c < 0x20 || c >= 0x7f) {
               static const char hex[] = "0123456789abcdef";
               o += "\\x";
               o += hex[c >> 4];
               o += hex[c & 15];
            } else {
               o += char(c);
            }
      }
   }
   o += '\'';
}

std::string_view scanNumberToken(TextIt & it, TextIt end) {
   skipBlanks(it, end);
   if (it == end) throw PrematureEndException();
   TextIt p = it;
   while (p != end) {
      char c = *p;
      bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                c == '.' || c == '-' || c == '+';
      if (!ok) break;
      ++p;
   }
   std::string_view tok(it, size_t(p - it));
   it = p;
   return tok;
}

void printU64(String8 & out, uint64_t v) {
   char buf[24];
   auto r = std::to_chars(buf, buf + sizeof buf, v);
   out.str().append(buf, r.ptr);
}

void printS64(String8 & out, int64_t v) {
   char buf[24];
   auto r = std::to_chars(buf, buf + sizeof buf, v);
   out.str().append(buf, r.ptr);
}

void printDouble(String8 & out, double v) {
   if (std::isnan(v)) { out += "nan"; return; }
   if (std::isinf(v)) { out += v < 0 ? "-inf" : "inf"; return; }
   char buf[40];
   auto r = std::to_chars(buf, buf + sizeof buf, v);
   bool integral = true;
   for (char * p = buf; p != r.ptr; ++p) {
      if (*p == '.' || *p == 'e') { integral = false; break; }
   }
   out.str().append(buf, r.ptr);
   if (integral) out += ".0";
}

namespace {

[[noreturn]] void badNumber(const char * what, std::string_view tok) {
   String8 s = String8("bad ") + what + " ";
   printQuoted(s, tok);
   throw RangeException(s);
}

} // namespace

uint64_t parseU64(TextIt & it, TextIt end, uint64_t max) {
   std::string_view tok = scanNumberToken(it, end);
   uint64_t v = 0;
   auto r = std::from_chars(tok.data(), tok.data() + tok.size(), v);
   if (tok.empty() || r.ec != std::errc() || r.ptr != tok.data() + tok.size()) {
      badNumber("unsigned integer", tok);
   }
   if (v > max) badNumber("unsigned integer (out of range)", tok);
   return v;
}

int64_t parseS64(TextIt & it, TextIt end, int64_t min, int64_t max) {
   std::string_view tok = scanNumberToken(it, end);
   int64_t v = 0;
   auto r = std::from_chars(tok.data(), tok.data() + tok.size(), v);
   if (tok.empty() || r.ec != std::errc() || r.ptr != tok.data() + tok.size()) {
      badNumber("integer", tok);
   }
   if (v < min || v > max) badNumber("integer (out of range)", tok);
   return v;
}

double parseDouble(TextIt & it, TextIt end) {
   std::string_view tok = scanNumberToken(it, end);
   double v = 0;
   auto r = std::from_chars(tok.data(), tok.data() + tok.size(), v);
   if (tok.empty() || r.ptr != tok.data() + tok.size() || r.ec != std::errc()) {
      badNumber("number", tok);
   }
   return v;
}

void Text<bool>::parse(TextIt & it, TextIt end, bool * v) {
   std::string_view tok = scanNumberToken(it, end);
   if (tok == "True" || tok == "true") {
      *v = true;
   } else if (tok == "False" || tok == "false") {
      *v = false;
   } else {
      badNumber("bool", tok);
   }
}

void checkNoJunk(TextIt it, String8 const & text) {
   if (it != text.end()) {
      throw RangeException(format("junk at column %lld deserializing %s",
                                  (long long)(it - text.begin()), text.charPtr()));
   }
}

} // namespace Kel
