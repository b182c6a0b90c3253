// The tracker's books: what it registers, how it accounts for ends, and what hooks may do to it.
#include "TrackerFixture.h"

#include <Vel/String8.h>

#include <array>
#include <cstring>
#include <malloc.h>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Vel::String8;

class Tracking : public TrackerTest {
 protected:
   std::uint32_t outcomes() const {
      return tracker->successfulTerminationCount() * 100 + tracker->errorTerminationCount();
   }
   std::set<int> tracked() const {
      std::set<int> pids;
      for (const auto& child : tracker->process()) {
         pids.insert(child.pid());
         EXPECT_NE(tracker->childProcess(child.pid()), nullptr);
      }
      EXPECT_EQ(tracker->childProcess().members(), pids.size());
      return pids;
   }
};

template <class Exception, class Act> std::string messageOf(Act act) {
   try {
      act();
   } catch (const Exception& thrown) {
      return thrown.what();
   }
   return "nothing thrown";
}

// ---- plain attributes ----

TEST_F(Tracking, CountsWrapAndBelongToOneTracker) {
   const Vel::Ptr<Sm> other = Zor::childProcessTrackerSmFactory();
   for (const auto& [start, more, sum] : {std::array{7U, 2U, 9U}, {7U, 0U, 7U}, {~0U, 1U, 0U}}) {
      tracker->successfulTerminationCountIs(start);
      tracker->successfulTerminationCountInc(more);
      EXPECT_EQ(tracker->successfulTerminationCount(), sum);
      tracker->errorTerminationCountIs(start);
      tracker->errorTerminationCountInc(more);
      EXPECT_EQ(tracker->errorTerminationCount(), sum);
   }
   tracker->errorTerminationCountIs(5);
   EXPECT_EQ(other->successfulTerminationCount() + other->errorTerminationCount(), 0U);
   EXPECT_FALSE(other->lastFailedProcess());
   EXPECT_EQ(other->lastFailedProcessTerminationError(), Sm::invalid);
   other->lastFailedProcessTerminationErrorIs(static_cast<Sm::terminationError>(77));
   EXPECT_EQ(other->lastFailedProcessTerminationError(), 77U);
}

TEST_F(Tracking, TheLastFailedIsHeldOnceAndLetGo) {
   const Child first = record(7);
   const Child second = record(8);
   const auto before = first->references();
   tracker->lastFailedProcessIs(first);
   tracker->lastFailedProcessIs(first);
   tracker->lastFailedProcessIs(tracker->lastFailedProcess());
   EXPECT_EQ(first->references(), before + 1);
   tracker->lastFailedProcessIs(second);
   EXPECT_EQ(first->references(), before);
   tracker->Sm::lastFailedProcessIs(nullptr);
   EXPECT_FALSE(tracker->lastFailedProcess());
}

TEST_F(Tracking, TerminationErrorsConvertBothWays) {
   struct {
      unsigned number;
      const char* name;
      bool known;
   } const rows[] = {{0, "invalid", true},
                     {1, "nonZeroExitStatus", true},
                     {2, "signaled", true},
                     {3, "3", false},
                     {4294967295U, "4294967295", false}};
   const std::string where = " in the enumeration Zor::ChildProcessTrackerSm::terminationError";
   for (const auto& row : rows) {
      const auto value = static_cast<Sm::terminationError>(row.number);
      EXPECT_EQ(std::string_view(Zor::stringValue(value)), row.name);
      EXPECT_EQ(std::string_view(Zor::valueToStrep(value)), row.name);
      EXPECT_EQ((std::ostringstream() << value).str(), row.name);
      const String8 text = String8(row.name) + ",";
      String8::IteratorConst at = text.begin();
      EXPECT_EQ(Zor::sequenceToValue(at, text.end(), static_cast<Sm::terminationError*>(nullptr)),
                value);
      EXPECT_EQ(at, text.end() - 1);
      if (row.known) {
         EXPECT_EQ(Sm::terminationErrorInstance(row.number), value);
         EXPECT_EQ(Sm::terminationErrorInstance(String8(row.name)), value);
         continue;
      }
      EXPECT_EQ(messageOf<Vel::RangeException>([&] { Sm::terminationErrorInstance(row.number); }),
                "no value " + std::string(row.name) + where);
   }
   EXPECT_EQ(messageOf<Vel::RangeException>([] { Sm::terminationErrorInstance(String8("Oops")); }),
             "no value \"Oops\"" + where);
   const String8 oops("Oops");
   String8::IteratorConst at = oops.begin();
   EXPECT_EQ(messageOf<Vel::RangeException>([&] {
                Zor::sequenceToValue(at, oops.end(), static_cast<Sm::terminationError*>(nullptr));
             }),
             "no value \"Oops\"" + where);
   EXPECT_EQ(at, oops.begin());
}

