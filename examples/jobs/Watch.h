// The descriptors through which signals and the passing of time reach the event loop.
#pragma once

#include <Vel/Activity.h>

#include <chrono>
#include <csignal>
#include <functional>

namespace jobs {

using Clock = std::chrono::steady_clock;

// Watches a descriptor, which it owns through the object that it watches.
class Watch : public Vel::FileDescriptor::NotifieeConst {
 protected:
   // SystemException, with errno, for a descriptor that could not be made.
   Watch(const char* name, int descriptor);
};

// Calls a function for each signal of a set that comes. They must be blocked.
class SignalWatch final : public Watch {
 public:
   SignalWatch(const sigset_t& signals, std::function<void(int)> heard);
   void onReadable() override;

 private:
   std::function<void(int)> heard_;
};

// Wakes the loop when a point in time has come; whoever runs the loop then looks what is due.
class Timer final : public Watch {
 public:
   Timer();
   void dueIs(Clock::time_point due); // in place of the previous one; max(): never
   void onReadable() override;
};

} // namespace jobs
