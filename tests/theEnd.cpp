// The end of a child: how it is learned, whatever the child, its grandchildren, other code and the
// kernel do about it.
#include "Faults.h"
#include "Watched.h"

#include <algorithm>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/ptrace.h>
#include <sys/time.h>
#include <sys/utsname.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// ---- how it ended ----

FAULT(everyWayAndAllAtOnce, World& world) {
   const std::set<int> harmless{SIGCHLD, SIGCONT, SIGURG,  SIGWINCH,
                                SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU};
   const rlimit noCore{0, 1 << 20};
   ::setrlimit(RLIMIT_CORE, &noCore);
   std::vector<std::pair<Child, int>> children;
   for (int status = -SIGRTMAX; status < 256; ++status) {
      if (!harmless.contains(-status)) {
         const int pid = world.start([status] {
            const rlimit some{1 << 20, 1 << 20};
            if (status == -SIGQUIT && ::chdir(testing::TempDir().c_str()) == 0) {
               ::setrlimit(RLIMIT_CORE, &some);
               ::prctl(PR_SET_DUMPABLE, 1);
            }
            endWith(status);
         });
         children.emplace_back(world.childOf(pid), status);
      }
   }
   std::set<int> dumped;
   for (const int pid : world.forked) {
      siginfo_t info;
      EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
      if (info.si_code == CLD_DUMPED) {
         dumped.insert(pid);
         ::unlink((testing::TempDir() + "core").c_str());
         ::unlink((testing::TempDir() + "core." + std::to_string(pid)).c_str());
      }
   }
   world.runAll();
   for (const auto& [child, value] : children) {
      expectEnd(child, value < 0 ? Siginfo::killed : Siginfo::exited, std::abs(value));
      EXPECT_EQ(child->siginfo()->coreDumped(), dumped.contains(child->pid()));
   }
   EXPECT_EQ(world.tracker->successfulTerminationCount(), 1U);
   EXPECT_EQ(world.tracker->errorTerminationCount(), children.size() - 1);
   EXPECT_EQ(world.tracker->told, children.size());
}

// As many as descriptors allow, with pipes that end early, and idle for a while.
FAULT(asManyAsThereIsRoomFor, World& world) {
   descriptorLimitIs(512);
   const Gate gate;
   int started = 0;
   while (world.start([&] {
      ::syscall(SYS_close_range, 3U, static_cast<unsigned>(gate.descriptor() - 1), 0);
      ::syscall(SYS_close_range, static_cast<unsigned>(gate.descriptor() + 1), ~0U, 0);
      gate.pass();
      ::_exit(3);
   }) > 0) {
      ++started;
   }
   EXPECT_GT(started, 200);
   manager()->runOnce(1000);
   expectQuiet(1000, 20);
   gate.open(static_cast<std::size_t>(started));
   for (const int pid : world.forked) {
      awaitZombie(pid);
   }
   int delivered = 0;
   while (const int made = manager()->runOnce(pidfdsRefused ? 1000 : 0)) {
      delivered += made;
   }
   EXPECT_EQ(delivered, started);
   EXPECT_EQ(world.tracker->errorTerminationCount(), static_cast<unsigned>(started));
}

// ---- what the child does ----