// ---- registry ----

TEST_F(Tracking, AKnownNumberIsTheSameRecordOrRefused) {
   const auto first = record(7, "a\"b");
   const Reactor* const reactor = tracker->childProcess(7);
   const int descriptor = first->siginfo()->childPipe()->descriptor();
   const int unused = readEnd();
   EXPECT_EQ(tracker->processIs(7, "a\"b", unused), first);
   EXPECT_EQ(messageOf<Vel::NameInUseException>([&] { tracker->processIs(7, "other\n", unused); }),
             "Reinstantiating the pointer interface where constructor parameter attribute "
             "_description has a different value of \"other\\n\" than the current value of "
             "\"a\\\"b\" not allowed");
   EXPECT_EQ(tracked(), std::set{7});
   EXPECT_EQ(tracker->childProcess(7), reactor);
   EXPECT_EQ(first->siginfo()->childPipe()->descriptor(), descriptor);
   EXPECT_FALSE(manager()->fd(unused));
   EXPECT_EQ(::close(unused), 0);
   EXPECT_EQ(std::string_view(first->siginfo()->name()), "ChildSiginfo-7");
   EXPECT_EQ(std::string_view(first->siginfo()->childPipe()->name()), "Child7Pipe");
   EXPECT_EQ((std::ostringstream() << first.get()).str(), "7 'a\"b'");
}

TEST_F(Tracking, RemovingTakesTheReactorAlongAndIsSeenByADerivedTracker) {
   Calls calls;
   for (const int pid : {1, 2, 3, 0x40000001}) { // 1 and the last share a bucket
      record(pid);
   }
   tracker->calls = &calls;
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(1);
   EXPECT_EQ(tracker->processDel(1)->pid(), 1);
   EXPECT_TRUE(reactor->velMarkedForDeletion() && reactor->siginfo()->velMarkedForDeletion());
   EXPECT_FALSE(reactor->isRegisteredNotifiee() || reactor->siginfo()->isRegisteredNotifiee());
   EXPECT_EQ(reactor->childProcessTrackerSm(), nullptr);
   EXPECT_FALSE(tracker->processDel(1));
   EXPECT_FALSE(tracker->childProcessDel(1));
   EXPECT_THAT(
      calls, ElementsAre("processDel 1", "childProcessDel 1", "processDel 1", "childProcessDel 1"));
   calls.clear();
   tracker->childProcessDelAll();
   EXPECT_THAT(calls, ElementsAre("childProcessDel at 2", "childProcessDel at 1073741825",
                                  "childProcessDel at 3"));
   EXPECT_EQ(tracker->process().members(), 3U);
   calls.clear();
   tracker->processDelAll();
   EXPECT_THAT(calls,
               ElementsAre("processDel at 2", "childProcessDel 2", "processDel at 1073741825",
                           "childProcessDel 1073741825", "processDel at 3", "childProcessDel 3"));
   Sm::ProcessMap::Iterator atEnd(&tracker->process());
   EXPECT_FALSE(tracker->processDel(atEnd));
   EXPECT_THAT(tracked(), IsEmpty());
}

