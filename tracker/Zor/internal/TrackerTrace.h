// The tracker's trace messages: one handle, one level, composed only when that is on.
#pragma once

#include <Vel/Trace.h>

#include <cstddef>
#include <ostream>

namespace Zor {

// The library's one trace handle, "ChildProcessTracker".
Vel::TraceHandle& _defaultTraceHandle();

constexpr Vel::TraceFacility::FacilityLevel traceLevel = 8;

// Out of line: where tracing is off a traced operation does nothing but ask.
template <class Body>
[[gnu::noinline]] void traceOn(int line, const char* function, const char* signature,
                               const Body& body) {
   alignas(Vel::TraceHelper) std::byte storage[sizeof(Vel::TraceHelper)];
   auto* const helper =
      Vel::TraceHelper::createIfEnabled(_defaultTraceHandle(), traceLevel, storage);
   if (helper == nullptr) {
      return;
   }
   const Vel::EnsureTraceHelperIsDestroyed guard(helper);
   body(helper->stream() << signature << ' ');
   helper->trace("ChildProcessTracker", line, function);
}

// One message: the emitting operation's signature, a blank, and what body(stream) writes.
template <class Body>
void trace(int line, const char* function, const char* signature, const Body& body) {
   if (_defaultTraceHandle().levelEnabled(traceLevel)) [[unlikely]] {
      traceOn(line, function, signature, body);
   }
}

} // namespace Zor
