// Keyed collections of the runtime.
//
// HashMap: chained buckets indexed by the top bits of the bit-reversed
// 32-bit key hash. Each chain is kept sorted by (reversed hash, key), so the
// whole table iterates in ascending reversed-hash order, a bucket splits into
// two contiguous halves when the table doubles, and two halves merge by
// concatenation when it shrinks. Members are counted objects: the table holds
// one reference, every iterator holds one more, so removing the member under
// an iterator leaves the iterator able to find its successor.
//
// RbTreeMap: the same member and iterator model in ascending key order.
//
// HashMapGeneric / RbTreeMapGeneric hold everything that does not depend on
// the key type; the typed templates add inline look-up.
#pragma once

#include <Kel/String8.h>

#include <cstdint>
#include <map>
#include <type_traits>
#include <utility>

namespace Kel {

// Hash and order of a key type. Specialise for key types that are not
// built-in integers or strings (value types provide hash()). rhash is the
// bit-reversed hash the buckets are indexed by; a key type that can compute
// it directly (kelRhash()) saves the reversal on every look-up.
template <class K, class Enable = void>
struct KeyTraits {
   static uint32_t hash(K const & k) { return k.hash(); }
   static uint32_t rhash(K const & k) {
      if constexpr (requires { k.kelRhash(); }) {
         return k.kelRhash();
      } else {
         return bitReverse(k.hash());
      }
   }
   static bool less(K const & a, K const & b) { return a < b; }
};
template <class K>
struct KeyTraits<K, std::enable_if_t<std::is_integral_v<K> || std::is_enum_v<K>>> {
   static uint32_t rhash(K k) { return spreadRhash(uint64_t(k)); }
   static uint32_t hash(K k) { return bitReverse(rhash(k)); }
   static bool less(K a, K b) { return a < b; }
};

// Generic node: counted, chained, and knows whether it is still in a table.
struct HashMapNode {
   uint32_t refs = 0;
   uint32_t rhash = 0;  // bit-reversed key hash
   HashMapNode * next = nullptr;
   bool inTable = false;
};

// Per-member-class operations the generic engine needs.
struct HashMapVTable {
   bool (*keyLessThan)(HashMapNode const *, HashMapNode const *);
   void (*destroy)(HashMapNode *);
};

class HashMapGeneric {
 public:
   HashMapGeneric() = default;
   HashMapGeneric(HashMapGeneric const &) = delete;
   HashMapGeneric & operator=(HashMapGeneric const &) = delete;

   uint32_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   uint32_t buckets() const { return buckets_ ? uint32_t(1) << log2_ : 0; }

 protected:
   uint32_t bucketOf(uint32_t rhash) const {
      return uint32_t(uint64_t(rhash) >> (32 - log2_));
   }
   HashMapNode * bucketHead(uint32_t rhash) const {
      return buckets_ ? buckets_[bucketOf(rhash)] : nullptr;
   }
   // Links `n` (refs taken by the table) in (rhash, key) order.
   void newMemberG(HashMapNode * n, HashMapVTable const & vt);
   // Unlinks `n`; the table's reference is dropped.
   void deleteMember(HashMapNode * n, HashMapVTable const & vt);
   void emptyAllBuckets(HashMapVTable const & vt);
   HashMapNode * firstG() const;
   // The member after `n`, which may no longer be in the table.
   HashMapNode * findNextG(HashMapNode const * n, HashMapVTable const & vt) const;
   // First member at or after the given reversed hash.
   HashMapNode * startAtHash(uint32_t rhash) const;

 private:
   void resize(uint8_t newLog2);

   HashMapNode ** buckets_ = nullptr;
   uint32_t size_ = 0;
   uint8_t log2_ = 0;
};

inline void kelRelease(HashMapNode * n, HashMapVTable const & vt) {
   if (--n->refs == 0) vt.destroy(n);
}

template <class Key, class Value>
struct HashMapMember : HashMapNode {
   HashMapMember(Key const & k, Value const & v) : key(k), value(v) {}
   Key key;
   Value value;
};

// Iterator over either map kind: holds a reference to its current member.
template <class Map, class Member>
class CollIterator {
 public:
   CollIterator() = default;
   CollIterator(Map const * m, Member * n) : map_(m), n_(n) { if (n_) ++n_->refs; }
   CollIterator(CollIterator const & o) : CollIterator(o.map_, o.n_) {}
   CollIterator(CollIterator && o) noexcept : map_(o.map_), n_(o.n_) { o.n_ = nullptr; }
   CollIterator & operator=(CollIterator const & o) {
      CollIterator t(o);
      std::swap(map_, t.map_);
      std::swap(n_, t.n_);
      return *this;
   }
   ~CollIterator() { if (n_) Map::release(n_); }

