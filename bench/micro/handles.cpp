// Copying and dropping a handle, with the switch for threads off and on.
#include "Micro.h"
#include "Plain.h"
#include "Rows.h"

#include <Vel/Ptr.h>

#include <benchmark/benchmark.h>

namespace Bench {

namespace {

struct Entity : Vel::PtrInterface {
   static inline Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_ = nullptr;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }
};

// What handles are copied for: they are handed to someone of whom the compiler knows nothing.
template <class Handle> void use(Handle handle) { benchmark::DoNotOptimize(handle.get()); }

template <class Handle> Turns copies(const Handle& handle) {
   return [handle](unsigned count) {
      void (*user)(Handle) = use<Handle>;
      benchmark::DoNotOptimize(user);
      while (count-- != 0) {
         user(handle);
      }
   };
}

const Turns& entity() {
   static const Turns turns = copies(Vel::newEntity<Entity>());
   return turns;
}
const Turns& plain() {
   static const Turns turns = copies(PlainHandle<PlainCounted>(new PlainCounted));
   return turns;
}

void switchedOn(unsigned count) {
   Vel::VFPtrInterface::enableThreadSafePointers = true;
   entity()(count);
   Vel::VFPtrInterface::enableThreadSafePointers = false;
}

void add() {
   timed("handle/off", entity());
   timed("handle/plain", plain());
   timed("handle/on", switchedOn);
   timed("handle/atomic", copies(PlainHandle<AtomicCounted>(new AtomicCounted)));
}

void report(const Times& times) {
   const double counted = instructionsPerTurn(entity());
   const double floor = instructionsPerTurn(plain());
   row("handle copied, passed, dropped: instructions / plain counter", counted / floor, "<= 1.40",
       "switch off");
   times.ratioRow("handle copied, passed, dropped: time / plain counter", "handle/off",
                  "handle/plain", "<= 1.60", "switch off");
   times.ratioRow("handle copied, passed, dropped: time / std::atomic counter", "handle/on",
                  "handle/atomic", "<= 1.05", "switch on");
}

} // namespace

const Suite handles{add, report};

} // namespace Bench