TEST_F(Tracking, AFailedRegistrationLeavesTheDescriptorToTheCaller) {
   const int end = readEnd();
   bool thrown = true;
   const auto attempt = [&] {
      try {
         tracker->processIs(7, {}, end);
         thrown = false;
      } catch (const std::bad_alloc&) {
      }
      newsLeft = std::numeric_limits<int>::max();
      EXPECT_EQ(tracked(), thrown ? std::set<int>{} : std::set{7});
      EXPECT_EQ(manager()->fd(end), !thrown);
      EXPECT_GE(::fcntl(end, F_GETFD), 0);
   };
   tracker->childProcessIsStarts = [](const Child&) { throw std::bad_alloc(); };
   attempt();
   tracker->childProcessIsStarts = nullptr;
   for (int allocations = 0; thrown && allocations < 100; ++allocations) {
      newsLeft = allocations;
      attempt();
   }
   EXPECT_FALSE(thrown);
}

// ---- reactors ----

TEST_F(Tracking, ARetargetedReactorFollowsTheNewObject) {
   Calls calls;
   const auto first = record(7);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const Vel::Ptr<Reactor::VelSiginfo> follower = reactor->siginfo();
   const auto second = Vel::newEntity<Zor::ChildProcess>(7, "twin", readEnd());
   trace(calls);
   tracker->childProcessIs(second); // runs the chain once
   tracker->childProcessIs(second); // knows it already
   EXPECT_EQ(tracker->childProcess(7), reactor.get());
   EXPECT_EQ(reactor->siginfo(), follower);
   EXPECT_EQ(calls.size(), 1U);
   endIs(*first, Siginfo::exited); // no longer watched
   EXPECT_EQ(calls.size(), 1U);
   second->siginfo()->signalCodeIs(Siginfo::killed); // the chain goes by number, to the first
   EXPECT_EQ(outcomes(), 100U);
   EXPECT_EQ(messageOf<Vel::RangeException>([&] { tracker->childProcessIs(nullptr); }),
             "null _childProcess parameter to mutator for Zor::ChildProcessTrackerSm::childProcess "
             "not allowed\"");
}

TEST_F(Tracking, TheSiginfoMayBeReplacedRemovedAndPutBack) {
   Calls calls;
   const auto child = record(7);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const Vel::Ptr<Reactor::VelSiginfo> follower = reactor->siginfo();
   const Vel::Ptr<Siginfo> first = child->siginfo();
   trace(calls);
   EXPECT_EQ(child->siginfoIs("ChildSiginfo-7", 7), first);
   EXPECT_THAT(calls, IsEmpty());
   for (const auto& [name, pid] : {std::pair("ChildSiginfo-7", 8), {"other", 8}, {"other", 9}}) {
      calls.clear();
      const Vel::Ptr<Siginfo> made = child->siginfoIs(name, pid);
      EXPECT_EQ(follower->notifier(), made);
      EXPECT_EQ(reactor->siginfo(), follower);
      EXPECT_EQ(calls.size(), 1U);
   }
   first->signalCodeIs(Siginfo::exited);
   EXPECT_TRUE(child->siginfoDel());
   EXPECT_FALSE(child->siginfoDel());
   EXPECT_FALSE(reactor->siginfo());
   EXPECT_TRUE(follower->velMarkedForDeletion());
   EXPECT_EQ(follower->velChildProcess(), nullptr);
   const auto dropped = follower->notifier();
   const_cast<Siginfo&>(*dropped).signalCodeIs(Siginfo::killed);
   EXPECT_EQ(outcomes(), 0U);
   tracker->handleTerminatedChildProcess(7); // a record without siginfo has no end
   EXPECT_EQ(tracked(), std::set{7});
   child->siginfoIs("back", 7)->signalCodeIs(Siginfo::exited);
   EXPECT_EQ(outcomes(), 100U);
   EXPECT_FALSE(Vel::Ptr<Reactor>(reactor)->childProcessTrackerSm());
}

