// The keyed collection beside a std::map, with iterators that live across changes, keys that change
// inside, and entries that remove others as they end.
#include "Input.h"
#include "MapModel.h"

namespace {

class Run {
 public:
   explicit Run(Input& input) : input_(input) {}
   ~Run() {
      const char* const violation = both_->violation(inOrder_);
      require(*violation == '\0', violation);
      iterators_[0].at = iterators_[1].at = iterators_[2].at = std::nullopt;
      delete both_;
      require(live<Entry>()[0] == 0 && Entry::endedLinked == 0, "entries end, one by one");
   }

   void step() {
      const unsigned operation = input_.below(12);
      const int key = keyOf(input_.byte());
      if (operation < 4) {
         insert(key);
      } else if (operation < 6) {
         both_->remove(key);
      } else if (operation == 6) {
         changeKey(key, keyOf(input_.byte()));
      } else if (operation == 7) {
         begin(iterators_[input_.below(3)], key);
      } else if (operation == 8 && input_.below(8) == 0) {
         both_->clear();
         inOrder_ = true;
      } else if (operation == 9) {
         for (int more = 0; more < 24; ++more) {
            insert(key + more);
         }
      } else {
         advance(iterators_[input_.below(3)]);
      }
      require(both_->map.members() == both_->model.size(), "members are counted");
   }

 private:
   struct Place {
      std::optional<Map::Iterator> at;
      bool inOrder = true; // no key has changed since it began
   };

   // Few distinct ones, from both ends of the order.
   static int keyOf(unsigned byte) { return static_cast<int>(byte % 4 == 0 ? byte << 24 : byte); }

   // As it ends, the entry of another key leaves the map.
   void insert(int key) {
      if (Entry* const entry = both_->insert(key)) {
         entry->ending = [this, entry, victim = keyOf(input_.byte())] {
            if (both_->find(entry->key) == entry) { // emptied out
               both_->model.erase(hash(entry->key));
            }
            both_->remove(victim);
         };
         require(both_->map[key] == entry, "what was inserted is found");
      }
   }

   // From here on the order of iteration is nobody's promise, until the map is empty.
   void changeKey(int from, int to) {
      Entry* const entry = both_->find(from);
      if (entry != nullptr && both_->find(to) == nullptr) {
         both_->model.erase(hash(from));
         entry->key = to;
         both_->model[hash(to)] = entry;
         inOrder_ = false;
      }
   }

   void begin(Place& place, int key) {
      place.at = std::nullopt; // may end an entry
      const bool fromStart = input_.flag();
      fromStart ? place.at.emplace(&both_->map) : place.at.emplace(&both_->map, key);
      place.inOrder = inOrder_;
      expectAt(place, fromStart ? both_->model.begin() : both_->model.lower_bound(hash(key)));
   }

   void advance(Place& place) {
      if (!place.at || !*place.at) {
         return;
      }
      place.inOrder = place.inOrder && inOrder_;
      const auto expected = both_->model.upper_bound(hash((*place.at)->key));
      // Known before the entry that is left ends, which may take the next one with it.
      const Entry* const next = expected != both_->model.end() ? expected->second : nullptr;
      place.at->advance();
      require(!place.inOrder || place.at->ptr() == next, "the next entry in order");
   }

   void expectAt(const Place& place, std::map<std::uint32_t, Entry*>::const_iterator expected) {
      require(!place.inOrder ||
                 place.at->ptr() == (expected != both_->model.end() ? expected->second : nullptr),
              "an iterator begins at its key");
   }

   Input& input_;
   MapModel* const both_ = new MapModel;
   Place iterators_[3];
   bool inOrder_ = true;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   Input input(data, size);
   Run run(input);
   while (!input.atEnd()) {
      run.step();
   }
   return 0;
}
