// Keyed collections: against a model, at every size, and changed under an iteration's feet.
#include <Vel/HashMap.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Vel::PtrInterface;
using Vel::reversedBits;

class Entry : public PtrInterface {
 public:
   explicit Entry(int number) : key(number) {}
   ~Entry() override {
      endedLinked += next != nullptr; // would go on to end its neighbour from within
      ending();
   }
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

   int key;
   std::function<void()> ending = [] {};
   Vel::Ptr<Entry> next;
   static inline int endedLinked = 0;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
};

} // namespace

template <> struct Vel::HashMapTraits<Entry> {
   static int key(const Entry& entry) { return entry.key; }
   static Vel::Ptr<Entry>& link(Entry& entry) { return entry.next; }
};

namespace {

struct Map : Vel::HashMap<Entry, int, Entry> {
   const void* table() const { return table_; }
   using HashMapGeneric::bucketCount;
};
using Step = Map::Iterator;

std::uint32_t hash(int key) { return reversedBits(static_cast<std::uint32_t>(key)); }
bool before(int left, int right) { return hash(left) < hash(right); }

std::uint64_t live() { return Entry::velAllocTrackTypeInfo_->liveCount(); }

Entry* added(Map& map, int key) {
   const auto entry = Vel::newEntity<Entry>(key);
   map.newMemberG(entry, &key);
   return entry.get();
}
void removed(Map& map, Entry* entry) {
   if (entry != nullptr) {
      map.deleteMember(Vel::Ptr<PtrInterface>(entry));
   }
}

// A map beside what it should hold.
struct Modelled {
   Map map;
   std::map<int, Entry*> model;
   std::set<int> stayed; // since the walk began

