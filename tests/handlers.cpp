// What handlers and hooks may do, and what comes of it when they fail.
#include "Faults.h"

#include <stdexcept>

namespace {

[[noreturn]] void fail(const Child&) { throw std::runtime_error("hook"); }

// ---- the tracker and what it holds go while they are at work ----

FAULT(theTrackerIsDroppedInAnyCallOfItsOwn, World& world) {
   for (const std::string call : {"processIs", "childProcessIs", "lastFailed", "error", "errors",
                                  "hook", "processDel", "childProcessDel"}) {
      SCOPED_TRACE(call);
      world.tracker = Zor::newTracker<RudeTracker>();
      world.tracker->called = [&](const std::string& now) {
         if (now == call) {
            world.tracker = nullptr;
         }
      };
      world.start([] { ::_exit(3); });
      EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
      EXPECT_FALSE(world.tracker);
   }
   world.tracker = Zor::newTracker<RudeTracker>();
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
   Vel::TraceFacility::sinkIs([&](auto&&...) { world.tracker = nullptr; }); // in forkChild's first
   EXPECT_GT(world.start([] { ::_exit(3); }), 0);
   EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
   world.tracker = Zor::newTracker<RudeTracker>();
   world.tracker->called = [&](const std::string& now) {
      if (now == "childProcessIs") {
         world.tracker = nullptr;
      }
   };
   EXPECT_EQ(world.record(9)->pid(), 9); // nobody holds it but the operation itself
   for (const bool byIterator : {false, true}) {
      world.tracker = Zor::newTracker<RudeTracker>();
      world.record(9);
      world.tracker->called = [&](const std::string& now) {
         if (now == "childProcessDel") {
            world.tracker = nullptr;
         }
      };
      Sm::ProcessMap::Iterator at(&world.tracker->process());
      EXPECT_EQ((byIterator ? world.tracker->processDel(at) : world.tracker->processDel(9))->pid(),
                9);
      EXPECT_FALSE(world.tracker);
   }
}

// The reactors are told something while an end that nobody has removed is still there to be told:
// its hook drops whatever else would hold them.
FAULT(reactorsAreDroppedByTheEndThatTheyTell, World& world) {
   const auto other = Vel::newEntity<Siginfo>("other", 7);
   const auto twin = Vel::newEntity<Zor::ChildProcess>(7, "twin", world.readEnd());
   const std::function<void(Reactor*)> acts[] = {
      [&](Reactor* reactor) { reactor->siginfoIs(other); },
      [&](Reactor* reactor) { reactor->siginfo().get()->notifierIs(other); },
      [&](Reactor* reactor) { reactor->notifierIs(twin); },
      [&](Reactor* reactor) { reactor->childProcessTrackerSm()->childProcessIs(twin); },
   };
   for (const auto& act : acts) {
      world.tracker = Zor::newTracker<RudeTracker>();
      world.tracker->hook = fail;
      EXPECT_THROW(endIs(*world.record(7), Siginfo::exited), std::runtime_error);
      world.tracker->hook = [&](const Child&) { world.tracker = nullptr; };
      act(world.tracker->childProcess(7));
      EXPECT_FALSE(world.tracker);
   }
}

FAULT(reactorsAreWithoutTrackerOrChild, World& world) {
   Calls calls;
   const auto child = world.record(7);
   const auto lonely = world.record(8);
   const Vel::Ptr<Reactor> reactor = world.tracker->childProcess(7);
   const Vel::Ptr<Reactor> childless = world.tracker->childProcess(8);
   childless->notifierIs(world.tracker); // of another class: counts as none
   world.trace(calls);
   endIs(*lonely, Siginfo::exited);
   world.tracker = nullptr;
   EXPECT_FALSE(reactor->childProcessTrackerSm() || childless->childProcessTrackerSm());
   reactor->velDoZombieReactors(false); // even when somebody wakes it again
   endIs(*child, Siginfo::exited);
   child->siginfoIs("other", 7)->signalCodeIs(Siginfo::killed);
   EXPECT_EQ(calls, Calls());

   world.tracker = Zor::newTracker<RudeTracker>();
   for (const int pid : {5000000, 5000004, 5000008}) { // of one bucket
      world.record(pid);
   }
   for (const int pid : {5000000, 5000004, 5000008}) {
      world.tracker->childProcess(pid)->notifierIs(nullptr);
   }
   world.tracker->childProcessDelAll();
   EXPECT_EQ(world.tracker->childProcess().members(), 0U);
   world.tracker->newChildProcess(nullptr);
   world.tracker->called = [&](const std::string& call) { // one comes for each that goes
      if (call == "childProcessDel at") {
         world.tracker->newChildProcess(nullptr);
      }
   };
   world.tracker->childProcessDelAll();
   EXPECT_EQ(world.tracker->childProcess().members(), 1U);
}

// ---- hooks ----

FAULT(theHookChangesTheRegistry, World& world) {
   RudeTracker* tracker = nullptr;
   const std::pair<std::function<void(const Child&)>, std::set<int>> rows[] = {
      {[&](const Child& child) { tracker->processDel(child->pid()); }, {1, 2, 4, 5}},
      {[&](const Child&) { tracker->processDelAll(); }, {}},
      {[&](const Child&) { tracker->childProcessDelAll(); }, {1, 2, 4, 5}},
      {[&](const Child&) { tracker->processDel(3), world.record(3, "another"); }, {1, 2, 3, 4, 5}},
   };
   for (const auto& row : rows) {
      world.tracker = Zor::newTracker<RudeTracker>();
      tracker = world.tracker.get();
      tracker->hook = row.first;
      for (const int pid : {1, 2, 3, 4, 5}) {
         world.record(pid);
      }
      endIs(*tracker->process(3), Siginfo::exited);
      std::set<int> left;
      for (const auto& child : tracker->process()) {
         left.insert(child.pid());
      }
      EXPECT_EQ(left, row.second);
      EXPECT_EQ(tracker->outcomes(), 100U);
   }
   tracker->hook = nullptr;
   endIs(*tracker->process(3), Siginfo::killed, 9); // the newcomer is watched like any other
   EXPECT_EQ(tracker->outcomes(), 101U);
}

FAULT(theHookForksAndRunsTheLoopAndTheCountWraps, World& world) {
   unsigned generations = 0;
   world.tracker->successfulTerminationCountIs(~0U);
   world.tracker->hook = [&](const Child&) {
      if (++generations < 5) {
         world.start([] {});
         EXPECT_TRUE(runUntil([&] { return generations >= 5; }));
      }
   };
   world.start([] {});
   EXPECT_TRUE(runUntil([&] { return generations >= 5 && world.tracker->left() == 0; }));
   EXPECT_EQ(world.tracker->outcomes(), 400U);
   EXPECT_EQ(world.tracker->told, 5U);
}

// The parent's fetched ends are not the child's, nor are its siblings, by pidfd or by asking.
FAULT(aChildComesOutOfTheHookThatForkedIt, World& world) {
   const Shared<int> toldInChild;
   const pid_t self = ::getpid();
   const Gate gate;
   world.tracker->hook = [&](const Child&) {
      *toldInChild += ::getpid() != self;
      if (::getpid() == self && world.tracker->told == 1) {
         world.tracker->forkChild("out of the hook, into the loop", nullptr, nullptr, nullptr);
      }
      if (::getpid() != self || world.tracker->told == 5) {
         manager()->stop();
      }
   };
   for (int child = 0; child < 4; ++child) { // with pipes that are held
      awaitZombie(world.start([&] { ::fork() == 0 ? gate.pass() : ::_exit(0); }));
   }
   manager()->run();
   if (::getpid() != self) {
      EXPECT_EQ(manager()->runOnce(10), 0);
      EXPECT_EQ(world.tracker->told, 1U);
      ::_exit(testing::Test::HasFailure());
   }
   gate.open(4);
   EXPECT_EQ(*toldInChild, 0);
   EXPECT_EQ(world.tracker->outcomes(), 500U);
}

// ---- ends that are told at odd moments ----

FAULT(theEndIsRecordedBeforeTheReactorExists, World& world) {
   world.tracker->called = [&](const std::string& call) {
      if (call == "childProcessIs") {
         endIs(*world.tracker->process().begin(), Siginfo::exited, 3);
      }
   };
   const auto child = world.record(7);
   EXPECT_EQ(world.tracker->outcomes(), 1U);
   EXPECT_EQ(world.tracker->left() + world.tracker->childProcess().members(), 0U);
   EXPECT_EQ(world.tracker->lastFailedProcess(), child);
   world.tracker->hook = fail;
   EXPECT_THROW(world.record(8), std::runtime_error);
   EXPECT_NE(world.tracker->process(8), nullptr); // a child whose hook throws stays
   EXPECT_EQ(world.tracker->childProcess(8), nullptr);
   world.tracker->hook = nullptr;
   world.tracker->handleTerminatedChildProcess(8); // ... and may be handled again
   EXPECT_EQ(world.tracker->left(), 0U);
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

FAULT(earlierHandlersThrow, World& world) {
   for (const int value : {5, -SIGTERM, 0}) {
      const Child child = world.childOf(world.start([value] { endWith(value); }));
      const auto listener = Vel::newEntity<Listener>();
      listener->notifierIs(child->siginfo());
      listener->isRegisteredNotifieeIs(true);
      EXPECT_THROW(manager()->runOnce(5000), int);
      EXPECT_EQ(world.tracker->process(child->pid()), nullptr) << "the tracker heard it too";
      const Calls heard = value > 0   ? Calls{"status0", "code3"}
                          : value < 0 ? Calls{"signal0", "code4"}
                                      : Calls{"code3"};
      EXPECT_EQ(listener->calls, heard);
   }
}

// ---- what is missing ----

FAULT(thereIsNoMemoryForANotifiee, World&) {
   struct Quiet final : Siginfo::NotifieeConst {};
   const auto siginfo = Vel::newEntity<Siginfo>("siginfo", 1);
   const auto first = Vel::newEntity<Quiet>();
   const auto second = Vel::newEntity<Quiet>();
   for (const auto& listener : {first, second}) {
      listener->notifierIs(siginfo);
      listener->isRegisteredNotifieeIs(true);
   }
   for (const auto& listener : {second, first}) {
      listener->hasNotificationActiveIs(false);
   }
   first->hasNotificationActiveIs(true);
   newsLeft = 0;
   EXPECT_THROW(second->hasNotificationActiveIs(true), std::bad_alloc);
   newsLeft = std::numeric_limits<int>::max();
   second->hasNotificationActiveIs(true); // can be tried again
   EXPECT_TRUE(second->isRegisteredNotifiee());
}

FAULT(traceOutputFails, World& world) {
   const int standardError = ::dup(2);
   for (const char* to : {"/dev/full", "/dev/null"}) { // the second can't even be written to
      const int sink = ::open(to, std::string(to) == "/dev/full" ? O_WRONLY : O_RDONLY);
      ::dup2(sink, 2);
      ::close(sink);
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
      expectEnd(world.childOf(world.start([] { ::_exit(4); })), Siginfo::exited, 4);
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      ::dup2(standardError, 2);
   }
   ::close(standardError);
   for (int news = 0; news < 8; ++news) { // no memory for the message: the end is told all the same
      awaitZombie(world.start([] { ::_exit(4); }));
      Vel::TraceFacility::sinkIs([](auto&&...) {});
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
      newsLeft = news;
      const int made = manager()->runOnce(1000);
      newsLeft = std::numeric_limits<int>::max();
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      EXPECT_EQ(made, 1);
   }
   Vel::TraceFacility::sinkIs({});
   EXPECT_EQ(world.tracker->outcomes(), 10U);
}

} // namespace
