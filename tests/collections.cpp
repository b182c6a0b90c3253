// Keyed collections: beside a model, at every size, and changed under an iteration's feet. The
// fuzzer of that name does all of it at random.
#include "../fuzz/MapModel.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

namespace {

using Vel::reversedBits;
using Step = Map::Iterator;

std::uint64_t live() { return Entry::velAllocTrackTypeInfo_->liveCount(); }

class Collections : public testing::Test {
 protected:
   void TearDown() override {
      EXPECT_TRUE(Entry::velAllocTrackTypeInfo_ == nullptr || live() == 0);
      EXPECT_EQ(std::exchange(Entry::endedLinked, 0), 0);
   }
};

static_assert(reversedBits(1) == 0x80000000 && reversedBits(3) == 0xc0000000);
static_assert(reversedBits(~0U) == ~0U && reversedBits(0x12345678) == 0x1e6a2c48);

// Who is there all the time is met, nobody is met twice, and who was removed lives for as long as
// the iterator stands on it.
void walk(MapModel& both, void (*deed)(MapModel&, int current)) {
   const int wereThere = Entry::made; // who has a lower number
   std::set<int> met;
   std::optional<std::uint32_t> previous;
   for (Step it(&both.map); it; it.advance()) {
      const int key = it->key;
      ASSERT_TRUE(!previous || *previous < hash(key)) << key;
      previous = hash(key);
      met.insert(it->number);
      deed(both, key);
      ASSERT_EQ(live(), both.model.size() + (both.map[key] != it.ptr() ? 1 : 0));
   }
   for (const auto& [place, entry] : both.model) {
      ASSERT_TRUE(entry->number >= wereThere || met.contains(entry->number)) << entry->key;
   }
}

TEST_F(Collections, ChangingTheMapAtEachStepSkipsNobodyAndMeetsNobodyTwice) {
   void (*const deeds[])(MapModel&, int current) = {
      [](MapModel& both, int key) { both.remove(key), both.insert(key); },
      [](MapModel& both, int key) { // the next one
         Step next(&both.map, key);
         next.advance();
         both.remove(next ? next->key : key);
      },
      [](MapModel& both, int key) { // all others
         for (int other = 1; other < 256; ++other) {
            both.remove(key ^ other);
         }
      },
      [](MapModel& both, int) { both.clear(); },
      [](MapModel& both, int key) { // many join, and are met, too
         for (int more = 0; more < 40 && both.model.size() < 5000; ++more) {
            both.insert(key % 1000 * 40 + more);
         }
      },
   };
   for (const auto& deed : deeds) {
      for (const int size : {1, 5, 200}) {
         SCOPED_TRACE(std::to_string(&deed - deeds) + " at size " + std::to_string(size));
         MapModel both(size);
         walk(both, deed);
         EXPECT_STREQ(both.violation(), "");
      }
   }
}

TEST_F(Collections, GrowsToAMillionAndShrinksBackFindingAllOfThem) {
   const auto keyOf = [](std::size_t number) { // all over the range, each once
      return static_cast<int>(static_cast<unsigned>(number) * 2654435761U);
   };
   MapModel both;
   for (const std::size_t size : {4U, 5U, 1000U, 1'000'000U, 1000U, 5U, 0U}) {
      while (both.model.size() < size) {
         both.insert(keyOf(both.model.size()));
      }
      while (both.model.size() > size) {
         both.remove(keyOf(both.model.size() - 1));
      }
      EXPECT_STREQ(both.violation(), "") << size;
   }
}

TEST_F(Collections, AnEntryWhoseKeyChangedInTheMapIsStillFoundToBeRemoved) {
   for (const int others : {8, 100, 900}) { // fewer and more than there were at the change
      MapModel both(100);
      const Vel::Ptr<Entry> changed = both.map[7];
      changed->key = 1 << 30;
      both.model.erase(hash(7));
      for (int other = 8; other < 900; ++other) {
         other < others ? static_cast<void>(both.insert(other)) : both.remove(other);
      }
      both.map.deleteMember(changed);
      both.map.deleteMember(changed); // no member any more: nothing
      EXPECT_EQ(changed->references(), 1U);
      EXPECT_STREQ(both.violation(), "");
   }
}

TEST_F(Collections, TheTableOfAMapComparesKeys) {
   const MapModel both(3);
   const int one = 1;
   for (const int key : {0, 1, 2}) {
      EXPECT_EQ(both.map.table_->keyEquals(&one, both.map[key]), key == 1);
      EXPECT_EQ(both.map.table_->keyLessThan(&one, both.map[key], nullptr), key > 1);
      EXPECT_EQ(both.map.table_->keyLessThan(nullptr, both.map[key], both.map[1]), key > 1);
      EXPECT_TRUE(both.map.table_->keyLessThan(nullptr, both.map[key], nullptr));
   }
}

TEST_F(Collections, NoNumberOfEntriesInOneChainEndsThemRecursively) {
   MapModel both;
   for (unsigned number = 100'000; number-- > 0;) { // few chains, each one to the head of its own
      both.insert(static_cast<int>(reversedBits(number)));
   }
}

TEST_F(Collections, AnEntryThatEndsWhenTheIterationLeavesItMayTakeTheNextOneAlong) {
   MapModel both;
   for (const int key : {0, 8, 4, 12}) { // one chain, in this order
      both.insert(key);
   }
   both.map[0]->ending = [&both] { both.remove(8); };
   Step it(&both.map);
   both.remove(0);
   it.advance(); // to the one that was taken along
   EXPECT_EQ(it->key, 8);
   it.advance();
   EXPECT_EQ(it->key, 4);
}

} // namespace
