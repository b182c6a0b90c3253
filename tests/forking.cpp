// Starting children: what can go wrong before, at and after the fork, and what a child is left
// with.
#include "TrackerFixture.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <locale>
#include <new>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

using testing::ElementsAre;
using Vel::String8;

using Forking = TrackerTest;

// What a child has open, by number.
struct Open {
   bool is[6000] = {};
   void look() {
      for (const int descriptor : openDescriptors()) {
         is[descriptor] = true;
      }
   }
   std::set<int> set() const {
      std::set<int> open;
      for (int at = 0; at < 6000; ++at) {
         if (is[at]) {
            open.insert(at);
         }
      }
      return open;
   }
};

// The numbers that the ends of the next pipe get.
struct NextPipe {
   NextPipe() : read(::dup(1)), write(::dup(1)) {
      ::close(read);
      ::close(write);
   }
   int read;
   int write;
};

void limitIs(rlim_t limit) {
   rlimit present{};
   ::getrlimit(RLIMIT_NOFILE, &present);
   present.rlim_cur = limit;
   if (::setrlimit(RLIMIT_NOFILE, &present) != 0) {
      ::_exit(cannot);
   }
}

void hideProc(void* = nullptr) {
   if (::unshare(CLONE_NEWNS) != 0 ||
       ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
      ::_exit(cannot);
   }
}

Vel::Ptr<Context> keeping(const std::set<int>& kept) {
   const auto context = Vel::newEntity<Context>();
   for (const int descriptor : kept) {
      context->skipFdIs(descriptor, true);
   }
   return context;
}

// ---- before and at the fork ----

TEST_F(Forking, WithoutAPipeOrAProcessNothingIsLeftBehind) {
   const std::pair<void (*)(), int> rows[] = {
      {[] { limitIs(static_cast<rlim_t>(NextPipe().read)); }, EMFILE},
      {[] { limitIs(static_cast<rlim_t>(NextPipe().read + 1)); }, EMFILE},
      {[] { refuse(SYS_clone, EAGAIN); }, EAGAIN},
      {[] { refuse(SYS_clone, ENOMEM); }, ENOMEM},
   };
   for (const auto& row : rows) {
      const int status = apart([&row, this] {
         const auto& [prepare, expected] = row;
         forkBody([] {}); // once before: a sanitizer opens descriptors for what it first sees
         EXPECT_TRUE(runUntil([&] { return tracker->process().members() == 0; }));
         const auto before = openDescriptors();
         prepare();
         const int result = tracker->forkChild("worker", nullptr, nullptr, nullptr);
         const int error = errno;
         EXPECT_EQ(result, -1);
         EXPECT_EQ(error, expected);
         EXPECT_EQ(openDescriptors(), before);
      });
      EXPECT_TRUE(status == 0 || status == cannot) << status;
   }
}

TEST_F(Forking, TheInitCallbackSeesEverythingAndMayEndTheChild) {
   const Shared<Open> open;
   const NextPipe next;
   auto expected = openDescriptors();
   expected.insert({next.read, next.write});
   const std::pair<void (*)(void*), int> rows[] = {
      {[](void* found) { static_cast<Open*>(found)->look(); }, 5},
      {[](void*) { ::_exit(6); }, 6},
      {[](void*) { throw std::runtime_error("in the child"); }, 98},
      {[](void*) { ::raise(SIGKILL); }, SIGKILL},
   };
   for (const auto& [init, value] : rows) {
      const int pid = forkBody([] { ::_exit(5); }, keeping({}), "worker", init, &*open);
      const Child child(tracker->process(pid));
      ASSERT_TRUE(runUntil([&] { return tracker->process(pid) == nullptr; }));
      EXPECT_EQ(child->siginfo()->exitStatus() + child->siginfo()->exitSignal(), value);
      EXPECT_EQ((*open).set(), expected);
   }
}

