// The attribute log: values in network byte order, and the streams that
// carry entity changes between processes.
//
// Encodings (Nbo<T>): bool one byte; integers big-endian at their width;
// doubles and seconds as the 64-bit IEEE word; strings a 32-bit length and
// the bytes; enumerations a 32-bit number; records their fields in
// declaration order with nothing between; entity references through the
// connection's reference table (RefCodec).
#pragma once

#include <Kel/Concepts.h>
#include <Kel/Entity.h>
#include <Kel/Exception.h>
#include <Kel/Ptr.h>
#include <Kel/String8.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>

namespace Kel {

class Entity;

namespace NboAttrLog {

// A truncated or malformed stream. The connection that reads it is closed.
class StreamError : public Exception {
 public:
   explicit StreamError(String8 m) : Exception(std::move(m)) {}
};

class Out {
 public:
   Out() = default;
   Out(Out const &) = delete;
   Out & operator=(Out const &) = delete;
   ~Out() { std::free(buf_); }

   void clear() { size_ = 0; }
   size_t size() const { return size_; }
   char const * data() const { return buf_; }
   std::string_view bytes() const { return std::string_view(buf_, size_); }

   void put(bool v) { *room(1) = char(v ? 1 : 0); }
   void putU8(uint8_t v) { *room(1) = char(v); }
   void putU16(uint16_t v) { putRaw(__builtin_bswap16(v)); }
   void putU32(uint32_t v) { putRaw(__builtin_bswap32(v)); }
   void putU64(uint64_t v) { putRaw(__builtin_bswap64(v)); }
   void putDouble(double d) {
      uint64_t w;
      std::memcpy(&w, &d, 8);
      putU64(w);
   }
   void putString(std::string_view s) {
      putU32(uint32_t(s.size()));
      if (!s.empty()) std::memcpy(room(s.size()), s.data(), s.size());
   }
   // Overwrites a 32-bit word written earlier (message lengths).
   void patchU32(size_t at, uint32_t v) {
      v = __builtin_bswap32(v);
      std::memcpy(buf_ + at, &v, 4);
   }
   // Space for n more bytes at the end, to be filled by the caller.
   char * room(size_t n) {
      if (size_ + n > cap_) grow(size_ + n);
      char * p = buf_ + size_;
      size_ += n;
      return p;
   }

 private:
   template <class T>
   void putRaw(T v) {
      std::memcpy(room(sizeof(T)), &v, sizeof(T));
   }
   void grow(size_t need) {
      size_t cap = cap_ ? cap_ * 2 : 256;
      while (cap < need) cap *= 2;
      char * b = static_cast<char *>(std::realloc(buf_, cap));
      if (!b) throw std::bad_alloc();
      buf_ = b;
      cap_ = cap;
   }
   char * buf_ = nullptr;
   size_t size_ = 0;
   size_t cap_ = 0;
};

class In {
 public:
   In(char const * p, size_t n) : p_(p), end_(p + n) {}
   size_t left() const { return size_t(end_ - p_); }
   bool atEnd() const { return p_ == end_; }
   char const * pos() const { return p_; }
   void skipRest() { p_ = end_; }

   bool nextbool() {
      uint8_t b = nextU8();
      if (b > 1) throw StreamError("bad bool in stream");
      return b;
   }
   uint8_t nextU8() { return uint8_t(need(1)[0]); }
   uint16_t nextU16() { return getBE<uint16_t>(); }
   uint32_t nextU32() { return getBE<uint32_t>(); }
   uint64_t nextU64() { return getBE<uint64_t>(); }
   double nextdouble() {
      uint64_t w = nextU64();
      double d;
      std::memcpy(&d, &w, 8);
      return d;
   }
   double nextSeconds() { return nextdouble(); }
   String8 nextString() {
      uint32_t n = nextU32();
      char const * s = need(n);
      return String8(s, n);
   }