TEST_F(Tracking, SwitchesReachEveryReactorAndItsFollower) {
   const auto child = record(7);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const auto registered = [&] {
      return reactor->isRegisteredNotifiee() + 10 * reactor->siginfo()->isRegisteredNotifiee() +
             100 * reactor->hasNotificationActive() +
             1000 * reactor->siginfo()->hasNotificationActive() +
             10000 * reactor->velMarkedForDeletion() +
             100000 * reactor->siginfo()->velMarkedForDeletion();
   };
   EXPECT_EQ(registered(), 1111);
   tracker->hasNotificationActiveIs(false);
   EXPECT_EQ(registered(), 0);
   tracker->hasNotificationActiveIs(true);
   EXPECT_EQ(registered(), 1111);
   reactor->isRegisteredNotifieeIs(false); // not registered before, so not afterwards
   tracker->hasNotificationActiveIs(false);
   tracker->hasNotificationActiveIs(true);
   EXPECT_EQ(registered(), 1110);
   reactor->isRegisteredNotifieeIs(true);
   tracker->velDoZombieReactors(true);
   tracker->velDoZombieReactors(true);
   EXPECT_EQ(registered(), 110000);
   EXPECT_TRUE(tracker->childProcess(record(8)->pid())->velMarkedForDeletion());
   tracker->velDoZombieReactors(false);
   EXPECT_EQ(registered(), 1111);
   EXPECT_FALSE(tracker->childProcess(8)->siginfo()->velMarkedForDeletion());
   const Vel::Ptr<Reactor::VelSiginfo> follower = reactor->siginfo();
   EXPECT_EQ(reactor->siginfoDel(), child->siginfo());
   EXPECT_FALSE(reactor->siginfoDel());
   EXPECT_FALSE(follower->hasNotificationActive());
   endIs(*child, Siginfo::exited);
   EXPECT_EQ(outcomes(), 0U);
}

TEST_F(Tracking, AReactorWithoutTrackerOrChildCallsNothing) {
   Calls calls;
   const auto child = record(7);
   const auto lonely = record(8);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const Vel::Ptr<Reactor> childless = tracker->childProcess(8);
   childless->notifierIs(tracker); // of another class: counts as none
   EXPECT_EQ(childless->fwkKey(), 0);
   trace(calls);
   endIs(*lonely, Siginfo::exited);
   EXPECT_THAT(calls, IsEmpty());
   tracker = nullptr;
   EXPECT_EQ(reactor->childProcessTrackerSm(), nullptr);
   EXPECT_EQ(childless->childProcessTrackerSm(), nullptr);
   EXPECT_TRUE(reactor->velMarkedForDeletion());
   reactor->velDoZombieReactors(false); // even when somebody wakes it again
   endIs(*child, Siginfo::exited);
   child->siginfoIs("other", 7)->signalCodeIs(Siginfo::killed);
   reactor->vel_handleSiginfo_signalCode();
   EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Tracking, AnEndRecordedBeforeTheReactorExistsLeavesNoReactor) {
   tracker->childProcessIsStarts = [](const Child& child) { endIs(*child, Siginfo::exited, 3); };
   const auto child = record(7);
   EXPECT_EQ(outcomes(), 1U);
   EXPECT_THAT(tracked(), IsEmpty());
   EXPECT_EQ(tracker->lastFailedProcess(), child);

   tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
   EXPECT_EQ(messageOf<std::runtime_error>([&] { record(8); }), "hook");
   EXPECT_NE(tracker->process(8), nullptr); // a child whose hook throws stays
   EXPECT_EQ(tracker->childProcess(8), nullptr);
}

// ---- termination ----

