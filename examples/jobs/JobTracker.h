// How a command is started and how its end is heard of.
#pragma once

#include "StartState.h"

#include <Zor/ChildProcessTracker.h>

#include <functional>
#include <string>

namespace jobs {

class JobTracker final : public Zor::ChildProcessTrackerSm {
 public:
   using Ended = std::function<void(const Zor::ChildProcess&)>;

   // The state lives longer than the tracker. ended runs on the event loop, once for each command.
   JobTracker(const StartState& startState, Ended ended);

   // Starts a command in a process group of its own, which has the process id that is returned;
   // -1 with errno. Vel::Exception when the command runs but can't be tracked.
   int start(const std::string& command);

   unsigned lostCount() const noexcept { return lostCount_; }

   void forkedChildExitCallback(const Vel::Ptr<Zor::ChildProcess const>& child) override;

 private:
   [[noreturn]] void runCommand(const char* command) const noexcept;

   const StartState& startState_;
   Ended ended_;
   Vel::Ptr<Zor::ChildProcessTrackerCloseFdsContext> kept_;
   unsigned lostCount_ = 0;
};

} // namespace jobs
