// The keyed collection beside a std::map, with iterators that live across changes, keys that change
// inside, and entries that remove others as they end.
#include "Input.h"

#include <Vel/HashMap.h>

#include <map>
#include <optional>

namespace {

class Entry : public Vel::PtrInterface {
 public:
   Entry(int number, int other) : key(number), victim(other) {}
   ~Entry() override;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

   int key;
   int victim; // the key of an entry that leaves the map when this one ends
   Vel::Ptr<Entry> next;
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
};

} // namespace

template <> struct Vel::HashMapTraits<Entry> {
   static int key(const Entry& entry) { return entry.key; }
   static Vel::Ptr<Entry>& link(Entry& entry) { return entry.next; }
};

namespace {

using Map = Vel::HashMap<Entry, int, Entry>;

std::uint32_t hash(int key) { return Vel::reversedBits(static_cast<std::uint32_t>(key)); }

class Run {
 public:
   explicit Run(Input& input) : input_(input) { run_ = this; }
   ~Run() {
      check();
      iterators_[0].at = iterators_[1].at = iterators_[2].at = std::nullopt;
      delete map_;
      require(live<Entry>()[0] == 0, "every entry ends");
   }

   void step() {
      const unsigned operation = input_.below(12);
      const int key = keyOf(input_.byte());
      if (operation < 4) {
         insert(key);
      } else if (operation < 6) {
         remove(key);
      } else if (operation == 6) {
         changeKey(key, keyOf(input_.byte()));
      } else if (operation == 7) {
         begin(iterators_[input_.below(3)], key);
      } else if (operation == 8 && input_.below(8) == 0) {
         map_->emptyAllBuckets();
         model_.clear(); // of those that an iterator holds
         inOrder_ = true;
      } else if (operation == 9) {
         for (int more = 0; more < 24; ++more) {
            insert(key + more);
         }
      } else {
         advance(iterators_[input_.below(3)]);
      }
      require(map_->members() == model_.size(), "members are counted");
   }

   static void entryEnds(const Entry& entry) {
      if (run_->find(entry.key) == &entry) { // emptied out
         run_->model_.erase(hash(entry.key));
      }
      run_->remove(entry.victim);
   }

 private:
   struct Place {
      std::optional<Map::Iterator> at;
      bool inOrder = true; // no key has changed since it began
   };

   // Few distinct ones, from both ends of the order.
   static int keyOf(unsigned byte) { return static_cast<int>(byte % 4 == 0 ? byte << 24 : byte); }

   Entry* find(int key) const {
      const auto found = model_.find(hash(key));
      return found != model_.end() ? found->second : nullptr;
   }

   void remove(int key) {
      if (Entry* const entry = find(key)) {
         model_.erase(hash(key));
         map_->deleteMember(Vel::Ptr<Vel::PtrInterface>(entry));
      }
   }

   void insert(int key) {
      if (find(key) == nullptr) {
         const auto entry = Vel::newEntity<Entry>(key, keyOf(input_.byte()));
         map_->newMemberG(entry, &key);
         model_[hash(key)] = entry.get();
         require((*map_)[key] == entry.get(), "what was inserted is found");
      }
   }

   // From here on the order of iteration is nobody's promise, until the map is empty.
   void changeKey(int from, int to) {
      Entry* const entry = find(from);
      if (entry != nullptr && find(to) == nullptr) {
         model_.erase(hash(from));
         entry->key = to;
         model_[hash(to)] = entry;
         inOrder_ = false;
      }
   }

   void begin(Place& place, int key) {
      place.at = std::nullopt; // may end an entry
      const bool fromStart = input_.flag();
      fromStart ? place.at.emplace(map_) : place.at.emplace(map_, key);
      place.inOrder = inOrder_;
      expectAt(place, fromStart ? model_.begin() : model_.lower_bound(hash(key)));
   }

   void advance(Place& place) {
      if (!place.at || !*place.at) {
         return;
      }
      place.inOrder = place.inOrder && inOrder_;
      const auto expected = model_.upper_bound(hash((*place.at)->key));
      // Known before the entry that is left ends, which may take the next one with it.
      const Entry* const next = expected != model_.end() ? expected->second : nullptr;
      place.at->advance();
      require(!place.inOrder || place.at->ptr() == next, "the next entry in order");
   }

   void expectAt(const Place& place, std::map<std::uint32_t, Entry*>::const_iterator expected) {
      require(!place.inOrder ||
                 place.at->ptr() == (expected != model_.end() ? expected->second : nullptr),
              "an iterator begins at its key");
   }

   void check() {
      std::size_t visited = 0;
      std::optional<std::uint32_t> previous;
      for (const Entry& entry : *map_) {
         ++visited;
         require(find(entry.key) == &entry, "only members are visited");
         require(!inOrder_ || !previous || *previous < hash(entry.key), "in order");
         previous = hash(entry.key);
      }
      require(!inOrder_ || visited == model_.size(), "each member is visited once");
   }

   Input& input_;
   std::map<std::uint32_t, Entry*> model_; // by reversed key
   Map* const map_ = new Map;
   Place iterators_[3];
   bool inOrder_ = true;
   static inline Run* run_ = nullptr;
};

Entry::~Entry() { Run::entryEnds(*this); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   Input input(data, size);
   Run run(input);
   while (!input.atEnd()) {
      run.step();
   }
   return 0;
}