 private:
   char const * need(size_t n) {
      if (size_t(end_ - p_) < n) throw StreamError("truncated message");
      char const * s = p_;
      p_ += n;
      return s;
   }
   template <class T>
   T getBE() {
      T v;
      std::memcpy(&v, need(sizeof(T)), sizeof(T));
      if constexpr (sizeof(T) == 2) return T(__builtin_bswap16(v));
      else if constexpr (sizeof(T) == 4) return T(__builtin_bswap32(v));
      else return T(__builtin_bswap64(v));
   }
   char const * p_;
   char const * end_;
};

// Frames and attribute messages. A frame is a 32-bit length of what
// follows, a message type byte and the message; an attribute message starts
// with the entity's number, the attribute and a transaction-begin token,
// and ends with a transaction-end token after the value.
constexpr uint8_t tokenBegin = 0xb1;
constexpr uint8_t tokenEnd = 0xe1;

inline size_t beginFrame(Out & o, uint8_t type) {
   size_t at = o.size();
   char * p = o.room(5);
   std::memset(p, 0, 4);
   p[4] = char(type);
   return at;
}
inline void endFrame(Out & o, size_t at) { o.patchU32(at, uint32_t(o.size() - at - 4)); }

inline void putAttrHead(Out & o, uint32_t entity, uint32_t attr) {
   char * p = o.room(9);
   uint32_t e = __builtin_bswap32(entity), a = __builtin_bswap32(attr);
   std::memcpy(p, &e, 4);
   std::memcpy(p + 4, &a, 4);
   p[8] = char(tokenBegin);
}

// An enumeration number the reader does not know. The update that carries
// it is skipped and counted; the stream goes on.
class UnknownEnum : public RangeException {
 public:
   using RangeException::RangeException;
};

// Entity references on one connection: the writer numbers the entities it
// serves; the reader maps numbers back to its replicas.
class RefCodec {
 public:
   virtual ~RefCodec() = default;
   virtual void writeRef(Out & out, Entity const * e) = 0;
   virtual Ptr<Entity> readRef(In & in) = 0;
};

template <class T, class Enable = void>
struct Nbo;

// Encodings of a fixed width (fixedSize > 0) can also be stored straight
// into reserved space, which lets a record of such fields reserve once.
template <class T>
constexpr size_t nboFixedSize() {
   if constexpr (requires { Nbo<T>::fixedSize; }) {
      return Nbo<T>::fixedSize;
   } else {
      return 0;
   }
}

template <class T>
inline void storeBE(char *& p, T v) {
   if constexpr (sizeof(T) == 2) v = T(__builtin_bswap16(v));
   else if constexpr (sizeof(T) == 4) v = T(__builtin_bswap32(v));
   else if constexpr (sizeof(T) == 8) v = T(__builtin_bswap64(v));
   std::memcpy(p, &v, sizeof(T));
   p += sizeof(T);
}

template <>
struct Nbo<bool> {
   static constexpr size_t fixedSize = 1;
   static void store(char *& p, bool v) { *p++ = char(v ? 1 : 0); }
   static void write(Out & o, bool v, RefCodec *) { o.put(v); }
   static bool read(In & i, RefCodec *) { return i.nextbool(); }
};

template <std::integral T>
struct Nbo<T, std::enable_if_t<!std::is_same_v<T, bool>>> {
   static constexpr size_t fixedSize = sizeof(T);
   static void store(char *& p, T v) {
      using U = std::make_unsigned_t<T>;
      storeBE(p, U(v));
   }
   static void write(Out & o, T v, RefCodec *) {
      if constexpr (sizeof(T) == 1) o.putU8(uint8_t(v));
      else if constexpr (sizeof(T) == 2) o.putU16(uint16_t(v));
      else if constexpr (sizeof(T) == 4) o.putU32(uint32_t(v));
      else o.putU64(uint64_t(v));
   }
   static T read(In & i, RefCodec *) {
      if constexpr (sizeof(T) == 1) return T(i.nextU8());
      else if constexpr (sizeof(T) == 2) return T(i.nextU16());
      else if constexpr (sizeof(T) == 4) return T(i.nextU32());
      else return T(i.nextU64());
   }
};

template <>
struct Nbo<double> {
   static constexpr size_t fixedSize = 8;
   static void store(char *& p, double v) {
      uint64_t w;
      std::memcpy(&w, &v, 8);
      storeBE(p, w);
   }
   static void write(Out & o, double v, RefCodec *) { o.putDouble(v); }
   static double read(In & i, RefCodec *) { return i.nextdouble(); }
};

template <>
struct Nbo<String8> {
   static void write(Out & o, String8 const & v, RefCodec *) { o.putString(v.view()); }
   static String8 read(In & i, RefCodec *) { return i.nextString(); }
};

template <>
struct Nbo<Name> {
   static void write(Out & o, Name const & v, RefCodec *) { o.putString(v.view()); }
   static Name read(In & i, RefCodec *) { return Name(i.nextString()); }
};

template <Enumeration E>
struct Nbo<E> {
   static constexpr size_t fixedSize = 4;
   static void store(char *& p, E v) { storeBE(p, uint32_t(v)); }
   static void write(Out & o, E v, RefCodec *) { o.putU32(uint32_t(v)); }
   static E read(In & i, RefCodec *) {
      uint32_t v = i.nextU32();
      if (!kelEnumInfo(E{}).nameOf(v)) throw UnknownEnum(kelEnumInfo(E{}).shortName);
      return E(v);
   }
};

template <ValueType V>
struct Nbo<V> {
   static constexpr size_t fixedTotal() {
      return std::apply(
          [](auto const &... f) -> size_t {
             size_t n = 0;
             bool all = true;
             ((all = all && nboFixedSize<typename std::decay_t<decltype(f)>::Type>() > 0,
               n += nboFixedSize<typename std::decay_t<decltype(f)>::Type>()),
              ...);
             return all ? n : 0;
          },
          V::kelFields());
   }
   static void write(Out & o, V const & v, RefCodec * rc) {
      if constexpr (fixedTotal() > 0) {
         // All fields of fixed width: reserve once, store each.
         char * p = o.room(fixedTotal());
         std::apply(
             [&](auto const &... f) {
                (Nbo<typename std::decay_t<decltype(f)>::Type>::store(p, v.*(f.member)), ...);
             },
             V::kelFields());
         return;
      }
      std::apply(
          [&](auto const &... f) {
             (Nbo<typename std::decay_t<decltype(f)>::Type>::write(o, v.*(f.member), rc), ...);
          },
          V::kelFields());
   }
   static V read(In & i, RefCodec * rc) {
      V v;
      std::apply(
          [&](auto const &... f) {
             ((v.*(f.member) = Nbo<typename std::decay_t<decltype(f)>::Type>::read(i, rc)), ...);
          },
          V::kelFields());
      // A record's declared range holds for what arrives, too.
      if constexpr (requires { v.kelCheck(); }) v.kelCheck();
      return v;
   }
};

template <class T>
struct Nbo<Ptr<T>> {
   static void write(Out & o, Ptr<T> const & v, RefCodec * rc) { rc->writeRef(o, v.ptr()); }
   static Ptr<T> read(In & i, RefCodec * rc) {
      Ptr<Entity> e = rc->readRef(i);
      if (!e) return Ptr<T>();
      auto * t = dynamic_cast<std::remove_const_t<T> *>(e.ptr());
      if (!t) throwRangeException("Entity is the wrong type");
      return Ptr<T>(t);
   }
};

} // namespace NboAttrLog
} // namespace Kel
