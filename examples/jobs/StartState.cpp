#include "StartState.h"

#include <Vel/Exception.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace jobs {

namespace {

int openNull(int flags) {
   const int descriptor = ::open("/dev/null", flags);
   if (descriptor < 0) {
      Vel::throwSystemException("/dev/null", errno);
   }
   return descriptor;
}

bool ignored(int signal) noexcept {
   struct sigaction present {};
   ::sigaction(signal, nullptr, &present);
   return present.sa_handler == SIG_IGN;
}

struct sigaction exchanged(int signal, void (*handler)(int)) noexcept {
   struct sigaction action {};
   struct sigaction previous {};
   action.sa_handler = handler;
   ::sigaction(signal, &action, &previous);
   return previous;
}

} // namespace

void openStandardDescriptors() {
   for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
      if (::fcntl(descriptor, F_GETFD) < 0) {
         openNull(O_RDWR); // gets the lowest free number, which is this one
      }
   }
}

void standardInputIsNull() {
   const int null = openNull(O_RDONLY | O_CLOEXEC);
   ::dup2(null, STDIN_FILENO);
   ::close(null);
}

StartState::StartState(bool showsStatus) {
   ::sigemptyset(&askingForStatus_);
   ::sigemptyset(&interrupting_);
   ::sigaddset(&interrupting_, SIGTERM);
   // Also when it is ignored, as a script's shell has it for background programs: unlike a hangup,
   // which is ignored to outlive the terminal, somebody sent it to stop us. A blocked signal can be
   // read although it is ignored.
   ::sigaddset(&interrupting_, SIGINT);
   if (!ignored(SIGHUP)) {
      ::sigaddset(&interrupting_, SIGHUP);
   }
   ::sigprocmask(SIG_BLOCK, &interrupting_, &mask_);
   if (showsStatus) {
      ::sigaddset(&askingForStatus_, SIGUSR1);
      ::sigprocmask(SIG_BLOCK, &askingForStatus_, nullptr);
   }
   pipe_ = exchanged(SIGPIPE, SIG_IGN);
   child_ = exchanged(SIGCHLD, SIG_DFL);
}

int StartState::passedOn(int signal) const noexcept { return ignored(signal) ? SIGTERM : signal; }

void StartState::restore() const noexcept {
   ::sigaction(SIGPIPE, &pipe_, nullptr);
   ::sigaction(SIGCHLD, &child_, nullptr);
   ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
}

} // namespace jobs