TEST_F(Tracking, EachEndIsTracedBookedHookedAndForgottenInThisOrder) {
   const std::string from = " handleTerminatedChildProcess void Zor::ChildProcessTrackerSm::"
                            "handleTerminatedChildProcess(S32) ";
   const auto line = [&](int number) {
      return "ChildProcessTracker 8 ChildProcessTracker:" + std::to_string(number) + from;
   };
   const auto code = [&](const char* name) { return line(111) + "7 'worker' signalCode=" + name; };
   const auto exit = [&](const char* status) {
      return line(119) + "7 'worker' exited with status " + status;
   };
   const Calls forgotten = {"hook 7", "processDel 7", "childProcessDel 7"};
   struct {
      Siginfo::SignalCode code;
      std::uint8_t value;
      Calls expected;
      unsigned outcomes;
      Sm::terminationError error;
      bool tracked;
   } const rows[] = {
      {Siginfo::none, 5, {code("none")}, 0, Sm::invalid, true},
      {static_cast<Siginfo::SignalCode>(5), 5, {code("5")}, 0, Sm::invalid, true},
      {Siginfo::lost, 0, {code("lost")}, 0, Sm::invalid, false},
      {Siginfo::exited, 0, {code("exited"), exit("0"), "successes 1"}, 100, Sm::invalid, false},
      {Siginfo::exited,
       1,
       {code("exited"), exit("1"), "lastFailed 7", "error 1", "errors 1"},
       1,
       Sm::nonZeroExitStatus,
       false},
      {Siginfo::exited,
       255,
       {code("exited"), exit("255"), "lastFailed 7", "error 1", "errors 1"},
       1,
       Sm::nonZeroExitStatus,
       false},
      {Siginfo::killed,
       9,
       {code("killed"), line(133) + "7 'worker' killed by signal 9", "lastFailed 7", "error 2",
        "errors 1"},
       1,
       Sm::signaled,
       false},
   };
   for (const bool traced : {true, false}) {
      for (const auto& row : rows) {
         Calls calls;
         Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
         tracker = Zor::newTracker<RudeTracker>();
         const Child child = record(7);
         tracker->hook = [&](const Child& heard) {
            EXPECT_EQ(heard, child);
            EXPECT_EQ(tracker->process(7), child.get());
            EXPECT_EQ(outcomes(), row.outcomes);
         };
         tracker->calls = &calls;
         trace(calls);
         Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, traced);
         endIs(*child, row.code, row.value);
         if (row.code == Siginfo::none) {
            tracker->handleTerminatedChildProcess(7);
         }
         Calls expected = row.expected;
         if (!row.tracked) {
            expected.insert(expected.end(), forgotten.begin(), forgotten.end());
         }
         if (!traced) {
            std::erase_if(expected, [](const auto& call) { return call[0] == 'C'; });
         }
         EXPECT_EQ(calls, expected);
         EXPECT_EQ(outcomes(), row.outcomes);
         EXPECT_EQ(tracker->lastFailedProcessTerminationError(), row.error);
         EXPECT_EQ(tracker->lastFailedProcess() == child, row.error != Sm::invalid);
         EXPECT_EQ(tracked().size(), row.tracked ? 1U : 0U);
      }
   }
}

TEST_F(Tracking, AnUnknownNumberIsTracedAndChangesNothing) {
   Calls calls;
   trace(calls);
   tracker->handleTerminatedChildProcess(-4);
   EXPECT_THAT(calls, ElementsAre("ChildProcessTracker 8 ChildProcessTracker:111 "
                                  "handleTerminatedChildProcess void Zor::ChildProcessTrackerSm::"
                                  "handleTerminatedChildProcess(S32) -4 is not tracked"));
   EXPECT_EQ(outcomes(), 0U);
}

TEST_F(Tracking, WithTracingOffNothingIsComposed) {
   record(7);
   newsLeft = 0;
   tracker->handleTerminatedChildProcess(7);
   tracker->handleTerminatedChildProcess(8);
   newsLeft = std::numeric_limits<int>::max();
}

TEST_F(Tracking, ASuccessLeavesTheLastFailureAlone) {
   for (const int status : {255, 1, 0}) {
      const int pid = forkBody([status] { ::_exit(status); });
      ASSERT_TRUE(runUntil([&] { return tracker->process(pid) == nullptr; }));
   }
   EXPECT_EQ(outcomes(), 102U);
   EXPECT_EQ(tracker->lastFailedProcess()->pid(), forked[1]);
   EXPECT_EQ(tracker->lastFailedProcess()->siginfo()->childPipe()->descriptor(), -1)
      << "a remembered child holds no descriptor";
}