// It closes its pipe (0) or writes that much, is stopped, and goes on; the pipe doesn't block, or
// does since the child has made it so, by its copy of the read end.
FAULT(itClosesOrFillsItsPipeAndIsStopped, World& world) {
   for (const std::size_t size : {0U, 1U, 16U << 10, 64U << 10, 1U << 20}) {
      for (const bool blocking : {false, true}) {
         const Gate gate;
         const Gate written;
         const NextPipe next;
         const int pid = world.start([&] {
            EXPECT_EQ(::fcntl(next.read, F_SETFL, blocking ? 0 : O_NONBLOCK), 0);
            const std::string bytes(size, 'x');
            EXPECT_EQ(::write(next.write, bytes.data(), size), static_cast<ssize_t>(size));
            size == 0 ? ::close(next.write) : 0;
            written.open();
            gate.pass();
            ::_exit(testing::Test::HasFailure() ? 1 : 4);
         });
         const Child child = world.childOf(pid);
         pollfd all{written.descriptor(), POLLIN, 0};
         const auto before = manager()->wakeups();
         EXPECT_TRUE(runUntil([&] { return ::poll(&all, 1, 0) == 1; }));
         EXPECT_LE(manager()->wakeups().total - before.total, 8 + 4 * (size >> 12)) << size;
         EXPECT_FALSE(Vel::newEntity<Siginfo>("unwatched", pid)->signal(SIGKILL));
         EXPECT_THROW(child->siginfo()->signal(1000), Vel::SystemException);
         for (const int signal : {SIGSTOP, SIGCONT}) {
            siginfo_t info;
            EXPECT_TRUE(child->siginfo()->signal(signal));
            EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info,
                               WNOWAIT | (signal == SIGSTOP ? WSTOPPED : WCONTINUED)),
                      0);
            size == 0 ? expectQuiet(300, 8) : expectQuiet(20, 20);
         }
         EXPECT_EQ(child->siginfo()->signalCode(), Siginfo::none);
         gate.open();
         expectEnd(child, Siginfo::exited, 4);
      }
   }
}

// More pipes than are fetched at once always have something to drop.
FAULT(pipesNeverRunDry, World& world) {
   for (int number = 5000000; number < 5000080; ++number) {
      world.tracker->processIs(number, "endless", ::eventfd(1U << 30, EFD_SEMAPHORE));
   }
   EXPECT_EQ(manager()->runOnce(0) + manager()->runOnce(20), 0);
   world.tracker->processDelAll();
}

// The pipe ends with the child or a moment before; a signal comes in every half millisecond.
FAULT(theEndComesInASignalStormAndCostsFewWakeups, World& world) {
   ::signal(SIGALRM, [](int) {});
   const itimerval storm{{0, 500}, {0, 500}}, none{};
   ::setitimer(ITIMER_REAL, &storm, nullptr);
   const auto before = manager()->wakeups();
   for (int at = 0; at < 50; ++at) {
      expectEnd(world.childOf(world.start([] { ::_exit(0); })), Siginfo::exited, 0);
   }
   EXPECT_LE(manager()->wakeups().total - before.total, 3U * 50U);
   ::setitimer(ITIMER_REAL, &none, nullptr);
}

FAULT(aGrandchildHoldsThePipe, World& world) {
   const Gate gate;
   const Child child = world.childOf(world.start([&] {
      if (::fork() == 0) {
         gate.pass();
      }
      ::_exit(8);
   }));
   awaitZombie(child->pid());
   const auto start = steady_clock::now();
   expectEnd(child, Siginfo::exited, 8);
   EXPECT_LT(steady_clock::now() - start, milliseconds(pidfdsRefused ? 1500 : 200));
   gate.open();
}

// ---- who else waits ----

FAULT(aTracerHoldsIt, World& world) {
   const Gate gate;
   const Gate holding;
   const Gate seized;
   const Child child = world.childOf(world.startAt(gate, 7));
   const int pid = child->pid();
   const int tracer = outside([&] {
      if (::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0) {
         seized.open(2);
         ::_exit(cannot);
      }
      seized.open();
      awaitZombie(pid);
      seized.open();
      holding.pass();
      ::_exit(0);
   });
   seized.pass();
   gate.open();
   seized.pass();
   expectQuiet(300, 8);
   holding.open();
   int status = -1;
   EXPECT_EQ(::waitpid(tracer, &status, 0), tracer);
   if (WEXITSTATUS(status) == cannot) {
      unavailable("no tracing");
   }
   expectEnd(child, Siginfo::exited, 7);
}

