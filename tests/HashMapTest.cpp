// The hash map engine: order, growth and shrinking, members that outlive
// their removal.
#include <Kel/HashMap.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

struct M : Kel::HashMapMember<uint32_t, int> {
   using HashMapMember::HashMapMember;
};
using Map = Kel::HashMap<M, uint32_t, int>;

std::vector<uint32_t> keysInOrder(Map const & m) {
   std::vector<uint32_t> out;
   for (auto it = m.begin(); it; ++it) out.push_back(it.key());
   return out;
}

// Iteration must be ascending (reversed hash, key), however the table got
// to its current size.
void expectReversedHashOrder(Map const & m) {
   std::vector<std::pair<uint32_t, uint32_t>> seen;
   for (auto it = m.begin(); it; ++it) seen.emplace_back(Map::rhashOf(it.key()), it.key());
   EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
   EXPECT_EQ(seen.size(), m.size());
}

} // namespace

TEST(HashMap, RandomInsertsAndDeletesMatchAReferenceMap) {
   Map m;
   std::map<uint32_t, int> ref;
   std::mt19937 rng(7);
   for (int step = 0; step < 20000; ++step) {
      uint32_t k = rng() % 3000;
      if (rng() % 3) {
         if (auto * mem = m.find(k)) {
            mem->value = step;
         } else {
            m.insert(k, step);
         }
         ref[k] = step;
      } else if (auto * mem = m.find(k)) {
         m.erase(mem);
         ref.erase(k);
      }
      if (step % 2000 == 0) expectReversedHashOrder(m);
   }
   ASSERT_EQ(m.size(), ref.size());
   for (auto [k, v] : ref) {
      ASSERT_TRUE(m.find(k));
      EXPECT_EQ(m.find(k)->value, v);
   }
   EXPECT_LE(2 * m.size(), m.buckets());
}

TEST(HashMap, GrowsAndShrinksAndFreesItsBucketsWhenEmpty) {
   Map m;
   EXPECT_EQ(m.buckets(), 0u);
   for (uint32_t k = 0; k < 1000; ++k) m.insert(k, 0);
   EXPECT_EQ(m.buckets(), 2048u);  // at most half full
   expectReversedHashOrder(m);
   for (uint32_t k = 0; k < 990; ++k) m.erase(m.find(k));
   EXPECT_LE(m.buckets(), 128u);
   expectReversedHashOrder(m);
   for (uint32_t k = 990; k < 1000; ++k) EXPECT_TRUE(m.find(k));
   for (uint32_t k = 990; k < 1000; ++k) m.erase(m.find(k));
   EXPECT_EQ(m.buckets(), 0u);
}

TEST(HashMap, IteratorSurvivesRemovalOfItsMemberAndResizing) {
   Map m;
   for (uint32_t k = 0; k < 256; ++k) m.insert(k, int(k));
   std::vector<uint32_t> order = keysInOrder(m);
   std::vector<uint32_t> visited;
   // Remove the current member and a run of later ones, forcing shrinks.
   for (auto it = m.begin(); it; ++it) {
      visited.push_back(it.key());
      M * cur = it.member();
      m.erase(cur);
      EXPECT_EQ(it.key(), visited.back());  // still readable
   }
   EXPECT_EQ(visited, order);
   EXPECT_EQ(m.size(), 0u);
}

TEST(HashMap, IteratorAdvancesPastMembersRemovedBehindItsBack) {
   Map m;
   for (uint32_t k = 0; k < 100; ++k) m.insert(k, 0);
   std::vector<uint32_t> order = keysInOrder(m);
   auto it = m.begin();
   for (int i = 0; i < 10; ++i) ++it;
   M * cur = it.member();
   // Remove the current member and the next five.
   std::vector<M *> gone{cur};
   for (M * n = m.next(cur); gone.size() < 6; n = m.next(n)) gone.push_back(n);
   for (M * g : gone) m.erase(g);
   ++it;
   EXPECT_EQ(it.key(), order[16]);
}

TEST(HashMap, MembersAreFreedWhenTheLastHolderLetsGo) {
   static int live = 0;
   struct Tracked {
      Tracked() { ++live; }
      Tracked(Tracked const &) { ++live; }
      ~Tracked() { --live; }
      bool operator==(Tracked const &) const { return true; }
   };
   struct TM : Kel::HashMapMember<uint32_t, Tracked> {
      using HashMapMember::HashMapMember;
   };
   {
      Kel::HashMap<TM, uint32_t, Tracked> m;
      for (uint32_t k = 0; k < 10; ++k) m.insert(k, Tracked());
      EXPECT_EQ(live, 10);
      auto it = m.begin();
      m.clear();
      EXPECT_EQ(live, 1);  // the iterator's member
   }
   EXPECT_EQ(live, 0);
}
