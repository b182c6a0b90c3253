// Keyed collections: intrusive hash maps of counted entities with 32-bit keys.
//
// The bucket of a key is the top bits of its reversed bits and every chain ascends in the reversed
// key. So the order of iteration is the same whatever the number of buckets, growing splits bucket
// i into 2i and 2i+1 without moving an entry past another, and the successor of an entry that was
// removed is found by its key alone.
#pragma once

#include <Vel/Ptr.h>

#include <cstddef>
#include <cstdint>

namespace Vel {

// Bit 0 becomes bit 31 and so on: a byte swap, then swaps within each byte.
constexpr std::uint32_t reversedBits(std::uint32_t word) noexcept {
   word = __builtin_bswap32(word);
   word = ((word >> 4) & 0x0f0f0f0f) | ((word & 0x0f0f0f0f) << 4);
   word = ((word >> 2) & 0x33333333) | ((word & 0x33333333) << 2);
   return ((word >> 1) & 0x55555555) | ((word & 0x55555555) << 1);
}

// What the untyped map needs to know of one type of map.
class VEL_EXPORT HashMapVTableGeneric {
 public:
   virtual std::uint32_t hash(const PtrInterface* entry) const = 0;
   virtual bool keyEquals(const void* key, const PtrInterface* entry) const = 0;
   virtual bool keyLessThan(const void* key, const PtrInterface* a,
                            const PtrInterface* b) const = 0;
   virtual void setNext(PtrInterface* entry, PtrInterface* next) const = 0;

 protected:
   ~HashMapVTableGeneric() = default;
};

// The untyped map, owned by value inside the owning entity; holds one reference to each member.
// Activity thread only. Removing and emptying may end members, and so run other code; the map is
// whole again before they do.
class VEL_EXPORT HashMapGeneric {
 public:
   // An empty map with room for so many members (a power of two) before it first grows.
   explicit HashMapGeneric(unsigned initialBuckets);
   HashMapGeneric(const HashMapGeneric&) = delete;
   HashMapGeneric& operator=(const HashMapGeneric&) = delete;
   ~HashMapGeneric();

   // Inserts an entry that is in no map. Nothing can fail: a map that finds no memory to grow
   // carries on with longer chains.
   void newMemberG(const Ptr<PtrInterface>& entry, void* key) noexcept;
   // Removes a member, also one whose key has changed since it was inserted. Nothing otherwise.
   void deleteMember(const Ptr<PtrInterface>& entry);
   void emptyAllBuckets();
   // The first member, or the one that follows another which may have been removed meanwhile;
   // null at the end. Stores the bucket when asked to; reads the one of after from there.
   PtrInterface* findNextG(const PtrInterface* after, int* bucket) const;
   // The first member of the next bucket that has one; null and the number of buckets at the end.
   PtrInterface* findNextBucket(int* bucket) const {
      const auto count = static_cast<int>(bucketCount());
      while (++*bucket < count) {
         if (PtrInterface* const head = buckets_[*bucket]) {
            return head;
         }
      }
      *bucket = count;
      return nullptr;
   }
   // The member with the key, or the first that would follow it; null and the number of buckets
   // at the end.
   PtrInterface* startAtHash(const void* key, std::uint32_t hash, int* bucket) const;

   std::uint32_t changeStamp() const noexcept { return changeStamp_; }
   std::uint32_t members() const noexcept { return members_; }

 protected:
   // Shifted in 64 bits: with no bucket bits a 32-bit word would be shifted by 32.
   std::uint32_t bucketOf(std::uint32_t hash) const noexcept {
      return static_cast<std::uint32_t>(static_cast<std::uint64_t>(hash) >> (32 - bucketBits_));
   }
   std::uint64_t bucketCount() const noexcept {
      return bucketBits_ < 32 ? std::uint64_t{1} << bucketBits_ : 0;
   }

