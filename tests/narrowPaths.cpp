// Ways through the library that few programs take, each of which once led to a lost, false or late
// end, to silence, or to a busy loop. Every case runs in a process of its own.
#include "TrackerFixture.h"

#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

Vel::Ptr<Vel::ActivityManagerSm> loop() { return Vel::ActivityImplFacility::activityManagerSm(); }

struct Hooked final : Sm {
   std::function<void(const Child&)> hook;
   int ends = 0;
   int code = 0; // of the last one
   void forkedChildExitCallback(const Child& child) override {
      ++ends;
      code = static_cast<int>(child->siginfo()->signalCode());
      if (hook) {
         hook(child);
      }
   }
   int start(const std::function<void()>& body) {
      const int pid = forkChild("child", nullptr, nullptr, nullptr);
      if (pid == 0) {
         body();
         ::_exit(3);
      }
      return pid;
   }
};

struct Reader final : Vel::FileDescriptor::NotifieeConst {
   int reads = 0;
   void onReadable() override {
      char byte = 0;
      reads += static_cast<int>(::read(notifier()->descriptor(), &byte, 1));
   }
};

struct WatchedPipe {
   WatchedPipe() {
      EXPECT_EQ(::pipe(ends), 0);
      fd->descriptorIs(ends[0]);
      fd->notifyOnReadableIs(true);
      reader->notifierIs(fd);
      reader->isRegisteredNotifieeIs(true);
   }
   int ends[2];
   Vel::Ptr<Vel::FileDescriptor> fd = Vel::newEntity<Vel::FileDescriptor>("pipe");
   Vel::Ptr<Reader> reader = Vel::newEntity<Reader>();
};

void losePollSet() {
   const int set = loop()->pollFd();
   loop()->fdDel(set);
   ::close(set);
}

void runUntil(int milliseconds, const std::function<bool()>& done) {
   for (int round = 0; round < milliseconds / 20 && !done(); ++round) {
      loop()->runOnce(20);
   }
}

int asProcess(const std::function<bool()>& holds) {
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::alarm(20);
      ::_exit(holds() ? 0 : 1);
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   return status;
}

void refusePidfds() { refuse(SYS_pidfd_open, ENOSYS); }

bool aChildOutOfAHookLeavesItsSiblingsAlone() {
   refusePidfds();
   const auto tracker = Zor::newTracker<Hooked>();
   const pid_t self = ::getpid();
   const Shared<int> inChild;
   tracker->hook = [&](const Child&) {
      *inChild += ::getpid() != self;
      if (::getpid() == self && tracker->ends == 1) {
         tracker->forkChild("out of the hook, into the loop", nullptr, nullptr, nullptr);
      }
   };
   for (int child = 0; child < 4; ++child) { // with pipes that are held, so that only asking tells
      tracker->start([] { ::fork() == 0 ? static_cast<void>(::sleep(3)) : ::_exit(0); });
   }
   runUntil(3000, [&] { return ::getpid() != self || tracker->ends == 5; });
   if (::getpid() != self) {
      ::_exit(0);
   }
   return *inChild == 0 && tracker->ends == 5;
}

bool aChildReapedWhileItsPidfdWasGoneIsLost() {
   const auto tracker = Zor::newTracker<Hooked>();
   ::waitpid(tracker->start([] {}), nullptr, 0);
   const auto keep = Vel::newEntity<Context>();
   for (const int descriptor : {0, 1, 2}) {
      keep->skipFdIs(descriptor, true);
   }
   Zor::childProcessTrackerCloseFds(keep);
   runUntil(3000, [&] { return tracker->ends != 0; });
   return tracker->ends == 1 && tracker->code == Siginfo::lost;
}

bool aPidfdTakesItsNumberFromWhoeverHadItClosed() {
   loop()->pollFd();
   const int lower = ::dup(0);
   const int pidfd = ::dup(0); // the number that the write end, and then the pidfd, will get
   const auto stale = Vel::newEntity<Vel::FileDescriptor>("stale");
   stale->descriptorIs(pidfd);
   ::close(lower);
   ::close(pidfd);
   const auto tracker = Zor::newTracker<Hooked>();
   tracker->start([] {});
   runUntil(3000, [&] { return tracker->ends != 0; });
   return tracker->errorTerminationCount() == 1 && stale->descriptor() == -1;
}

