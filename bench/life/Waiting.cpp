#include "Waiting.h"

#include "Clock.h"

#include <sys/wait.h>

namespace Bench {

void waitingIs(Stage& stage, std::size_t count) {
   while (stage.waiting.size() < count) {
      stage.waiting.push_back(stage.contestant->start(Body::waits));
   }
}

void awaitEnd(pid_t pid) {
   siginfo_t info;
   checked(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), "waitid");
}

SignalHeld::SignalHeld() noexcept {
   struct sigaction action = {};
   ::sigaction(SIGCHLD, nullptr, &action);
   if (action.sa_handler != SIG_DFL) {
      sigset_t child;
      ::sigemptyset(&child);
      ::sigaddset(&child, SIGCHLD);
      held_ = ::sigprocmask(SIG_BLOCK, &child, &before_) == 0;
   }
}

void SignalHeld::release() noexcept {
   if (held_) {
      ::sigprocmask(SIG_SETMASK, &before_, nullptr);
      held_ = false;
   }
}

double cpuToLearn(Contestant& contestant, SignalHeld& held, std::size_t stillRunning) {
   return timesOf([&] {
             held.release();
             contestant.attendUntil(stillRunning);
          })
      .cpu;
}

} // namespace Bench
