// Tracing: named handles whose levels are switched on and off by name, and messages that are
// composed only for a level that is on.
#pragma once

#include <Vel/String8.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string_view>

namespace Vel {

// The process-wide switches and the place where messages go. Activity thread only, but handles may
// be made and enabled levels asked for on any thread; nothing here takes a lock.
class VEL_EXPORT TraceFacility {
 public:
   using FacilityLevel = unsigned; // 0 to 63
   using Sink = std::function<void(std::string_view handle, int level, std::string_view file,
                                   int line, std::string_view function, std::string_view text)>;

   // Switches one level of the handles of that name, those to come included. RangeException for a
   // level above 63.
   static void levelEnabledIs(std::string_view handle, FacilityLevel level, bool enabled);
   static bool levelEnabled(std::string_view handle, FacilityLevel level);
   // Where messages go; an empty sink restores the default, which writes one line a message to
   // standard error with control characters escaped. What a sink throws is dropped.
   static void sinkIs(Sink sink);
};

// One library's or program's way into tracing, usually a function-local static.
class VEL_EXPORT TraceHandle {
 public:
   // All levels are on from the start when allEnabled is true.
   TraceHandle(String8 name, bool allEnabled);
   // Empty, but run when the program ends: the switches belong to the facility, which never does.
   ~TraceHandle() {} // NOLINT(modernize-use-equals-default)

   const String8& name() const noexcept;
   bool levelEnabled(TraceFacility::FacilityLevel level) const noexcept;

   struct Switches; // of one name, made once and kept for the process

 private:
   Switches* switches_;
};

// One message while it is being composed, in storage of the caller's; ended by
// EnsureTraceHelperIsDestroyed.
class VEL_EXPORT TraceHelper {
 public:
   TraceHelper(const TraceHelper&) = delete;
   TraceHelper& operator=(const TraceHelper&) = delete;

   // Builds a helper in the storage (of a TraceHelper's size and alignment), or returns null when
   // the handle doesn't trace at the level, or there is no memory for a message.
   static TraceHelper* createIfEnabled(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                       void* storage);

   std::ostream& stream() noexcept; // has the classic locale
   // Sends the message to the sink. A sink that fails changes nothing for the caller.
   void trace(const char* file, int line, const char* function) noexcept;

 private:
   friend class EnsureTraceHelperIsDestroyed;

   // Out of line: a level that is off costs the question alone.
   [[gnu::noinline]] static TraceHelper* create(TraceHandle& handle,
                                                TraceFacility::FacilityLevel level, void* storage);

   TraceHelper(TraceHandle& handle, TraceFacility::FacilityLevel level);
   ~TraceHelper();

   TraceHandle& handle_;
   TraceFacility::FacilityLevel level_;
   // Not in the storage: every place that traces keeps that in its frame, and a process that forks
   // pays a fault for each page of its stack that it writes between two forks.
   std::unique_ptr<std::ostringstream> message_;
};

// Ends a helper when it goes out of scope, also when composing the message throws.
class EnsureTraceHelperIsDestroyed {
 public:
   explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) noexcept : helper_(helper) {}
   EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
   EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;
   ~EnsureTraceHelperIsDestroyed() {
      if (helper_ != nullptr) {
         helper_->~TraceHelper();
      }
   }

 private:
   TraceHelper* helper_;
};

} // namespace Vel