TEST_F(Forking, NamesKeepTheirBytes) {
   const std::string signature =
      "virtual S32 Zor::ChildProcessTrackerSm::forkChild(Vel::String, void (* const&)"
      "(Zor::ChildProcessInitCallbackContext), void* const&, const Ptr&) ";
   struct Grouping : std::numpunct<char> {
      char do_thousands_sep() const override { return ','; }
      std::string do_grouping() const override { return "\1"; }
   };
   const std::locale before =
      std::locale::global(std::locale(std::locale::classic(), new Grouping));
   for (const std::string& name : {std::string(), std::string(1 << 20, 'x'), std::string("a\0b", 3),
                                   std::string("two\nlines"), std::string("%s%n\xff")}) {
      Calls calls;
      trace(calls);
      const int pid = forkBody([] {}, nullptr, name);
      EXPECT_EQ(std::string(tracker->process(pid)->description()), name);
      const std::string number = std::to_string(pid);
      EXPECT_EQ(std::string(tracker->process(pid)->siginfo()->name()), "ChildSiginfo-" + number);
      ASSERT_TRUE(runUntil([&] { return tracker->process(pid) == nullptr; }));
      ASSERT_EQ(calls.size(), 3U + 1U);
      EXPECT_EQ(calls[0],
                "ChildProcessTracker 8 ChildProcessTracker:63 forkChild " + signature + name);
      EXPECT_NE(calls[3].find(") " + number + " '" + name + "' exited with status 0"),
                calls[3].npos);
   }
   std::locale::global(before);
}

// ---- what the child keeps ----

TEST_F(Forking, TheContextSaysWhatTheChildKeeps) {
   const auto [readEnd, writeEnd] = NextPipe();
   auto everything = openDescriptors();
   everything.insert({readEnd, writeEnd});
   auto unkept = keeping({1});
   unkept->skipFdIs(1, false);
   const std::pair<Vel::Ptr<Context>, std::set<int>> rows[] = {
      {nullptr, everything},
      {keeping({}), {writeEnd}},
      {unkept, {writeEnd}},
      {keeping({readEnd, 5999, -1, std::numeric_limits<int>::max()}), {readEnd, writeEnd}},
   };
   for (const auto& [context, expected] : rows) {
      const Shared<Open> open;
      forkBody([&] { (*open).look(); }, context);
      ASSERT_TRUE(runUntil([&] { return tracker->process().members() == 0; }));
      EXPECT_EQ((*open).set(), expected);
      EXPECT_FALSE(context && context->skipFd(writeEnd)) << "the child's own";
   }
   EXPECT_EQ(apart([&] {
                const Shared<Open> open;
                for (const int standard : {0, 1, 2}) { // the pipe gets 0 and 1
                   ::close(standard);
                }
                forkBody([&] { (*open).look(); }, keeping({1}));
                EXPECT_TRUE(runUntil([&] { return tracker->process().members() == 0; }));
                EXPECT_EQ((*open).set(), std::set{1});
             }),
             0);
}

TEST_F(Forking, EveryWayOfClosingClosesTheSame) {
   const auto emptyListing = [](void*) {
      hideProc();
      if (::mkdir("/proc/self", 0700) + ::mkdir("/proc/self/fd", 0700) != 0) {
         ::_exit(cannot);
      }
   };
   const auto byNumber = [](void*) {
      hideProc();
      refuse(SYS_close_range, ENOSYS);
   };
   void (*const ways[])(void*) = {nullptr,      [](void*) { limitIs(64); }, &hideProc,
                                  emptyListing, [](void*) { limitIs(0); },  byNumber};
   const int status = apart([&] {
      limitIs(6000);
      for (const int upTo : {105, 5100}) {
         std::set<int> kept = {1, 2, 100, 101, upTo - 1};
         for (int descriptor = 100; descriptor < upTo; ++descriptor) {
            ASSERT_EQ(::dup2(2, descriptor), descriptor);
         }
         for (const auto& way : ways) {
            const Shared<Open> open;
            auto expected = kept;
            expected.insert(NextPipe().write);
            const int pid = forkBody([&] { (*open).look(); }, keeping(kept), "worker", way);
            const Child child(tracker->process(pid));
            ASSERT_TRUE(runUntil([&] { return tracker->process(pid) == nullptr; }));
            if (child->siginfo()->exitStatus() != cannot) {
               EXPECT_EQ((*open).set(), expected) << &way - ways << " of them";
            }
         }
      }
   });
   EXPECT_EQ(status, 0);
}

