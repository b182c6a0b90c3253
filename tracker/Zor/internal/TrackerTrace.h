// The tracker's trace messages: one handle, one level, composed only when that is on.
#pragma once

#include <Vel/Trace.h>

#include <cstddef>
#include <ostream>

namespace Zor {

// The library's one trace handle, "ChildProcessTracker".
inline Vel::TraceHandle& _defaultTraceHandle() {
   static Vel::TraceHandle handle(
      [] {
         Vel::String8 name;
         name.init("ChildProcessTracker", 0, 19);
         return name;
      }(),
      false);
   return handle;
}

// Out of line: where tracing is off, a traced operation has nothing of it but the question.
template <class Body>
[[gnu::noinline]] void compose(Vel::TraceHelper* helper, int line, const char* function,
                               const char* signature, const Body& body) {
   const Vel::EnsureTraceHelperIsDestroyed guard(helper);
   body(helper->stream() << signature << ' ');
   helper->trace("ChildProcessTracker", line, function);
}

// One message: the emitting operation's signature, a blank, and what body(stream) writes.
template <class Body>
void trace(int line, const char* function, const char* signature, const Body& body) {
   constexpr Vel::TraceFacility::FacilityLevel level = 8;
   alignas(Vel::TraceHelper) std::byte storage[sizeof(Vel::TraceHelper)];
   if (auto* const helper =
          Vel::TraceHelper::createIfEnabled(_defaultTraceHandle(), level, storage)) [[unlikely]] {
      compose(helper, line, function, signature, body);
   }
}

} // namespace Zor
