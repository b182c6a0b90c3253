// The event loop: what is watched and when, what handlers may do to it.
#include "TrackerFixture.h"
#include "Watched.h"

#include <array>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

using testing::ElementsAre;

using Activity = TrackerTest;

// ---- what is watched ----

TEST_F(Activity, ADescriptorIsWatchedOnceItHasANumberASettingAndARegisteredNotifiee) {
   Watched watched;
   watched.write();
   const int number = watched.fd->descriptor();
   const std::function<void(bool)> conditions[] = {
      [&](bool on) { on ? watched.fd->descriptorIs(number) : manager()->fdDel(number); },
      [&](bool on) { watched.fd->notifyOnReadableIs(on); },
      [&](bool on) { watched.watcher->isRegisteredNotifieeIs(on); },
   };
   for (const auto& order : {std::array{0, 1, 2}, {1, 2, 0}, {2, 1, 0}}) {
      EXPECT_EQ(manager()->runOnce(0) + manager()->runOnce(0), 2) << "level-triggered";
      for (const bool on : {false, true}) {
         for (const int each : order) {
            conditions[each](on);
            EXPECT_EQ(manager()->runOnce(0), on && each == order[2] ? 1 : 0);
         }
         EXPECT_EQ(manager()->fd(number), on);
      }
   }
}

TEST_F(Activity, ADescriptorWhoseLastWatcherLeavesInItsHandlerIsNotWatched) {
   Watched watched;
   watched.write();
   const auto other = Vel::newEntity<Watcher>();
   other->notifierIs(watched.fd);
   for (const bool joins : {true, false}) { // one that came and went
      other->isRegisteredNotifieeIs(joins);
      EXPECT_TRUE(joins || watched.watcher->isRegisteredNotifiee());
   }
   watched.watcher->heard = [&] { watched.watcher->isRegisteredNotifieeIs(false); };
   EXPECT_EQ(manager()->runOnce(0), 1);
   expectQuiet(20, 0);
}