bool kernelRemembers() {
   utsname kernel{};
   ::uname(&kernel);
   std::pair<int, int> version;
   std::sscanf(kernel.release, "%d.%d", &version.first, &version.second);
   return !pidfdsRefused && version >= std::pair(6, 15);
}

// A thief, SIGCHLD ignored, SA_NOCLDWAIT: recovered or lost, but never invented.
FAULT(otherCodeTookTheStatus, World& world) {
   const bool recovers = kernelRemembers();
   for (const auto& taker : {std::pair(SIG_DFL, 0), {SIG_IGN, 0}, {SIG_DFL, SA_NOCLDWAIT}}) {
      struct sigaction action {};
      action.sa_handler = taker.first;
      action.sa_flags = taker.second;
      ::sigaction(SIGCHLD, &action, nullptr);
      world.tracker = Zor::newTracker<RudeTracker>();
      const Gate gate;
      Child child;
      for (const int status : {0, 7, -SIGKILL}) {
         child = world.childOf(world.startAt(gate, status));
         gate.open();
         while (::waitpid(-1, nullptr, 0) == child->pid() || ::kill(child->pid(), 0) == 0) {
         }
         EXPECT_FALSE(child->siginfo()->signal(SIGTERM));
         if (recovers) {
            expectEnd(child, status < 0 ? Siginfo::killed : Siginfo::exited, std::abs(status),
                      Siginfo::recovered);
         } else {
            expectEnd(child, Siginfo::lost, 0, Siginfo::unknown);
         }
      }
      EXPECT_EQ(world.tracker->outcomes(), recovers ? 102U : 0U);
      EXPECT_EQ(world.tracker->lastFailedProcess(), recovers ? child : Child());
      EXPECT_EQ(world.tracker->told, 3U);
   }
   ::signal(SIGCHLD, SIG_DFL);
}

// Between its end and the pidfd that is opened anew other code has waited.
FAULT(otherCodeTookItWhileThePidfdWasGone, World& world) {
   const Child child = world.childOf(world.start([] {}));
   ::waitpid(child->pid(), nullptr, 0);
   const auto others = openDescriptors();
   const auto context = Vel::newEntity<Context>();
   for (const int descriptor : others) {
      context->skipFdIs(descriptor, !manager()->fd(descriptor));
   }
   Zor::childProcessTrackerCloseFds(context);
   expectEnd(child, Siginfo::lost, 0, Siginfo::unknown);
}

// ---- what the kernel lacks ----

// It keeps no record of the reaped, can't wait by pidfd, can't signal by it.
FAULT(theKernelIsOlder, World& world) {
   expectHeld(apart([&] {
      refuse(SYS_ioctl, ENOTTY);
      const Child child = world.childOf(world.start([] {}));
      ::waitpid(child->pid(), nullptr, 0);
      expectEnd(child, Siginfo::lost, 0, Siginfo::unknown);
   }));
   for (const bool waits : {true, false}) {
      expectHeld(apart([&] {
         constexpr unsigned byPidfd = 3;
         refuse(SYS_waitid, EINVAL, 0, waits ? ~0U : byPidfd);
         refuse(SYS_pidfd_send_signal, ENOSYS);
         const Gate gate;
         const Child child = world.childOf(world.startAt(gate, 3));
         EXPECT_TRUE(child->siginfo()->signal(SIGTERM));
         expectEnd(child, Siginfo::killed, SIGTERM);
      }));
   }
}

// The loop's own waits are the pauses then, also while it has other things to deliver.
FAULT(thereIsNoTimer, World& world) {
   refuse(SYS_timerfd_create, EMFILE);
   const Watched busy;
   busy.write();
   for (const bool idle : {true, false}) {
      const Gate gate;
      busy.fd->notifyOnReadableIs(!idle);
      const Child child = world.childOf(world.start([&] {
         if (::fork() == 0) {
            gate.pass();
         }
         ::_exit(8);
      }));
      awaitZombie(child->pid());
      EXPECT_GE(manager()->runOnce(-1), 1);
      expectEnd(child, Siginfo::exited, 8);
      gate.open();
   }
}

