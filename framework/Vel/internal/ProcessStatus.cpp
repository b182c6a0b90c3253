#include <Vel/internal/ProcessStatus.h>

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vel {

namespace {

// From the kernel's interface; the C library's headers may be older than the kernel.
constexpr auto byPidfd = static_cast<idtype_t>(3); // P_PIDFD
constexpr std::uint64_t pidfdInfoExit = 1U << 3;
struct PidfdInfo {
   std::uint64_t mask;
   std::uint64_t cgroupId;
   std::uint32_t ids[11];
   std::int32_t exitCode; // as wait gives it; only with pidfdInfoExit in the mask
};
static_assert(sizeof(PidfdInfo) == 64);
constexpr unsigned long pidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

// Without waiting, which no signal interrupts.
int waitId(idtype_t type, int id, siginfo_t& info, int options) noexcept {
   return ::waitid(type, static_cast<id_t>(id), &info, options | WEXITED | WNOHANG);
}

Ours isOurChild(idtype_t type, int id) noexcept {
   siginfo_t ignored; // that none might be given is Linux's own, and not to be relied upon
   if (waitId(type, id, ignored, WNOWAIT) == 0) {
      return Ours::yes;
   }
   if (errno == ECHILD) {
      return Ours::no;
   }
   return errno == EINVAL ? Ours::unaskable : Ours::unknown;
}

// yes, no, or lost for a process that isn't a child of ours any more.
Ended waitFor(idtype_t type, int id, ProcessStatus& status) noexcept {
   siginfo_t info;
   info.si_pid = 0; // and so it stays when there is nothing to tell
   if (waitId(type, id, info, 0) != 0) {
      return errno == ECHILD ? Ended::lost : Ended::unknown;
   }
   if (info.si_pid == 0) {
      return Ended::no;
   }
   status.exited = info.si_code == CLD_EXITED;
   status.value = static_cast<std::uint8_t>(info.si_status);
   status.coreDumped = info.si_code == CLD_DUMPED;
   return Ended::yes;
}

bool hungUp(int pidfd) noexcept {
   pollfd poll{.fd = pidfd, .events = POLLIN, .revents = 0};
   return ::poll(&poll, 1, 0) > 0 && (poll.revents & POLLHUP) != 0;
}

// What the kernel has kept of a process that somebody has reaped. It appears a moment after the
// process stops being waitable, together with the hangup, which therefore is asked for first.
[[gnu::noinline]] Ended recover(int pidfd, ProcessStatus& status) noexcept {
   const bool gone = hungUp(pidfd);
   PidfdInfo info{};
   info.mask = pidfdInfoExit;
   if (::ioctl(pidfd, pidfdGetInfo, &info) != 0) {
      return Ended::lost; // a kernel without such a record
   }
   if ((info.mask & pidfdInfoExit) == 0) {
      return gone ? Ended::lost : Ended::no;
   }
   status.exited = WIFEXITED(info.exitCode);
   status.value = static_cast<std::uint8_t>(status.exited ? WEXITSTATUS(info.exitCode)
                                                          : WTERMSIG(info.exitCode));
   status.coreDumped = !status.exited && WCOREDUMP(info.exitCode);
   status.recovered = true;
   return Ended::yes;
}

} // namespace

int pidfdOpen(int pid) noexcept { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

Ours pidfdIsOurChild(int pidfd) noexcept { return isOurChild(byPidfd, pidfd); }

Ours pidIsOurChild(int pid) noexcept { return pid > 0 ? isOurChild(P_PID, pid) : Ours::no; }

Ended pidfdWait(int pidfd, ProcessStatus& status) noexcept {
   const Ended ended = waitFor(byPidfd, pidfd, status);
   return ended == Ended::lost ? recover(pidfd, status) : ended;
}

Ended pidWait(int pid, ProcessStatus& status) noexcept { return waitFor(P_PID, pid, status); }

int pidfdSignal(int pidfd, int number) noexcept {
   return ::syscall(SYS_pidfd_send_signal, pidfd, number, nullptr, 0) == 0 ? 0 : errno;
}

int pidSignal(int pid, int number) noexcept {
   if (pidIsOurChild(pid) != Ours::yes) {
      return ESRCH;
   }
   return ::kill(pid, number) == 0 ? 0 : errno;
}

} // namespace Vel
