// A keyed collection beside an ordinary map of what it should hold, for the fuzzer and the tests.
#pragma once

#include <Vel/HashMap.h>

#include <functional>
#include <map>
#include <optional>

class Entry : public Vel::PtrInterface {
 public:
   explicit Entry(int itsKey) : key(itsKey) {}
   ~Entry() override {
      endedLinked += next != nullptr; // would go on to end its neighbour from within
      ending();
   }
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

   int key;
   const int number = made++;
   std::function<void()> ending = [] {};
   Vel::Ptr<Entry> next;
   static inline int made = 0;
   static inline int endedLinked = 0;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
};

template <> struct Vel::HashMapTraits<Entry> {
   static int key(const Entry& entry) { return entry.key; }
   static Vel::Ptr<Entry>& link(Entry& entry) { return entry.next; }
};

struct Map : Vel::HashMap<Entry, int, Entry> {
   using HashMapGeneric::bucketCount;
   using HashMapGeneric::table_;
};

inline std::uint32_t hash(int key) { return Map::hash(key); }

struct MapModel {
   std::map<std::uint32_t, Entry*> model; // by reversed key: in the order of iteration
   Map map;                               // ends first: entries that end look into the model

   explicit MapModel(int size = 0) {
      for (int key = 0; key < size; ++key) {
         insert(key);
      }
   }
   Entry* find(int key) const {
      const auto found = model.find(hash(key));
      return found != model.end() ? found->second : nullptr;
   }
   // Null when there is one already.
   Entry* insert(int key) {
      if (find(key) != nullptr) {
         return nullptr;
      }
      const auto entry = Vel::newEntity<Entry>(key);
      map.newMemberG(entry, &key);
      return model[hash(key)] = entry.get();
   }
   void remove(int key) {
      if (Entry* const entry = find(key)) {
         model.erase(hash(key));
         map.deleteMember(Vel::Ptr<Vel::PtrInterface>(entry));
      }
   }
   void clear() {
      map.emptyAllBuckets();
      model.clear(); // of those that an iterator holds
   }

   // Empty when all is well. Order is nobody's promise once a key has changed inside the map.
   const char* violation(bool inOrder = true) const {
      std::size_t visited = 0;
      std::optional<std::uint32_t> previous;
      for (const Entry& entry : map) {
         ++visited;
         if (find(entry.key) != &entry) {
            return "only members are visited";
         }
         if (inOrder && ((previous && *previous >= hash(entry.key)) || map[entry.key] != &entry)) {
            return "members are found, and visited in order";
         }
         previous = hash(entry.key);
      }
      if (map.members() != model.size() || (inOrder && visited != model.size())) {
         return "members are counted, and each one is visited";
      }
      const auto buckets = map.bucketCount();
      return map.members() <= buckets && buckets <= 8 * map.members() + 4 ? "" : "buckets";
   }
};
