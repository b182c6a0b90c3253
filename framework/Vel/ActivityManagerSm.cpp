#include <Vel/internal/ActivityCore.h>

namespace Vel {

namespace {
ActivityCore& core() noexcept { return ActivityCore::instance(); }
} // namespace

AllocTrackTypeInfo* ActivityManagerSm::velAllocTrackTypeInfo_ = nullptr;

ActivityManagerSm::ActivityManagerSm() = default;
ActivityManagerSm::~ActivityManagerSm() = default;

int ActivityManagerSm::runOnce(int timeoutMs) { return core().runOnce(timeoutMs); }
void ActivityManagerSm::run() { core().run(); }
void ActivityManagerSm::stop() noexcept { core().stop(); }
int ActivityManagerSm::pollFd() { return core().pollFd(); }
ActivityManagerSm::Wakeups ActivityManagerSm::wakeups() const noexcept { return core().wakeups(); }
bool ActivityManagerSm::fd(int descriptor) const noexcept { return core().fd(descriptor); }
void ActivityManagerSm::fdDel(int descriptor) noexcept { core().fdDel(descriptor); }
int ActivityManagerSm::fdDelUnless(bool (*kept)(int, const void*), const void* context) noexcept {
   return core().fdDelUnless(kept, context);
}

Ptr<ActivityManagerSm> ActivityImplFacility::activityManagerSm() {
   // The extra reference is never given back: descriptors in the program's static objects may end
   // after every static object of ours.
   static ActivityManagerSm* const manager = [] {
      const Ptr<ActivityManagerSm> made = newEntity<ActivityManagerSm>();
      made->referencesInc();
      return made.get();
   }();
   return manager;
}

} // namespace Vel
