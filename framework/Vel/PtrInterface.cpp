#include <Vel/Exception.h>
#include <Vel/PtrInterface.h>

#include <cassert>
#include <memory>

namespace Vel {

bool VFPtrInterface::enableThreadSafePointers = false;

AllocTrackTypeInfo& AllocTrackTypeInfo::make(AllocTrackTypeInfo** slot, const std::type_info& type,
                                             unsigned size) {
   // Two threads may both find the slot empty; the one that is late drops its record.
   std::unique_ptr<AllocTrackTypeInfo> made(new AllocTrackTypeInfo(type, size));
   AllocTrackTypeInfo* present = nullptr;
   const bool first = std::atomic_ref(*slot).compare_exchange_strong(present, made.get(),
                                                                     std::memory_order_acq_rel);
   return first ? *made.release() : *present;
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

} // namespace Vel
