#include <Zor/internal/TrackerTrace.h>

namespace Zor {

Vel::TraceHandle& _defaultTraceHandle() {
   static Vel::TraceHandle handle(
      [] {
         Vel::String8 name;
         name.init("ChildProcessTracker", 0, 19);
         return name;
      }(),
      false);
   return handle;
}

} // namespace Zor