// ---- who is watched, and for how long ----

// The forgotten are reaped; those from outside, once forgotten, and unknown ones, an orphan given
// to this process among them, are left to whoever forked them.
FAULT(itIsForgottenOrUnknown, World& world) {
   ::prctl(PR_SET_CHILD_SUBREAPER, 1);
   const std::function<void(int)> forgettings[] = {
      [&](int pid) { world.tracker->processDel(pid); },
      [&](int pid) { world.tracker->process(pid)->siginfoDel(); },
      [&](int pid) { world.tracker->process(pid)->siginfoIs("another", pid); },
      [&](int) { world.tracker = Zor::newTracker<RudeTracker>(); },
   };
   const Gate gate;
   const auto passes = [&] {
      gate.pass();
      ::_exit(2);
   };
   std::vector<int> others;
   for (const auto& forget : forgettings) {
      forget(world.childOf(world.startAt(gate, 2))->pid());
      others.push_back(outside(passes));
      world.tracker->processIs(others.back(), "outside", world.readEnd());
      forget(others.back());
   }
   const Shared<int> orphan;
   world.start([&] {
      const int grandchild = outside(passes);
      *orphan = grandchild;
   });
   gate.open(9);
   EXPECT_TRUE(runUntil([&] {
      return std::ranges::all_of(world.forked, [](int pid) { return ::kill(pid, 0) != 0; });
   }));
   others.push_back(*orphan);
   for (const int pid : others) {
      awaitZombie(pid);
   }
   expectQuiet(20, 1);
   for (const int pid : others) {
      int status = -1;
      EXPECT_EQ(::waitpid(pid, &status, 0), pid);
      EXPECT_EQ(WEXITSTATUS(status), 2);
   }
   EXPECT_EQ(world.tracker->outcomes(), 100U);
}

FAULT(itIsAStranger, World& world) {
   const int file = ::open("/proc/self/exe", O_RDONLY);
   for (const int pid : {::getpid(), ::getppid(), 1, 0, -1, std::numeric_limits<int>::min(),
                         std::numeric_limits<int>::max()}) {
      SCOPED_TRACE(pid);
      for (const int useless : {-1, file, 5000}) {
         EXPECT_THROW(world.tracker->processIs(pid, "stranger", useless), Vel::SystemException);
         EXPECT_EQ(world.tracker->process(pid), nullptr);
         EXPECT_FALSE(manager()->fd(useless));
      }
      int ends[2];
      EXPECT_EQ(::pipe(ends), 0);
      const Child child = world.tracker->processIs(pid, "stranger", ends[0]);
      EXPECT_FALSE(child->siginfo()->signal(SIGKILL));
      expectQuiet(10, 1);
      for (int end = pid > 0 ? 1 : 0; end < 2; ++end) { // the other's end tells, or nothing will
         manager()->fdDel(ends[end]);
         ::close(ends[end]);
      }
      expectEnd(child, Siginfo::lost, 0, Siginfo::unknown);
      EXPECT_EQ(world.tracker->process(pid), nullptr);
   }
   EXPECT_EQ(::close(file), 0);
}

