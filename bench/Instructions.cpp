#include "Instructions.h"

#include <cerrno>
#include <csignal>
#include <elf.h>
#include <optional>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Bench {

namespace {

// Counting begins at its first call and ends at its second. Not inlined, so that it is one place.
[[gnu::noinline]] void mark() { asm volatile(""); }

// Holds back what tells of children, as long as it lives.
class ChildSignalBlocked {
 public:
   ChildSignalBlocked() noexcept {
      sigset_t one;
      ::sigemptyset(&one);
      ::sigaddset(&one, SIGCHLD);
      ::sigprocmask(SIG_BLOCK, &one, &before_);
   }
   ChildSignalBlocked(const ChildSignalBlocked&) = delete;
   ChildSignalBlocked& operator=(const ChildSignalBlocked&) = delete;
   ~ChildSignalBlocked() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
   sigset_t before_;
};

bool childSignalHandled() noexcept {
   struct sigaction action = {};
   ::sigaction(SIGCHLD, nullptr, &action);
   return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

[[noreturn]] void runTraced(const std::function<void()>& prepare,
                            const std::function<void()>& work) noexcept {
   prepare();
   // A signal that nobody handles disturbs no system call, save those of a process being traced.
   std::optional<ChildSignalBlocked> undisturbed;
   if (!childSignalHandled()) {
      undisturbed.emplace();
   }
   if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      ::_exit(errno);
   }
   ::raise(SIGSTOP);
   mark();
   work();
   mark();
   ::_exit(0);
}

// The process being traced; ends with this object.
class Traced {
 public:
   Traced(const std::function<void()>& prepare, const std::function<void()>& work)
      : pid_(::fork()) {
      if (pid_ == 0) {
         runTraced(prepare, work);
      }
      if (pid_ < 0) {
         throw std::system_error(errno, std::generic_category(), "fork");
      }
      signalIs(wait());
   }
   Traced(const Traced&) = delete;
   Traced& operator=(const Traced&) = delete;
   ~Traced() {
      if (pid_ > 0) {
         ::kill(pid_, SIGKILL);
         ::waitpid(pid_, nullptr, 0);
      }
   }

   // Runs one instruction, or delivers the signal that stopped the process instead.
   void step() {
      if (::ptrace(PTRACE_SINGLESTEP, pid_, nullptr, signal_) != 0) {
         throw std::system_error(errno, std::generic_category(), "PTRACE_SINGLESTEP");
      }
      signalIs(wait());
   }

   // Where the next instruction is.
   std::uintptr_t place() const {
      struct user_regs_struct registers = {};
      struct iovec area = {&registers, sizeof registers};
      if (::ptrace(PTRACE_GETREGSET, pid_, NT_PRSTATUS, &area) != 0) {
         throw std::system_error(errno, std::generic_category(), "PTRACE_GETREGSET");
      }
#if defined(__x86_64__)
      return registers.rip;
#else
      return registers.pc;
#endif
   }

 private:
   int wait() {
      int status = 0;
      while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      if (WIFSTOPPED(status)) {
         return WSTOPSIG(status);
      }
      pid_ = -1;
      if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
         throw std::system_error(WEXITSTATUS(status), std::generic_category(), "PTRACE_TRACEME");
      }
      throw std::runtime_error("the work to be counted didn't return");
   }
   // A step's own signal, and the one that the process begins with, are not for the process.
   void signalIs(int signal) noexcept {
      signal_ = signal == SIGTRAP || signal == SIGSTOP ? 0 : signal;
   }

   pid_t pid_;
   long signal_ = 0;
};

std::uint64_t steps(const std::function<void()>& prepare, const std::function<void()>& work) {
   Traced traced(prepare, work);
   const ChildSignalBlocked unheard; // each stop would run a handler of the caller's
   const auto end = reinterpret_cast<std::uintptr_t>(&mark);
   while (traced.place() != end) {
      traced.step();
   }
   std::uint64_t count = 0;
   for (std::uintptr_t place = end, previous = 0; count == 0 || place != end;
        place = traced.place()) {
      count += place != previous; // it stays where it is between the rounds of a string instruction
      previous = place;
      traced.step();
   }
   return count;
}

} // namespace

std::uint64_t instructions(const std::function<void()>& prepare,
                           const std::function<void()>& work) {
   static const std::uint64_t none = steps([] {}, [] {});
   return steps(prepare, work) - none;
}

} // namespace Bench
