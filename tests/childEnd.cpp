// The end of a child: how it is learned, with pidfds and without, whatever the child, its
// grandchildren, other code and the kernel do about it.
#include "TrackerFixture.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>

namespace {

using testing::ElementsAre;
using Vel::Ptr;

// Children wait at it until they are let through, one for each opening.
class Gate {
 public:
   Gate() { EXPECT_EQ(::pipe(ends_), 0); }
   Gate(const Gate&) = delete;
   Gate& operator=(const Gate&) = delete;
   ~Gate() {
      ::close(ends_[0]);
      ::close(ends_[1]);
   }
   int descriptor() const { return ends_[0]; }
   void open(std::size_t children = 1) const {
      const std::string bytes(children, 'x');
      EXPECT_EQ(::write(ends_[1], bytes.data(), children), static_cast<ssize_t>(children));
   }
   void pass() const {
      char byte = 0;
      if (::read(ends_[0], &byte, 1) != 1) {
         ::_exit(97);
      }
   }

 private:
   int ends_[2] = {-1, -1};
};

// With an exit status, or killed by the signal for a negative one.
[[noreturn]] void endWith(int status) {
   ::signal(-status, SIG_DFL);
   sigset_t all;
   ::sigfillset(&all);
   ::sigprocmask(SIG_UNBLOCK, &all, nullptr);
   if (status < 0) {
      ::syscall(SYS_tgkill, ::getpid(), ::getpid(), -status);
   }
   ::_exit(status);
}

// What the kernel answers when it is asked for a pidfd; 0: it gives one.
class ChildEnd : public TrackerTest, public testing::WithParamInterface<int> {
 protected:
   // Everything happens in a process of its own: refusals and ignored signals can't be undone.
   void SetUp() override {}
   void TearDown() override {}

   template <class Body> void inThisWay(Body body) {
      const int outcome = apart([&] {
         if (refused()) {
            refuse(SYS_pidfd_open, static_cast<unsigned>(GetParam()));
         }
         TrackerTest::SetUp();
         body();
         TrackerTest::TearDown();
      });
      if (outcome == cannot) {
         GTEST_SKIP() << "not to be had here";
      }
      EXPECT_EQ(outcome, 0);
   }
   static bool refused() { return GetParam() != 0; }