// ---- rude hooks ----

TEST_F(Tracking, AHookThatThrowsLeavesTheChildCountedAndTracked) {
   for (int child = 0; child < 20; ++child) {
      awaitZombie(forkBody([] { ::_exit(3); }));
   }
   tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
   for (unsigned round = 1; round <= 20; ++round) {
      EXPECT_EQ(messageOf<std::runtime_error>([] { manager()->runOnce(1000); }), "hook");
      EXPECT_EQ(outcomes(), round);
   }
   EXPECT_EQ(manager()->runOnce(0), 0);
   EXPECT_EQ(tracked(), std::set(forked.begin(), forked.end()));
   tracker->hook = nullptr;
   tracker->handleTerminatedChildProcess(forked[0]);
   EXPECT_EQ(outcomes(), 21U);
   EXPECT_EQ(tracked().size(), 19U);
}

TEST_F(Tracking, TheTrackerMayBeDroppedInAnyCallOfItsOwn) {
   for (const std::string call : {"processIs", "childProcessIs", "lastFailed", "error", "errors",
                                  "hook", "processDel", "childProcessDel"}) {
      SCOPED_TRACE(call);
      tracker = Zor::newTracker<RudeTracker>();
      tracker->called = [&](const std::string& now) {
         if (now == call) {
            tracker = nullptr;
         }
      };
      forkBody([] { ::_exit(3); });
      EXPECT_TRUE(runUntil([&] { return !hasChildren(); }));
      EXPECT_FALSE(tracker);
   }
   tracker = Zor::newTracker<RudeTracker>();
   tracker->childProcessIsStarts = [this](const Child&) { tracker = nullptr; };
   EXPECT_EQ(record(9)->pid(), 9); // nobody holds it but the operation itself
}

// The reactors are told something while an end that nobody has removed is still there to be told:
// its hook drops whatever else would hold them.
TEST_F(Tracking, ReactorsSurviveTheEndThatTheyTell) {
   const auto other = Vel::newEntity<Siginfo>("other", 7);
   const auto twin = Vel::newEntity<Zor::ChildProcess>(7, "twin", readEnd());
   const std::function<void(Reactor*)> acts[] = {
      [&](Reactor* reactor) { reactor->siginfoIs(other); },
      [&](Reactor* reactor) { reactor->siginfo().get()->notifierIs(other); },
      [&](Reactor* reactor) { reactor->notifierIs(twin); },
      [&](Reactor* reactor) { reactor->childProcessTrackerSm()->childProcessIs(twin); },
      [&](Reactor* reactor) {
         const Vel::Ptr<Reactor> kept(reactor);
         reactor->childProcessTrackerSm()->childProcessIs(twin);
         EXPECT_TRUE(kept->velMarkedForDeletion());
         EXPECT_FALSE(kept->hasNotificationActive());
      },
   };
   for (const auto& act : acts) {
      tracker = Zor::newTracker<RudeTracker>();
      tracker->hook = [](const Child&) { throw std::runtime_error("hook"); };
      EXPECT_THROW(endIs(*record(7), Siginfo::exited), std::runtime_error);
      tracker->hook = [this](const Child&) { tracker = nullptr; };
      act(tracker->childProcess(7));
      EXPECT_FALSE(tracker);
   }
}

