// Interface identifiers.
//
// An IntfId is one 64-bit word laid out so that plain integer order is the
// order a person expects in a listing: family first, then the numbers of the
// name from left to right, a shorter name before its extensions, and a port
// before its sub-interfaces (Ethernet2 < Ethernet10 < Ethernet10/1 <
// Ethernet10/1.5 < Ethernet10/2).
//
//    bits 63..56  family code (GenericIntfId::typeId), 0 = no interface
//    bits 55..36  first number  + 1   (0 = absent)
//    bits 35..24  second number + 1
//    bits 23..16  third number  + 1
//    bits 15..0   sub-interface number + 1
//
// GenericIntfId numbers the parts from the right, as the typed views expect:
// part 0 is the last number of the name (port, VLAN, tunnel number), part 1
// the one before it (module).
#pragma once

#include <Kel/NboAttrLog.h>
#include <Kel/String8.h>
#include <Kel/Text.h>
#include <Kel/Type.h>

#include <compare>
#include <cstdint>
#include <ostream>

namespace Zenet {

class IntfId {
 public:
   constexpr IntfId() = default;
   constexpr explicit IntfId(uint64_t v) : v_(v) {}
   // Parses an interface name ("Ethernet3/1.100", "Vlan100", ...), the empty
   // name (no interface), or the raw form "IntfId(0x...)". Anything else is
   // refused with Kel::RangeException.
   explicit IntfId(std::string_view name);
   explicit IntfId(const char * name) : IntfId(std::string_view(name)) {}
   explicit IntfId(Kel::String8 const & name) : IntfId(name.view()) {}

   constexpr uint64_t intfIdValue() const { return v_; }
   constexpr bool isNull() const { return v_ == 0; }
   // True when the identifier has a name (stringValue is not the raw form).
   bool hasName() const;
   // The interface name; "" for no interface; "IntfId(0x...)" for a word
   // that no family decodes.
   Kel::String8 stringValue() const;
   // Hash maps take their bucket from the bit-reversed hash, which is the
   // cheap one to compute here; hash() is its reversal.
   uint32_t kelRhash() const { return Kel::spreadRhash(v_); }
   uint32_t hash() const { return Kel::bitReverse(kelRhash()); }

   friend constexpr bool operator==(IntfId a, IntfId b) { return a.v_ == b.v_; }
   friend constexpr auto operator<=>(IntfId a, IntfId b) { return a.v_ <=> b.v_; }
   friend std::ostream & operator<<(std::ostream & os, IntfId id) {
      return os << id.stringValue();
   }

 private:
   uint64_t v_ = 0;
};

// Parses a name without throwing: false and a reason on failure.
bool parseIntfName(std::string_view name, IntfId * out, Kel::String8 * reason);

class GenericIntfId {
 public:
   static constexpr uint32_t maxPart[3] = {1048574, 4094, 254};  // by position from the left
   static constexpr uint32_t maxSubIntf = 65534;

   static uint8_t typeId(IntfId id) { return uint8_t(id.intfIdValue() >> 56); }
   // Number of numeric parts in the name (sub-interface number excluded).
   static uint8_t parts(IntfId id);
   // Part `index`, counted from the right; 0 when absent.
   static uint32_t part(IntfId id, uint8_t index);
   static bool isSubIntf(IntfId id) { return (id.intfIdValue() & 0xffff) != 0; }
   static uint32_t subIntf(IntfId id) {
      return isSubIntf(id) ? uint32_t(id.intfIdValue() & 0xffff) - 1 : 0;
   }

   static void typeIdIs(IntfId & id, uint8_t typeId);
   // Sets part `index` (from the right) of an identifier with `count` parts;
   // the other parts keep their positions from the right. Values larger
   // than the field holds are refused with Kel::RangeException.
   static void partIs(IntfId & id, uint8_t count, uint8_t index, uint32_t value);
   static void subIntfIs(IntfId & id, uint32_t sub);

   // Builds from a family code and the numbers in name order (left to right).
   static IntfId make(uint8_t typeId, std::initializer_list<uint32_t> numbers,
                      uint32_t sub = 0, bool isSub = false);
};

} // namespace Zenet

template <>
struct Kel::Text<Zenet::IntfId> {
   // The quoted interface name.
   static void print(String8 & out, Zenet::IntfId id) { printQuoted(out, id.stringValue().view()); }
   static void parse(TextIt & it, TextIt end, Zenet::IntfId * id);
};

template <>
struct Kel::BuiltinName<Zenet::IntfId> {
   static constexpr const char * value = "Zenet::IntfId";
};

// On the attribute log: the 64-bit word.
template <>
struct Kel::NboAttrLog::Nbo<Zenet::IntfId> {
   static constexpr size_t fixedSize = 8;
   static void store(char *& p, Zenet::IntfId v) { storeBE(p, v.intfIdValue()); }
   static void write(Out & o, Zenet::IntfId v, RefCodec *) { o.putU64(v.intfIdValue()); }
   static Zenet::IntfId read(In & i, RefCodec *) { return Zenet::IntfId(i.nextU64()); }
};

template <>
struct std::hash<Zenet::IntfId> {
   size_t operator()(Zenet::IntfId id) const { return id.hash(); }
};