   // Waits for the loop to record the child's end.
   static void expectEnd(const Child& child, Siginfo::SignalCode code, int value,
                         Siginfo::Provenance provenance = Siginfo::reaped) {
      const Ptr<Siginfo> info = child->siginfo();
      EXPECT_TRUE(runUntil([&] { return info->signalCode() != Siginfo::none; }));
      EXPECT_EQ(info->signalCode(), code);
      EXPECT_EQ(info->exitStatus(), code == Siginfo::exited ? value : 0);
      EXPECT_EQ(info->exitSignal(), code == Siginfo::killed ? value : 0);
      EXPECT_EQ(info->provenance(), provenance);
      EXPECT_EQ(info->childPipe()->descriptor(), -1);
      EXPECT_FALSE(info->signal(0));
   }
   Child childOf(int pid) const { return Child(tracker->process(pid)); }
   Child childAt(const Gate& gate, int status) {
      return childOf(forkBody([&gate, status] {
         gate.pass();
         endWith(status);
      }));
   }
};

INSTANTIATE_TEST_SUITE_P(Pidfds, ChildEnd, testing::Values(0, ENOSYS), [](const auto& way) {
   return std::string(way.param == 0 ? "Given" : "Refused");
});

// The loop has nothing to tell for a while, and sleeps meanwhile.
void expectQuiet(int ms, std::uint64_t wakeups) {
   const auto before = manager()->wakeups();
   const std::clock_t busyBefore = std::clock();
   EXPECT_EQ(manager()->runOnce(ms), 0);
   const auto after = manager()->wakeups();
   EXPECT_LE(after.total - before.total, wakeups);
   EXPECT_EQ(after.empty - before.empty, after.total - before.total);
   EXPECT_LT(std::clock() - busyBefore, CLOCKS_PER_SEC / 20);
}

// The number that the next pipe's write end gets.
int nextWriteEnd() {
   const int first = ::dup(1);
   const int second = ::dup(1);
   ::close(first);
   ::close(second);
   return second;
}

// ---- how it ended ----

TEST_P(ChildEnd, EveryStatusSignalAndCoreDumpIsExactAlthoughAllEndTogether) {
   inThisWay([this] {
      const std::set<int> harmless{SIGCHLD, SIGCONT, SIGURG,  SIGWINCH,
                                   SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU};
      const rlimit noCore{0, 1 << 20};
      ::setrlimit(RLIMIT_CORE, &noCore);
      std::vector<std::pair<Child, int>> children;
      for (int status = -SIGRTMAX; status < 256; ++status) {
         if (!harmless.contains(-status)) {
            const int pid = forkBody([status] {
               const rlimit some{1 << 20, 1 << 20};
               if (status == -SIGQUIT && ::chdir(testing::TempDir().c_str()) == 0) {
                  ::setrlimit(RLIMIT_CORE, &some);
                  ::prctl(PR_SET_DUMPABLE, 1);
               }
               endWith(status);
            });
            children.emplace_back(childOf(pid), status);
         }
      }
      std::set<int> dumped;
      for (const int pid : forked) {
         siginfo_t info;
         EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
         if (info.si_code == CLD_DUMPED) {
            dumped.insert(pid);
            ::unlink((testing::TempDir() + "core").c_str());
            ::unlink((testing::TempDir() + "core." + std::to_string(pid)).c_str());
         }
      }
      std::size_t hooks = 0;
      tracker->hook = [&](const Child&) { ++hooks; };
      std::size_t deliveries = 0;
      EXPECT_TRUE(runUntil([&] {
         deliveries += static_cast<std::size_t>(manager()->runOnce(0));
         return tracker->process().members() == 0;
      }));
      EXPECT_LE(deliveries, children.size());
      for (const auto& [child, value] : children) {
         expectEnd(child, value < 0 ? Siginfo::killed : Siginfo::exited, std::abs(value));
         EXPECT_EQ(child->siginfo()->coreDumped(), dumped.contains(child->pid()));
      }
      EXPECT_EQ(tracker->successfulTerminationCount(), 1U);
      EXPECT_EQ(tracker->errorTerminationCount(), children.size() - 1);
      EXPECT_EQ(hooks, children.size());
   });
}

// ---- what the child does to its pipe ----

// It closes it (0) or writes that much, through a record, whose pipe doesn't block, and a pipe of
// the caller's that does.
TEST_P(ChildEnd, NeitherBytesNorClosingNorAStopIsAnEnd) {
   inThisWay([this] {
      for (const std::size_t size : {0U, 1U, 16U << 10, 64U << 10, 1U << 20}) {
         for (const bool bare : {false, true}) {
            const Gate gate;
            const Gate written;
            const int writeEnd = nextWriteEnd();
            const int pid = forkBody([&] {
               const std::string bytes(size, 'x');
               EXPECT_EQ(::write(writeEnd, bytes.data(), size), static_cast<ssize_t>(size));
               size == 0 ? ::close(writeEnd) : 0;
               written.open();
               gate.pass();
               ::_exit(HasFailure() ? 1 : 4);
            });
            const Child child = childOf(pid);
            auto& pipe = const_cast<Vel::FileDescriptor&>(*child->siginfo()->childPipe());
            pipe.nonBlockingIs(!bare);
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
   });
}

// ---- who else waits ----

TEST_P(ChildEnd, ATracerHoldsTheEndUntilItLetsGo) {
   inThisWay([this] {
      const Gate gate;
      const Gate holding;
      const Gate seized;
      const Child child = childAt(gate, 7);
      const int pid = child->pid();
      const int tracer = ::fork();
      if (tracer == 0) {
         runAndExit([&] {
            const bool could = ::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0;
            seized.open();
            awaitZombie(pid);
            seized.open();
            holding.pass();
            ::_exit(could ? 0 : cannot);
         });
      }
      seized.pass();
      gate.open();
      seized.pass();
      expectQuiet(300, 8);
      holding.open();
      int status = -1;
      EXPECT_EQ(::waitpid(tracer, &status, 0), tracer);
      EXPECT_EQ(WEXITSTATUS(status), 0) << "no tracing here";
      expectEnd(child, Siginfo::exited, 7);
   });
}

TEST_P(ChildEnd, WhenOtherCodeTookTheStatusItIsRecoveredOrLostButNeverInvented) {
   utsname kernel{};
   ::uname(&kernel);
   int version[2] = {0, 0};
   std::sscanf(kernel.release, "%d.%d", &version[0], &version[1]);
   const bool recovers = !refused() && std::pair(version[0], version[1]) >= std::pair(6, 15);
   for (const auto& taker : {std::pair(SIG_DFL, 0), {SIG_IGN, 0}, {SIG_DFL, SA_NOCLDWAIT}}) {
      inThisWay([&] {
         struct sigaction action {};
         action.sa_handler = taker.first;
         action.sa_flags = taker.second;
         ::sigaction(SIGCHLD, &action, nullptr);
         const Gate gate;
         std::vector<Child> children;
         for (const int status : {0, 7, -SIGKILL}) {
            children.push_back(childAt(gate, status));
            gate.open();
            const int pid = children.back()->pid();
            while (::waitpid(pid, nullptr, 0) == pid || ::kill(pid, 0) == 0) {
            }
            EXPECT_FALSE(children.back()->siginfo()->signal(SIGTERM));
            if (recovers) {
               expectEnd(children.back(), status < 0 ? Siginfo::killed : Siginfo::exited,
                         std::abs(status), Siginfo::recovered);
            } else {
               expectEnd(children.back(), Siginfo::lost, 0, Siginfo::unknown);
            }
         }
         EXPECT_EQ(tracker->successfulTerminationCount(), recovers ? 1U : 0U);
         EXPECT_EQ(tracker->errorTerminationCount(), recovers ? 2U : 0U);
         EXPECT_EQ(tracker->lastFailedProcess(), recovers ? children[2] : Child());
      });
   }
}

// ---- when, and how many ----

TEST_P(ChildEnd, AChildCostsAtMostThreeWakeups) {
   inThisWay([this] {
      constexpr unsigned children = 50;
      const auto before = manager()->wakeups();
      for (unsigned at = 0; at < children; ++at) {
         expectEnd(childOf(forkBody([] { ::_exit(0); })), Siginfo::exited, 0);
      }
      EXPECT_LE(manager()->wakeups().total - before.total, 3 * children);
   });
}

TEST_P(ChildEnd, OneThatHasEndedBeforeItIsRegisteredIsReportedByTheLoop) {
   inThisWay([this] {
      for (const int end : {readEnd(), -1}) { // a pipe that never ends, or none
         const int pid = ::fork();
         if (pid == 0) {
            ::_exit(11);
         }
         awaitZombie(pid);
         const Child child = tracker->processIs(pid, "ended", end);
         EXPECT_EQ(child->siginfo()->signalCode(), Siginfo::none);
         expectEnd(child, Siginfo::exited, 11);
         EXPECT_EQ(tracker->process(pid), nullptr);
      }
   });
}

TEST_P(ChildEnd, TwentyHooksThatThrowAreTwentyExceptionsInTwentyCalls) {
   for (const bool pipeHeld : {false, true}) {
      inThisWay([&] {
         const Gate gate;
         tracker->hook = [](const Child& child) { throw child->pid(); };
         for (int at = 0; at < 20; ++at) {
            forkBody([&] {
               if (pipeHeld && ::fork() == 0) {
                  ::alarm(30);
                  gate.pass();
               }
               ::_exit(0);
            });
         }
         for (const int pid : forked) {
            awaitZombie(pid);
         }
         const auto start = std::chrono::steady_clock::now();
         std::set<int> told;
         for (int at = 0; at < 20; ++at) {
            try {
               manager()->runOnce(2000);
               ADD_FAILURE() << "call " << at;
            } catch (int pid) {
               told.insert(pid);
            }
         }
         EXPECT_EQ(told.size(), 20U);
         EXPECT_LT(std::chrono::steady_clock::now() - start,
                   std::chrono::seconds(pipeHeld && refused() ? 10 : 5)); // 20 s, were each put off
         EXPECT_EQ(tracker->successfulTerminationCount(), 20U);
         EXPECT_EQ(tracker->process().members(), 20U);
         gate.open(20);
      });
   }
}

class Listener : public Siginfo::NotifieeConst {
 public:
   Calls calls;
   void onExitStatus() override { heard("status"); }
   void onExitSignal() override { heard("signal"); }
   void onSignalCode() override { heard("code"); }

 private:
   void heard(const std::string& what) {
      calls.push_back(what + std::to_string(notifier()->signalCode()));
      throw 7;
   }
};

TEST_P(ChildEnd, TheCodeIsToldLastAlthoughEarlierHandlersThrow) {
   inThisWay([this] {
      for (const int value : {5, -SIGTERM, 0}) {
         const Child child = childOf(forkBody([value] { endWith(value); }));
         const auto listener = Vel::newEntity<Listener>();
         listener->notifierIs(child->siginfo());
         listener->isRegisteredNotifieeIs(true);
         EXPECT_THROW(manager()->runOnce(5000), int);
         EXPECT_EQ(tracker->process(child->pid()), nullptr) << "the tracker heard it too";
         const Calls heard = value > 0   ? Calls{"status0", "code3"}
                             : value < 0 ? Calls{"signal0", "code4"}
                                         : Calls{"code3"};
         EXPECT_EQ(listener->calls, heard);
      }
   });
}

// ---- who is watched, and for how long ----

TEST_P(ChildEnd, AForgottenChildIsReapedAndOneFromOutsideOrUnknownIsLeftToWhoeverForkedIt) {
   inThisWay([this] {
      const std::function<void(int)> forgettings[] = {
         [&](int pid) { tracker->processDel(pid); },
         [&](int pid) { tracker->process(pid)->siginfoDel(); },
         [&](int pid) { tracker->process(pid)->siginfoIs("another", pid); },
         [&](int) { tracker = Zor::newTracker<RudeTracker>(); },
         [](int) {},
      };
      const Gate gate;
      std::vector<int> outside;
      for (const auto& forget : forgettings) {
         forget(childAt(gate, 2)->pid());
         outside.push_back(::fork());
         if (outside.back() == 0) {
            gate.pass();
            ::_exit(2);
         }
         if (&forget != &forgettings[4]) {
            tracker->processIs(outside.back(), "outside", readEnd());
            forget(outside.back());
         }
      }
      gate.open(10);
      for (const int pid : outside) {
         awaitZombie(pid);
      }
      EXPECT_TRUE(runUntil(
         [&] { return std::ranges::all_of(forked, [](int pid) { return ::kill(pid, 0) != 0; }); }));
      expectQuiet(20, 1);
      for (const int pid : outside) {
         int status = -1;
         EXPECT_EQ(::waitpid(pid, &status, 0), pid);
         EXPECT_EQ(WEXITSTATUS(status), 2);
      }
      EXPECT_EQ(tracker->errorTerminationCount(), 1U);
   });
}

TEST_P(ChildEnd, AStrangersEndIsThatOfItsPipe) {
   inThisWay([this] {
      const int file = ::open("/proc/self/exe", O_RDONLY);
      for (const int pid : {::getpid(), ::getppid(), 1, 0, -1, std::numeric_limits<int>::min(),
                            std::numeric_limits<int>::max()}) {
         SCOPED_TRACE(pid);
         for (const int useless : {-1, file, 5000}) {
            EXPECT_THROW(tracker->processIs(pid, "stranger", useless), Vel::SystemException);
            EXPECT_EQ(tracker->process(pid), nullptr);
            EXPECT_FALSE(manager()->fd(useless));
         }
         int ends[2];
         ASSERT_EQ(::pipe(ends), 0);
         const Child child = tracker->processIs(pid, "stranger", ends[0]);
         EXPECT_FALSE(child->siginfo()->signal(SIGKILL));
         expectQuiet(10, 1);
         ::close(ends[1]);
         expectEnd(child, Siginfo::lost, 0, Siginfo::unknown);
         EXPECT_EQ(tracker->process(pid), nullptr);
      }
      EXPECT_EQ(::close(file), 0);
   });
}

TEST_P(ChildEnd, ItsDescriptorsMayBeClosedByTheClosingWalk) {
   inThisWay([this] {
      for (const bool all : {true, false}) { // or all but the pipe
         const Gate gate;
         const Child child = childAt(gate, 12);
         const int pipe = child->siginfo()->childPipe()->descriptor();
         const auto context = Vel::newEntity<Context>();
         for (const int descriptor : openDescriptors()) {
            context->skipFdIs(descriptor, descriptor == pipe ? !all : !manager()->fd(descriptor));
         }
         Zor::childProcessTrackerCloseFds(context);
         gate.open();
         expectEnd(child, Siginfo::exited, 12);
         manager()->pollFd();
      }
   });
}

} // namespace
