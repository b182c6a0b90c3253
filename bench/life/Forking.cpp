// What forkChild adds to the system calls that it makes, by the size of the parent.
#include "Clock.h"
#include "Contestant.h"
#include "Measures.h"
#include "Rows.h"

#include <Zor/ChildProcessTracker.h>

#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr auto byPidfd = static_cast<idtype_t>(3); // P_PIDFD

// Memory that fork has to account for page by page.
class Touched {
 public:
   explicit Touched(std::size_t bytes)
      : bytes_(bytes), memory_(::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
      checked(memory_ == MAP_FAILED ? -1 : 0, "mmap");
      ::madvise(memory_, bytes, MADV_NOHUGEPAGE);
      for (std::size_t at = 0; at < bytes; at += 4096) {
         static_cast<volatile char*>(memory_)[at] = 1;
      }
   }
   Touched(const Touched&) = delete;
   Touched& operator=(const Touched&) = delete;
   ~Touched() { ::munmap(memory_, bytes_); }

 private:
   std::size_t bytes_;
   void* memory_;
};

// The calls of forkChild, in its order: it asks whether the pidfd is a child's.
class Calls {
 public:
   ~Calls() { ::close(pollSet_); }
   double fork() const {
      Forked forked{};
      int pidfd = -1;
      siginfo_t info;
      const Times spent = timesOf([&] {
         forked = forkWithPipe(Body::ends);
         watch(forked.readEnd);
         pidfd = static_cast<int>(::syscall(SYS_pidfd_open, forked.pid, 0));
         ::waitid(byPidfd, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG | WNOWAIT);
         watch(pidfd);
      });
      ::waitid(byPidfd, static_cast<id_t>(pidfd), &info, WEXITED);
      ::close(pidfd);
      ::close(forked.readEnd);
      return spent.cpu;
   }

 private:
   void watch(int descriptor) const {
      epoll_event event{};
      event.events = EPOLLIN;
      checked(::epoll_ctl(pollSet_, EPOLL_CTL_ADD, descriptor, &event), "epoll_ctl");
   }

   const int pollSet_ = checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
};

double forkTracked(Contestant& library) {
   const double spent = timesOf([&] { library.start(Body::ends); }).cpu;
   library.attendUntil(0);
   return spent;
}

struct Pair {
   double calls;
   double ratio;
};

Pair compare(Contestant& library, const Calls& calls, std::size_t mebibytes) {
   const Touched memory(mebibytes << 20U);
   constexpr unsigned rounds = 61;
   std::vector<double> alone, ratios;
   for (unsigned i = 0; i < rounds; ++i) {
      const double tracked = i % 2 == 0 ? forkTracked(library) : 0;
      alone.push_back(calls.fork());
      ratios.push_back((i % 2 == 0 ? tracked : forkTracked(library)) / alone.back());
   }
   return {median(alone), median(ratios)};
}

} // namespace

void measureForking() {
   const std::unique_ptr<Contestant> library = makeLibrary();
   const Calls calls;
   compare(*library, calls, 1); // warm
   const double least = compare(*library, calls, 1).calls;
   for (const std::size_t mebibytes : {1U, 16U, 64U, 256U, 1024U}) {
      const auto [alone, ratio] = compare(*library, calls, mebibytes);
      const auto x = static_cast<double>(mebibytes);
      point("fork", "the system calls alone", x, alone / least);
      point("fork", "forkChild", x, ratio * alone / least);
      point("share", "this library", x, 100 * (1 - 1 / ratio));
      if (mebibytes == 1024) {
         row("forkChild, CPU / its system calls alone, 1 GiB touched", ratio, "<= 1.01", "");
      }
   }
}

} // namespace Bench