class Listener : public Vel::FileDescriptor::NotifieeConst {
 public:
   void onReadable() override { ++heard; }
   int heard = 0;
};

TEST_F(Forking, ClosingTellsTheManagerFirstAndTheProcessGoesOn) {
   EXPECT_THROW(Zor::childProcessTrackerCloseFds(nullptr), Vel::RangeException);
   for (void (*way)(void*) : {static_cast<void (*)(void*)>(nullptr), &hideProc}) {
      const int status = apart([&] {
         int closedPipe[2];
         int keptPipe[2];
         ASSERT_EQ(::pipe(closedPipe) + ::pipe(keptPipe), 0);
         const auto closed = Vel::newEntity<Vel::FileDescriptor>("closed");
         const auto kept = Vel::newEntity<Vel::FileDescriptor>("kept");
         const auto listener = Vel::newEntity<Listener>();
         closed->descriptorIs(closedPipe[0]);
         kept->descriptorIs(keptPipe[0]);
         kept->notifyOnReadableIs(true);
         listener->notifierIs(kept);
         listener->isRegisteredNotifieeIs(true);
         const int before = forkBody([] { ::pause(); });
         if (way != nullptr) {
            way(nullptr);
         }
         Zor::childProcessTrackerCloseFds(keeping({1, 2, keptPipe[0], keptPipe[1]}));
         EXPECT_EQ(openDescriptors(), (std::set{1, 2, keptPipe[0], keptPipe[1]}));
         EXPECT_EQ(closed->descriptor(), -1);
         EXPECT_EQ(kept->descriptor(), keptPipe[0]);
         EXPECT_EQ(::write(keptPipe[1], "x", 1), 1);
         EXPECT_EQ(manager()->runOnce(1000), 1);
         EXPECT_EQ(listener->heard, 1);
         EXPECT_EQ(::read(keptPipe[0], closedPipe, 1), 1);
         ::kill(before, SIGKILL); // its watch was closed, and is opened anew
         forkBody([] {});
         EXPECT_TRUE(runUntil([&] { return tracker->process().members() == 0; }));
         EXPECT_EQ(tracker->successfulTerminationCount(), 1U);
         EXPECT_EQ(tracker->errorTerminationCount(), 1U);
      });
      EXPECT_TRUE(status == 0 || (status == cannot && way != nullptr)) << status;
   }
}

// ---- the child as a user of the library ----

TEST_F(Forking, ChildrenTrackTheirOwnToAnyDepth) {
   const Shared<int> deepest;
   std::function<void(int)> descend = [&](int depth) {
      *deepest = std::max(*deepest, depth);
      if (depth == 3) {
         return;
      }
      tracker = Zor::newTracker<RudeTracker>(); // the inherited one goes
      forked.clear();
      for (int child = 0; child < 3; ++child) {
         forkBody([&] { descend(depth + 1); }, child == 0 ? keeping({2}) : nullptr);
      }
      EXPECT_TRUE(runUntil([&] { return tracker->process().members() == 0; }));
      EXPECT_EQ(tracker->successfulTerminationCount(), 3U);
   };
   descend(0);
   EXPECT_EQ(*deepest, 3);
}

TEST_F(Forking, AChildThatDropsItsCopyAndExitsHarmsNobody) {
   const int sibling = forkBody([] { ::pause(); });
   const int pid = forkBody([&] {
      for (int descriptor = 3; descriptor < 200; ++descriptor) {
         manager()->fdDel(descriptor);
      }
      tracker->processDelAll();
      tracker = nullptr;
      manager()->runOnce(0);
      Zor::childProcessTrackerCloseFds(keeping({1, 2}));
      std::exit(testing::Test::HasFailure() ? 1 : 0);
   });
   EXPECT_TRUE(runUntil([&] { return tracker->process(pid) == nullptr; }));
   EXPECT_EQ(tracker->successfulTerminationCount(), 1U);
   EXPECT_NE(tracker->process(sibling), nullptr);
   ::kill(sibling, SIGTERM);
   EXPECT_TRUE(runUntil([&] { return tracker->errorTerminationCount() == 1; }));
}

