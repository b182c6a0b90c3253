// The tracker itself: making and ending it, its plain attributes, and its enumeration.
#include <Zor/ChildProcessTracker.h>

#include <ostream>

namespace Zor {

using Sm = ChildProcessTrackerSm;
using TerminationErrors = Vel::EnumType<unsigned>;

Vel::AllocTrackTypeInfo* Sm::velAllocTrackTypeInfo_ = nullptr;

Vel::Ptr<Sm> childProcessTrackerSmFactory() { return Sm::ChildProcessTrackerSmIs(); }

Vel::Ptr<Sm> Sm::ChildProcessTrackerSmIs() { return newTracker<Sm>(); }

Sm::ChildProcessTrackerSm() = default;

Sm::~ChildProcessTrackerSm() {
   // Marked and without a way back to the tracker before anything is let go: nobody may call into
   // it any more. A derived tracker is gone already, so these are the operations of this class.
   Sm::velDoZombieReactors(true);
   for (ChildProcessMap::Iterator reactor(&childProcess_); reactor; reactor.advance()) {
      reactor->childProcessTrackerSmIs(nullptr);
   }
   processDelAll();
}

Vel::Ptr<Vel::PtrInterface> Sm::velFwkActivity() const { return nullptr; }

void Sm::lastFailedProcessIs(const Vel::Ptr<ChildProcess const>& child) {
   lastFailedProcess_ = child;
}
void Sm::lastFailedProcessTerminationErrorIs(terminationError error) {
   lastFailedProcessTerminationError_ = error;
}
void Sm::successfulTerminationCountInc(unsigned n) { successfulTerminationCount_ += n; }
void Sm::successfulTerminationCountIs(unsigned n) { successfulTerminationCount_ = n; }
void Sm::errorTerminationCountInc(unsigned n) { errorTerminationCount_ += n; }
void Sm::errorTerminationCountIs(unsigned n) { errorTerminationCount_ = n; }

Sm::terminationError Sm::terminationErrorInstance(unsigned number) {
   return static_cast<terminationError>(
      TerminationErrors::instance(number, _velType_terminationError));
}

Sm::terminationError Sm::terminationErrorInstance(const Vel::String8& name) {
   return static_cast<terminationError>(
      TerminationErrors::instance(name.charPtr(), _velType_terminationError));
}

Vel::String8 stringValue(Sm::terminationError error) {
   return TerminationErrors::stringValue(error, Sm::_velType_terminationError);
}

std::ostream& operator<<(std::ostream& stream, const Sm::terminationError& error) {
   return TerminationErrors::operatorLessLess(stream, error, Sm::_velType_terminationError);
}

Vel::String8 valueToStrep(const Sm::terminationError& error) {
   return TerminationErrors::valueToStrep(error, Sm::_velType_terminationError);
}

Sm::terminationError sequenceToValue(Vel::String8::IteratorConst& it,
                                     const Vel::String8::IteratorConst& end,
                                     Sm::terminationError*) {
   return static_cast<Sm::terminationError>(
      TerminationErrors::sequenceToValue(it, end, Sm::_velType_terminationError));
}

} // namespace Zor
