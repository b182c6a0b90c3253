// The pair of reactors that carries a child's end to the tracker.
#include <Zor/ChildProcessTracker.h>

namespace Zor {

using Reactor = ChildProcessTrackerSm::VelChildProcess;
using SiginfoReactor = Reactor::VelSiginfo;
using SiginfoPtr = Vel::Ptr<Vel::ChildSiginfo const>;

Vel::AllocTrackTypeInfo* Reactor::velAllocTrackTypeInfo_ = nullptr;
Vel::AllocTrackTypeInfo* SiginfoReactor::velAllocTrackTypeInfo_ = nullptr;

namespace {

SiginfoPtr siginfoOf(const Vel::Ptr<ChildProcess const>& child) {
   return child ? SiginfoPtr(child->siginfo()) : SiginfoPtr();
}

} // namespace

// ---- VelChildProcess: follows the siginfo attribute ----

Reactor::VelChildProcess(const Vel::Ptr<ChildProcess const>& childProcess,
                         ChildProcessTrackerSm* childProcessTrackerSm)
   : childProcessTrackerSm_(childProcessTrackerSm) {
   notifieeFlagsIs(reactorFlag);
   ChildProcess::NotifieeConst::notifierIs(childProcess);
   ChildProcess::NotifieeConst::isRegisteredNotifieeIs(true);
   try {
      Reactor::siginfoIs(siginfoOf(notifier()));
   } catch (...) {
      if (siginfo_) { // whoever holds it must find no way back to what never came to be
         siginfo_->velDoZombieReactors(true);
         siginfo_->velChildProcessIs(nullptr);
      }
      throw;
   }
}

Reactor::~VelChildProcess() {
   Reactor::velDoZombieReactors(true);
   if (siginfo_) {
      siginfo_->velChildProcessIs(nullptr);
   }
}

void Reactor::notifierIs(const Vel::Ptr<Vel::PtrInterface const>& newNotifier) {
   const auto child = Vel::Ptr<ChildProcess const>::narrow(newNotifier);
   if (child == notifier()) {
      return;
   }
   const Vel::Ptr<VelChildProcess> self(this); // an end told below may drop every other handle
   ChildProcess::NotifieeConst::notifierIs(child);
   if (child) {
      siginfoIs(child->siginfo());
   }
   isRegisteredNotifieeIs(true);
}

void Reactor::onSiginfo() {
   if (const Vel::Ptr<ChildProcess const> child = notifier()) {
      siginfoIs(child->siginfo());
   }
}

void Reactor::siginfoIs(const SiginfoPtr& siginfo) {
   // The end that attaching may tell of drops this reactor and its siginfo reactor elsewhere.
   const Vel::Ptr<VelChildProcess> self(this);
   Vel::Ptr<VelSiginfo> current(siginfo_);
   if (!siginfo) {
      if (current && current->notifier()) {
         siginfo_ = nullptr;
         current->velDoZombieReactors(true);
         current->velChildProcessIs(nullptr);
      }
      return;
   }
   if (!current) {
      current = newSiginfo(nullptr);
      siginfo_ = current;
   } else if (current->notifier() == siginfo) {
      return;
   }
   current->notifierIs(siginfo);
   current->velDoZombieReactors(velMarkedForDeletion());
}

Vel::Ptr<SiginfoReactor> Reactor::newSiginfo(const SiginfoPtr& siginfo) {
   Vel::Ptr<VelSiginfo> reactor = Vel::newEntity<VelSiginfo>(siginfo, this);
   reactor->hasNotificationActiveIs(true);
   return reactor;
}

SiginfoPtr Reactor::siginfoDel() {
   if (!siginfo_) {
      return nullptr;
   }
   const Vel::Ptr<VelChildProcess> self(this);
   const Vel::Ptr<VelSiginfo> dropped(siginfo_);
   siginfo_ = nullptr;
   dropped->velDoZombieReactors(true); // quiet and marked first: without an owner it must not act
   dropped->velChildProcessIs(nullptr);
   dropped->hasNotificationActiveIs(false);
   return dropped->notifier();
}

void Reactor::velDoZombieReactors(bool zombie) {
   if (zombie == velMarkedForDeletion()) {
      return;
   }
   if (rawNotifier() != nullptr) {
      hasNotificationActiveIs(!zombie);
   }
   if (const Vel::Ptr<VelSiginfo> owned = siginfo_) { // held while it is called
      owned->velDoZombieReactors(zombie);
   }
   // The mark goes on last: going quiet needs the registration, and a marked one leaves no list.
   velMarkedForDeletionIs(zombie);
}

void Reactor::hasNotificationActiveIs(bool active) {
   if (active == hasNotificationActive()) {
      return;
   }
   ChildProcess::NotifieeConst::hasNotificationActiveIs(active);
   if (const Vel::Ptr<VelSiginfo> owned = siginfo_) {
      owned->hasNotificationActiveIs(active);
   }
}

void Reactor::vel_handleSiginfo_signalCode() {
   if (childProcessTrackerSm_ != nullptr && rawNotifier() != nullptr) {
      childProcessTrackerSm_->handleTerminatedChildProcess(fwkKey());
   }
}

// ---- VelSiginfo: follows the signal code ----

SiginfoReactor::VelSiginfo(const SiginfoPtr& siginfo, VelChildProcess* velChildProcess)
   : velChildProcess_(velChildProcess) {
   notifieeFlagsIs(reactorFlag);
   Vel::ChildSiginfo::NotifieeConst::notifierIs(siginfo);
   Vel::ChildSiginfo::NotifieeConst::isRegisteredNotifieeIs(true);
}

SiginfoReactor::~VelSiginfo() { SiginfoReactor::velDoZombieReactors(true); }

void SiginfoReactor::notifierIs(const Vel::Ptr<Vel::PtrInterface const>& newNotifier) {
   const auto* const siginfo = Vel::narrowedTo<Vel::ChildSiginfo const>(newNotifier.get());
   if (siginfo == rawNotifier()) {
      return;
   }
   const Vel::Ptr<VelSiginfo> self(this); // an end told below may drop every other handle
   Vel::ChildSiginfo::NotifieeConst::notifierIs(newNotifier);
   if (siginfo != nullptr && !velMarkedForDeletion() && velChildProcess_ != nullptr) {
      velChildProcess_->vel_handleSiginfo_signalCode();
   }
   isRegisteredNotifieeIs(true);
}

void SiginfoReactor::onSignalCode() {
   if (!velMarkedForDeletion() && velChildProcess_ != nullptr) {
      velChildProcess_->vel_handleSiginfo_signalCode();
   }
}

void SiginfoReactor::velDoZombieReactors(bool zombie) {
   if (zombie == velMarkedForDeletion()) {
      return;
   }
   if (rawNotifier() != nullptr) {
      hasNotificationActiveIs(!zombie);
   }
   velMarkedForDeletionIs(zombie);
}

void SiginfoReactor::hasNotificationActiveIs(bool active) {
   Vel::ChildSiginfo::NotifieeConst::hasNotificationActiveIs(active);
}

} // namespace Zor
