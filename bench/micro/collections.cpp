// Keyed collections of many sizes, with the numbers of processes as keys: dense, in any order.
#include "Micro.h"
#include "Plain.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

namespace Bench {

namespace {

class Entry : public Vel::PtrInterface {
 public:
   explicit Entry(int number) noexcept : key(number) {}

   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

   const int key;
   Vel::Ptr<Entry> next;
};

} // namespace

} // namespace Bench

template <> struct Vel::HashMapTraits<Bench::Entry> {
   static int key(const Bench::Entry& entry) noexcept { return entry.key; }
   static Ptr<Bench::Entry>& link(Bench::Entry& entry) noexcept { return entry.next; }
};

namespace Bench {

namespace {

// The framework's map, and the hand-written one, with the same operations.
class Collection {
 public:
   using Map = Vel::HashMap<Entry, int, Entry>;
   using Handle = Vel::Ptr<Entry>;

   explicit Collection(std::size_t) {}
   static Handle make(int key) { return Vel::newEntity<Entry>(key); }
   const Entry* find(int key) const { return map_[key]; }
   void insert(const Handle& entry) {
      int key = entry->key;
      map_.newMemberG(entry, &key);
   }
   void remove(const Handle& entry) { map_.deleteMember(entry); }
   template <class Visitor> void visit(const Visitor& visitor) {
      for (Map::Iterator entry(&map_); entry; entry.advance()) {
         visitor(*entry);
      }
   }

 private:
   Map map_;
};

class Peer : public PlainMap {
 public:
   using Handle = PlainHandle<PlainEntry>;
   using PlainMap::PlainMap;
   static Handle make(int key) { return Handle(new PlainEntry(key)); }
   void insert(const Handle& entry) { PlainMap::insert(entry.get()); }
   void remove(const Handle& entry) { PlainMap::remove(entry.get()); }
};

// A map with so many entries, and the order in which they are asked for.
template <class Map> class Filled {
 public:
   explicit Filled(std::size_t size) : map_(size), keys_(size), entries_(size) {
      constexpr int firstKey = 300;
      std::iota(keys_.begin(), keys_.end(), firstKey);
      std::shuffle(keys_.begin(), keys_.end(), std::mt19937(1));
      std::transform(keys_.begin(), keys_.end(), entries_.begin(), Map::make);
      for (const auto& entry : entries_) {
         map_.insert(entry);
      }
   }

   void lookUp(unsigned count) {
      inTurn(count, [this](std::size_t at) { benchmark::DoNotOptimize(map_.find(keys_[at])); });
   }
   void replace(unsigned count) {
      inTurn(count, [this](std::size_t at) {
         map_.remove(entries_[at]);
         map_.insert(entries_[at]);
      });
   }
   void iterate(unsigned count) {
      while (count-- != 0) {
         map_.visit([](auto& entry) { benchmark::DoNotOptimize(entry.key); });
      }
   }
   void iterateRemoving(unsigned count) {
      while (count-- != 0) {
         map_.visit([this](auto& entry) { map_.remove(typename Map::Handle(&entry)); });
         for (const auto& entry : entries_) {
            map_.insert(entry);
         }
      }
   }

 private:
   // The place is kept out of memory: writing it beside the map would be measured with the map.
   template <class Use> void inTurn(unsigned count, const Use& use) {
      std::size_t at = at_;
      for (; count != 0; --count) {
         use(at);
         at = at + 1 < keys_.size() ? at + 1 : 0;
      }
      at_ = at;
   }

   Map map_;
   std::vector<int> keys_;
   std::vector<typename Map::Handle> entries_;
   std::size_t at_ = 0;
};

struct Operation {
   const char* name;
   void (Filled<Collection>::*ours)(unsigned count);
   void (Filled<Peer>::*byHand)(unsigned count);
   bool wholePass;    // over all entries, where the others take one a turn
   const char* bound; // for the sizes that programs have
};

constexpr Operation operations[] = {
   {"lookup", &Filled<Collection>::lookUp, &Filled<Peer>::lookUp, false, "<= 1.10"},
   {"removal and insertion", &Filled<Collection>::replace, &Filled<Peer>::replace, false,
    "<= 1.50"},
   {"iteration", &Filled<Collection>::iterate, &Filled<Peer>::iterate, true, "printed"},
   {"removal at each step of an iteration, all put back", &Filled<Collection>::iterateRemoving,
    &Filled<Peer>::iterateRemoving, true, "printed"},
};
constexpr unsigned sizes[] = {16, 1000, 10000, 100000, 1000000};
constexpr unsigned judgedUpTo = 10000;

std::string caseName(const Operation& operation, unsigned size, const char* whose) {
   return std::string(operation.name) + '/' + std::to_string(size) + '/' + whose;
}

template <class Map>
void addFilled(unsigned size, const char* whose,
               void (Filled<Map>::*Operation::*whoseRun)(unsigned count)) {
   const auto filled = std::make_shared<Filled<Map>>(size);
   for (const Operation& operation : operations) {
      const auto run = operation.*whoseRun;
      timed(
         caseName(operation, size, whose),
         [filled, run](unsigned count) { (filled.get()->*run)(count); },
         operation.wholePass ? 1 : 64);
   }
}

void add() {
   for (const unsigned size : sizes) {
      addFilled(size, "ours", &Operation::ours);
      addFilled(size, "by hand", &Operation::byHand);
   }
}

void report(const Times& times) {
   for (const Operation& operation : operations) {
      for (const unsigned size : sizes) {
         times.ratioRow(std::string(operation.name) + ", " + std::to_string(size) +
                           " entries, time / hand-written map",
                        caseName(operation, size, "ours"), caseName(operation, size, "by hand"),
                        size <= judgedUpTo ? operation.bound : "printed");
      }
   }
}

} // namespace

const Suite collections{add, report};

} // namespace Bench
