// The collection of reactors, one for each tracked child, and the switches that reach all of them.
#include <Zor/ChildProcessTracker.h>

namespace Zor {

using Sm = ChildProcessTrackerSm;

namespace {

// Quiet and marked before the way back is cleared: without an owner a reactor must not act.
void letGo(const Vel::Ptr<Sm::VelChildProcess>& reactor) {
   reactor->velDoZombieReactors(true);
   reactor->childProcessTrackerSmIs(nullptr);
   reactor->hasNotificationActiveIs(false);
}

} // namespace

Sm::VelChildProcess* Sm::childProcess(int pid) const { return childProcess_[pid]; }

void Sm::childProcessIs(const Vel::Ptr<ChildProcess const>& child) {
   if (!child) {
      Vel::throwRangeException("null _childProcess parameter to mutator for "
                               "Zor::ChildProcessTrackerSm::childProcess not allowed\"");
   }
   const Vel::Ptr<ChildProcessTrackerSm> self(this); // an end told below may drop the tracker
   Vel::Ptr<VelChildProcess> reactor(childProcess_[child->pid()]); // ... and the reactor
   if (!reactor) {
      reactor = newChildProcess(child);
   } else if (reactor->notifier() == child) {
      return;
   } else {
      reactor->notifierIs(child);
   }
   // A reactor whose child has turned out to have ended is let go by now, and stays marked.
   if (reactor->childProcessTrackerSm() == this) {
      reactor->velDoZombieReactors(velMarkedForDeletion());
   }
}

Vel::Ptr<Sm::VelChildProcess> Sm::newChildProcess(const Vel::Ptr<ChildProcess const>& child) {
   const Vel::Ptr<ChildProcessTrackerSm> self(this); // an end told below may drop the tracker
   const bool tracked = child && process_[child->pid()] == child.get();
   const std::uint32_t before = process_.changeStamp();
   Vel::Ptr<VelChildProcess> reactor = Vel::newEntity<VelChildProcess>(child, this);
   if (tracked && process_.changeStamp() != before && process_[child->pid()] != child.get()) {
      letGo(reactor); // its end was recorded already, and it is forgotten
      return reactor;
   }
   reactor->hasNotificationActiveIs(true);
   int key = reactor->fwkKey();
   childProcess_.newMemberG(reactor, &key);
   return reactor;
}

Vel::Ptr<ChildProcess const> Sm::childProcessDel(int pid) { return reactorDel(childProcess_[pid]); }

Vel::Ptr<ChildProcess const> Sm::childProcessDel(ChildProcessMap::Iterator& iterator) {
   return reactorDel(iterator.ptr());
}

Vel::Ptr<ChildProcess const> Sm::reactorDel(VelChildProcess* entry) {
   if (entry == nullptr) {
      return nullptr;
   }
   const Vel::Ptr<VelChildProcess> reactor(entry);   // the collection's may be the last handle
   const Vel::Ptr<ChildProcessTrackerSm> self(this); // what is let go may hold the last on us
   childProcess_.deleteMember(reactor);
   letGo(reactor);
   return reactor->notifier();
}

void Sm::childProcessDelAll() {
   // Again while that helps: of several reactors without a child, which all have key 0, advancing
   // from one that was removed passes over the others.
   for (unsigned before = 0; (before = childProcess_.members()) != 0;) {
      for (ChildProcessMap::Iterator reactor(&childProcess_); reactor; reactor.advance()) {
         childProcessDel(reactor);
      }
      if (childProcess_.members() >= before) {
         return; // an override keeps them
      }
   }
}

void Sm::childProcessNotify(int) {}

void Sm::hasNotificationActiveIs(bool active) {
   if (active == hasNotificationActive()) {
      return;
   }
   PtrInterface::hasNotificationActiveIs(active);
   for (ChildProcessMap::Iterator reactor(&childProcess_); reactor; reactor.advance()) {
      reactor->hasNotificationActiveIs(active);
   }
}

void Sm::velDoZombieReactors(bool zombie) {
   if (zombie == velMarkedForDeletion()) {
      return;
   }
   for (ChildProcessMap::Iterator reactor(&childProcess_); reactor; reactor.advance()) {
      reactor->velDoZombieReactors(zombie);
   }
   velMarkedForDeletionIs(zombie);
}

} // namespace Zor
