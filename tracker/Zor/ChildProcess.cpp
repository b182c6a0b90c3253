// The record of one child, and the base of its watchers.
#include <Zor/ChildProcessTracker.h>

#include <ostream>
#include <utility>

namespace Zor {

Vel::AllocTrackTypeInfo* ChildProcess::velAllocTrackTypeInfo_ = nullptr;

namespace {

void descriptorIs(Vel::FileDescriptor& pipe, int descriptor) {
   try {
      pipe.descriptorIs(descriptor);
   } catch (const Vel::SystemException&) {
      // Not open, which is no error yet: the process may still be watched, as the reactor tells.
   }
}

} // namespace

ChildProcess::ChildProcess(int pid, Vel::String8 description, int readFromChildFd)
   : pid_(pid), description_(std::move(description)) {
   handleInitialized(readFromChildFd);
}

ChildProcess::~ChildProcess() {
   siginfoDel();
   notifieeList_.deleteAll();
}

void ChildProcess::handleInitialized(int readFromChildFd) {
   const Vel::Ptr<Vel::ChildSiginfo> siginfo = // a notifiee may take it away from the record
      siginfoIs(Vel::Name::numbered("ChildSiginfo-%d", pid_), pid_);
   const Vel::Ptr<Vel::FileDescriptor> pipe =
      siginfo->childPipeIs(Vel::Name::numbered("Child%dPipe", pid_));
   try {
      descriptorIs(*pipe, readFromChildFd);
      pipe->nonBlockingIs(true);
      pipe->notifyOnReadableIs(true);
      pipe->notifyOnWritableIs(false);
      pipe->notifyOnExceptionIs(false);
      siginfo->childPipeReactorIs(pipe, siginfo);
   } catch (...) {
      // The descriptor is still the caller's, so the pipe object must not close it when it goes.
      Vel::ActivityImplFacility::activityManagerSm()->fdDel(readFromChildFd);
      throw;
   }
}

Vel::Ptr<Vel::ChildSiginfo> ChildProcess::siginfoIs(Vel::Name name, int pid) {
   if (siginfo_ && siginfo_->name() == name && siginfo_->pid() == pid) {
      return siginfo_;
   }
   if (siginfo_) {
      siginfo_->parentIs(nullptr);
   }
   Vel::Ptr<Vel::ChildSiginfo> made = newSiginfo(std::move(name), pid);
   siginfo_ = made;
   Vel::announceTo<&NotifieeConst::onSiginfo, NotifieeConst>(this, notifieeList_);
   return made;
}

Vel::Ptr<Vel::ChildSiginfo> ChildProcess::newSiginfo(Vel::Name name, int pid) {
   return Vel::ValidPtr(Vel::newEntity<Vel::ChildSiginfo>(std::move(name), pid));
}

Vel::Ptr<Vel::ChildSiginfo> ChildProcess::siginfoDel() {
   Vel::Ptr<Vel::ChildSiginfo> removed(siginfo_);
   if (removed) {
      siginfo_ = nullptr;
      removed->parentIs(nullptr);
      Vel::announceTo<&NotifieeConst::onSiginfo, NotifieeConst>(this, notifieeList_);
   }
   return removed;
}

void ChildProcess::zeroReferencesIs(bool) {
   Vel::announceTo<&NotifieeConst::onZeroReferences, NotifieeConst>(this, notifieeList_);
}

std::ostream& operator<<(std::ostream& stream, const ChildProcess* child) {
   return stream << child->pid() << " '" << child->description() << '\'';
}

void ChildProcess::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
   registrationIs(registered);
}

void ChildProcess::NotifieeConst::notifierIs(const Vel::Ptr<Vel::PtrInterface const>& newNotifier) {
   attach(Vel::narrowedTo<ChildProcess const>(newNotifier.get()));
}

ChildProcess::NotifieeConst::~NotifieeConst() { detach(); }

void ChildProcess::NotifieeConst::onSiginfo() {}

} // namespace Zor
