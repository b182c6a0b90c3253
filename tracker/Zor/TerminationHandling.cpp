// Accounting for the end of a child.
#include <Zor/ChildProcessTracker.h>
#include <Zor/internal/TrackerTrace.h>

#include <string>

namespace Zor {

using Sm = ChildProcessTrackerSm;

namespace {

constexpr const char* signature =
   "void Zor::ChildProcessTrackerSm::handleTerminatedChildProcess(S32)";

template <class Body> void traceEnd(int line, const Body& body) {
   trace(line, "handleTerminatedChildProcess", signature, body);
}

} // namespace

void Sm::handleTerminatedChildProcess(int pid) {
   using Siginfo = Vel::ChildSiginfo;
   const Vel::Ptr<ChildProcessTrackerSm> self(this); // the hook may drop every other handle on it
   const Vel::Ptr<ChildProcess const> child(process_[pid]); // ... and forget the child
   if (!child) {
      traceEnd(111, [pid](std::ostream& stream) { stream << pid << " is not tracked"; });
      return;
   }
   const Vel::Ptr<Siginfo const> siginfo(child->siginfo());
   const Siginfo::SignalCode code = siginfo ? siginfo->signalCode() : Siginfo::none;
   traceEnd(111, [&](std::ostream& stream) { stream << child.get() << " signalCode=" << code; });
   switch (code) {
   case Siginfo::exited:
      traceEnd(119, [&](std::ostream& stream) {
         stream << child.get() << " exited with status " << std::to_string(siginfo->exitStatus());
      });
      if (siginfo->exitStatus() != 0) {
         lastFailedProcessIs(child);
         lastFailedProcessTerminationErrorIs(nonZeroExitStatus);
         errorTerminationCountInc(1);
      } else {
         successfulTerminationCountInc(1);
      }
      break;
   case Siginfo::killed:
      traceEnd(133, [&](std::ostream& stream) {
         stream << child.get() << " killed by signal " << std::to_string(siginfo->exitSignal());
      });
      lastFailedProcessIs(child);
      lastFailedProcessTerminationErrorIs(signaled);
      errorTerminationCountInc(1);
      break;
   case Siginfo::lost:
      break; // ended, but nobody knows how: neither a success nor an error
   default:
      return;
   }
   forkedChildExitCallback(child);
   const ChildProcess* const present = process_[pid];
   if (present == nullptr || present == child.get()) { // else the hook has started another one
      processDel(pid);
   }
}

void Sm::forkedChildExitCallback(const Vel::Ptr<ChildProcess const>&) {}

} // namespace Zor
