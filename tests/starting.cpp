// Starting a child: what goes wrong before the fork, at it, and while the child is registered.
#include "Faults.h"

#include <atomic>
#include <fstream>
#include <locale>
#include <sched.h>
#include <stdexcept>
#include <thread>

namespace {

// ---- before and at the fork ----

void otherUserWithoutProcesses() {
   const rlimit none{0, 0};
   if (::setrlimit(RLIMIT_NPROC, &none) != 0 || ::setresuid(65534, 65534, 65534) != 0) {
      unavailable("no other user");
   }
}

FAULT(noPipeOrNoProcess, World& world) {
   const std::pair<void (*)(), int> rows[] = {
      {[] { descriptorLimitIs(static_cast<rlim_t>(NextPipe().read)); }, EMFILE},
      {[] { descriptorLimitIs(static_cast<rlim_t>(NextPipe().read) + 1); }, EMFILE},
      {[] { refuse(SYS_pipe2, ENFILE), refuse(SYS_pipe, ENFILE); }, ENFILE}, // one of the two
      {[] { refuse(SYS_clone, EAGAIN); }, EAGAIN},
      {[] { refuse(SYS_clone, ENOMEM); }, ENOMEM},
      {&otherUserWithoutProcesses, EAGAIN},
   };
   for (const auto& row : rows) {
      expectHeld(apart([&] {
         row.first();
         const auto before = openDescriptors();
         const int result = world.tracker->forkChild("worker", nullptr, nullptr, nullptr);
         const int error = errno;
         EXPECT_EQ(result, -1);
         EXPECT_EQ(error, row.second);
         EXPECT_EQ(openDescriptors(), before);
         EXPECT_FALSE(hasChildren() || world.tracker->left() != 0);
      }));
   }
}

// ---- registering ----

FAULT(registrationThrows, World& world) {
   const auto open = openDescriptors();
   const char* throwing = "childProcessIs";
   world.tracker->called = [&](const std::string& call) {
      if (call == throwing) {
         if (call == "processIs") { // other code reaps it, too
            ::waitpid(-1, nullptr, 0);
         }
         throw std::runtime_error("registering");
      }
   };
   for (const char* each : {"processIs", "childProcessIs"}) {
      throwing = each;
      EXPECT_THROW(world.start([] { ::_exit(3); }), std::runtime_error);
      EXPECT_EQ(world.tracker->left() + world.tracker->childProcess().members(), 0U);
   }
   EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
   EXPECT_EQ(openDescriptors(), open);
}

// The poll set has no room for the pipe, for the pidfd (which gets the number of the write end),
// for either.
FAULT(pollSetIsFull, World& world) {
   for (const bool pipeToo : {false, true}) {
      for (const bool pidfdToo : {false, true}) {
         expectHeld(apart([&] {
            const NextPipe next;
            if (pipeToo) {
               refuse(SYS_epoll_ctl, ENOSPC, 2, static_cast<unsigned>(next.read));
            }
            if (pidfdToo) {
               refuse(SYS_epoll_ctl, ENOSPC, 2, static_cast<unsigned>(next.write));
            }
            if (pipeToo && pidfdToo && pidfdsRefused) { // the number is the timer's then
               EXPECT_THROW(world.start([] {}), Vel::SystemException);
               return;
            }
            for (const int status : {3, 4}) {
               expectEnd(world.childOf(world.start([=] { ::_exit(status); })), Siginfo::exited,
                         status);
            }
         }));
      }
   }
}

// A lasting refusal is found out once, one for want of something concerns its child alone.
FAULT(pidfdsAreRefused, World& world) {
   const std::pair<int, bool> rows[] = {{ENOSYS, true}, {EPERM, true},   {EACCES, true},
                                        {ESRCH, false}, {ENOMEM, false}, {EMFILE, false}};
   for (const auto& row : rows) {
      expectHeld(apart([&] {
         const auto [error, lasting] = row;
         const Gate gate;
         int pipe[2];
         EXPECT_EQ(::pipe(pipe), 0);
         const int first = outside([&] {
            gate.pass();
            ::_exit(5);
         });
         ::close(pipe[1]);
         manager()->pollFd(); // this process's own, before there is no room for it
         if (error == EMFILE) {
            descriptorLimitIs(static_cast<rlim_t>(NextPipe().read));
         } else {
            refuse(SYS_pidfd_open, static_cast<unsigned>(error), 0, static_cast<unsigned>(first));
         }
         const Child child = world.tracker->processIs(first, "outside", pipe[0]);
         descriptorLimitIs(1024);
         manager()->runOnce(0); // opens the timer, which there was no room for
         const std::size_t before = openDescriptors().size();
         const Child second = world.childOf(world.startAt(gate, 5));
         EXPECT_EQ(openDescriptors().size() - before, lasting || pidfdsRefused ? 1U : 2U);
         gate.open(2);
         expectEnd(child, Siginfo::exited, 5);
         expectEnd(second, Siginfo::exited, 5);
      }));
   }
}

FAULT(theChildHasEndedBefore, World& world) {
   world.tracker->called = [](const std::string& call) {
      if (call == "processIs") {
         siginfo_t info;
         ::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
      }
   };
   const Child forked = world.childOf(world.start([] { ::_exit(11); }));
   EXPECT_TRUE(forked && forked->siginfo()->signalCode() == Siginfo::none);
   expectEnd(forked, Siginfo::exited, 11);
   for (const int end : {world.readEnd(), -1}) { // a pipe that never ends, or none
      const int pid = outside([] { ::_exit(12); });
      const Child child = world.tracker->processIs(pid, "outside", end);
      EXPECT_EQ(child->siginfo()->signalCode(), Siginfo::none);
      expectEnd(child, Siginfo::exited, 12);
   }
   ::signal(SIGCHLD, SIG_IGN); // nobody can say any more how it ended, and its pipe is held
   const Gate gate;
   const Child unknown = world.childOf(world.start([&] {
      if (::fork() == 0) {
         gate.pass();
      }
      ::_exit(13);
   }));
   EXPECT_EQ(manager()->runOnce(1000), 1);
   expectEnd(unknown, Siginfo::lost, 0, Siginfo::unknown);
   EXPECT_EQ(world.tracker->told, 4U);
   gate.open();
   ::signal(SIGCHLD, SIG_DFL);
}

// ---- numbers that come again ----

// Where this process may choose the numbers of its children.
void inOwnNumbers(const std::function<void()>& body) {
   expectHeld(apart([&] {
      if (::unshare(CLONE_NEWPID) != 0) {
         unavailable("no process ids of one's own");
      }
      ::_exit(apart(body));
   }));
}

void nextNumberIs(int number) {
   std::ofstream last("/proc/sys/kernel/ns_last_pid");
   if (!(last << number - 1 << std::flush)) {
      unavailable("process ids can't be chosen");
   }
}

FAULT(aStaleRecordHasTheNumber, World& world) {
   inOwnNumbers([&] {
      const auto startAs = [&](int number, const char* name) {
         nextNumberIs(number);
         return world.start([] { ::_exit(3); }, nullptr, name);
      };
      world.tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
      EXPECT_EQ(startAs(20, "worker"), 20);
      EXPECT_THROW(manager()->runOnce(1000), std::runtime_error);
      const Child stale = world.childOf(20);
      world.tracker->hook = nullptr;
      EXPECT_EQ(startAs(20, "worker"), 20); // while the stale one is the last failed one too
      EXPECT_NE(world.childOf(20), stale);
      EXPECT_EQ(world.tracker->lastFailedProcess(), stale);
      world.runAll();
      EXPECT_EQ(world.tracker->outcomes(), 2U);
      EXPECT_NE(world.tracker->lastFailedProcess(), stale);
      EXPECT_EQ(stale->siginfo()->exitStatus(), 3);

      // One whose end is not recorded, since its number was never a child's, is lost now. What its
      // hook throws comes out once the new one is safe.
      world.record(30, "another");
      world.tracker->hook = [&](const Child& child) {
         EXPECT_EQ(child->siginfo()->signalCode(), Siginfo::lost);
         world.tracker->hook = nullptr;
         throw std::runtime_error("hook");
      };
      EXPECT_THROW(startAs(30, "stranger"), std::runtime_error);
      EXPECT_TRUE(world.childOf(30) && world.childOf(30)->description() == "stranger");
      world.runAll();
      EXPECT_EQ(world.tracker->outcomes(), 3U);
      world.record(40, "without a siginfo")->siginfoDel();
      EXPECT_EQ(startAs(40, "stranger"), 40);
      world.runAll();

      // The hook of one forks: to the child that comes out of it the new one is a stranger.
      world.record(50, "another");
      world.tracker->hook = [&](const Child&) {
         world.tracker->hook = nullptr;
         world.tracker->forkChild("out of the hook", nullptr, nullptr, nullptr);
      };
      const pid_t here = ::getpid();
      EXPECT_EQ(startAs(50, "stranger"), 50);
      if (::getpid() != here) {
         ::_exit(world.tracker->process(50) != nullptr);
      }
      world.runAll();
      EXPECT_EQ(world.tracker->outcomes(), 105U);
   });
}

// Other code reaps a child, unseen since its pipe is held, and another one gets its number.
FAULT(theNumberOfAReapedChildComesAgain, World& world) {
   inOwnNumbers([&] {
      const Gate gate;
      nextNumberIs(20);
      const Child reaped = world.childOf(world.start([&] {
         if (::fork() == 0) {
            gate.pass();
         }
         ::_exit(0);
      }));
      EXPECT_EQ(reaped->pid(), 20);
      EXPECT_EQ(::waitpid(20, nullptr, 0), 20);
      nextNumberIs(20);
      world.tracker->hook = [&](const Child& child) {
         EXPECT_TRUE(child != reaped || child->siginfo()->provenance() != Siginfo::reaped);
      };
      EXPECT_EQ(world.startAt(gate, 7), 20);
      EXPECT_NE(world.childOf(20), reaped);
      EXPECT_FALSE(reaped->siginfo()->signal(SIGKILL)) << "its number is another's";
      gate.open(2);
      world.runAll();
      EXPECT_EQ(world.tracker->errorTerminationCount(), 1U);
      EXPECT_EQ(world.tracker->lastFailedProcess()->siginfo()->exitStatus(), 7);
   });
}

// ---- odd circumstances ----

FAULT(standardDescriptorsAreClosed, World& world) {
   expectHeld(apart([&] {
      for (const int standard : {0, 1, 2}) { // the pipe gets 0 and 1
         ::close(standard);
      }
      const Child child = world.childOf(world.start(
         [] {
            const auto open = openDescriptors();
            ::_exit(open == std::set{1} ? 8 : 9);
         },
         keeping({1})));
      expectEnd(child, Siginfo::exited, 8);
   }));
}

struct Grouping : std::numpunct<char> {
   char do_thousands_sep() const override { return ','; }
   std::string do_grouping() const override { return "\1"; }
};

FAULT(namesAndLocalesAreOdd, World& world) {
   const char* const forked = "ChildProcessTracker 8 ChildProcessTracker:63 forkChild virtual S32 "
                              "Zor::ChildProcessTrackerSm::forkChild(Vel::String, void (* const&)"
                              "(Zor::ChildProcessInitCallbackContext), void* const&, const Ptr&) ";
   std::locale::global(std::locale(std::locale::classic(), new Grouping));
   for (const std::string& name :
        {std::string(), std::string(16 << 20, 'x'), std::string("a\0b", 3),
         std::string("two\nlines"), std::string("%s%n\033[1m\xff")}) {
      Calls calls;
      world.trace(calls);
      const int pid = world.start([] {}, nullptr, name);
      EXPECT_TRUE(world.childOf(pid)->description() == name);
      const std::string number = std::to_string(pid);
      EXPECT_EQ(std::string(world.childOf(pid)->siginfo()->name()), "ChildSiginfo-" + number);
      world.runAll();
      EXPECT_EQ(calls.size(), 3U + 1U);
      EXPECT_TRUE(calls[0] == std::string(forked).append(name));
      const std::string ended = std::string(") ").append(number).append(" '").append(name);
      EXPECT_NE(calls[3].find(ended + "' exited with status 0"), calls[3].npos);
   }
   std::locale::global(std::locale::classic());
}

FAULT(threadsAreBusy, World& world) {
   std::atomic<bool> over = false;
   Vel::VFPtrInterface::enableThreadSafePointers = true;
   const auto shared = Vel::newEntity<Context>();
   const auto busy = [&] {
      while (!over) {
         const Vel::Ptr<Context> copy(shared.get());
         Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 3, !over);
      }
   };
   std::thread threads[] = {std::thread(busy), std::thread(busy)};
   Vel::TraceFacility::sinkIs([](auto&&...) {});
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
   for (int child = 0; child < 100; ++child) {
      world.start([&] { world.tracker->handleTerminatedChildProcess(0); }, keeping({2}));
   }
   world.runAll();
   over = true;
   for (std::thread& thread : threads) {
      thread.join();
   }
   Vel::VFPtrInterface::enableThreadSafePointers = false;
   EXPECT_EQ(world.tracker->outcomes(), 100U * 100U);
}

FAULT(theInitCallbackMisbehaves, World& world) {
   const std::pair<void (*)(void*), int> rows[] = {
      {[](void* arg) { ::_exit(*static_cast<int*>(arg)); }, 6},
      {[](void*) { throw std::runtime_error("in the child"); }, 98},
      {[](void*) { ::raise(SIGKILL); }, -SIGKILL},
      {[](void*) { ::fork(); }, 5},
      {[](void*) { ::syscall(SYS_close_range, 3U, ~0U, 0); }, 5},
   };
   for (const auto& [init, value] : rows) {
      int arg = 6;
      const Child child =
         world.childOf(world.start([] { ::_exit(5); }, keeping({1}), "worker", init, &arg));
      expectEnd(child, value < 0 ? Siginfo::killed : Siginfo::exited, std::abs(value));
   }
}

// ---- who has a number ----

// The end of the child closes the read end while it is being registered, and the hook is given the
// number for a descriptor of its own.
FAULT(theHookGetsTheNumberOfTheReadEnd, World& world) {
   int own = -1;
   world.tracker->hook = [&](const Child&) {
      own = ::dup(1);
      throw std::runtime_error("hook");
   };
   world.tracker->called = [&](const std::string& call) {
      if (call == "childProcessIs") {
         runUntil([&] {
            const auto child = world.tracker->process().begin();
            return child->siginfo()->signalCode() != Siginfo::none;
         });
      }
   };
   const int readEnd = NextPipe().read;
   EXPECT_THROW(world.start([] {}), std::runtime_error);
   EXPECT_EQ(own, readEnd);
   EXPECT_EQ(::close(own), 0) << "closed by one who no longer owned it";
}

// An object that doesn't know that its number was closed, and then became the pidfd's or the
// timer's.
FAULT(aStaleOwnerHasTheNumber, World& world) {
   const int lower = ::dup(0);
   const int number = ::dup(0);
   const auto stale = Vel::newEntity<Vel::FileDescriptor>("stale");
   stale->descriptorIs(number);
   ::close(lower);
   ::close(number);
   expectEnd(world.childOf(world.start([] { ::_exit(3); })), Siginfo::exited, 3);
   EXPECT_EQ(stale->descriptor(), -1);
}

} // namespace
