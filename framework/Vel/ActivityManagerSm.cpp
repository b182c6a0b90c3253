#include <Vel/internal/ActivityCore.h>

namespace Vel {

AllocTrackTypeInfo* ActivityManagerSm::velAllocTrackTypeInfo_ = nullptr;

ActivityManagerSm::ActivityManagerSm() : core_(std::make_unique<ActivityCore>()) {}
ActivityManagerSm::~ActivityManagerSm() = default;

int ActivityManagerSm::runOnce(int timeoutMs) { return core_->runOnce(timeoutMs); }
void ActivityManagerSm::run() { core_->run(); }
void ActivityManagerSm::stop() noexcept { core_->stop(); }
int ActivityManagerSm::pollFd() { return core_->pollFd(); }
ActivityManagerSm::Wakeups ActivityManagerSm::wakeups() const noexcept { return core_->wakeups(); }
bool ActivityManagerSm::fd(int descriptor) const noexcept { return core_->fd(descriptor); }
void ActivityManagerSm::fdDel(int descriptor) noexcept { core_->fdDel(descriptor); }
int ActivityManagerSm::fdDelUnless(bool (*kept)(int, const void*), const void* context) noexcept {
   return core_->fdDelUnless(kept, context);
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

ActivityCore& ActivityCore::instance() {
   static ActivityCore& core = *ActivityImplFacility::activityManagerSm()->core_;
   return core;
}

} // namespace Vel
