// The counted entity: one reference word, seven virtual operations, and the tally of allocations.
#pragma once

#include <Vel/Export.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <typeinfo>

namespace Vel {

class NotifieeList;
struct VelType;

// The arithmetic of reference words, shared by entities and string blocks.
struct VEL_EXPORT VFPtrInterface {
   // When set, every count change is one atomic read-modify-write, so that handles on an object
   // may be copied and dropped on several threads at once. Set it before those threads start.
   static bool enableThreadSafePointers;

   // The bits of a word that must all be clear for the object to end: the count (0 to 28) and
   // the finishing bit (30). Notification active (29) and marked for deletion (31) don't count.
   static constexpr std::uint32_t zeroTestMask = 0x5fffffff;

   static void countInc(std::uint32_t& word) noexcept {
      if (enableThreadSafePointers) [[unlikely]] {
         std::atomic_ref(word).fetch_add(1);
      } else {
         ++word;
      }
   }

   // Each returns what the zero test looks at: zero when the last reference has just gone.
   static std::uint32_t countDec(std::uint32_t& word) noexcept {
      return enableThreadSafePointers ? sharedDec(word) : plainDec(word);
   }
   static std::uint32_t sharedDec(std::uint32_t& word) noexcept {
      return (std::atomic_ref(word).fetch_sub(1) - 1) & zeroTestMask;
   }
   static std::uint32_t plainDec(std::uint32_t& word) noexcept {
      --word;
      asm("" : "+m"(word)); // changed and tested in place, without a register: two instructions
      return word & zeroTestMask;
   }
};

// What one class has allocated. Made on the class's first allocation and kept for the process.
// The tallies may be read and changed on any thread.
class VEL_EXPORT AllocTrackTypeInfo {
 public:
   static void trackAllocation(AllocTrackTypeInfo** slot, const std::type_info& type,
                               unsigned size) {
      AllocTrackTypeInfo* const info = std::atomic_ref(*slot).load(std::memory_order_acquire);
      (info != nullptr ? *info : make(slot, type, size))
         .total_.fetch_add(1, std::memory_order_relaxed);
   }
   static void trackDeallocation(AllocTrackTypeInfo* info) noexcept {
      if (info != nullptr) { // null: an object that newEntity didn't make
         info->freed_.fetch_add(1, std::memory_order_release);
      }
   }

   const char* name() const noexcept { return type_.name(); } // as std::type_info has it
   unsigned size() const noexcept { return size_; }           // bytes of the first one allocated
   std::uint64_t liveCount() const noexcept {
      const std::uint64_t freed = freed_.load(); // before what it is taken from: never negative
      return total_.load() - freed;
   }
   std::uint64_t totalCount() const noexcept { return total_.load(std::memory_order_relaxed); }

 private:
   AllocTrackTypeInfo(const std::type_info& type, unsigned size) noexcept
      : type_(type), size_(size) {}
   static AllocTrackTypeInfo& make(AllocTrackTypeInfo** slot, const std::type_info& type,
                                   unsigned size);

   const std::type_info& type_;
   unsigned size_;
   std::atomic<std::uint64_t> total_{0};
   std::atomic<std::uint64_t> freed_{0};
};

// Base of everything that outlives a call. Owned by counted handles (Ptr); made by newEntity.
// Activity thread only, save for the counts (see VFPtrInterface). A release may end the object,
// and so run its destructor and whatever that announces.
class VEL_EXPORT PtrInterface {
 public:
   class NotifieeConst;

   static constexpr std::uint32_t notificationActiveBit = 0x20000000; // bit 29
   static constexpr std::uint32_t finishingBit = 0x40000000;          // bit 30
   static constexpr std::uint32_t markedForDeletionBit = 0x80000000;  // bit 31
   static constexpr std::uint32_t countMask = 0x1fffffff;             // bits 0 to 28

   PtrInterface(const PtrInterface&) = delete;
   PtrInterface& operator=(const PtrInterface&) = delete;

   // The object's list of notifiees; null for a class that has none.
   virtual NotifieeList* notifieeList() const;
   virtual void hasNotificationActiveIs(bool active);
   virtual unsigned velAuditErrors(unsigned level) const;
   // 0 for a level that is negative as a signed number, else what velAuditErrors finds.
   virtual unsigned auditErrors(unsigned level) const;
   // Called once, with true, when the last handle has gone and before the object is destroyed.
   virtual void zeroReferencesIs(bool zero);
   virtual const VelType* fwkType() const;
   virtual ~PtrInterface();

   bool hasNotificationActive() const noexcept { return references() & notificationActiveBit; }
   bool velMarkedForDeletion() const noexcept { return references() & markedForDeletionBit; }
   void velMarkedForDeletionIs(bool marked) const noexcept { bitsIs(markedForDeletionBit, marked); }

   // The whole word. Read without tearing, so that the activity thread may look at its own bits
   // while other threads change the count.
   std::uint32_t references() const noexcept {
      return std::atomic_ref(references_).load(std::memory_order_relaxed);
   }
   void referencesInc() const noexcept { VFPtrInterface::countInc(references_); }
   // Returns the masked count that is left; at zero the object has been finished. Always inline:
   // the compiler weighs the way of several threads as well, and would make it a call. Not by
   // countDec: with a test behind each way it keeps the plain one short.
   [[gnu::always_inline]] std::uint32_t referencesDec() const {
      if (VFPtrInterface::enableThreadSafePointers) [[unlikely]] {
         return finishedAtZero(VFPtrInterface::sharedDec(references_));
      }
      return finishedAtZero(VFPtrInterface::plainDec(references_));
   }
   // Finishes the object: whoever finds the masked count at zero calls it, once, and does not
   // touch the object afterwards. Taking a handle for longer than the finishing is asserted.
   void handleZeroRef() const;

   // Memory for an entity, released with the global delete. Most of what belongs to a child has 40
   // to 56 bytes, and gets the same: what one that ended has left is then handed out again
   // together, and so lies on fewer pages, of which each costs a process that forks a fault.
   static void* velMemAlloc(unsigned size) {
      constexpr unsigned least = 40;
      constexpr unsigned most = 56;
      return ::operator new(least <= size && size < most ? most : size);
   }

   static const VelType _velType;

 protected:
   // Leaves the count at one: the creation reference, which newEntity gives up.
   PtrInterface() noexcept = default;

   // The bits belong to the activity thread, but share their word with a count that other threads
   // may be changing: with the switch on, a plain write here would take their changes back.
   void bitsIs(std::uint32_t bits, bool on) const noexcept {
      if (VFPtrInterface::enableThreadSafePointers) [[unlikely]] {
         std::atomic_ref word(references_);
         on ? word.fetch_or(bits) : word.fetch_and(~bits);
      } else {
         references_ = on ? references_ | bits : references_ & ~bits;
      }
   }

   // For the operator delete of each class: the way back of newEntity's allocation.
   static void velMemFree(AllocTrackTypeInfo* info, void* memory) noexcept {
      AllocTrackTypeInfo::trackDeallocation(info);
      ::operator delete(memory);
   }

 private:
   std::uint32_t finishedAtZero(std::uint32_t left) const {
      if (left == 0) [[unlikely]] {
         handleZeroRef();
      }
      return left;
   }

   mutable std::uint32_t references_ = 1;
};

} // namespace Vel
