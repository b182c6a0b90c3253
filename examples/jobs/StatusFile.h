// The tracker's state as a file, for whoever wants to look.
#pragma once

#include <Zor/ChildProcessTracker.h>

#include <string>

namespace jobs {

// Writes the state as JSON, through generic access alone, to a new file that then takes the name:
// a reader finds the previous state or this one, whole. What fails is told on standard error and
// changes nothing else.
void writeStatus(const std::string& path,
                 const Vel::Ptr<Zor::ChildProcessTrackerSm const>& tracker);

} // namespace jobs