TEST_F(Tracking, AHookMayChangeTheRegistry) {
   struct {
      const char* what;
      std::function<void(const Child&)> hook;
      std::set<int> left;
   } const rows[] = {
      {"itself", [&](const Child& child) { tracker->processDel(child->pid()); }, {1, 2, 4, 5}},
      {"a neighbour", [&](const Child&) { tracker->processDel(4); }, {1, 2, 5}},
      {"all", [&](const Child&) { tracker->processDelAll(); }, {}},
      {"all reactors", [&](const Child&) { tracker->childProcessDelAll(); }, {1, 2, 4, 5}},
      {"replaced",
       [&](const Child&) {
          tracker->processDel(3);
          record(3, "another");
       },
       {1, 2, 3, 4, 5}},
   };
   for (const auto& row : rows) {
      SCOPED_TRACE(row.what);
      tracker = Zor::newTracker<RudeTracker>();
      tracker->hook = row.hook;
      for (const int pid : {1, 2, 3, 4, 5}) {
         record(pid);
      }
      endIs(*tracker->process(3), Siginfo::exited);
      std::set<int> left;
      for (const auto& child : tracker->process()) {
         left.insert(child.pid());
      }
      EXPECT_EQ(left, row.left);
      EXPECT_EQ(outcomes(), 100U);
      if (left.count(3) != 0) { // the newcomer is watched like any other
         tracker->hook = nullptr;
         EXPECT_EQ(std::string_view(tracker->process(3)->description()), "another");
         endIs(*tracker->process(3), Siginfo::killed, 9);
         EXPECT_EQ(outcomes(), 101U);
      }
   }
}

TEST_F(Tracking, HooksMayRemoveWhileSomebodyIterates) {
   std::set<int> visited;
   for (int pid = 1; pid <= 40; ++pid) {
      record(pid);
   }
   tracker->hook = [this](const Child& child) {
      tracker->processDel(child->pid() ^ 1); // a neighbour that hashes far away
      tracker->processDel(child->pid() + 16);
   };
   for (Sm::ProcessMap::Iterator at(&tracker->process()); at; at.advance()) {
      EXPECT_TRUE(visited.insert(at->pid()).second);
      endIs(*at, Siginfo::exited);
   }
   EXPECT_THAT(tracked(), IsEmpty());
   EXPECT_EQ(outcomes(), visited.size() * 100);
}

TEST_F(Tracking, AHookMayForkAndRunTheLoop) {
   int generations = 0;
   tracker->hook = [&](const Child&) {
      if (++generations < 5) {
         forkBody([] {});
         EXPECT_TRUE(runUntil([&] { return generations >= 5; }));
      }
   };
   forkBody([] {});
   EXPECT_TRUE(runUntil([&] { return generations >= 5 && tracked().empty(); }));
   EXPECT_EQ(outcomes(), 500U);
}

// ---- layout and memory ----

// The slot of a virtual operation, as every pointer to such a member holds it.
template <class Member> std::uintptr_t slot(Member member) {
   std::uintptr_t word = 0;
   std::memcpy(&word, &member, sizeof word);
   return word / sizeof(void*);
}

template <class... Members> void expectSlotsFrom(std::uintptr_t first, Members... members) {
   for (const std::uintptr_t found : {slot(members)...}) {
      EXPECT_EQ(found, first++);
   }
}

