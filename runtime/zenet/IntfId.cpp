#include <Zenet/IntfId.h>

#include <Kel/Exception.h>

#include <charconv>
#include <cinttypes>

namespace Zenet {

namespace {

struct Family {
   const char * prefix;
   uint8_t typeId;
   uint8_t minParts;
   uint8_t maxParts;
   uint32_t minFirst;
   uint32_t maxFirst;
   bool subIntf;
};

constexpr Family families[] = {
#define INTF_FAMILY(Id, prefix, typeId, minParts, maxParts, minFirst, maxFirst, sub) \
   {prefix, typeId, minParts, maxParts, minFirst, maxFirst, sub},
#include <Zenet/IntfFamilies.def>
#undef INTF_FAMILY
};

Family const * familyByCode(uint8_t code) {
   for (auto const & f : families) {
      if (f.typeId == code) return &f;
   }
   return nullptr;
}

Family const * familyByPrefix(std::string_view p) {
   for (auto const & f : families) {
      if (p == f.prefix) return &f;
   }
   return nullptr;
}

// Field positions of the three parts, left to right, and the sub-interface.
constexpr unsigned shift[3] = {36, 24, 16};
constexpr uint64_t mask[3] = {0xfffff, 0xfff, 0xff};

uint32_t slot(uint64_t v, int i) { return uint32_t((v >> shift[i]) & mask[i]); }

int slotCount(uint64_t v) {
   int n = 0;
   while (n < 3 && slot(v, n)) ++n;
   return n;
}

bool decodable(uint64_t v, Family const ** famOut) {
   Family const * f = familyByCode(uint8_t(v >> 56));
   if (!f) return false;
   int n = slotCount(v);
   for (int i = n; i < 3; ++i) {
      if (slot(v, i)) return false;  // a gap: not a name's shape
   }
   if (n < f->minParts || n > f->maxParts) return false;
   uint32_t first = slot(v, 0) - 1;
   if (first < f->minFirst || first > f->maxFirst) return false;
   if ((v & 0xffff) && !f->subIntf) return false;
   *famOut = f;
   return true;
}

void appendU32(std::string & s, uint32_t v) {
   char buf[12];
   auto r = std::to_chars(buf, buf + sizeof buf, v);
   s.append(buf, r.ptr);
}

// A decimal number without sign or leading zeros.
bool readNumber(std::string_view s, size_t & i, uint32_t max, uint32_t * out) {
   size_t start = i;
   while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
   if (i == start) return false;
   if (s[start] == '0' && i - start > 1) return false;
   uint64_t v = 0;
   auto r = std::from_chars(s.data() + start, s.data() + i, v);
   if (r.ec != std::errc() || v > max) return false;
   *out = uint32_t(v);
   return true;
}

} // namespace

bool parseIntfName(std::string_view name, IntfId * out, Kel::String8 * reason) {
   auto fail = [&](const char * why) {
      if (reason) {
         *reason = Kel::String8("bad interface name ");
         Kel::printQuoted(*reason, name);
         *reason += ": ";
         *reason += why;
      }
      return false;
   };
   if (name.empty()) {
      *out = IntfId();
      return true;
   }
   if (name.substr(0, 9) == "IntfId(0x" && name.back() == ')') {
      // Only the form stringValue prints: 16 lowercase hex digits of a word
      // without a name, so that each identifier has one text.
      std::string_view hex = name.substr(9, name.size() - 10);
      uint64_t v = 0;
      bool ok = hex.size() == 16;
      for (char c : hex) ok = ok && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
      if (!ok) return fail("malformed raw identifier");
      std::from_chars(hex.data(), hex.data() + hex.size(), v, 16);
      if (IntfId(v).hasName()) return fail("raw form of an identifier that has a name");
      *out = IntfId(v);
      return true;
   }
   size_t i = 0;
   while (i < name.size() && ((name[i] >= 'A' && name[i] <= 'Z') ||
                              (name[i] >= 'a' && name[i] <= 'z') || name[i] == '-')) {
      ++i;
   }
   Family const * f = familyByPrefix(name.substr(0, i));
   if (!f) return fail("unknown interface type");
   uint32_t nums[3] = {0, 0, 0};
   int n = 0;
   for (;;) {
      if (n == 3) return fail("too many numbers");
      uint32_t max = n == 0 ? f->maxFirst : GenericIntfId::maxPart[n];
      if (!readNumber(name, i, max, &nums[n])) {
         return fail(i < name.size() && name[i] >= '0' && name[i] <= '9'
                         ? "number out of range or with a leading zero"
                         : "expected a number");
      }
      ++n;
      if (i < name.size() && name[i] == '/') {
         ++i;
         continue;
      }
      break;
   }
   if (n < f->minParts || n > f->maxParts) return fail("wrong count of numbers for its type");
   if (nums[0] < f->minFirst) return fail("number out of range or with a leading zero");
   uint64_t v = uint64_t(f->typeId) << 56;
   for (int k = 0; k < n; ++k) v |= uint64_t(nums[k] + 1) << shift[k];
   if (i < name.size() && name[i] == '.') {
      if (!f->subIntf) return fail("sub-interfaces not allowed for its type");
      ++i;
      uint32_t sub = 0;
      if (!readNumber(name, i, GenericIntfId::maxSubIntf, &sub)) {
         return fail("bad sub-interface number");
      }
      v |= uint64_t(sub + 1);
   }
   if (i != name.size()) return fail("unexpected characters");
   *out = IntfId(v);
   return true;
}

IntfId::IntfId(std::string_view name) {
   Kel::String8 reason;
   if (!parseIntfName(name, this, &reason)) Kel::throwRangeException(reason);
}

bool IntfId::hasName() const {
   Family const * f;
   return v_ == 0 || decodable(v_, &f);
}

Kel::String8 IntfId::stringValue() const {
   if (v_ == 0) return Kel::String8();
   Family const * f = nullptr;
   if (!decodable(v_, &f)) {
      char buf[32];
      snprintf(buf, sizeof buf, "IntfId(0x%016" PRIx64 ")", v_);
      return Kel::String8(buf);
   }
   std::string s(f->prefix);
   int n = slotCount(v_);
   for (int k = 0; k < n; ++k) {
      if (k) s += '/';
      appendU32(s, slot(v_, k) - 1);
   }
   if (v_ & 0xffff) {
      s += '.';
      appendU32(s, uint32_t(v_ & 0xffff) - 1);
   }
   return Kel::String8(std::move(s));
}

uint8_t GenericIntfId::parts(IntfId id) { return uint8_t(slotCount(id.intfIdValue())); }

uint32_t GenericIntfId::part(IntfId id, uint8_t index) {
   uint64_t v = id.intfIdValue();
   int n = slotCount(v);
   if (index >= n) return 0;
   return slot(v, n - 1 - index) - 1;
}

void GenericIntfId::typeIdIs(IntfId & id, uint8_t typeId) {
   id = IntfId((id.intfIdValue() & ~(uint64_t(0xff) << 56)) | (uint64_t(typeId) << 56));
}

void GenericIntfId::partIs(IntfId & id, uint8_t count, uint8_t index, uint32_t value) {
   if (count < 1 || count > 3 || index >= count) {
      Kel::throwRangeException("GenericIntfId::partIs index or count out of range");
   }
   int pos = count - 1 - index;
   if (value >= mask[pos]) Kel::throwRangeException("GenericIntfId::partIs value too large");
   uint64_t v = id.intfIdValue();
   v &= ~(mask[pos] << shift[pos]);
   v |= uint64_t(value + 1) << shift[pos];
   id = IntfId(v);
}

void GenericIntfId::subIntfIs(IntfId & id, uint32_t sub) {
   if (sub > maxSubIntf) Kel::throwRangeException("GenericIntfId::subIntfIs value too large");
   id = IntfId((id.intfIdValue() & ~uint64_t(0xffff)) | uint64_t(sub + 1));
}

IntfId GenericIntfId::make(uint8_t typeId, std::initializer_list<uint32_t> numbers, uint32_t sub,
                           bool isSub) {
   IntfId id;
   typeIdIs(id, typeId);
   uint8_t count = uint8_t(numbers.size());
   uint8_t pos = 0;
   for (uint32_t n : numbers) partIs(id, count, uint8_t(count - 1 - pos++), n);
   if (isSub) subIntfIs(id, sub);
   return id;
}

} // namespace Zenet

void Kel::Text<Zenet::IntfId>::parse(TextIt & it, TextIt end, Zenet::IntfId * id) {
   String8 name;
   parseQuoted(it, end, &name);
   *id = Zenet::IntfId(name.view());
}
