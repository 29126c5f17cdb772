// Look-up by interface identifier: Kel::HashMap against std::unordered_map
// keyed by the identifier's 64-bit word, same members, same random key order.
#include "Bench.h"

#include <Kel/HashMap.h>
#include <Zenet/IntfId.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

namespace IntfBench {

namespace {

struct M : Kel::HashMapMember<Zenet::IntfId, uint64_t> {
   using HashMapMember::HashMapMember;
};
using KelMap = Kel::HashMap<M, Zenet::IntfId, uint64_t>;
using PlainMap = std::unordered_map<uint64_t, uint64_t>;

// The same standard map with the identifier's own hash (std::hash of an integer
// is the identity). Not part of any figure: it shows how much of the
// difference comes from where the keys land rather than from the look-up.
struct MixedHash {
   size_t operator()(uint64_t v) const { return Zenet::IntfId(v).hash(); }
};
using MixedMap = std::unordered_map<uint64_t, uint64_t, MixedHash>;

// Line cards of 64 ports: members are Ethernet1/1, Ethernet1/2, ...,
// Ethernet1/64, Ethernet2/1, ...; the absent keys are ports 65 to 128 of
// the same cards.
constexpr uint32_t portsPerCard = 64;

Zenet::IntfId ethernet(uint32_t card, uint32_t port) {
   static const uint8_t family = Zenet::GenericIntfId::typeId(Zenet::IntfId("Ethernet1/1"));
   return Zenet::GenericIntfId::make(family, {card, port});
}

struct Fixture {
   KelMap kel;
   PlainMap plain;
   MixedMap mixed;
   std::vector<Zenet::IntfId> hits;    // every member once, shuffled
   std::vector<Zenet::IntfId> misses;  // as many absent ids, shuffled
   bool sound = true;
};

Fixture const & fixture(uint32_t members) {
   static std::map<uint32_t, std::unique_ptr<Fixture>> made;
   auto & f = made[members];
   if (f) return *f;
   f = std::make_unique<Fixture>();
   for (uint32_t i = 0; i < members; ++i) {
      uint32_t card = i / portsPerCard + 1;
      uint32_t port = i % portsPerCard + 1;
      Zenet::IntfId id = ethernet(card, port);
      f->kel.insert(id, i);
      f->plain.emplace(id.intfIdValue(), i);
      f->mixed.emplace(id.intfIdValue(), i);
      f->hits.push_back(id);
      f->misses.push_back(ethernet(card, port + portsPerCard));
   }
   std::mt19937_64 rng(members);
   std::shuffle(f->hits.begin(), f->hits.end(), rng);
   std::shuffle(f->misses.begin(), f->misses.end(), rng);
   // The identifiers are the names they claim to be, and the two maps
   // agree on every key looked up.
   f->sound = ethernet(3, 7).stringValue() == "Ethernet3/7" && f->kel.size() == members &&
              f->plain.size() == members && f->mixed.size() == members;
   for (auto id : f->hits) {
      f->sound = f->sound && f->kel.find(id) && f->plain.count(id.intfIdValue()) &&
                 f->mixed.count(id.intfIdValue());
   }
   for (auto id : f->misses) {
      f->sound = f->sound && !f->kel.find(id) && !f->plain.count(id.intfIdValue()) &&
                 !f->mixed.count(id.intfIdValue());
   }
   return *f;
}

// Where the members sit: the share that is not first in its chain, which
// is what makes a look-up walk and its branch hard to predict.
void printChains(uint32_t members) {
   Fixture const & f = fixture(members);
   uint32_t log2 = 0;
   while ((uint32_t(1) << log2) < f.kel.buckets()) ++log2;
   uint32_t behind = 0, prevBucket = ~0u;
   for (M const * m = f.kel.first(); m; m = f.kel.next(m)) {
      uint32_t b = log2 ? m->rhash >> (32 - log2) : 0;
      if (b == prevBucket) ++behind;
      prevBucket = b;
   }
   auto standard = [](auto const & map) {
      uint32_t n = 0;
      for (size_t b = 0; b < map.bucket_count(); ++b) {
         if (map.bucket_size(b) > 1) n += uint32_t(map.bucket_size(b) - 1);
      }
      return n;
   };
   std::printf("hashmap %u members: not first in their chain: ours %.1f%% (%u buckets), "
               "std::unordered_map %.1f%% (%zu buckets), with our hash %.1f%%\n",
               members, 100.0 * behind / members, f.kel.buckets(),
               100.0 * standard(f.plain) / members, f.plain.bucket_count(),
               100.0 * standard(f.mixed) / members);
}

void oursFind(benchmark::State & state, uint32_t members, bool hit) {
   Fixture const & f = fixture(members);
   if (!f.sound) return state.SkipWithError("fixture is inconsistent");
   std::vector<Zenet::IntfId> const & keys = hit ? f.hits : f.misses;
   KelMap const * map = &f.kel;
   benchmark::DoNotOptimize(map);
   size_t i = 0, n = keys.size();
   for (auto _ : state) {
      M * m = map->find(keys[i]);
      benchmark::DoNotOptimize(m);
      if (++i == n) i = 0;
   }
}

template <class Map>
void standardFind(benchmark::State & state, uint32_t members, bool hit, Map Fixture::*which) {
   Fixture const & f = fixture(members);
   if (!f.sound) return state.SkipWithError("fixture is inconsistent");
   std::vector<Zenet::IntfId> const & keys = hit ? f.hits : f.misses;
   Map const * map = &(f.*which);
   benchmark::DoNotOptimize(map);
   size_t i = 0, n = keys.size();
   for (auto _ : state) {
      auto it = map->find(keys[i].intfIdValue());
      uint64_t const * v = it == map->end() ? nullptr : &it->second;
      benchmark::DoNotOptimize(v);
      if (++i == n) i = 0;
   }
}

void addLookup(const char * name, uint32_t members, bool hit) {
   addPair(name, "1.0",
           [=](benchmark::State & s) { oursFind(s, members, hit); },
           [=](benchmark::State & s) { standardFind(s, members, hit, &Fixture::plain); });
   addReference(name, "std::unordered_map with our hash",
                [=](benchmark::State & s) { standardFind(s, members, hit, &Fixture::mixed); });
}

} // namespace

void registerHashMapBenches() {
   addLookup("hashmap.hit.1k", 1000, true);
   addLookup("hashmap.miss.1k", 1000, false);
   addLookup("hashmap.hit.100k", 100000, true);
   addLookup("hashmap.miss.100k", 100000, false);
   addNote("hashmap.hit.1k", [] { printChains(1000); });
   addNote("hashmap.hit.100k", [] { printChains(100000); });
}

} // namespace IntfBench