TEST_F(Activity, EachConditionReachesItsHandlers) {
   enum Setting { readable = 1, writable = 2, exception = 4 };
   const auto byte = [](int peer) { EXPECT_EQ(::send(peer, "x", 1, 0), 1); };
   const auto hangUp = [](int peer) { ::shutdown(peer, SHUT_RDWR); };
   const auto nothing = [](int) {};
   struct {
      void (*happens)(int peer);
      int settings;
      Calls calls;
   } const rows[] = {
      {nothing, readable | writable | exception, {"writable"}},
      {byte, readable | writable, {"readable", "writable"}},
      {byte, exception, {}},
      {hangUp, exception, {"exception"}},
      {hangUp, readable | writable | exception, {"readable", "writable", "exception"}},
   };
   for (const auto& row : rows) {
      int ends[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
      Watched watched(ends[0]);
      watched.writeEnd = ends[1];
      watched.fd->notifyOnReadableIs(row.settings & readable);
      watched.fd->notifyOnWritableIs(row.settings & writable);
      watched.fd->notifyOnExceptionIs(row.settings & exception);
      row.happens(ends[1]);
      EXPECT_EQ(manager()->runOnce(0), row.calls.empty() ? 0 : 1);
      EXPECT_EQ(watched.watcher->calls, row.calls) << &row - rows;
   }
}

TEST_F(Activity, WhatCannotBeWatchedIsToldAndChangesNothing) {
   const int file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
   for (const int useless : {file, 1000, 1 << 20}) {
      Watched watched;
      const int present = watched.fd->descriptor();
      EXPECT_THROW(watched.fd->descriptorIs(useless), Vel::SystemException);
      EXPECT_EQ(watched.fd->descriptor(), present);
      EXPECT_FALSE(manager()->fd(useless));
   }
   {
      const Watched pollSet(manager()->pollFd()); // not the manager's own from now on
      EXPECT_NE(manager()->pollFd(), pollSet.fd->descriptor());
   }
   Watched watched;
   watched.watcher->isRegisteredNotifieeIs(true); // as it is
   watched.watcher->isRegisteredNotifieeIs(false);
   watched.fd->descriptorIs(file);
   EXPECT_THROW(watched.watcher->isRegisteredNotifieeIs(true), Vel::SystemException);
   EXPECT_FALSE(watched.watcher->isRegisteredNotifiee());
}

TEST_F(Activity, ANumberHasOneOwnerWhoClosesItUnlessToldToForget) {
   Watched first;
   first.write();
   const int number = first.fd->descriptor();
   const int shared = ::dup(number); // as in a child: closing alone leaves it in the poll set
   Watched second(number);
   EXPECT_EQ(first.fd->descriptor(), -1);
   EXPECT_EQ(manager()->runOnce(0), 1);
   EXPECT_THAT(first.watcher->calls, ElementsAre());
   EXPECT_THAT(second.watcher->calls, ElementsAre("readable"));
   first.drop();
   EXPECT_TRUE(isOpen(number));
   int ends[2];
   ASSERT_EQ(::pipe(ends), 0);
   second.fd->nonBlockingIs(true);
   second.fd->nonBlockingIs(true); // as it is
   second.fd->descriptorIs(ends[0]);
   EXPECT_NE(::fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0) << "on for those to come";
   second.fd->nonBlockingIs(false);
   EXPECT_EQ(::fcntl(ends[0], F_GETFL) & O_NONBLOCK, 0);
   EXPECT_FALSE(isOpen(number));
   EXPECT_FALSE(readableNow(manager()->pollFd()));
   ::close(shared);
   second.fd->descriptorIs(ends[1]);
   EXPECT_FALSE(isOpen(ends[0]));
   manager()->fdDel(ends[1]);
   second.drop();
   EXPECT_EQ(::close(ends[1]), 0);
}

// ---- what was fetched ----

// Both are ready in the same batch; whichever is first does something to the other one.
TEST_F(Activity, AFetchedEventIsNotDeliveredToWhateverHasTheNumberNow) {
   std::optional<Watched> newcomer;
   const std::function<void(Watched&, int)> acts[] = {
      [](Watched& other, int) { other.fd->notifyOnReadableIs(false); },
      [](Watched& other, int) { other.watcher->isRegisteredNotifieeIs(false); },
      [](Watched&, int number) {
         manager()->fdDel(number);
         ::close(number);
      },
      [](Watched& other, int number) {
         other.fd->descriptorIs(-1);
         other.fd->descriptorIs(quietAs(number));
      },
      [&](Watched& other, int number) {
         other.drop();
         newcomer.emplace();
         EXPECT_EQ(newcomer->fd->descriptor(), number);
      },
   };
   for (const auto& act : acts) {
      Watched pair[2];
      const Vel::Ptr<Watcher> watchers[2] = {pair[0].watcher, pair[1].watcher};
      for (Watched& each : pair) {
         Watched& other = &each == pair ? pair[1] : pair[0];
         each.watcher->heard = [&] { act(other, other.fd->descriptor()); };
         each.write();
      }
      EXPECT_EQ(manager()->runOnce(0), 1);
      EXPECT_EQ(watchers[0]->calls.size() + watchers[1]->calls.size(), 1U) << &act - acts;
   }
   EXPECT_THAT(newcomer->watcher->calls, ElementsAre());
}

TEST_F(Activity, TheRestOfARoundIsNotForADescriptorThatCameOrForAHandleThatWent) {
   for (const bool comes : {true, false}) {
      int ends[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
      ASSERT_EQ(::send(ends[1], "x", 1, 0), 1);
      Watched watched(ends[0]);
      watched.fd->notifyOnWritableIs(true);
      watched.writeEnd = ends[1];
      watched.watcher->heard = [&] {
         if (comes) {
            watched.fd->descriptorIs(-1);
            watched.fd->descriptorIs(quietAs(ends[0]));
            EXPECT_THAT(watched.watcher->calls, ElementsAre("readable"));
         } else {
            watched.drop(); // the last handle on it
            EXPECT_TRUE(isOpen(ends[0]));
         }
      };
      EXPECT_EQ(manager()->runOnce(0), 1);
      EXPECT_EQ(isOpen(ends[0]), comes);
   }
}

// ---- rude handlers ----

TEST_F(Activity, ANestedCallDeliversWhatWasFetchedFirstAndEachCallReturnsItsOwn) {
   Watched three[3];
   Watched later;
   int nested = -1;
   for (Watched& each : three) {
      each.write();
      each.watcher->heard = [&] {
         each.read();
         if (nested < 0) {
            later.write();
            later.watcher->heard = [&] { later.read(); };
            nested = 0;
            nested = manager()->runOnce(0);
            EXPECT_THAT(later.watcher->calls, ElementsAre());
         }
      };
   }
   EXPECT_EQ(manager()->runOnce(0), 1);
   EXPECT_EQ(nested, 2);
   EXPECT_EQ(manager()->runOnce(0), 1);
   EXPECT_THAT(later.watcher->calls, ElementsAre("readable"));
   EXPECT_EQ(manager()->runOnce(0), 0);
}

TEST_F(Activity, ARunThatIsLeftByAnExceptionLeavesItsCountToTheOuterOne) {
   Watched outer;
   Watched inner;
   inner.watcher->heard = [] { throw std::runtime_error("left"); };
   outer.watcher->heard = [&] {
      outer.read();
      inner.write();
      EXPECT_THROW(manager()->runOnce(1000), std::runtime_error);
      inner.read();
   };
   outer.write();
   EXPECT_EQ(manager()->runOnce(1000), 2);
}

TEST_F(Activity, StopEndsTheInnermostRun) {
   manager()->stop(); // of nothing, and not of the run to come
   Watched watched;
   watched.write();
   std::size_t innerEnded = 0;
   watched.watcher->heard = [&] {
      if (watched.watcher->calls.size() > 1) {
         return manager()->stop();
      }
      manager()->run();
      innerEnded = watched.watcher->calls.size();
   };
   manager()->run();
   EXPECT_EQ(innerEnded, 2U);
   EXPECT_EQ(watched.watcher->calls.size(), 3U) << "the outer one went on";
}

// What its parent's poll set said of a descriptor is not told on in the child, whose own says it
// again.
TEST_F(Activity, AChildThatComesOutOfAHandlerAsksItsOwnPollSet) {
   EXPECT_EQ(apart([] {
                Watched both(::eventfd(1, EFD_NONBLOCK));
                both.fd->notifyOnWritableIs(true);
                pid_t child = -1;
                both.watcher->heard = [&] { child = child < 0 ? ::fork() : child; };
                EXPECT_EQ(manager()->runOnce(1000), 1);
                EXPECT_EQ(both.watcher->calls.size(), child == 0 ? 1U : 2U);
                EXPECT_EQ(manager()->runOnce(1000), 1);
                EXPECT_EQ(both.watcher->calls.size(), child == 0 ? 3U : 4U);
                if (child == 0) {
                   ::_exit(testing::Test::HasFailure());
                }
                int status = -1;
                EXPECT_EQ(::waitpid(child, &status, 0), child);
                EXPECT_EQ(status, 0);
             }),
             0);
}

// ---- waiting ----

TEST_F(Activity, WaitingLastsAsLongAsAskedWhateverSignalsCome) {
   struct sigaction previous;
   struct sigaction noted {};
   noted.sa_handler = [](int) {};
   ASSERT_EQ(::sigaction(SIGALRM, &noted, &previous), 0);
   itimerval storm{};
   for (const int interval : {0, 500}) {
      storm.it_value.tv_usec = storm.it_interval.tv_usec = interval;
      ASSERT_EQ(::setitimer(ITIMER_REAL, &storm, nullptr), 0);
      for (const int timeout : {0, 50}) {
         const auto before = std::chrono::steady_clock::now();
         const std::clock_t busyBefore = std::clock();
         EXPECT_EQ(manager()->runOnce(timeout), 0);
         const auto took = std::chrono::steady_clock::now() - before;
         EXPECT_GE(took, std::chrono::milliseconds(timeout));
         EXPECT_LT(took, std::chrono::milliseconds(timeout + 500));
         EXPECT_LT(std::clock() - busyBefore, CLOCKS_PER_SEC * 3 / 100);
      }
      Watched timer(::timerfd_create(CLOCK_MONOTONIC, 0));
      itimerspec soon{};
      soon.it_value.tv_nsec = 20'000'000;
      ASSERT_EQ(::timerfd_settime(timer.fd->descriptor(), 0, &soon, nullptr), 0);
      EXPECT_EQ(manager()->runOnce(-1), 1);
   }
   storm = {};
   ::setitimer(ITIMER_REAL, &storm, nullptr);
   ::sigaction(SIGALRM, &previous, nullptr);
}

TEST_F(Activity, WithoutAPollSetWaitingFailsAndGoesOnOnceThereIsOne) {
   // A sanitizer opens descriptors for what it first sees.
   EXPECT_THROW(Vel::throwSystemException("seen", EBADF), Vel::SystemException);
   EXPECT_EQ(apart([] {
                const Watched watched; // this process has a set, its child must make its own
                watched.write();
                EXPECT_EQ(apart([&] {
                             descriptorLimitIs(static_cast<rlim_t>(NextPipe().read));
                             EXPECT_THROW(manager()->runOnce(0), Vel::SystemException);
                             descriptorLimitIs(1024);
                             EXPECT_EQ(manager()->runOnce(0), 1);
                          }),
                          0);
                refuse(SYS_epoll_wait, EBADF);
                EXPECT_THROW(manager()->runOnce(-1), Vel::SystemException);
             }),
             0);
}

// The number of a watched descriptor is closed by somebody, while a copy keeps it in the poll set.
TEST_F(Activity, ADescriptorThatWasClosedAndComesBackIsWatchedAgain) {
   Watched first;
   const int number = first.fd->descriptor();
   const int copy = ::dup(number);
   ::close(number);
   manager()->fdDel(number);
   EXPECT_EQ(::dup2(copy, number), number);
   const Watched second(number);
   first.write();
   EXPECT_EQ(manager()->runOnce(0), 1);
   EXPECT_EQ(second.watcher->calls.size(), 1U);
   ::close(copy);
}

TEST_F(Activity, APollSetThatWasClosedIsReplaced) {
   for (const bool reused : {true, false}) {
      EXPECT_EQ(apart([&] {
                   Watched watched;
                   watched.write();
                   const int set = manager()->pollFd();
                   const Watched closed; // numbers that somebody has taken meanwhile
                   const Watched file;
                   manager()->runOnce(0);
                   ::syscall(SYS_close, closed.fd->descriptor());
                   ::dup2(::open("/proc/self/exe", O_RDONLY), file.fd->descriptor());
                   reused ? ::dup2(1, set) : ::close(set);
                   EXPECT_EQ(manager()->runOnce(1000), 1);
                   EXPECT_TRUE(readableNow(manager()->pollFd()));
                }),
                0);
   }
}

} // namespace