   std::uint32_t changeStamp_ = 0; // differs after every insertion and removal
   std::uint32_t members_ = 0;
   const HashMapVTableGeneric* table_ = nullptr; // of the map's type; lives for the process
   std::int8_t bucketBits_;
   std::uint16_t linkPosition_ = 0; // of the link to the next entry, in bytes from an entry's start
   PtrInterface** buckets_ = nullptr; // heads of chains, each a reference of the map, or null

 private:
   PtrInterface* next(const PtrInterface* entry) const noexcept;
   PtrInterface* findAfter(std::uint32_t hash, std::uint32_t bucket) const noexcept;
   bool holds(int bucket, const PtrInterface* entry) const noexcept;
   void insert(std::uint32_t bucket, PtrInterface* entry) noexcept;
   PtrInterface* append(PtrInterface* tail, PtrInterface* entry) noexcept;
   bool removeFrom(std::uint32_t bucket, const PtrInterface* entry);
   void bucketBitsIs(int bits) noexcept;
};

// What one type of map adds to the shared one: how an entry gives its key and its link.
//    static int key(const V& entry);
//    static Ptr<V>& link(V& entry);
template <class V> struct HashMapTraits;

template <class V, class K> class HashMapVTable final : public HashMapVTableGeneric {
 public:
   using Traits = HashMapTraits<V>;

   std::uint32_t hash(const PtrInterface* entry) const override {
      return reversedBits(static_cast<std::uint32_t>(Traits::key(typed(entry))));
   }
   bool keyEquals(const void* key, const PtrInterface* entry) const override {
      return *static_cast<const K*>(key) == Traits::key(typed(entry));
   }
   bool keyLessThan(const void* key, const PtrInterface* a, const PtrInterface* b) const override {
      if (b != nullptr) {
         return Traits::key(typed(b)) < Traits::key(typed(a));
      }
      return key == nullptr || *static_cast<const K*>(key) < Traits::key(typed(a));
   }
   void setNext(PtrInterface* entry, PtrInterface* next) const override {
      Traits::link(static_cast<V&>(*entry)) = static_cast<V*>(next);
   }

   // The one table of the type: made by the first map, kept for the rest of the process.
   static const HashMapVTable* instance() {
      if (instance_ == nullptr) {
         instance_ = new HashMapVTable;
      }
      return instance_;
   }

 private:
   static const V& typed(const PtrInterface* entry) { return static_cast<const V&>(*entry); }

   static inline const HashMapVTable* instance_ = nullptr;
};

// A map of entries V with keys K, read as values T. Looking up makes no call, nor does advancing in
// a map that stays as it is. An iterator keeps its entry alive and finds its place again when the
// map has changed.
template <class V, class K, class T> class HashMap : public HashMapGeneric {
   using Traits = HashMapTraits<V>;

 public:
   class IteratorConst;
   class Iterator;
   struct End {};

   HashMap() : HashMapGeneric(4) {
      table_ = HashMapVTable<V, K>::instance();
      linkPosition_ = linkPosition();
   }
   ~HashMap() {
      emptyAllBuckets();
      if (PtrInterface** const array = buckets_) {
         buckets_ = nullptr;
         ::operator delete(array);
      }
   }

   // The entry with the key, uncounted and valid while the map holds it, or null.
   V* operator[](const K& key) const {
      auto* entry = static_cast<V*>(buckets_[bucketOf(hash(key))]);
      while (entry != nullptr && Traits::key(*entry) != key) {
         entry = Traits::link(*entry).get();
      }
      return entry;
   }

   // As the untyped ones, but without a call where the bucket is, or gets, empty and the array
   // stays.
   using HashMapGeneric::newMemberG;
   void newMemberG(const Ptr<V>& entry, K* key) noexcept {
      PtrInterface*& head = buckets_[bucketOf(hash(Traits::key(*entry)))];
      if (head != nullptr || Traits::link(*entry) || members_ >= bucketCount()) {
         HashMapGeneric::newMemberG(entry, key);
         return;
      }
      entry->referencesInc();
      head = entry.get();
      ++members_;
      ++changeStamp_;
   }
   using HashMapGeneric::deleteMember;
   void deleteMember(const Ptr<V>& entry) {
      PtrInterface*& head = buckets_[bucketOf(hash(Traits::key(*entry)))];
      if (head != entry.get() || Traits::link(*entry) || members_ <= bucketCount() / 8) {
         HashMapGeneric::deleteMember(entry);
         return;
      }
      head = nullptr;
      --members_;
      ++changeStamp_;
      entry->referencesDec(); // the map's; the caller's handle keeps it
   }

   IteratorConst begin() const { return IteratorConst(this); }
   End end() const { return {}; }

   static std::uint32_t hash(const K& key) noexcept {
      return reversedBits(static_cast<std::uint32_t>(key));
   }

 private:
   // Measured on storage that never becomes an entry: only addresses are formed.
   static std::uint16_t linkPosition() noexcept {
      alignas(V) static std::byte storage[sizeof(V)];
      auto* const link = &Traits::link(*reinterpret_cast<V*>(storage));
      return static_cast<std::uint16_t>(reinterpret_cast<std::byte*>(link) - storage);
   }
};

template <class V, class K, class T> class HashMap<V, K, T>::IteratorConst {
 public:
   // At the first entry; at the end for no map.
   explicit IteratorConst(const HashMap* map) : map_(map) {
      if (map != nullptr) {
         changeStamp_ = map->changeStamp_;
         current_ = static_cast<V*>(map->findNextG(nullptr, nullptr));
         if (current_) {
            bucket_ = static_cast<int>(map->bucketOf(hash(Traits::key(*current_))));
         }
      }
   }
   // At the entry with the key or, when there is none, at the first that would follow it.
   IteratorConst(const HashMap* map, const K& key) : map_(map) {
      current_ = static_cast<V*>(map->startAtHash(&key, hash(key), &bucket_));
      if (static_cast<std::uint64_t>(bucket_) < map->bucketCount()) {
         changeStamp_ = map->changeStamp_;
      }
   }

   // To the next entry; the end stays the end. Dropping the entry left may end it.
   void advance() {
      if (!current_) {
         return;
      }
      if (map_->changeStamp_ != changeStamp_) {
         // The stamp of this look: the entry left may end now, and change the map once more.
         const std::uint32_t seen = map_->changeStamp_;
         current_ = static_cast<V*>(map_->findNextG(current_.get(), &bucket_));
         changeStamp_ = seen;
      } else if (V* const next = Traits::link(*current_).get()) {
         current_ = next;
      } else {
         current_ = static_cast<V*>(map_->findNextBucket(&bucket_));
      }
   }
   IteratorConst& operator++() {
      advance();
      return *this;
   }

   const V* ptr() const noexcept { return current_.get(); }
   const V* operator->() const noexcept { return current_.get(); }
   const V& operator*() const noexcept { return *current_; }
   explicit operator bool() const noexcept { return current_.get() != nullptr; }
   friend bool operator==(const IteratorConst& it, End) noexcept { return !it; }

 protected:
   V* entry() const noexcept { return current_.get(); }

 private:
   std::uint32_t changeStamp_ = 0; // of the map, when the iterator last looked
   int bucket_ = -1;
   const HashMap* map_; // outlives the iterator's use
   Ptr<V> current_;     // keeps the entry while the iterator stands on it
};

template <class V, class K, class T>
class HashMap<V, K, T>::Iterator : public HashMap<V, K, T>::IteratorConst {
 public:
   using IteratorConst::IteratorConst;
   V* ptr() const noexcept { return this->entry(); }
   V* operator->() const noexcept { return this->entry(); }
   V& operator*() const noexcept { return *this->entry(); }
};

} // namespace Vel
