// Every system call and every allocation of the tracker's run path fails in turn: the n-th for
// every n, once and from then on. Whatever fails, nothing is lost, leaked or left running.
#include "../Children.h"

#include <Vel/GenericIf.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

namespace {

enum Where { parentCalls, childCalls, allocations };

// In memory that forked children share, so that a fault in a child counts like one here.
struct Plan {
   std::atomic<bool> armed;
   std::atomic<long> seen;
   std::atomic<long> failed;
   long at;
   bool onwards;
   Where where;
   pid_t parent;
   bool pidfdsRefused; // throughout, beside the faults
};

Plan& plan() {
   static const Shared<Plan> shared;
   return *shared;
}

long balance = 0; // of allocations and releases in this process

bool failsNow(Where where) {
   Plan& now = plan();
   if (!now.armed || (where == parentCalls && now.where == allocations) ||
       (where == allocations && now.where != allocations)) {
      return false;
   }
   const bool child = ::getpid() != now.parent;
   if (child != (now.where == childCalls)) {
      return false;
   }
   const long point = now.seen++;
   const bool fails = point == now.at || (now.onwards && point > now.at);
   now.failed += fails;
   return fails;
}

bool callFails(int error) {
   const bool fails = failsNow(parentCalls);
   if (fails) {
      errno = error;
   }
   return fails;
}

} // namespace

// ---- the calls, as the libraries find them: here first ----