TEST_F(Forking, AChildMayComeOutOfTheHookThatForkedIt) {
   int hooks = 0;
   int forkedInHook = -1;
   tracker->hook = [&](const Child&) {
      if (++hooks == 1) {
         forkedInHook = tracker->forkChild("worker", nullptr, nullptr, nullptr);
      }
   };
   for (int child = 0; child < 5; ++child) {
      awaitZombie(forkBody([] {}));
   }
   manager()->runOnce(1000);
   if (forkedInHook == 0) {
      runAndExit([&] {
         EXPECT_EQ(manager()->runOnce(10), 0); // the parent's fetched ends are not the child's
         EXPECT_EQ(hooks, 1);
         EXPECT_EQ(tracker->successfulTerminationCount(), 1U);
      });
   }
   EXPECT_TRUE(runUntil([&] { return hooks == 6; }));
   EXPECT_EQ(tracker->successfulTerminationCount(), 6U);
}

// ---- registering ----

// The stale record of a child whose hook threw has the number that fork gives out again.
TEST_F(Forking, AStaleRecordGivesWayToTheNewChild) {
   const auto inOwnNumbers = [&] {
      const auto forkAs = [&](int number, const char* name) {
         std::ofstream last("/proc/sys/kernel/ns_last_pid");
         if (!(last << number - 1 << std::flush)) {
            ::_exit(cannot);
         }
         last.close();
         return forkBody([] { ::_exit(3); }, nullptr, name);
      };
      tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
      ASSERT_EQ(forkAs(20, "worker"), 20);
      EXPECT_THROW(manager()->runOnce(1000), std::runtime_error);
      const Child stale(tracker->process(20));
      tracker->hook = nullptr;
      ASSERT_EQ(forkAs(20, "worker"), 20);
      EXPECT_NE(tracker->process(20), stale.get());
      EXPECT_TRUE(runUntil([&] { return tracker->process(20) == nullptr; }));
      EXPECT_EQ(tracker->errorTerminationCount(), 2U);

      // One whose end is not recorded, since its number was never a child's, is lost now. What its
      // hook throws comes out once the new one is safe.
      record(30, "another");
      int hooks = 0;
      tracker->hook = [&](const Child& child) {
         if (++hooks == 1) {
            EXPECT_EQ(child->siginfo()->signalCode(), Siginfo::lost);
            throw std::runtime_error("hook");
         }
      };
      EXPECT_THROW(forkAs(30, "stranger"), std::runtime_error);
      EXPECT_TRUE(tracker->process(30) && tracker->process(30)->description() == "stranger");
      EXPECT_TRUE(runUntil([&] { return tracker->errorTerminationCount() == 3; }));
   };
   const int status =
      apart([&] { ::_exit(::unshare(CLONE_NEWPID) ? cannot : apart(inOwnNumbers)); });
   if (status == cannot) {
      GTEST_SKIP() << "process ids can't be chosen here";
   }
   EXPECT_EQ(status, 0);
}

TEST_F(Forking, ARegistrationThatThrowsLeavesAChildThatIsReaped) {
   const auto open = openDescriptors();
   tracker->childProcessIsStarts = [](const Child&) { throw std::runtime_error("registering"); };
   EXPECT_THROW(forkBody([] { ::_exit(3); }), std::runtime_error);
   EXPECT_EQ(tracker->process().members() + tracker->childProcess().members(), 0U);
   EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
   EXPECT_EQ(openDescriptors(), open);
}

// The end of the child closes the read end while it is being registered, and the hook is given the
// number for a descriptor of its own.
TEST_F(Forking, ADescriptorOfTheHookIsNotClosedForTheReadEnd) {
   int own = -1;
   tracker->hook = [&](const Child&) {
      own = ::dup(1);
      throw std::runtime_error("hook");
   };
   tracker->childProcessIsStarts = [&](const Child& child) {
      runUntil([&] { return child->siginfo()->signalCode() != Siginfo::none; });
   };
   const int readEnd = NextPipe().read;
   EXPECT_THROW(forkBody([] {}), std::runtime_error);
   EXPECT_EQ(own, readEnd);
   EXPECT_EQ(::close(own), 0) << "closed by one who no longer owned it";
}

} // namespace
