// What a forked child is left with, and that nothing it does reaches its parent.
#include "Faults.h"
#include "Watched.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

// What a child has open, by number.
struct Open {
   bool is[6000] = {};
   int badCloses = 0;
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

// Starts a child that looks at what it has open; an empty set when it couldn't be started so.
std::set<int> openInChild(World& world, const Vel::Ptr<Context>& context,
                          void (*init)(void*) = nullptr) {
   const Shared<Open> open;
   const Child child = world.childOf(world.start(
      [&] {
         for (const int descriptor : openDescriptors()) {
            open->is[descriptor] = true;
         }
         open->badCloses = badCloses;
      },
      context, "worker", init));
   world.runAll();
   if (child->siginfo()->exitStatus() == cannot) {
      return {};
   }
   EXPECT_EQ(child->siginfo()->exitStatus(), 0);
   EXPECT_LE(open->badCloses, 0) << "the listing's own descriptor, or one of nobody's";
   return open->set();
}

void hideProc(void* = nullptr) {
   if (::unshare(CLONE_NEWNS) != 0 ||
       ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
       ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
      unavailable("/proc can't be hidden");
   }
}

// ---- what it keeps ----

FAULT(theContextSaysWhatIsKept, World& world) {
   const NextPipe next;
   auto everything = openDescriptors();
   everything.insert({next.read, next.write});
   auto unkept = keeping({1});
   unkept->skipFdIs(1, false);
   const std::pair<Vel::Ptr<Context>, std::set<int>> rows[] = {
      {nullptr, everything},
      {keeping({}), {next.write}},
      {unkept, {next.write}},
      {keeping({next.read, 5999, -1, std::numeric_limits<int>::max()}), {next.read, next.write}},
   };
   for (const auto& [context, expected] : rows) {
      EXPECT_EQ(openInChild(world, context), expected);
      EXPECT_FALSE(context && context->skipFd(next.write)) << "the child's own";
   }
   unkept->skipFdDelAll();
   Context::SkipFdMap::Iterator none(&unkept->skipFd());
   EXPECT_FALSE(unkept->skipFdDel(none) || unkept->skipFd().members() != 0);
}

// With the listing, without room for it, without /proc, without entries in it, with a lowered
// limit, and by number alone; few descriptors and very many.
FAULT(thereIsNoListing, World& world) {
   const auto emptyListing = [](void*) {
      hideProc();
      if (::mkdir("/proc/self", 0700) + ::mkdir("/proc/self/fd", 0700) != 0) {
         unavailable("/proc can't be replaced");
      }
   };
   const auto byNumber = [](void*) {
      hideProc();
      refuse(SYS_close_range, ENOSYS);
      badCloses = std::numeric_limits<int>::min(); // any number may be open
   };
   void (*const ways[])(void*) = {nullptr,      [](void*) { descriptorLimitIs(64); }, &hideProc,
                                  emptyListing, [](void*) { descriptorLimitIs(0); },  byNumber};
   expectHeld(apart([&] {
      descriptorLimitIs(6000);
      for (const int upTo : {105, 5100}) {
         const auto context = [](std::set<int> numbers) {
            numbers.insert(std::numeric_limits<int>::max());
            return keeping(numbers);
         };
         std::set<int> kept = {1, 2, 100, 101, upTo - 1};
         for (int descriptor = 100; descriptor < upTo; ++descriptor) {
            EXPECT_EQ(::dup2(2, descriptor), descriptor);
         }
         for (const auto& way : ways) {
            auto expected = kept;
            expected.insert(NextPipe().write);
            const auto open = openInChild(world, context(kept), way);
            EXPECT_TRUE(open.empty() || open == expected) << &way - ways << " of them";
            if (open.empty()) {
               unavailable(*unavailableReason());
            }
         }
      }
   }));
}

FAULT(closingFails, World& world) {
   for (const int error : {EINTR, EIO}) {
      static int says;
      says = error;
      EXPECT_EQ(openInChild(world, keeping({2}), [](void*) { closeSays = says; }),
                (std::set{2, NextPipe().write}));
   }
}

FAULT(theManagersDescriptorsAreClosed, World& world) {
   EXPECT_THROW(Zor::childProcessTrackerCloseFds(nullptr), Vel::RangeException);
   for (void (*way)(void*) : {static_cast<void (*)(void*)>(nullptr), &hideProc}) {
      expectHeld(apart([&] {
         Watched closed;
         const Watched kept;
         const Gate gate;
         const Child before = world.childOf(world.startAt(gate, 5));
         if (way != nullptr) {
            way(nullptr);
         }
         std::set<int> all = {1, 2, kept.fd->descriptor(), kept.writeEnd};
         if (way != nullptr) {
            all.insert(manager()->pollFd());
         }
         gate.open(); // at the latest now: its own end is closed
         Zor::childProcessTrackerCloseFds(keeping(all));
         EXPECT_EQ(openDescriptors(), all);
         EXPECT_EQ(closed.fd->descriptor(), -1);
         closed.writeEnd = -1;
         kept.write();
         EXPECT_TRUE(runUntil([&] { return kept.watcher->calls.size() == 1; }));
         kept.read();
         world.start([] {});
         world.runAll();
         EXPECT_EQ(world.tracker->outcomes(), 101U); // the watch of the first is opened anew
         ::_exit(testing::Test::HasFailure());       // ... and the gate's numbers aren't its own
      }));
   }
}

// ---- what it does to what it shares ----

std::string membersOf(int set) {
   std::ifstream info("/proc/self/fdinfo/" + std::to_string(set));
   return {std::istreambuf_iterator<char>(info), {}};
}

using All = std::vector<Watched>;

void expectAllHear(All& all) {
   for (Watched& each : all) {
      each.watcher->heard = [&each] { each.watcher->isRegisteredNotifieeIs(false); };
   }
   EXPECT_EQ(manager()->runOnce(1000), 64);
}

FAULT(itDoesAsItLikesWithWhatItInherited, World& world) {
   const std::function<void(All&)> misdeeds[] = {
      [](All&) { Zor::childProcessTrackerCloseFds(Vel::newEntity<Context>()); },
      [](All& all) { all.clear(); },
      [](All& all) {
         for (const Watched& each : all) {
            manager()->fdDel(each.fd->descriptor());
         }
      },
      [](All& all) {
         for (const Watched& each : all) {
            each.fd->notifyOnReadableIs(false);
            each.fd->notifyOnWritableIs(true);
         }
      },
      [&](All&) {
         for (int descriptor = -1; descriptor < 200; ++descriptor) {
            manager()->fdDel(descriptor);
         }
         world.tracker->processDelAll();
         world.tracker = nullptr;
         manager()->runOnce(0);
         std::exit(testing::Test::HasFailure());
      },
      [](All& all) {
         Watched own;
         own.write();
         for (int turn = 0; turn < 2; ++turn) { // it yields 64 at once, in turns
            EXPECT_EQ(manager()->runOnce(0), 64);
         }
         EXPECT_FALSE(own.watcher->calls.empty());
         own.drop();
         expectAllHear(all);
      },
   };
   const Gate gate;
   world.startAt(gate, 0);
   for (const auto& misdeed : misdeeds) {
      All all(64);
      const int set = manager()->pollFd();
      const std::string members = membersOf(set);
      for (const Watched& each : all) {
         each.write();
      }
      EXPECT_EQ(apart([&] { misdeed(all); }), 0) << &misdeed - misdeeds;
      EXPECT_EQ(manager()->pollFd(), set);
      EXPECT_EQ(membersOf(set), members);
      expectAllHear(all);
   }
   gate.open();
   world.runAll();
   EXPECT_EQ(world.tracker->outcomes(), 100U);
}

// The numbers of the inherited poll set and of a sibling's pipe are something else's after the
// closing walk.
FAULT(inheritedNumbersAreReused, World& world) {
   const Gate gate;
   const int set = manager()->pollFd();
   const auto siblingsPipe = world.childOf(world.startAt(gate, 0))->siginfo()->childPipe();
   const int sibling = siblingsPipe->descriptor();
   expectEnd(world.childOf(world.start(
                [&] {
                   int pipe[2];
                   EXPECT_EQ(::pipe(pipe), 0);
                   pipe[1] = ::fcntl(pipe[1], F_DUPFD, set + 1);
                   EXPECT_EQ(::dup2(pipe[0], set), set);
                   EXPECT_EQ(::dup2(pipe[0], sibling), sibling);
                   Watched own;
                   own.write();
                   EXPECT_EQ(manager()->runOnce(1000), 1);
                   EXPECT_NE(manager()->pollFd(), set);
                   own.drop();
                   world.tracker = nullptr;
                   EXPECT_EQ(::write(pipe[1], "y", 1), 1);
                   char byte = 0;
                   EXPECT_EQ(::read(set, &byte, 1), 1);
                   EXPECT_EQ(byte, 'y');
                   EXPECT_TRUE(isOpen(sibling));
                   siblingsPipe->descriptorIs(sibling); // now it has it, if not as an inheritance
                   EXPECT_EQ(siblingsPipe->descriptor(), sibling);
                   EXPECT_TRUE(isOpen(sibling));
                },
                keeping({1, 2}))),
             Siginfo::exited, 0);
   gate.open();
   world.runAll();
}

// The numbers of its parent's pidfds and pipes come again, for those of its own children.
FAULT(itClosesWhatItInheritedBehindTheManager, World& world) {
   const Gate gate;
   for (int sibling = 0; sibling < 5; ++sibling) {
      world.startAt(gate, 0);
   }
   world.start([&] {
      ::syscall(SYS_close_range, 3, ~0U, 0);
      for (int child = 0; child < 5; ++child) {
         world.start([] { ::_exit(3); });
      }
      EXPECT_TRUE(runUntil([&] { return world.tracker->outcomes() == 5; }));
   });
   gate.open(5);
   world.runAll();
   EXPECT_EQ(world.tracker->outcomes(), 600U);
}

FAULT(itsSiblingsAreNotItsChildren, World& world) {
   const auto body = [&world](int above) {
      descriptorLimitIs(20000);
      // What is of the sibling has higher numbers.
      for (int number = 0; number >= 0 && number < above; number = ::dup(1)) {
      }
      const Gate gate;
      const Child sibling = world.childOf(world.startAt(gate, 9));
      const int pipe = sibling->siginfo()->childPipe()->descriptor();
      EXPECT_TRUE(manager()->fd(pipe));
      const Child child = world.childOf(world.start([&] {
         EXPECT_FALSE(manager()->fd(pipe));
         EXPECT_FALSE(sibling->siginfo()->signal(SIGKILL));
         gate.open();
         for (int turn = 0; turn < 5; ++turn) {
            EXPECT_EQ(manager()->runOnce(20), 0);
         }
         EXPECT_EQ(world.tracker->told + world.tracker->outcomes(), 0U);
         EXPECT_EQ(sibling->siginfo()->signalCode(), Siginfo::none);
         world.tracker = nullptr;
      }));
      expectEnd(child, Siginfo::exited, 0);
      expectEnd(sibling, Siginfo::exited, 9);
   };
   for (const int above : {100, 17000}) {
      expectHeld(apart([&] { body(above); }));
   }
}

// What the library has to say doesn't wait in a buffer that the child has a copy of.
FAULT(itExitsWithItsCopyOfEverything, World& world) {
   int lines[2];
   EXPECT_EQ(::pipe2(lines, O_NONBLOCK), 0);
   const int standardError = ::dup(2);
   ::dup2(lines[1], 2);
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
   const Child child = world.childOf(world.start([] { std::exit(6); }, nullptr, "once"));
   expectEnd(child, Siginfo::exited, 6);
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
   ::dup2(standardError, 2);
   std::string text(4096, '\0');
   const ssize_t size = ::read(lines[0], text.data(), text.size());
   EXPECT_EQ(std::count(text.begin(), text.begin() + std::max<ssize_t>(size, 0), '\n'), 4);
   for (const int each : {lines[0], lines[1], standardError}) {
      ::close(each);
   }
}

volatile pid_t forkedBySignal = -1;

// ... while the loop waits, and both processes come back into it.
FAULT(aSignalHandlerForks, World& world) {
   expectHeld(apart([&] {
      const Gate gate;
      world.startAt(gate, 7);
      EXPECT_EQ(manager()->runOnce(0), 0);
      ::signal(SIGALRM, [](int) { forkedBySignal = ::fork(); });
      ::ualarm(20'000, 0);
      EXPECT_EQ(manager()->runOnce(100), 0);
      if (forkedBySignal == 0) {
         EXPECT_EQ(manager()->runOnce(200), 0); // while the sibling ends
         Watched own;
         own.write();
         EXPECT_EQ(manager()->runOnce(1000), 1);
         ::_exit(testing::Test::HasFailure());
      }
      gate.open();
      EXPECT_EQ(manager()->runOnce(1000), 1);
      int status = -1;
      EXPECT_EQ(::waitpid(forkedBySignal, &status, 0), forkedBySignal);
      EXPECT_EQ(status, 0);
   }));
}

// Cases of this table once more, by the process id.
FAULT(thereAreNoPagesThatForkWipes, World&) {
   expectHeld(apart([] {
      refuse(SYS_madvise, EINVAL);
      ::execl("/proc/self/exe", "inTheChild",
              "--gtest_filter=*itDoesAsItLikes*:*itsSiblingsAreNot*:*inheritedNumbers*:*aSignalH*",
              nullptr);
   }));
}

FAULT(childrenTrackTheirOwnToAnyDepth, World& world) {
   const Shared<int> deepest;
   std::function<void(int)> descend = [&](int depth) {
      *deepest = std::max(*deepest, depth);
      if (depth == 3) {
         return;
      }
      world.tracker = Zor::newTracker<RudeTracker>(); // the inherited one goes
      for (int child = 0; child < 3; ++child) {
         world.start([&] { descend(depth + 1); }, child == 0 ? keeping({2}) : nullptr);
      }
      world.runAll();
      EXPECT_EQ(world.tracker->outcomes(), 300U);
   };
   descend(0);
   EXPECT_EQ(*deepest, 3);
}

} // namespace