TEST_F(Tracking, SlotsAndFieldsKeepTheirOrder) {
   using Base = Vel::PtrInterface;
   using Notifiee = Base::NotifieeConst;
   using ChildPtr = Vel::Ptr<Zor::ChildProcess>;
   using Follower = Reactor::VelSiginfo;
   expectSlotsFrom(0, &Base::notifieeList, &Base::hasNotificationActiveIs, &Base::velAuditErrors,
                   &Base::auditErrors, &Base::zeroReferencesIs, &Base::fwkType);
   expectSlotsFrom( // behind the two of the destructor
      8, &Sm::forkChild, &Sm::forkedChildExitCallback,
      static_cast<ChildPtr (Sm::*)(int)>(&Sm::processDel),
      static_cast<ChildPtr (Sm::*)(Sm::ProcessMap::Iterator&)>(&Sm::processDel), &Sm::processNotify,
      &Sm::processIs, static_cast<Child (Sm::*)(int)>(&Sm::childProcessDel),
      static_cast<Child (Sm::*)(Sm::ChildProcessMap::Iterator&)>(&Sm::childProcessDel),
      &Sm::childProcessNotify, &Sm::childProcessIs, &Sm::lastFailedProcessIs,
      &Sm::lastFailedProcessTerminationErrorIs, &Sm::successfulTerminationCountInc,
      &Sm::successfulTerminationCountIs, &Sm::errorTerminationCountInc,
      &Sm::errorTerminationCountIs, &Sm::velDoZombieReactors);
   expectSlotsFrom(8, &Notifiee::velReactor, &Notifiee::isRegisteredNotifieeIs,
                   &Notifiee::notifierIs, &Notifiee::handleNotification,
                   &Notifiee::onNotificationException, &Notifiee::onZeroReferences,
                   &Notifiee::velFwkActivity, &Notifiee::actsm);
   expectSlotsFrom(16, &Reactor::onSiginfo, &Reactor::siginfoDel, &Reactor::siginfoIs,
                   &Reactor::velDoZombieReactors);
   expectSlotsFrom(16, &Follower::onExitSignal, &Follower::onExitStatus, &Follower::onSignalCode,
                   &Follower::onChildPipe, &Follower::onChildPipeReactor,
                   &Follower::velDoZombieReactors);

   const Vel::Ptr<Sm> plain = Zor::childProcessTrackerSmFactory();
   const auto child = record(7);
   const Reactor* const reactor = tracker->childProcess(7);
   const auto offset = [](const auto& field, const void* object) {
      return reinterpret_cast<const char*>(&field) - static_cast<const char*>(object);
   };
   constexpr auto mapSize = static_cast<std::ptrdiff_t>(sizeof(Sm::ProcessMap));
   EXPECT_EQ(offset(plain->process(), plain.get()), 16);
   EXPECT_EQ(offset(plain->childProcess(), plain.get()), 16 + mapSize);
   EXPECT_EQ(offset(plain->lastFailedProcess(), plain.get()), 16 + 2 * mapSize);
   EXPECT_EQ(sizeof(Sm), 16 + 2 * sizeof(Sm::ProcessMap) + sizeof(void*) + 16);
   const auto* const words = reinterpret_cast<const std::uint32_t*>(&tracker->process());
   EXPECT_EQ(words[0], tracker->process().changeStamp());
   EXPECT_EQ(words[1], tracker->process().members());
   EXPECT_EQ(offset(Vel::HashMapTraits<Zor::ChildProcess>::link(*child), child.get()),
             offset(child->siginfo(), child.get()) + 8);
   EXPECT_EQ(offset(Vel::HashMapTraits<Reactor>::link(const_cast<Reactor&>(*reactor)), reactor) + 8,
             offset(reactor->siginfo(), reactor));
}

TEST_F(Tracking, AChildCostsTwoDescriptorsAndLittleMemory) {
   constexpr std::size_t count = 1000;
   if (::mallinfo2().uordblks == 0) {
      GTEST_SKIP() << "this allocator keeps no account";
   }
   rlimit limit{};
   ::getrlimit(RLIMIT_NOFILE, &limit);
   const rlimit raised{limit.rlim_max, limit.rlim_max};
   ::setrlimit(RLIMIT_NOFILE, &raised);
   forked.reserve(count);
   const std::size_t descriptorsBefore = openDescriptors().size();
   const std::size_t heapBefore = ::mallinfo2().uordblks;
   while (forked.size() < count) {
      forkBody([] { ::pause(); });
   }
   const std::size_t heap = ::mallinfo2().uordblks - heapBefore;
   EXPECT_LE(heap, 640 * count);
   RecordProperty("bytes", static_cast<int>(heap / count));
   EXPECT_EQ(openDescriptors().size() - descriptorsBefore, 2 * count);
   for (const int pid : forked) {
      ::kill(pid, SIGKILL);
   }
   EXPECT_TRUE(runUntil([&] { return tracked().empty(); }));
   EXPECT_EQ(outcomes(), count);
   ::setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace
