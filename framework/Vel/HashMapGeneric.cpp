#include <Vel/HashMap.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace Vel {

namespace {

constexpr int largestBits = 30;

PtrInterface** newBuckets(int bits) {
   const std::size_t size = (std::size_t{1} << bits) * sizeof(PtrInterface*);
   return static_cast<PtrInterface**>(std::memset(::operator new(size), 0, size));
}

} // namespace

HashMapGeneric::HashMapGeneric(unsigned initialBuckets)
   : bucketBits_(static_cast<std::int8_t>(std::bit_width(std::max(initialBuckets, 1U)) - 1)),
     buckets_(newBuckets(bucketBits_)) {}

HashMapGeneric::~HashMapGeneric() { ::operator delete(buckets_); }

// Reads the link where the entry's class keeps it: a counted handle, which is one pointer.
PtrInterface* HashMapGeneric::next(const PtrInterface* entry) const noexcept {
   PtrInterface* link = nullptr;
   std::memcpy(&link, reinterpret_cast<const char*>(entry) + linkPosition_, sizeof link);
   return link;
}

// Chains an entry in at its place.
void HashMapGeneric::insert(std::uint32_t bucket, PtrInterface* entry) noexcept {
   const std::uint32_t hash = table_->hash(entry);
   PtrInterface* previous = nullptr;
   PtrInterface* following = buckets_[bucket];
   while (following != nullptr && table_->hash(following) <= hash) {
      previous = following;
      following = next(following);
   }
   table_->setNext(entry, following);
   if (previous != nullptr) {
      table_->setNext(previous, entry);
      return;
   }
   entry->referencesInc();
   buckets_[bucket] = entry;
   if (following != nullptr) {
      following->referencesDec(); // the entry's link counts it now
   }
}

void HashMapGeneric::newMemberG(const Ptr<PtrInterface>& entry, void*) noexcept {
   insert(bucketOf(table_->hash(entry.get())), entry.get());
   ++members_;
   ++changeStamp_;
   if (members_ > bucketCount() && bucketBits_ < largestBits) {
      bucketBitsIs(bucketBits_ + 1);
   }
}

// Unchains the entry if it is in the bucket. The map is whole again before its reference goes.
bool HashMapGeneric::removeFrom(std::uint32_t bucket, const PtrInterface* entry) {
   PtrInterface* previous = nullptr;
   PtrInterface* found = buckets_[bucket];
   while (found != nullptr && found != entry) {
      previous = found;
      found = next(found);
   }
   if (found == nullptr) {
      return false;
   }
   const Ptr<PtrInterface> removed(found); // outlives its last link, until the map is whole
   const Ptr<PtrInterface> following(next(found));
   table_->setNext(found, nullptr);
   if (previous != nullptr) {
      table_->setNext(previous, following.get());
   } else {
      if (following) {
         following->referencesInc();
      }
      buckets_[bucket] = following.get();
      found->referencesDec();
   }
   --members_;
   ++changeStamp_;
   if (members_ < bucketCount() / 8) { // of which there are 8 then
      bucketBitsIs(bucketBits_ - 1);
   }
   return true;
}

void HashMapGeneric::deleteMember(const Ptr<PtrInterface>& entry) {
   if (removeFrom(bucketOf(table_->hash(entry.get())), entry.get())) {
      return;
   }
   // Its key is not what it was when it went in, so it may be anywhere.
   for (std::uint32_t bucket = 0; bucket < bucketCount(); ++bucket) {
      if (removeFrom(bucket, entry.get())) {
         return;
      }
   }
}

void HashMapGeneric::emptyAllBuckets() {
   // From the heads, one by one: a chain let go at once would end its entries recursively. Again
   // while there are any: an entry that ends may put others in, and a map that shrinks moves all.
   while (members_ != 0) {
      int bucket = -1;
      while (PtrInterface* const head = findNextBucket(&bucket)) {
         removeFrom(static_cast<std::uint32_t>(bucket--), head);
      }
   }
}

bool HashMapGeneric::holds(int bucket, const PtrInterface* entry) const noexcept {
   if (bucket < 0 || static_cast<std::uint64_t>(bucket) >= bucketCount()) {
      return false;
   }
   const PtrInterface* member = buckets_[bucket];
   while (member != nullptr && member != entry) {
      member = next(member);
   }
   return member != nullptr;
}

// The first entry of the bucket that comes behind the hash.
PtrInterface* HashMapGeneric::findAfter(std::uint32_t hash, std::uint32_t bucket) const noexcept {
   PtrInterface* entry = buckets_[bucket];
   while (entry != nullptr && table_->hash(entry) <= hash) {
      entry = next(entry);
   }
   return entry;
}

PtrInterface* HashMapGeneric::findNextG(const PtrInterface* after, int* bucket) const {
   int at = -1;
   PtrInterface* found = nullptr;
   if (after != nullptr && bucket != nullptr && holds(*bucket, after)) {
      at = *bucket; // still a member, maybe under another key: its own link leads on
      found = next(after);
   } else if (after != nullptr) {
      const std::uint32_t hash = table_->hash(after);
      at = static_cast<int>(bucketOf(hash));
      found = findAfter(hash, bucketOf(hash));
   }
   if (found == nullptr) {
      found = findNextBucket(&at);
   }
   if (bucket != nullptr) {
      *bucket = at;
   }
   return found;
}

PtrInterface* HashMapGeneric::startAtHash(const void*, std::uint32_t hash, int* bucket) const {
   *bucket = static_cast<int>(bucketOf(hash));
   PtrInterface* entry = buckets_[*bucket];
   while (entry != nullptr && table_->hash(entry) < hash) {
      entry = next(entry);
   }
   return entry != nullptr ? entry : findNextBucket(bucket);
}

// Moves everything into an array of another size, in the order of iteration, so that almost every
// link stays as it is. Without memory for the array the map keeps the one it has.
void HashMapGeneric::bucketBitsIs(int bits) noexcept {
   PtrInterface** array = nullptr;
   try {
      array = newBuckets(bits);
   } catch (const std::bad_alloc&) {
      return;
   }
   const auto oldCount = static_cast<std::uint32_t>(bucketCount());
   PtrInterface** const old = std::exchange(buckets_, array);
   bucketBits_ = static_cast<std::int8_t>(bits);
   PtrInterface* tail = nullptr; // of the chain being made; null when the next entry needs a search
   for (std::uint32_t bucket = 0; bucket < oldCount; ++bucket) {
      Ptr<PtrInterface> entry(old[bucket]);
      if (entry) {
         entry->referencesDec(); // the old array's reference is the local handle's now
      }
      while (entry) {
         const Ptr<PtrInterface> following(next(entry.get()));
         tail = append(tail, entry.get());
         entry = following;
      }
   }
   ::operator delete(old);
}

// Chains an entry in behind the one moved before it, as far as that is its place.
PtrInterface* HashMapGeneric::append(PtrInterface* tail, PtrInterface* entry) noexcept {
   const std::uint32_t hash = table_->hash(entry);
   const std::uint32_t bucket = bucketOf(hash);
   if (tail != nullptr) {
      const std::uint32_t tailHash = table_->hash(tail);
      if (bucket == bucketOf(tailHash) && hash >= tailHash) {
         table_->setNext(tail, entry);
         return entry;
      }
      table_->setNext(tail, nullptr);
   }
   if (buckets_[bucket] == nullptr) {
      entry->referencesInc();
      buckets_[bucket] = entry;
      return entry;
   }
   insert(bucket, entry); // out of order: its key changed while it was in the map
   return nullptr;
}

} // namespace Vel
