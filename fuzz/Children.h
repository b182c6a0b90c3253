// What everything that runs children has in common: what is open, alive and made, what the kernel
// is told to refuse, and how a child ends.
#pragma once

#include "Input.h"

#include <Zor/ChildProcessTracker.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <set>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using Sm = Zor::ChildProcessTrackerSm;
using Reactor = Sm::VelChildProcess;
using Context = Zor::ChildProcessTrackerCloseFdsContext;
using Siginfo = Vel::ChildSiginfo;
using Child = Vel::Ptr<Zor::ChildProcess const>;

inline Vel::Ptr<Vel::ActivityManagerSm> manager() {
   return Vel::ActivityImplFacility::activityManagerSm();
}

// Memory that a child's findings come back in.
template <class T> class Shared {
 public:
   Shared()
      : found_(::new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                             -1, 0)) T{}) {}
   Shared(const Shared&) = delete;
   Shared& operator=(const Shared&) = delete;
   ~Shared() { ::munmap(found_, sizeof(T)); }
   T& operator*() const { return *found_; }
   T* operator->() const { return found_; }

 private:
   T* found_;
};

// ---- what is there ----

inline std::set<int> openDescriptors(int end = 6000) {
   std::set<int> open;
   for (int descriptor = 0; descriptor < end; ++descriptor) {
      if (::fcntl(descriptor, F_GETFD) >= 0) {
         open.insert(descriptor);
      }
   }
   return open;
}

// The numbers that the ends of the next pipe get.
struct NextPipe {
   NextPipe() : read(::dup(1)), write(::dup(1)) {
      ::close(read);
      ::close(write);
   }
   int read;
   int write;
};

inline bool hasChildren() {
   siginfo_t info;
   return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

inline bool unreaped(int pid) {
   siginfo_t info;
   return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// Of all that a tracker and its children are made of.
inline std::vector<std::uint64_t> tallies() {
   return live<Sm, Zor::ChildProcess, Sm::VelChildProcess, Sm::VelChildProcess::VelSiginfo, Context,
               Context::VelSkipFd, Siginfo, Vel::FileDescriptor, Vel::PtrInterface::NotifieeConst,
               Vel::String8::Data>();
}

inline Vel::Ptr<Context> keeping(const std::set<int>& kept) {
   auto context = Vel::newEntity<Context>();
   for (const int descriptor : kept) {
      context->skipFdIs(descriptor, true);
   }
   return context;
}

// ---- what the system refuses, or doesn't allow ----

inline constexpr int cannot = 77;

inline const Shared<const char*>& unavailableReason() {
   static const Shared<const char*> reason;
   return reason;
}

// Ends this process: what the case needs is not to be had here.
[[noreturn]] inline void unavailable(const char* what) {
   *unavailableReason() = what;
   ::_exit(cannot);
}

// From here on the system call fails like that in this process; with an argument (counted from 0)
// of that value only, unless it is negative.
inline void refuse(unsigned number, unsigned error, int argument = -1, unsigned value = 0) {
   const auto word = static_cast<unsigned>(offsetof(seccomp_data, args)) +
                     8 * static_cast<unsigned>(argument < 0 ? 0 : argument);
   const std::uint8_t otherwise = argument < 0 ? 0 : 1;
   sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, word),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, otherwise),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   const sock_fprog program{6, filter};
   if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
       ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      unavailable("no seccomp filters");
   }
}

inline void descriptorLimitIs(rlim_t limit) {
   rlimit present{};
   ::getrlimit(RLIMIT_NOFILE, &present);
   present.rlim_cur = limit;
   if (::setrlimit(RLIMIT_NOFILE, &present) != 0) {
      unavailable("the limit of open descriptors can't be set");
   }
}

// ---- the way out ----

// A child's way out: with an exit status, or killed by the signal for a negative one.
[[noreturn]] inline void endWith(int status) {
   ::signal(-status, SIG_DFL);
   sigset_t all;
   ::sigfillset(&all);
   ::sigprocmask(SIG_UNBLOCK, &all, nullptr);
   if (status < 0) {
      ::syscall(SYS_tgkill, ::getpid(), ::getpid(), -status);
   }
   ::_exit(status);
}