bool aHugeNumberIsNoOnesAndAFreshPollSetWatchesAll() {
   const WatchedPipe pipe;
   const auto tracker = Zor::newTracker<Hooked>();
   const pid_t child = ::fork();
   if (child == 0) {
      ::_exit(3);
   }
   tracker->processIs(child, "raw", std::numeric_limits<int>::max());
   runUntil(3000, [&] { return tracker->ends != 0; });
   losePollSet();
   EXPECT_EQ(::write(pipe.ends[1], "x", 1), 1);
   loop()->runOnce(100);
   return tracker->errorTerminationCount() == 1 && pipe.reader->reads == 1;
}

bool aForgottenPipeOfAnUnwatchedSiginfoIsNothing() {
   const auto siginfo = Vel::newEntity<Siginfo>("siginfo", ::getppid());
   const int pipe = ::dup(0);
   siginfo->childPipeIs("pipe")->descriptorIs(pipe);
   loop()->fdDel(pipe);
   return siginfo->childPipe()->descriptor() == -1;
}

bool idleChildrenAreAskedAfterInLongPausesHoweverMany() {
   refusePidfds();
   const auto tracker = Zor::newTracker<Hooked>();
   for (int child = 0; child < 300; ++child) {
      tracker->start([] { ::pause(); });
   }
   runUntil(1500, [] { return false; });
   const auto before = loop()->wakeups().total;
   runUntil(1500, [] { return false; });
   const auto wakeups = loop()->wakeups().total - before;
   for (const auto& child : tracker->process()) {
      child.siginfo()->signal(SIGKILL);
   }
   runUntil(5000, [&] { return tracker->ends == 300; });
   return wakeups < 20 && tracker->errorTerminationCount() == 300;
}

bool endsBehindManyEarlyPipeEndsAreDeliveredAtOnce() {
   const auto tracker = Zor::newTracker<Hooked>();
   loop()->pollFd();
   int gate[2];
   EXPECT_EQ(::pipe(gate), 0);
   for (int child = 0; child < 150; ++child) {
      tracker->start([&] {
         ::syscall(SYS_close_range, gate[1], ~0U, 0);
         char byte = 0;
         ::_exit(static_cast<int>(::read(gate[0], &byte, 1)));
      });
   }
   ::usleep(100'000);
   ::close(gate[1]);
   ::usleep(200'000);
   int delivered = 0;
   while (const int made = loop()->runOnce(0)) {
      delivered += made;
   }
   return delivered == 150;
}

bool reactorsWithoutAChildAreAllRemoved() {
   const auto tracker = Zor::newTracker<Hooked>();
   for (const int pid : {5000000, 5000004, 5000008}) {
      tracker->processIs(pid, "stranger", ::dup(WatchedPipe().ends[0]));
   }
   for (const int pid : {5000000, 5000004, 5000008}) {
      tracker->childProcess(pid)->notifierIs(nullptr);
   }
   tracker->childProcessDelAll();
   return tracker->childProcess().members() == 0;
}

bool switchingOnWithoutMemoryCanBeTriedAgain() {
   struct Listener final : Siginfo::NotifieeConst {};
   const auto siginfo = Vel::newEntity<Siginfo>("siginfo", 1);
   const auto first = Vel::newEntity<Listener>();
   const auto second = Vel::newEntity<Listener>();
   for (const auto& listener : {first, second}) {
      listener->notifierIs(siginfo);
      listener->isRegisteredNotifieeIs(true);
   }
   for (const auto& listener : {second, first}) {
      listener->hasNotificationActiveIs(false);
   }
   first->hasNotificationActiveIs(true);
   newsLeft = 0;
   try {
      second->hasNotificationActiveIs(true);
   } catch (const std::bad_alloc&) {
      newsLeft = std::numeric_limits<int>::max();
   }
   second->hasNotificationActiveIs(true);
   return second->isRegisteredNotifiee();
}

TEST(NarrowPaths, LeadWhereTheyShould) {
   int walked = 0;
   for (bool (*const path)() :
        {aChildOutOfAHookLeavesItsSiblingsAlone, aChildReapedWhileItsPidfdWasGoneIsLost,
         aPidfdTakesItsNumberFromWhoeverHadItClosed, aHugeNumberIsNoOnesAndAFreshPollSetWatchesAll,
         aForgottenPipeOfAnUnwatchedSiginfoIsNothing,
         idleChildrenAreAskedAfterInLongPausesHoweverMany,
         endsBehindManyEarlyPipeEndsAreDeliveredAtOnce, reactorsWithoutAChildAreAllRemoved,
         switchingOnWithoutMemoryCanBeTriedAgain}) {
      EXPECT_EQ(asProcess(path), 0) << "the path after " << walked;
      ++walked;
   }
}

} // namespace
