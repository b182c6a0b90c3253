// How far a run has come, and what is told of it, as text.
#pragma once

#include "Watch.h"

#include <Zor/ChildProcessTracker.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace jobs {

// For whoever shows or keeps it.
struct Progress {
   std::size_t total = 0;     // commands of the list
   std::size_t started = 0;   // of those
   std::size_t running = 0;   // of the started ones; the others are in the next three
   std::size_t succeeded = 0; // as the tracker counts
   std::size_t failed = 0;    // as the tracker counts
   std::size_t lost = 0;      // nobody knows how they ended
   std::size_t refused = 0;   // could not be started
   std::size_t timedOut = 0;  // were told to end, however they then did
   Clock::duration elapsed{};

   std::size_t troubles() const noexcept { return failed + lost + refused; }
   bool allWell() const noexcept { return succeeded == total && timedOut == 0; }
};

// How one command ended: "killed by SIGKILL    0.002 s  kill -9 $$".
std::string endLine(const Zor::ChildProcess& child, Clock::duration took, bool timedOut);
// A command of which no end will be heard.
std::string troubleLine(std::string_view outcome, std::string_view why, std::string_view command);
// In brackets: a command's own output lands behind it.
std::string progressLine(const Progress& progress);
std::string summary(const Progress& progress);
// Empty when nothing failed.
std::string lastFailure(const Zor::ChildProcessTrackerSm& tracker);

} // namespace jobs
