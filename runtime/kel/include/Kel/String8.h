// Byte strings and entity names of the runtime.
#pragma once

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>

namespace Kel {

// 32-bit finaliser shared by every hash of the runtime: the hash maps take
// their bucket index from the low bits (reversed), so every input bit must
// reach them.
inline uint32_t mix32(uint64_t h) {
   h ^= h >> 33;
   h *= 0xff51afd7ed558ccdULL;
   h ^= h >> 33;
   h *= 0xc4ceb9fe1a85ec53ULL;
   h ^= h >> 33;
   return static_cast<uint32_t>(h);
}

// Hash of a structured 64-bit word (an interface identifier, an integer
// key) taken directly in the bit-reversed form the hash maps index by: their
// bucket is the top bits of the result. A multiplicative hash keeps regular
// keys (ports of a card, numbers in a row) apart in those top bits, where a
// random-looking mix would put about one in five behind another member of
// its bucket; the fold first brings the high fields down so that they also
// reach the low bits of the product. The shift was chosen for the fewest
// members behind another over typical identifier sets (cards of 48 and 64
// ports, breakout lanes, VLANs, sub-interfaces, several families, plain
// integers): at most 15% where a random hash leaves about 17 to 21%.
inline uint32_t spreadRhash(uint64_t k) {
   k ^= k >> 23;
   return static_cast<uint32_t>((k * 0x9e3779b97f4a7c15ULL) >> 32);
}

// Bit 0 becomes bit 31.
inline uint32_t bitReverse(uint32_t v) {
#if defined(__clang__)
   return __builtin_bitreverse32(v);
#else
   v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
   v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
   v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
   return __builtin_bswap32(v);
#endif
}

uint32_t hashBytes(const char * p, size_t n);

// A byte string. Not required to be UTF-8; compared byte by byte.
class String8 {
 public:
   using IteratorConst = const char *;

   String8() = default;
   String8(const char * s) : s_(s ? s : "") {}
   String8(const char * s, size_t n) : s_(s, n) {}
   String8(std::string_view s) : s_(s) {}
   String8(std::string s) : s_(std::move(s)) {}

   const char * charPtr() const { return s_.c_str(); }
   size_t size() const { return s_.size(); }
   bool empty() const { return s_.empty(); }
   IteratorConst begin() const { return s_.data(); }
   IteratorConst end() const { return s_.data() + s_.size(); }
   std::string_view view() const { return s_; }
   std::string const & str() const { return s_; }
   std::string & str() { return s_; }
   char operator[](size_t i) const { return s_[i]; }

   String8 substr(size_t pos, size_t n = std::string::npos) const {
      return String8(pos >= s_.size() ? std::string() : s_.substr(pos, n));
   }
   bool contains(std::string_view needle) const {
      return s_.find(needle) != std::string::npos;
   }
   uint32_t hash() const { return hashBytes(s_.data(), s_.size()); }

   String8 & operator+=(std::string_view o) { s_ += o; return *this; }
   String8 & operator+=(String8 const & o) { s_ += o.s_; return *this; }
   String8 & operator+=(char c) { s_ += c; return *this; }
   String8 & operator+=(const char * o) { s_ += o; return *this; }
   String8 & operator+=(std::string const & o) { s_ += o; return *this; }

   friend String8 operator+(String8 a, std::string_view b) { a.s_ += b; return a; }
   friend String8 operator+(String8 a, String8 const & b) { a.s_ += b.s_; return a; }
   friend String8 operator+(String8 a, const char * b) { a.s_ += b; return a; }
   friend String8 operator+(String8 a, char b) { a.s_ += b; return a; }
   friend String8 operator+(const char * a, String8 const & b) {
      return String8(std::string(a) + b.s_);
   }
   friend bool operator==(String8 const & a, String8 const & b) { return a.s_ == b.s_; }
   friend bool operator==(String8 const & a, const char * b) { return a.s_ == b; }
   friend auto operator<=>(String8 const & a, String8 const & b) { return a.s_ <=> b.s_; }
   friend std::ostream & operator<<(std::ostream & os, String8 const & s) {
      return os << s.s_;
   }

 private:
   std::string s_;
};

// The name of an entity within its parent. A distinct type so that
// collections keyed by name do not accept arbitrary strings by accident
// of overload resolution, but freely convertible.
class Name : public String8 {
 public:
   using String8::String8;
   Name() = default;
   Name(String8 const & s) : String8(s) {}
};

// printf-style formatting into a String8.
String8 format(const char * fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace Kel

template <>
struct std::hash<Kel::String8> {
   size_t operator()(Kel::String8 const & s) const { return s.hash(); }
};