// Neither is anybody's: a pipe of that number, and a record that nothing watches yet.
FAULT(itsDescriptorsAreOdd, World& world) {
   const int pid = outside([] { ::_exit(3); });
   expectEnd(world.tracker->processIs(pid, "outside", std::numeric_limits<int>::max()),
             Siginfo::exited, 3);
   const auto siginfo = Vel::newEntity<Siginfo>("unwatched", ::getppid());
   const int pipe = ::dup(0);
   siginfo->childPipeIs("pipe")->descriptorIs(pipe);
   manager()->fdDel(pipe);
   EXPECT_EQ(siginfo->childPipe()->descriptor(), -1);
   siginfo->conclude();
   EXPECT_EQ(siginfo->signalCode(), Siginfo::none);
   EXPECT_EQ(::close(pipe), 0);

   int ends[2]; // one that can't be read, and has ended
   EXPECT_EQ(::pipe(ends), 0);
   ::close(ends[0]);
   expectEnd(world.tracker->processIs(::getppid(), "unreadable", ends[1]), Siginfo::lost, 0,
             Siginfo::unknown);

   EXPECT_EQ(::pipe(ends), 0); // one that is watched twice, and no longer the record's
   const auto child = world.tracker->processIs(outside([] { ::_exit(4); }), "twice", ends[0]);
   child->siginfo()->childPipeReactorIs(child->siginfo()->childPipe(), child->siginfo());
   child->siginfo()->childPipeIs("another");
   expectEnd(child, Siginfo::exited, 4);
   EXPECT_FALSE(isOpen(ends[0]));
   ::close(ends[1]);

   EXPECT_EQ(::pipe(ends), 0); // one whose record is gone, but not what watches it
   Vel::Ptr<Zor::ChildProcess> gone = world.tracker->processIs(::getppid(), "gone", ends[0]);
   const auto reactor = gone->siginfo()->childPipeReactor();
   gone = nullptr;
   world.tracker->processDelAll();
   ::close(ends[1]);
   expectQuiet(20, 2);
   EXPECT_FALSE(reactor->isRegisteredNotifiee());
}

FAULT(itHasNoPipe, World&) {
   const int pid = outside([] { ::_exit(3); });
   const auto siginfo = Vel::newEntity<Siginfo>("pipeless", pid);
   siginfo->childPipeReactorIs(nullptr, siginfo);
   EXPECT_TRUE(runUntil([&] { return siginfo->signalCode() == Siginfo::exited; }));
   EXPECT_EQ(siginfo->exitStatus(), 3);
}

FAULT(theClosingWalkTakesItsDescriptors, World& world) {
   enum { all, allButThePipe, pollSetAlone };
   for (const int taken : {all, allButThePipe, pollSetAlone}) {
      const Gate gate;
      const Child child = world.childOf(world.startAt(gate, 12));
      const int pipe = child->siginfo()->childPipe()->descriptor();
      const int set = manager()->pollFd();
      const auto context = Vel::newEntity<Context>();
      for (const int descriptor : openDescriptors()) {
         context->skipFdIs(descriptor, taken == pollSetAlone || descriptor == pipe
                                          ? taken != all && descriptor != set
                                          : !manager()->fd(descriptor));
      }
      Zor::childProcessTrackerCloseFds(context);
      gate.open();
      expectEnd(child, Siginfo::exited, 12);
      manager()->pollFd();
   }
}

// ---- hooks that throw ----

FAULT(twentyHooksThrowAndEachIsHeardOf, World& world) {
   for (const bool pipeHeld : {false, true}) {
      const Gate gate;
      world.tracker = Zor::newTracker<RudeTracker>();
      world.tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
      const std::size_t first = world.forked.size();
      for (int at = 0; at < 20; ++at) {
         world.start([&] {
            if (pipeHeld && ::fork() == 0) {
               gate.pass();
            }
            ::_exit(0);
         });
      }
      std::for_each(world.forked.begin() + static_cast<std::ptrdiff_t>(first), world.forked.end(),
                    awaitZombie);
      const auto start = steady_clock::now();
      for (int at = 0; at < 20; ++at) {
         EXPECT_TRUE(pidfdsRefused || readableNow(manager()->pollFd())) << at;
         EXPECT_THROW(manager()->runOnce(2000), std::runtime_error) << at;
      }
      EXPECT_FALSE(readableNow(manager()->pollFd()));
      EXPECT_LT(steady_clock::now() - start, // 20 s, were each put off
                std::chrono::seconds(pipeHeld && pidfdsRefused ? 10 : 5));
      EXPECT_EQ(world.tracker->outcomes(), 2000U);
      EXPECT_EQ(world.tracker->left(), 20U);
      gate.open(20);
   }
}

} // namespace
