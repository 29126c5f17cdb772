// An unsigned 63-bit counter that may be absent: one 64-bit word whose top
// bit, when set, means that no value is present. Counters that a platform
// cannot always report (octets out, discards out) use it.
#pragma once

#include <Kel/NboAttrLog.h>
#include <Kel/Text.h>
#include <Kel/Type.h>

#include <cstdint>
#include <ostream>

namespace Brik {

class MaybeU63 {
 public:
   static constexpr uint64_t absentBit = uint64_t(1) << 63;

   constexpr MaybeU63() = default;
   constexpr MaybeU63(uint64_t v) : word_(v & ~absentBit) {}
   static constexpr MaybeU63 absent() { return fromWord(absentBit); }
   // The stored word as it is, top bit included (the attribute log carries it).
   static constexpr MaybeU63 fromWord(uint64_t w) {
      MaybeU63 m;
      m.word_ = w;
      return m;
   }

   constexpr bool hasValue() const { return !(word_ & absentBit); }
   // 0 when absent.
   constexpr uint64_t value() const { return hasValue() ? word_ : 0; }
   constexpr uint64_t word() const { return word_; }
   void valueIs(uint64_t v) { word_ = v & ~absentBit; }
   void valueDel() { word_ = absentBit; }

   // Absent equals absent whatever the low bits say.
   friend constexpr bool operator==(MaybeU63 a, MaybeU63 b) {
      return a.hasValue() ? a.word_ == b.word_ : !b.hasValue();
   }
   friend std::ostream & operator<<(std::ostream & os, MaybeU63 m);

 private:
   uint64_t word_ = 0;
};

} // namespace Brik

// Text form: the decimal value, or None when absent.
template <>
struct Kel::Text<Brik::MaybeU63> {
   static void print(String8 & out, Brik::MaybeU63 m) {
      if (m.hasValue()) {
         printU64(out, m.value());
      } else {
         out += "None";
      }
   }
   static void parse(TextIt & it, TextIt end, Brik::MaybeU63 * m);
};

template <>
struct Kel::BuiltinName<Brik::MaybeU63> {
   static constexpr const char * value = "Brik::MaybeU63";
};

// On the attribute log: the stored word, top bit included.
template <>
struct Kel::NboAttrLog::Nbo<Brik::MaybeU63> {
   static constexpr size_t fixedSize = 8;
   static void store(char *& p, Brik::MaybeU63 v) { storeBE(p, v.word()); }
   static void write(Out & o, Brik::MaybeU63 v, RefCodec *) { o.putU64(v.word()); }
   static Brik::MaybeU63 read(In & i, RefCodec *) { return Brik::MaybeU63::fromWord(i.nextU64()); }
};