#define REAL(result, name, parameters)                                                             \
   static const auto next =                                                                        \
      reinterpret_cast<result(*) parameters>(::dlsym(RTLD_NEXT, #name)) // NOLINT
#define FAULTY(result, name, parameters, arguments, error, failure)                                \
   result name parameters {                                                                        \
      REAL(result, name, parameters);                                                              \
      return callFails(error) ? failure : next arguments;                                          \
   }

extern "C" {
FAULTY(int, pipe, (int* ends) noexcept, (ends), EMFILE, -1)
FAULTY(pid_t, fork, () noexcept, (), EAGAIN, -1)
FAULTY(int, epoll_create1, (int flags) noexcept, (flags), EMFILE, -1)
FAULTY(int, epoll_wait, (int set, epoll_event* events, int count, int timeout),
       (set, events, count, timeout), EIO, -1)
FAULTY(int, waitid, (idtype_t type, id_t id, siginfo_t* info, int options),
       (type, id, info, options), EPERM, -1)
FAULTY(int, poll, (pollfd * polls, nfds_t count, int timeout), (polls, count, timeout), ENOMEM, -1)
FAULTY(ssize_t, read, (int descriptor, void* buffer, size_t size), (descriptor, buffer, size),
       EINTR, -1)
FAULTY(int, fstat, (int descriptor, struct stat* found) noexcept, (descriptor, found), EIO, -1)
FAULTY(int, timerfd_create, (clockid_t clock, int flags) noexcept, (clock, flags), EMFILE, -1)
FAULTY(DIR*, opendir, (const char* name), (name), EMFILE, nullptr)
FAULTY(dirent*, readdir, (DIR * directory), (directory), EIO, nullptr)

int close(int descriptor) {
   REAL(int, close, (int));
   const bool fails = callFails(EINTR); // after which the descriptor is closed all the same
   const int result = next(descriptor);
   errno = fails ? EINTR : errno;
   return fails ? -1 : result;
}
int epoll_ctl(int set, int operation, int descriptor, epoll_event* event) noexcept {
   REAL(int, epoll_ctl, (int, int, int, epoll_event*));
   const bool fails = operation != EPOLL_CTL_DEL && callFails(ENOSPC);
   return fails ? -1 : next(set, operation, descriptor, event);
}
int fcntl(int descriptor, int operation, ...) {
   REAL(int, fcntl, (int, int, ...));
   std::va_list arguments;
   va_start(arguments, operation);
   const int argument = va_arg(arguments, int);
   va_end(arguments);
   return callFails(EBADF) ? -1 : next(descriptor, operation, argument);
}
long syscall(long number, ...) noexcept {
   REAL(long, syscall, (long, ...));
   std::va_list arguments;
   va_start(arguments, number);
   long words[5]; // as many as come in registers: there may be no more to read
   for (long& word : words) {
      word = va_arg(arguments, long);
   }
   va_end(arguments);
   if (number == SYS_pidfd_open && plan().pidfdsRefused) {
      errno = EPERM;
      return -1;
   }
   return callFails(number == SYS_pidfd_open ? EMFILE : ENOSYS)
             ? -1
             : next(number, words[0], words[1], words[2], words[3], words[4]);
}
}
#undef FAULTY
#undef REAL

[[gnu::noinline]] void* operator new(std::size_t size) {
   if (failsNow(allocations)) {
      throw std::bad_alloc();
   }
   ++balance;
   if (void* const memory = std::malloc(size)) {
      return memory;
   }
   throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
   balance -= memory != nullptr;
   std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
   operator delete(memory);
}

namespace {

// ---- what is done under faults ----

struct Counting : Zor::ChildProcessTrackerSm {
   void forkedChildExitCallback(const Vel::Ptr<Zor::ChildProcess const>& child) override {
      ++ends;
      lost += child->siginfo()->signalCode() == Vel::ChildSiginfo::lost;
   }
   unsigned ends = 0;
   unsigned lost = 0;
};

template <class Act> void tolerant(const Act& act) {
   try {
      act();
   } catch (const std::bad_alloc&) {
   } catch (const Vel::SystemException&) {
   }
}

// In the child, after the closing walk: only its status pipe may be open, whatever failed.
[[noreturn]] void childEnds(int status) {
   plan().armed = plan().where != childCalls && plan().armed;
   const auto open = static_cast<int>(openDescriptors(256).size());
   ::_exit(open == 1 ? status : 200 + open);
}

class Life {
 public:
   void run() {
      tolerant([&] { tracker_ = Zor::newTracker<Counting>(); });
      Vel::Ptr<Context> keep;
      tolerant([&] { keep = Vel::newEntity<Context>(); });
      for (const int status : {0, 3}) {
         tolerant([&] { start(status, keep); });
      }
      for (int round = 0; round < 4; ++round) {
         tolerant([&] { manager()->runOnce(2); });
      }
   }
   // The faults are over: everything that was started must come to its end.
   void finish() {
      for (int round = 0; round < 300 && (hasChildren() || left() != 0); ++round) {
         manager()->runOnce(10);
      }
      EXPECT_FALSE(hasChildren());
      EXPECT_EQ(left(), 0U);
      if (tracker_) {
         EXPECT_EQ(tracker_->ends, started_);
         EXPECT_EQ(tracker_->successfulTerminationCount() + tracker_->errorTerminationCount() +
                      tracker_->lost,
                   started_);
         if (const auto& failed = tracker_->lastFailedProcess()) {
            EXPECT_EQ(failed->siginfo()->exitStatus(), 3) << "2xx: a child kept descriptors";
         }
      }
   }

 private:
   unsigned left() const { return tracker_ ? tracker_->process().members() : 0; }
   void start(int status, const Vel::Ptr<Context>& keep) {
      if (!tracker_ || !keep) {
         return;
      }
      const pid_t self = ::getpid();
      int pid = -1;
      try {
         pid = tracker_->forkChild("worker with a name of some length", nullptr, nullptr, keep);
      } catch (...) {
         if (::getpid() != self) {
            ::_exit(250);
         }
         throw;
      }
      if (pid == 0) {
         childEnds(status);
      }
      started_ += pid > 0;
   }

   Vel::Ptr<Counting> tracker_;
   unsigned started_ = 0;
};

// The same for what runs no child: entities, collections, strings and watches by name.
void access() {
   tolerant([] {
      const auto context = Vel::newEntity<Context>();
      const auto kept = Vel::GenericIf::of(context);
      for (int descriptor = 0; descriptor < 9; ++descriptor) {
         kept->write("skipFd", descriptor, true);
      }
      const auto tracker = Vel::GenericIf::create("Zor::ChildProcessTrackerSm");
      tracker->write("lastFailedProcessTerminationError", "signaled");
      const auto child = tracker->write("process", ::getppid(), "not a child of ours", -1);
      ADD_FAILURE() << "a stranger without a pipe was registered: " << child->strRep();
   });
}

long sweep(Where where, bool onwards) {
   long points = 0;
   for (long at = 0;; ++at) {
      SCOPED_TRACE("point " + std::to_string(at) + (onwards ? " and on" : ""));
      const auto before = openDescriptors(256);
      const long balanceBefore = balance;
      {
         Life life;
         Plan& now = plan();
         now.at = at;
         now.onwards = onwards;
         now.where = where;
         now.parent = ::getpid();
         now.seen = 0;
         now.failed = 0;
         now.armed = true;
         life.run();
         access();
         now.armed = false;
         life.finish();
      }
      EXPECT_EQ(openDescriptors(256), before);
      EXPECT_EQ(balance, balanceBefore);
      if (plan().failed == 0 || ::testing::Test::HasFailure()) {
         return points;
      }
      ++points;
   }
}

struct Sweep : ::testing::TestWithParam<std::tuple<bool, Where, bool>> {};

TEST_P(Sweep, EveryPointFailsAndNothingIsLost) {
   const auto [refused, where, onwards] = GetParam();
   plan().pidfdsRefused = refused;
   {
      Life warm; // the manager's own poll set and tables exist from here on
      warm.run();
      access();
      warm.finish();
   }
   const long points = sweep(where, onwards);
   EXPECT_GT(points, 0);
   std::cout << points << " points swept\n";
}

INSTANTIATE_TEST_SUITE_P(, Sweep,
                         ::testing::Combine(::testing::Bool(),
                                            ::testing::Values(parentCalls, childCalls, allocations),
                                            ::testing::Bool()));

} // namespace
