// Children that wait, and such as have ended without anybody having been told.
#pragma once

#include "Worker.h"

#include <csignal>

namespace Bench {

// Starts waiting children until there are so many.
void waitingIs(Stage& stage, std::size_t count);

// Waits until the child can be waited for, and leaves it so.
void awaitEnd(pid_t pid);

// Holds back the signal that tells of children from those who handle it, as long as it lives.
class SignalHeld {
 public:
   SignalHeld() noexcept;
   SignalHeld(const SignalHeld&) = delete;
   SignalHeld& operator=(const SignalHeld&) = delete;
   ~SignalHeld() { release(); }
   void release() noexcept;

 private:
   bool held_ = false;
   sigset_t before_;
};

// The processor time that the contestant takes to learn of children that have ended: so many are
// left running.
double cpuToLearn(Contestant& contestant, SignalHeld& held, std::size_t stillRunning);

} // namespace Bench