   explicit Modelled(int size = 0) {
      for (int key = 0; key < size; ++key) {
         insert(key);
      }
   }
   void insert(int key) {
      if (model.count(key) == 0) {
         model[key] = added(map, key);
      }
   }
   void remove(int key) {
      ASSERT_EQ(map[key], model.count(key) != 0 ? model[key] : nullptr);
      removed(map, map[key]);
      model.erase(key);
      stayed.erase(key);
   }
   void clear() {
      map.emptyAllBuckets();
      model.clear();
      stayed.clear();
   }
   // Members, look-ups and order: ascending reversed keys, so that no number of buckets shows.
   void expectWhole() {
      std::vector<int> keys;
      std::vector<int> met;
      for (const auto& [key, entry] : model) {
         ASSERT_TRUE(map[key] == entry && entry->references() == 1) << key;
         keys.push_back(key);
      }
      std::sort(keys.begin(), keys.end(), before);
      for (const Entry& entry : map) {
         met.push_back(entry.key);
      }
      ASSERT_TRUE(met == keys && map.members() == keys.size());
      EXPECT_LE(map.members(), map.bucketCount());
      EXPECT_LE(map.bucketCount(), 8 * map.members() + 4);
   }
   // Iterates while the deed changes the map: who stays is met, nobody is met twice, and who was
   // removed lives for as long as the iterator stands on it.
   void walk(const std::function<void(int key)>& deed) {
      for (const auto& [key, entry] : model) {
         stayed.insert(key);
      }
      std::vector<int> met;
      for (Step it(&map); it; it.advance()) {
         const int key = it->key;
         ASSERT_TRUE(met.empty() || before(met.back(), key)) << key;
         met.push_back(key);
         deed(key);
         ASSERT_EQ(live(), model.size() + (map[key] != it.ptr() ? 1 : 0));
      }
      for (const int key : stayed) {
         ASSERT_TRUE(std::binary_search(met.begin(), met.end(), key, before)) << key;
      }
      stayed.clear();
   }
};

class Collections : public testing::Test {
 protected:
   void TearDown() override {
      EXPECT_TRUE(Entry::velAllocTrackTypeInfo_ == nullptr || live() == 0);
      EXPECT_EQ(std::exchange(Entry::endedLinked, 0), 0);
   }
};

static_assert(reversedBits(1) == 0x80000000 && reversedBits(3) == 0xc0000000);
static_assert(reversedBits(~0U) == ~0U && reversedBits(0x12345678) == 0x1e6a2c48);

TEST_F(Collections, RandomOperationsDoWhatAnOrdinaryMapDoes) {
   const char* const given = std::getenv("SEED");
   const unsigned seed =
      given != nullptr ? static_cast<unsigned>(std::atoll(given)) : std::random_device{}();
   SCOPED_TRACE("SEED=" + std::to_string(seed));
   std::mt19937 random(seed);
   const auto below = [&](int limit) {
      return static_cast<int>(random() % static_cast<unsigned>(limit));
   };
   Modelled both;
   for (int round = 0; round < 60 && !HasFailure(); ++round) {
      const int range = 2 << below(10);
      const int inserting = 10 + below(80); // of 100, so that sizes go up and down again
      const auto change = [&](int key) {
         below(100) < inserting ? both.insert(key) : both.remove(key);
      };
      for (int step = 0; step < 300; ++step) {
         change(below(range) - range / 2);
      }
      both.walk([&](int current) {
         if (below(3) == 0) {
            both.remove(current);
         }
         if (below(6) == 0) {
            both.insert(current);
         }
         change(below(range) - range / 2);
      });
      both.expectWhole();
   }
}

TEST_F(Collections, ChangingTheMapAtEachStepSkipsNobodyAndMeetsNobodyTwice) {
   void (*const deeds[])(Modelled&, int current) = {
      [](Modelled& both, int key) { both.remove(key), both.insert(key); },
      [](Modelled& both, int key) { // the next one
         Step next(&both.map, key);
         next.advance();
         both.remove(next ? next->key : key);
      },
      [](Modelled& both, int key) { // all others
         for (int other = 1; other < 256; ++other) {
            both.remove(key ^ other);
         }
      },
      [](Modelled& both, int) { both.clear(); },
      [](Modelled& both, int key) { // many join, and are met, too
         for (int more = 0; more < 40 && both.model.size() < 5000; ++more) {
            both.insert(key % 1000 * 40 + more);
         }
      },
   };
   for (const auto& deed : deeds) {
      for (const int size : {1, 5, 200}) {
         SCOPED_TRACE(std::to_string(&deed - deeds) + " at size " + std::to_string(size));
         Modelled both(size);
         both.walk([&](int key) { deed(both, key); });
         both.expectWhole();
      }
   }
}

TEST_F(Collections, AnIteratorBeginsAtItsKeyOrWithWhatFollowsIt) {
   Modelled both(50);
   for (int key = -100; key < 200; ++key) {
      both.remove(3 * key);
      Step expected(&both.map);
      while (expected && before(expected->key, key)) {
         ++expected;
      }
      Step it(&both.map, key);
      for (; expected; ++expected, ++it) {
         ASSERT_EQ(it.ptr(), expected.ptr()) << key;
      }
      ++it; // the end stays the end
      EXPECT_FALSE(it || Step(nullptr));
   }
}

TEST_F(Collections, GrowsToAMillionAndShrinksBackFindingAllOfThem) {
   const auto keyOf = [](std::size_t number) { // all over the range, each once
      return static_cast<int>(static_cast<unsigned>(number) * 2654435761U);
   };
   Modelled both;
   for (const std::size_t size : {4U, 5U, 1000U, 1'000'000U, 1000U, 5U, 0U}) {
      while (both.model.size() < size) {
         both.insert(keyOf(both.model.size()));
      }
      while (both.model.size() > size) {
         both.remove(keyOf(both.model.size() - 1));
      }
      both.expectWhole();
   }
}

TEST_F(Collections, AnEntryWhoseKeyChangedInTheMapIsStillFoundToBeRemoved) {
   for (const int others : {8, 100, 900}) { // fewer and more than there were at the change
      Modelled both(100);
      const Vel::Ptr<Entry> changed = both.map[7];
      changed->key = 1 << 30;
      both.model.erase(7);
      for (int other = 8; other < 900; ++other) {
         other < others ? both.insert(other) : both.remove(other);
      }
      both.map.deleteMember(changed);
      both.map.deleteMember(changed); // no member any more: nothing
      EXPECT_EQ(changed->references(), 1U);
      both.expectWhole();
   }
}

TEST_F(Collections, AnIterationGoesOnBehindAnEntryWhoseKeyItChanges) {
   Modelled both(100); // with room for one more: growing would move them under their new keys
   std::set<const Entry*> met;
   for (Step it(&both.map); it; ++it) {
      EXPECT_TRUE(met.insert(it.ptr()).second);
      it->key += 10000;
      removed(both.map, added(both.map, -1));
   }
   EXPECT_EQ(met.size(), 100U);
}

TEST_F(Collections, NoNumberOfEntriesInOneChainEndsThemRecursively) {
   Map map;
   for (int number = 100'000; number-- > 0;) { // few chains, each one comes to the head of its own
      added(map, static_cast<int>(reversedBits(static_cast<unsigned>(number))));
   }
}

TEST_F(Collections, AnEndingEntryMayRemoveOthers) {
   void (*const ways[])(std::unique_ptr<Map>&) = {
      [](auto& map) { map.reset(); },
      [](auto& map) { map->emptyAllBuckets(); },
      [](auto& map) { removed(*map, (*map)[0]); },
   };
   constexpr int size = 300;
   for (const auto endAll : ways) {
      auto map = std::make_unique<Map>();
      for (int key = 0; key < size; ++key) {
         added(*map, key)->ending = [key, members = map.get()] {
            for (const int other : {key ^ 1, (key + 1) % size, key * 7 % size}) {
               removed(*members, (*members)[other]);
            }
         };
      }
      endAll(map);
      EXPECT_TRUE(live() == 0 && (!map || map->members() == 0));
   }
}

TEST_F(Collections, AnEntryThatEndsWhenTheIterationLeavesItMayTakeTheNextOneAlong) {
   Map map;
   for (const int key : {0, 8, 4, 12}) { // one chain, in this order
      added(map, key);
   }
   map[0]->ending = [&map] { removed(map, map[8]); };
   Step it(&map);
   removed(map, it.ptr());
   it.advance(); // to the one that was taken along
   EXPECT_EQ(it->key, 8);
   it.advance();
   EXPECT_EQ(it->key, 4);
}

} // namespace
