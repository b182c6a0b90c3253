#include "Contestant.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <system_error>
#include <unistd.h>

namespace Bench {

const std::vector<Entry> contestants = {
   {"floor", &makeFloor},      {"this library", &makeLibrary},
#ifdef BENCH_LIBUV
   {"libuv", &makeLibuv},
#else
   {"libuv", nullptr},
#endif
#ifdef BENCH_GLIB
   {"GLib", &makeGLib},
#else
   {"GLib", nullptr},
#endif
#ifdef BENCH_LIBEV
   {"libev", &makeLibev},
#else
   {"libev", nullptr},
#endif
#ifdef BENCH_SDEVENT
   {"sd-event", &makeSdEvent},
#else
   {"sd-event", nullptr},
#endif
};

void Contestant::attendUntil(std::size_t stillRunning) {
   while (running_ > stillRunning) {
      attend();
   }
}

void Contestant::ended(int value) {
   if (value != 0 && value != SIGKILL) {
      throw std::runtime_error("a child is said to have ended with " + std::to_string(value));
   }
   --running_;
}

void beChild(Body body) noexcept {
   if (body == Body::waits) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) {
         ::pause();
      }
   }
   ::_exit(0);
}

Forked forkWithPipe(Body body) {
   int ends[2];
   checked(::pipe(ends), "pipe");
   const pid_t pid = checked(::fork(), "fork");
   if (pid == 0) {
      beChild(body);
   }
   ::close(ends[1]);
   return {pid, ends[0]};
}

bool drained(int readEnd) noexcept {
   char buffer[256];
   return ::read(readEnd, buffer, sizeof buffer) > 0;
}

int checked(int result, const char* call) {
   if (result < 0) {
      throw std::system_error(errno, std::generic_category(), call);
   }
   return result;
}

} // namespace Bench
