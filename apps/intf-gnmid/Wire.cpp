// gNMI messages in the protobuf wire format; see Wire.h.
#include "Wire.h"

#include <array>

namespace Gnmi::Wire {

namespace {

// Wire types and the field numbers of the gNMI messages written here.
enum : unsigned { varintType = 0, lengthType = 2 };
enum : unsigned {
   pathOrigin = 2, pathElem = 3, pathTarget = 4,  // Path
   elemName = 1, elemKey = 2,                     // PathElem (key: map entries of key = 1, value = 2)
   valString = 1, valUint = 3, valBool = 4, valJson = 10, valJsonIetf = 11,  // TypedValue
   updatePath = 1, updateVal = 3,                                          // Update
   notifTimestamp = 1, notifPrefix = 2, notifUpdate = 4, notifDelete = 5,  // Notification
   respUpdate = 1, respSync = 3,                                           // SubscribeResponse
   getRespNotification = 1,                                                // GetResponse
};

std::string elem(std::string_view name, std::string_view keyName = {}, std::string_view keyValue = {}) {
   std::string e;
   bytes(e, elemName, name);
   if (!keyName.empty()) {
      std::string entry;
      bytes(entry, 1, keyName);
      bytes(entry, 2, keyValue);
      bytes(e, elemKey, entry);
   }
   std::string out;
   bytes(out, pathElem, e);
   return out;
}

// The elem fields of each leaf's path below interface[name=N].
std::array<std::string, leafCount> const & leafTails() {
   static auto const tails = [] {
      std::array<std::string, leafCount> t;
      for (unsigned l = 0; l < leafCount; ++l) {
         std::string path = leafInfo(l).path;
         for (size_t start = 0; start <= path.size();) {
            size_t slash = path.find('/', start);
            if (slash == std::string::npos) slash = path.size();
            t[l] += elem(std::string_view(path).substr(start, slash - start));
            start = slash + 1;
         }
      }
      return t;
   }();
   return tails;
}

void pathOf(std::string & update, std::string_view intf, Leaf l) {
   std::string const & tail = leafTails()[size_t(l)];
   key(update, updatePath, lengthType);
   varint(update, intf.size() + tail.size());
   update += intf;
   update += tail;
}

std::string prefix(std::string_view elems, std::string const & target) {
   std::string p(elems);
   if (!target.empty()) bytes(p, pathTarget, target);
   std::string out;
   bytes(out, notifPrefix, p);
   return out;
}

} // namespace

void varint(std::string & out, uint64_t v) {
   while (v >= 0x80) {
      out += char(uint8_t(v) | 0x80);
      v >>= 7;
   }
   out += char(uint8_t(v));
}

void key(std::string & out, unsigned field, unsigned wireType) { varint(out, (uint64_t(field) << 3) | wireType); }

void bytes(std::string & out, unsigned field, std::string_view b) {
   key(out, field, lengthType);
   varint(out, b.size());
   out += b;
}

void number(std::string & out, unsigned field, uint64_t v) {
   key(out, field, varintType);
   varint(out, v);
}

std::string intfElem(std::string const & name) { return elem("interface", "name", name); }

std::string elems(std::vector<PathElem> const & path) {
   std::string out;
   for (auto const & e : path) {
      std::string one;
      bytes(one, elemName, e.name);
      for (auto const & [k, v] : e.keys) {
         std::string entry;
         bytes(entry, 1, k);
         bytes(entry, 2, v);
         bytes(one, elemKey, entry);
      }
      bytes(out, pathElem, one);
   }
   return out;
}

std::string interfacesPrefix(std::string const & target) { return prefix(elem("interfaces"), target); }

std::string rootPrefix(std::string const & target) {
   return target.empty() ? std::string() : prefix({}, target);
}

void leafUpdate(std::string & updates, std::string_view intf, Leaf l, Value const & v, Enc enc) {
   std::string val;
   if (enc != Enc::proto) {
      bytes(val, enc == Enc::json ? valJson : valJsonIetf, jsonScalar(l, v));
   } else switch (leafInfo(l).type) {
   case LeafType::uint16:
   case LeafType::uint64: number(val, valUint, v.number); break;
   case LeafType::boolean: number(val, valBool, v.number ? 1 : 0); break;
   default: bytes(val, valString, v.text); break;
   }
   std::string u;
   pathOf(u, intf, l);
   bytes(u, updateVal, val);
   bytes(updates, notifUpdate, u);
}

void counterUpdate(std::string & updates, std::string_view intf, Leaf l, uint64_t v, Enc enc) {
   std::string const & tail = leafTails()[size_t(l)];
   // TypedValue: the number, or its JSON string of digits.
   char digits[24];
   size_t nd = 0;
   size_t valLen;
   if (enc == Enc::proto) {
      size_t vb = 1;
      for (uint64_t x = v; x >= 0x80; x >>= 7) ++vb;
      valLen = 1 + vb;
   } else {
      uint64_t x = v;
      do {
         digits[nd++] = char('0' + x % 10);
         x /= 10;
      } while (x);
      valLen = 1 + 1 + nd + 2;  // key, length, quoted digits
   }
   size_t pathLen = intf.size() + tail.size();
   size_t lenBytes = 1;
   for (size_t x = pathLen; x >= 0x80; x >>= 7) ++lenBytes;
   size_t updateLen = 1 + lenBytes + pathLen + 1 + 1 + valLen;
   key(updates, notifUpdate, lengthType);
   varint(updates, updateLen);
   key(updates, updatePath, lengthType);
   varint(updates, pathLen);
   updates += intf;
   updates += tail;
   key(updates, updateVal, lengthType);
   varint(updates, valLen);
   if (enc == Enc::proto) {
      number(updates, valUint, v);
   } else {
      key(updates, enc == Enc::json ? valJson : valJsonIetf, lengthType);
      varint(updates, nd + 2);
      updates += '"';
      while (nd) updates += digits[--nd];
      updates += '"';
   }
}

void jsonUpdate(std::string & updates, std::string_view pathElems, std::string_view json, Enc enc) {
   std::string u, path(pathElems), val;
   bytes(u, updatePath, path);
   bytes(val, enc == Enc::json ? valJson : valJsonIetf, json);
   bytes(u, updateVal, val);
   bytes(updates, notifUpdate, u);
}

std::string notification(int64_t timestampNs, std::string_view prefix, std::string_view updates,
                         std::string_view deletes) {
   std::string n;
   n.reserve(12 + prefix.size() + updates.size() + deletes.size());
   number(n, notifTimestamp, uint64_t(timestampNs));
   n += prefix;
   n += updates;
   n += deletes;
   return n;
}

std::string subscribeUpdate(std::string_view notification) {
   std::string out;
   out.reserve(notification.size() + 6);
   bytes(out, respUpdate, notification);
   return out;
}

std::string getNotification(std::string_view notification) {
   std::string out;
   bytes(out, getRespNotification, notification);
   return out;
}

std::string syncResponse() {
   std::string out;
   number(out, respSync, 1);
   return out;
}

void intfDelete(std::string & deletes, std::string_view intf) { bytes(deletes, notifDelete, intf); }

} // namespace Gnmi::Wire
