#include "JobTracker.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace jobs {

namespace {

constexpr int notRunnable = 127; // what shells end with for a program that can't be run

} // namespace

JobTracker::JobTracker(const StartState& startState, Ended ended)
   : startState_(startState), ended_(std::move(ended)),
     kept_(Vel::newEntity<Zor::ChildProcessTrackerCloseFdsContext>()) {
   for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      kept_->skipFdIs(standard, true);
   }
}

int JobTracker::start(const std::string& command) {
   const pid_t self = ::getpid();
   int pid = -1;
   try {
      pid = forkChild(command, nullptr, nullptr, kept_);
   } catch (...) {
      if (::getpid() != self) {
         ::_exit(notRunnable); // the child must not go on as if it were the program
      }
      throw;
   }
   if (pid == 0) {
      runCommand(command.c_str());
   }
   if (pid > 0) {
      ::setpgid(pid, pid); // here too, so that there is a group before anyone signals it
   }
   return pid;
}

// In the child: only calls that need no lock and no memory.
void JobTracker::runCommand(const char* command) const noexcept {
   ::setpgid(0, 0);
   startState_.restore();
   ::execl("/bin/sh", "sh", "-c", "--", command, nullptr);
   constexpr std::string_view why[] = {"jobs: cannot run /bin/sh\n", "jobs: command too long\n"};
   const std::string_view message = why[errno == E2BIG];
   [[maybe_unused]] const ssize_t told = ::write(STDERR_FILENO, message.data(), message.size());
   ::_exit(notRunnable);
}

void JobTracker::forkedChildExitCallback(const Vel::Ptr<Zor::ChildProcess const>& child) {
   if (child->siginfo()->signalCode() == Vel::ChildSiginfo::lost) {
      ++lostCount_;
   }
   ended_(*child);
}

} // namespace jobs
