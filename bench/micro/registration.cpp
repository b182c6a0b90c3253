// Registering a child and forgetting it, without forking one.
#include "Micro.h"
#include "Rows.h"

#include <Zor/ChildProcessTracker.h>

#include <cerrno>
#include <sys/epoll.h>
#include <system_error>
#include <unistd.h>

namespace Bench {

namespace {

constexpr int pid = 5000001; // of no process

// The read end of a status pipe that is closed at its other end.
int readEnd() {
   int ends[2];
   if (::pipe(ends) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
   }
   ::close(ends[1]);
   return ends[0];
}

void registered(unsigned count) {
   static const auto tracker = Zor::childProcessTrackerSmFactory();
   while (count-- != 0) {
      tracker->processIs(pid, "child", readEnd());
      tracker->processDel(pid);
   }
}

// What watching a pipe takes at least.
void watched(unsigned count) {
   static const int pollSet = ::epoll_create1(EPOLL_CLOEXEC);
   while (count-- != 0) {
      const int fd = readEnd();
      struct epoll_event event = {};
      event.events = EPOLLIN;
      event.data.fd = fd;
      ::epoll_ctl(pollSet, EPOLL_CTL_ADD, fd, &event);
      ::epoll_ctl(pollSet, EPOLL_CTL_DEL, fd, nullptr);
      ::close(fd);
   }
}

void add() {
   timed("registration/ours", registered, 8);
   timed("registration/system calls", watched, 8);
}

void report(const Times& times) {
   row("processIs and processDel, instructions", instructionsPerTurn(registered, 4), "printed",
       "no fork; the pipe included");
   times.ratioRow("processIs and processDel, time / a pipe watched and closed", "registration/ours",
                  "registration/system calls", "printed", "no fork");
}

} // namespace

const Suite registration{add, report};

} // namespace Bench
