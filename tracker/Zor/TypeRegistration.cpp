// What happens when the library is loaded.
#include <Zor/ChildProcessTracker.h>

#include <ios>

namespace Zor {

namespace {

const std::ios_base::Init streamsAreReady; // before anything of the library may write

const struct TypesAreRegistered {
   TypesAreRegistered() {
      Vel::typeNodeIs(&ChildProcess::_velType);
      Vel::typeNodeIs(&ChildProcessTrackerCloseFdsContext::_velType);
      Vel::typeNodeIs(&ChildProcessTrackerSm::_velType);
      Vel::typeNodeIs(&ChildProcessTrackerSm::_velType_terminationError);
   }
} typesAreRegistered;

} // namespace

} // namespace Zor
