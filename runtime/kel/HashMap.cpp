#include <Kel/HashMap.h>

#include <cstdlib>
#include <new>

namespace Kel {

namespace {

// (rhash, key) order of two distinct members.
bool before(HashMapNode const * a, HashMapNode const * b, HashMapVTable const & vt) {
   if (a->rhash != b->rhash) return a->rhash < b->rhash;
   return vt.keyLessThan(a, b);
}

} // namespace

void HashMapGeneric::resize(uint8_t newLog2) {
   uint32_t oldCount = buckets();
   uint32_t newCount = uint32_t(1) << newLog2;
   auto ** nb = static_cast<HashMapNode **>(std::calloc(newCount, sizeof(HashMapNode *)));
   if (!nb) throw std::bad_alloc();
   if (newLog2 > log2_) {
      // Each old bucket splits where the next bit of the reversed hash turns 1.
      for (uint32_t i = 0; i < oldCount; ++i) {
         HashMapNode * lo = buckets_[i];
         HashMapNode ** tail = &nb[2 * i];
         *tail = lo;
         HashMapNode * prev = nullptr;
         HashMapNode * n = lo;
         uint32_t bit = uint32_t(1) << (31 - log2_);
         while (n && !(n->rhash & bit)) {
            prev = n;
            n = n->next;
         }
         if (prev) {
            prev->next = nullptr;
         } else {
            nb[2 * i] = nullptr;
         }
         nb[2 * i + 1] = n;
      }
   } else {
      // Two neighbouring buckets concatenate, lower half first.
      for (uint32_t i = 0; i < newCount; ++i) {
         HashMapNode * a = buckets_[2 * i];
         HashMapNode * b = buckets_[2 * i + 1];
         if (!a) {
            nb[i] = b;
            continue;
         }
         nb[i] = a;
         while (a->next) a = a->next;
         a->next = b;
      }
   }
   std::free(buckets_);
   buckets_ = nb;
   log2_ = newLog2;
}

void HashMapGeneric::newMemberG(HashMapNode * n, HashMapVTable const & vt) {
   if (!buckets_) {
      buckets_ = static_cast<HashMapNode **>(std::calloc(1, sizeof(HashMapNode *)));
      if (!buckets_) throw std::bad_alloc();
      log2_ = 0;
   } else if (size_ + 1 > buckets() / 2 && log2_ < 31) {
      resize(uint8_t(log2_ + 1));
   }
   HashMapNode ** link = &buckets_[bucketOf(n->rhash)];
   while (*link && before(*link, n, vt)) link = &(*link)->next;
   n->next = *link;
   *link = n;
   n->inTable = true;
   ++n->refs;
   ++size_;
}

void HashMapGeneric::deleteMember(HashMapNode * n, HashMapVTable const & vt) {
   HashMapNode ** link = &buckets_[bucketOf(n->rhash)];
   while (*link != n) link = &(*link)->next;
   *link = n->next;
   n->next = nullptr;
   n->inTable = false;
   --size_;
   if (size_ == 0) {
      std::free(buckets_);
      buckets_ = nullptr;
      log2_ = 0;
   } else if (log2_ > 0 && size_ < (buckets() >> 3)) {
      resize(uint8_t(log2_ - 1));
   }
   kelRelease(n, vt);
}

void HashMapGeneric::emptyAllBuckets(HashMapVTable const & vt) {
   if (!buckets_) return;
   HashMapNode ** b = buckets_;
   uint32_t count = buckets();
   buckets_ = nullptr;
   size_ = 0;
   log2_ = 0;
   for (uint32_t i = 0; i < count; ++i) {
      HashMapNode * n = b[i];
      while (n) {
         HashMapNode * nx = n->next;
         n->next = nullptr;
         n->inTable = false;
         kelRelease(n, vt);
         n = nx;
      }
   }
   std::free(b);
}

HashMapNode * HashMapGeneric::firstG() const {
   if (!buckets_) return nullptr;
   for (uint32_t i = 0, c = buckets(); i < c; ++i) {
      if (buckets_[i]) return buckets_[i];
   }
   return nullptr;
}

HashMapNode * HashMapGeneric::startAtHash(uint32_t rhash) const {
   if (!buckets_) return nullptr;
   for (uint32_t i = bucketOf(rhash), c = buckets(); i < c; ++i) {
      for (HashMapNode * n = buckets_[i]; n; n = n->next) {
         if (n->rhash >= rhash) return n;
      }
   }
   return nullptr;
}

HashMapNode * HashMapGeneric::findNextG(HashMapNode const * n, HashMapVTable const & vt) const {
   if (n->inTable) {
      if (n->next) return n->next;
      for (uint32_t i = bucketOf(n->rhash) + 1, c = buckets(); i < c; ++i) {
         if (buckets_[i]) return buckets_[i];
      }
      return nullptr;
   }
   // Removed meanwhile: the successor is the first member ordered after it.
   if (!buckets_) return nullptr;
   for (uint32_t i = bucketOf(n->rhash), c = buckets(); i < c; ++i) {
      for (HashMapNode * m = buckets_[i]; m; m = m->next) {
         if (before(n, m, vt)) return m;
      }
   }
   return nullptr;
}

} // namespace Kel
