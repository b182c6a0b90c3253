#include <Vel/Exception.h>
#include <Vel/PtrInterface.h>

#include <cassert>
#include <memory>
#include <new>

namespace Vel {

bool VFPtrInterface::enableThreadSafePointers = false;

void AllocTrackTypeInfo::trackAllocation(AllocTrackTypeInfo** slot, const std::type_info& type,
                                         unsigned size) {
   std::atomic_ref<AllocTrackTypeInfo*> shared(*slot);
   AllocTrackTypeInfo* info = shared.load(std::memory_order_acquire);
   if (info == nullptr) [[unlikely]] {
      // Two threads may both find the slot empty; the one that is late drops its record.
      std::unique_ptr<AllocTrackTypeInfo> made(new AllocTrackTypeInfo(type, size));
      if (shared.compare_exchange_strong(info, made.get(), std::memory_order_acq_rel)) {
         info = made.release();
      }
   }
   info->total_.fetch_add(1, std::memory_order_relaxed);
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* info) noexcept {
   if (info != nullptr) { // null: an object that newEntity didn't make
      info->freed_.fetch_add(1, std::memory_order_release);
   }
}

NotifieeList* PtrInterface::notifieeList() const { return nullptr; }

void PtrInterface::hasNotificationActiveIs(bool active) { bitsIs(notificationActiveBit, active); }

unsigned PtrInterface::velAuditErrors(unsigned) const { return 0; }

unsigned PtrInterface::auditErrors(unsigned level) const {
   return static_cast<std::int32_t>(level) < 0 ? 0 : velAuditErrors(level);
}

void PtrInterface::zeroReferencesIs(bool) {}

PtrInterface::~PtrInterface() = default;

void PtrInterface::handleZeroRef() const {
   // With the finishing bit set no handle taken from here on, and dropped again by a notifiee or
   // by the destructor itself, brings the word to zero a second time.
   bitsIs(finishingBit, true);
   auto* self = const_cast<PtrInterface*>(this);
   FirstException
      first; // of a notifiee, which goes to whoever let go; the object ends all the same
   first.run([&] { self->zeroReferencesIs(true); });
   assert((references() & countMask) == 0 && "a handle was kept on an object being finished");
   delete self;
   first.rethrow();
}

void PtrInterface::bitsIs(std::uint32_t bits, bool on) const noexcept {
   // The bits belong to the activity thread, but share their word with a count that other threads
   // may be changing: with the switch on, a plain write here would take their changes back.
   if (VFPtrInterface::enableThreadSafePointers) {
      std::atomic_ref word(references_);
      on ? word.fetch_or(bits) : word.fetch_and(~bits);
   } else {
      references_ = on ? references_ | bits : references_ & ~bits;
   }
}

void* PtrInterface::velMemAlloc(unsigned size) { return ::operator new(size); }

void PtrInterface::velMemFree(AllocTrackTypeInfo* info, void* memory) noexcept {
   AllocTrackTypeInfo::trackDeallocation(info);
   ::operator delete(memory);
}

} // namespace Vel