   explicit operator bool() const { return n_ != nullptr; }
   // Range-for yields the iterator itself: key(), value(), ptr().
   CollIterator const & operator*() const { return *this; }
   auto const & key() const { return n_->key; }
   auto const & value() const { return n_->value; }
   // Entity collections: the member entity.
   auto ptr() const { return n_->value; }
   auto operator->() const { return n_->value.ptr(); }
   Member * member() const { return n_; }
   CollIterator & operator++() {
      Member * nx = map_->next(n_);
      if (nx) ++nx->refs;
      Map::release(n_);
      n_ = nx;
      return *this;
   }
   friend bool operator==(CollIterator const & a, CollIterator const & b) {
      return a.n_ == b.n_;
   }

 private:
   Map const * map_ = nullptr;
   Member * n_ = nullptr;
};

// A collection in a range-for: from its first member to past its last.
template <class It>
struct CollRange {
   It first;
   It begin() const { return first; }
   It end() const { return It(); }
};

template <class Member, class Key, class Value>
class HashMap : public HashMapGeneric {
 public:
   using KeyType = Key;
   using ValueType = Value;
   using MemberType = Member;
   using IteratorConst = CollIterator<HashMap, Member>;
   using Iterator = IteratorConst;

   HashMap() = default;
   ~HashMap() { emptyAllBuckets(vt_); }

   static uint32_t rhashOf(Key const & k) { return KeyTraits<Key>::rhash(k); }

   Member * find(Key const & k) const {
      uint32_t rh = rhashOf(k);
      for (HashMapNode * n = bucketHead(rh); n && n->rhash <= rh; n = n->next) {
         if (n->rhash == rh && static_cast<Member *>(n)->key == k) {
            return static_cast<Member *>(n);
         }
      }
      return nullptr;
   }
   // Inserts a member for a key that is not present.
   Member * insert(Key const & k, Value const & v) {
      Member * m = new Member(k, v);
      m->rhash = rhashOf(k);
      newMemberG(m, vt_);
      return m;
   }
   void erase(Member * m) { deleteMember(m, vt_); }
   void clear() { emptyAllBuckets(vt_); }

   IteratorConst begin() const { return IteratorConst(this, static_cast<Member *>(firstG())); }
   IteratorConst iterator(Key const & k) const { return IteratorConst(this, find(k)); }
   Member * first() const { return static_cast<Member *>(firstG()); }
   Member * next(Member const * m) const { return static_cast<Member *>(findNextG(m, vt_)); }
   static void release(Member * m) { kelRelease(m, vt_); }

 private:
   static bool lessThan(HashMapNode const * a, HashMapNode const * b) {
      return KeyTraits<Key>::less(static_cast<Member const *>(a)->key,
                                  static_cast<Member const *>(b)->key);
   }
   static void destroy(HashMapNode * n) { delete static_cast<Member *>(n); }
   static inline const HashMapVTable vt_{&lessThan, &destroy};
};

// ---------------------------------------------------------------------------

template <class Key, class Value>
struct RbTreeMapMember {
   RbTreeMapMember(Key const & k, Value const & v) : key(k), value(v) {}
   uint32_t refs = 0;
   bool inTable = false;
   Key key;
   Value value;
};

struct KeyLess {
   template <class K>
   bool operator()(K const & a, K const & b) const { return KeyTraits<K>::less(a, b); }
};

template <class Member, class Key, class Value>
class RbTreeMap {
 public:
   using KeyType = Key;
   using ValueType = Value;
   using MemberType = Member;
   using IteratorConst = CollIterator<RbTreeMap, Member>;
   using Iterator = IteratorConst;

   RbTreeMap() = default;
   RbTreeMap(RbTreeMap const &) = delete;
   RbTreeMap & operator=(RbTreeMap const &) = delete;
   ~RbTreeMap() { clear(); }

   uint32_t size() const { return uint32_t(tree_.size()); }
   bool empty() const { return tree_.empty(); }

   Member * find(Key const & k) const {
      auto it = tree_.find(k);
      return it == tree_.end() ? nullptr : it->second;
   }
   Member * insert(Key const & k, Value const & v) {
      Member * m = new Member(k, v);
      m->refs = 1;
      m->inTable = true;
      tree_.emplace(k, m);
      return m;
   }
   void erase(Member * m) {
      tree_.erase(m->key);
      m->inTable = false;
      release(m);
   }
   void clear() {
      auto t = std::move(tree_);
      tree_.clear();
      for (auto & [k, m] : t) {
         m->inTable = false;
         release(m);
      }
   }
   IteratorConst begin() const { return IteratorConst(this, first()); }
   IteratorConst iterator(Key const & k) const { return IteratorConst(this, find(k)); }
   Member * first() const { return tree_.empty() ? nullptr : tree_.begin()->second; }
   Member * next(Member const * m) const {
      auto it = tree_.upper_bound(m->key);
      return it == tree_.end() ? nullptr : it->second;
   }
   static void release(Member * m) { if (--m->refs == 0) delete m; }

 private:
   std::map<Key, Member *, KeyLess> tree_;
};

} // namespace Kel
