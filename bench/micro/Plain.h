// What someone writes by hand who needs just this much: the yardsticks of the micro-benchmarks.
#pragma once

#include <Vel/HashMap.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Bench {

// An object with a count of its own, deleted with its last handle.
template <class Count> class Plain {
 public:
   Plain() = default;
   Plain(const Plain&) = delete;
   Plain& operator=(const Plain&) = delete;
   virtual ~Plain() = default;
   void taken() noexcept { ++count_; }
   void dropped() {
      if (--count_ == 0) {
         delete this;
      }
   }

 private:
   Count count_ = 0;
};
using PlainCounted = Plain<std::uint32_t>;
using AtomicCounted = Plain<std::atomic<std::uint32_t>>;

template <class T> class PlainHandle {
 public:
   PlainHandle() noexcept = default;
   explicit PlainHandle(T* object) noexcept : object_(object) {
      if (object_ != nullptr) {
         object_->taken();
      }
   }
   PlainHandle(const PlainHandle& other) noexcept : PlainHandle(other.object_) {}
   PlainHandle(PlainHandle&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
   PlainHandle& operator=(PlainHandle other) noexcept {
      std::swap(object_, other.object_);
      return *this;
   }
   ~PlainHandle() {
      if (object_ != nullptr) {
         object_->dropped();
      }
   }
   T* get() const noexcept { return object_; }

 private:
   T* object_ = nullptr;
};

struct PlainEntry : PlainCounted {
   explicit PlainEntry(int number) noexcept : key(number) {}
   const int key;
   PlainHandle<PlainEntry> next;
};

// Chains of entries in a fixed number of buckets, those that the top bits of the reversed key
// select.
class PlainMap {
 public:
   explicit PlainMap(std::size_t members) {
      while (buckets_.size() < members) {
         --shift_;
         buckets_.resize(buckets_.size() * 2);
      }
   }
   PlainEntry* find(int key) const noexcept {
      PlainEntry* entry = head(key).get();
      while (entry != nullptr && entry->key != key) {
         entry = entry->next.get();
      }
      return entry;
   }
   void insert(PlainEntry* entry) noexcept {
      PlainHandle<PlainEntry>& first = head(entry->key);
      entry->next = std::move(first);
      first = PlainHandle<PlainEntry>(entry);
   }
   void remove(const PlainEntry* entry) {
      PlainHandle<PlainEntry>* link = &head(entry->key);
      while (link->get() != nullptr && link->get() != entry) {
         link = &link->get()->next;
      }
      if (link->get() != nullptr) {
         const PlainHandle<PlainEntry> removed(*link);
         *link = std::move(removed.get()->next);
      }
   }
   // The visitor may remove the entry that it is given.
   template <class Visitor> void visit(const Visitor& visitor) {
      for (const PlainHandle<PlainEntry>& first : buckets_) {
         for (PlainHandle<PlainEntry> entry(first); entry.get() != nullptr;) {
            PlainHandle<PlainEntry> next(entry.get()->next);
            visitor(*entry.get());
            entry = std::move(next);
         }
      }
   }

 private:
   PlainHandle<PlainEntry>& head(int key) noexcept { return buckets_[bucket(key)]; }
   const PlainHandle<PlainEntry>& head(int key) const noexcept { return buckets_[bucket(key)]; }
   std::size_t bucket(int key) const noexcept {
      return static_cast<std::uint64_t>(Vel::reversedBits(static_cast<std::uint32_t>(key))) >>
             shift_;
   }

   unsigned shift_ = 32;
   std::vector<PlainHandle<PlainEntry>> buckets_{1};
};

// Watchers called in the order of joining. They may join and leave meanwhile: the one is not
// called any more in this round, the other leaves a hole that is closed after the outermost round.
template <class Watcher> class PlainList {
 public:
   bool empty() const noexcept { return watchers_.empty(); }
   void join(Watcher* watcher) { watchers_.push_back(watcher); }
   void leave(Watcher* watcher) {
      for (Watcher*& each : watchers_) {
         if (each == watcher) {
            each = nullptr;
         }
      }
      holes_ = true;
      closeHoles();
   }
   template <class Call> void visit(const Call& call) {
      ++visits_;
      for (std::size_t place = 0, end = watchers_.size(); place < end; ++place) {
         if (Watcher* const watcher = watchers_[place]) {
            call(*watcher);
         }
      }
      --visits_;
      closeHoles();
   }

 private:
   void closeHoles() {
      if (holes_ && visits_ == 0) {
         std::erase(watchers_, nullptr);
         holes_ = false;
      }
   }

   std::vector<Watcher*> watchers_;
   unsigned visits_ = 0;
   bool holes_ = false;
};

} // namespace Bench
