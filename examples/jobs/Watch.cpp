#include "Watch.h"

#include <Vel/Exception.h>

#include <cerrno>
#include <cstdint>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace jobs {

Watch::Watch(const char* name, int descriptor) {
   using Base = Vel::FileDescriptor::NotifieeConst; // named: in a constructor no other would do
   if (descriptor < 0) {
      Vel::throwSystemException(name, errno);
   }
   const auto watched = Vel::newEntity<Vel::FileDescriptor>(name);
   watched->descriptorIs(descriptor);
   watched->notifyOnReadableIs(true);
   Base::notifierIs(watched);
   Base::isRegisteredNotifieeIs(true);
}

SignalWatch::SignalWatch(const sigset_t& signals, std::function<void(int)> heard)
   : Watch("signals", ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC)),
     heard_(std::move(heard)) {}

void SignalWatch::onReadable() {
   signalfd_siginfo signal;
   while (::read(notifier()->descriptor(), &signal, sizeof signal) == sizeof signal) {
      heard_(static_cast<int>(signal.ssi_signo));
   }
}

Timer::Timer() : Watch("timer", ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {}

void Timer::dueIs(Clock::time_point due) {
   itimerspec when{}; // all zero: disarmed
   if (due != Clock::time_point::max()) {
      const auto whole = std::chrono::floor<std::chrono::seconds>(due.time_since_epoch());
      when.it_value.tv_sec = whole.count();
      when.it_value.tv_nsec = std::chrono::nanoseconds(due.time_since_epoch() - whole).count();
   }
   if (::timerfd_settime(notifier()->descriptor(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
      Vel::throwSystemException("timer", errno);
   }
}

void Timer::onReadable() {
   std::uint64_t expirations = 0;
   // Fails when it has been set anew meanwhile: then it isn't readable any more.
   [[maybe_unused]] const ssize_t got =
      ::read(notifier()->descriptor(), &expirations, sizeof expirations);
}

} // namespace jobs
