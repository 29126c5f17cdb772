// Text parsers against arbitrary bytes: interface names and the text form of
// every record and enumeration of the model. Whatever a parser accepts must
// print to text that parses back to the same value; a refusal must be a
// Kel exception. Any other outcome traps.
#include <Intf/Types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace Interface;
using Kel::String8;
using Zenet::IntfId;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

// Both spellings of the name parser must agree, and an accepted name is
// already the one the identifier prints.
void fuzzName(std::string_view text) {
   IntfId quiet;
   String8 reason;
   bool accepted = Zenet::parseIntfName(text, &quiet, &reason);
   check(accepted || !reason.empty());
   bool thrown = false;
   IntfId id;
   try {
      id = IntfId(text);
   } catch (Kel::RangeException const &) {
      thrown = true;
   }
   check(accepted == !thrown);
   if (!accepted) return;
   check(id == quiet);
   String8 printed = id.stringValue();
   check(printed.view() == text);
   check(IntfId(printed) == id);
}

// Any word prints to text (name or raw form) that reads back as that word.
void fuzzWord(const uint8_t * data, size_t size) {
   if (size < 8) return;
   uint64_t v;
   std::memcpy(&v, data, 8);
   IntfId id(v);
   IntfId back;
   check(Zenet::parseIntfName(id.stringValue().view(), &back, nullptr));
   check(back == id);
}

template <class T>
bool selfEqual(T const & v) {
   return v == v;
}

// True when the text is accepted as a T.
template <class T>
bool fuzzType(String8 const & text) {
   T v;
   try {
      Kel::strepToValue(text, &v);
   } catch (Kel::Exception const &) {
      return false;
   }
   String8 printed = Kel::valueToStrep(v);
   T back;
   Kel::strepToValue(printed, &back);  // must not throw
   // A NaN field makes a record unequal to itself; its text still must match.
   if (selfEqual(v)) check(back == v);
   check(Kel::valueToStrep(back) == printed);
   return true;
}

// Parsers that cannot get past their first token are skipped, which keeps
// the count of exceptions (the bulk of the time under ASan) per input low:
// a record needs its quoted type name literally in the text, and an
// enumeration or quoted name needs the text to be one quoted string. One
// record always runs, for the paths that refuse a header.
template <class V>
void fuzzRecord(String8 const & text, bool always = false) {
   if (always || text.contains(V::kelTypeName)) fuzzType<V>(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
   std::string_view bytes(reinterpret_cast<const char *>(data), size);
   String8 text(bytes);
   fuzzName(bytes);
   fuzzWord(data, size);

   fuzzRecord<IntfStatistics>(text, true);
   fuzzRecord<IntfRates>(text);
   fuzzRecord<LoadInterval>(text);
   fuzzRecord<IntfConfigRequest>(text);
   fuzzRecord<IntfStatusOperStatusChange>(text);
   fuzzRecord<QueueCounterConstants>(text);

   if (!fuzzType<String8>(text)) return 0;
   fuzzType<IntfId>(text);
   fuzzType<IntfOperStatus>(text);
   fuzzType<IntfEnabledState>(text);
   fuzzType<IntfForwardingModel>(text);
   fuzzType<IntfLoggingMode>(text);
   fuzzType<PktType>(text);
   fuzzType<DropPrecedence>(text);
   return 0;
}
