// The collection of tracked children.
#include <Zor/ChildProcessTracker.h>

#include <string>
#include <utility>

namespace Zor {

using Sm = ChildProcessTrackerSm;

namespace {

[[noreturn]] void throwOtherDescription(const Vel::String8& given, const Vel::String8& current) {
   const Vel::String8 message =
      Vel::String8("Reinstantiating the pointer interface where constructor parameter attribute "
                   "_description has a different value of ") +
      Vel::valueToStrep(given) + " than the current value of " + Vel::valueToStrep(current) +
      " not allowed";
   Vel::throwNameInUseException(message.charPtr());
}

bool endIsRecorded(const ChildProcess& child) {
   return child.siginfo() && child.siginfo()->signalCode() != Vel::ChildSiginfo::none;
}

} // namespace

Vel::Ptr<ChildProcess> Sm::processIs(int pid, Vel::String8 description, int readFromChildFd) {
   if (ChildProcess* const known = process_[pid]) {
      if (!(known->description() == description)) {
         throwOtherDescription(description, known->description());
      }
      return known;
   }
   const Vel::Ptr<ChildProcessTrackerSm> self(this); // the hook may drop every other handle on it
   Vel::Ptr<ChildProcess> child = newProcess(pid, std::move(description), readFromChildFd);
   try {
      childProcessIs(child);
   } catch (...) {
      if (endIsRecorded(*child)) {
         throw; // the hook's exception, and a child whose hook throws stays
      }
      // The descriptor is the caller's again before the record, and its pipe object, goes.
      Vel::ActivityImplFacility::activityManagerSm()->fdDel(readFromChildFd);
      Vel::FirstException first;
      first.run([] { throw; });
      first.run([&] { processDel(pid); });
      first.rethrow();
   }
   return child;
}

Vel::Ptr<ChildProcess> Sm::newProcess(int pid, Vel::String8 description, int readFromChildFd) {
   Vel::ValidPtr<ChildProcess> child(
      Vel::newEntity<ChildProcess>(pid, std::move(description), readFromChildFd));
   process_.newMemberG(child, &pid);
   return child;
}

Vel::Ptr<ChildProcess> Sm::processDel(int pid) {
   Vel::Ptr<ChildProcess> removed(process_[pid]);
   if (removed) {
      const Vel::Ptr<ChildProcessTrackerSm> self(this); // as in childProcessDel
      process_.deleteMember(removed);
      childProcessDel(pid);
   }
   return removed;
}

Vel::Ptr<ChildProcess> Sm::processDel(ProcessMap::Iterator& iterator) {
   Vel::Ptr<ChildProcess> removed(iterator.ptr());
   if (removed) {
      const Vel::Ptr<ChildProcessTrackerSm> self(this); // as in childProcessDel
      process_.deleteMember(removed);
      childProcessDel(removed->pid());
   }
   return removed;
}

void Sm::processDelAll() {
   for (ProcessMap::Iterator child(&process_); child; child.advance()) {
      processDel(child);
   }
}

void Sm::processNotify(int) {}

} // namespace Zor
