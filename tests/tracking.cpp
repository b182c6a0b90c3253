// The tracker's books: what it registers, how it accounts for ends, and what hooks may do to it.
#include "TrackerFixture.h"

#include <malloc.h>
#include <sstream>
#include <stdexcept>

namespace {

using testing::ElementsAre;
using Vel::String8;

class Tracking : public TrackerTest {
 protected:
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

// ---- plain attributes ----

TEST_F(Tracking, TerminationErrorsConvertBothWays) {
   const char* const names[] = {"invalid", "nonZeroExitStatus", "signaled", "3"};
   for (unsigned number = 0; number < 4; ++number) {
      auto value = static_cast<Sm::terminationError>(number);
      const String8 text = String8(names[number]) + ",";
      String8::IteratorConst at = text.begin();
      EXPECT_EQ((std::ostringstream() << value).str(), names[number]);
      EXPECT_EQ(Zor::sequenceToValue(at, text.end(), &value), value);
      EXPECT_STREQ(at, ",");
   }
   EXPECT_EQ(Sm::terminationErrorInstance(2U), Sm::terminationErrorInstance("signaled"));
   EXPECT_THROW(Sm::terminationErrorInstance(3U), Vel::RangeException);
   EXPECT_THROW(Sm::terminationErrorInstance("none"), Vel::RangeException);
}

// ---- registry ----

TEST_F(Tracking, AKnownNumberIsTheSameRecordOrRefused) {
   const auto first = record(7, "a\"b");
   const int descriptor = first->siginfo()->childPipe()->descriptor();
   const int unused = readEnd();
   EXPECT_EQ(tracker->processIs(7, "a\"b", unused), first);
   try {
      tracker->processIs(7, "other\n", unused);
      ADD_FAILURE();
   } catch (const Vel::NameInUseException& thrown) {
      EXPECT_STREQ(thrown.what(),
                   "Reinstantiating the pointer interface where constructor parameter attribute "
                   "_description has a different value of \"other\\n\" than the current value of "
                   "\"a\\\"b\" not allowed");
   }
   EXPECT_EQ(first->siginfo()->childPipe()->descriptor(), descriptor);
   tracker->called = [](const std::string& call) {
      if (call == "childProcessIs") {
         throw std::runtime_error("registering");
      }
   };
   EXPECT_THROW(tracker->processIs(8, {}, unused), std::runtime_error);
   tracker->called = [&](const std::string& call) {
      if (call == "childProcessIs") {       // also when the record has no siginfo any more
         tracker->process(9)->siginfoDel(); // and with it the descriptor
         throw std::runtime_error("registering");
      }
   };
   EXPECT_THROW(record(9), std::runtime_error);
   EXPECT_EQ(tracked(), std::set{7});
   EXPECT_FALSE(manager()->fd(unused));
   EXPECT_EQ(::close(unused), 0) << "whoever is refused keeps the descriptor";
}

TEST_F(Tracking, RemovingTakesTheReactorAlongAndIsSeenByADerivedTracker) {
   Calls calls;
   for (const int pid : {1, 2, 3}) {
      record(pid);
   }
   tracker->calls = &calls;
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(1);
   EXPECT_EQ(tracker->processDel(1)->pid(), 1);
   EXPECT_TRUE(reactor->velMarkedForDeletion() && reactor->siginfo()->velMarkedForDeletion());
   EXPECT_EQ(reactor->childProcessTrackerSm(), nullptr);
   Sm::ProcessMap::Iterator none(nullptr);
   Sm::ChildProcessMap::Iterator nobody(nullptr);
   EXPECT_FALSE(tracker->processDel(1) || tracker->Sm::processDel(none) ||
                tracker->Sm::childProcessDel(nobody));
   tracker->childProcessDelAll();
   EXPECT_EQ(tracker->process().members(), 2U);
   tracker->processDelAll();
   EXPECT_THAT(calls, ElementsAre("processDel 1", "childProcessDel 1", "processDel 1",
                                  "childProcessDel at 2", "childProcessDel at 3", "processDel at 2",
                                  "childProcessDel 2", "processDel at 3", "childProcessDel 3"));
   EXPECT_TRUE(tracked().empty());
}

// ---- reactors ----

TEST_F(Tracking, TheSiginfoMayBeReplacedRemovedAndPutBack) {
   Calls calls;
   const auto child = record(7);
   const Vel::Ptr<Reactor::VelSiginfo> follower = tracker->childProcess(7)->siginfo();
   const Vel::Ptr<Siginfo> first = child->siginfo();
   trace(calls);
   EXPECT_EQ(child->siginfoIs("ChildSiginfo-7", 7), first);
   for (const char* name : {"ChildSiginfo-7", "other"}) {
      const Vel::Ptr<Siginfo> next = child->siginfoIs(name, 8);
      EXPECT_EQ(follower->notifier(), next);
   }
   EXPECT_EQ(calls.size(), 2U); // the chain ran once for each that came
   first->signalCodeIs(Siginfo::exited);
   const Vel::Ptr<Siginfo> last = child->siginfoDel();
   EXPECT_TRUE(last && !child->siginfoDel());
   EXPECT_TRUE(follower->velMarkedForDeletion() && follower->velChildProcess() == nullptr);
   last->signalCodeIs(Siginfo::killed);
   tracker->handleTerminatedChildProcess(7); // a record without siginfo has no end
   EXPECT_EQ(tracker->outcomes(), 0U);
   child->siginfoIs("back", 7)->signalCodeIs(Siginfo::exited);
   EXPECT_EQ(tracker->outcomes(), 100U);
}

TEST_F(Tracking, WhatAReactorHasAlreadyIsNothingNew) {
   Calls calls;
   const auto child = record(7);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const Vel::Ptr<Reactor::VelSiginfo> follower = reactor->siginfo();
   trace(calls);
   tracker->childProcessIs(child);
   reactor->notifierIs(child);
   reactor->siginfoIs(child->siginfo());
   follower->notifierIs(child->siginfo());
   child->siginfo()->signalCodeIs(Siginfo::none);
   tracker->hasNotificationActiveIs(true);
   EXPECT_TRUE(calls.empty() && reactor->siginfo() == follower);
   EXPECT_EQ(reactor->siginfoDel(), child->siginfo());
   EXPECT_FALSE(reactor->siginfoDel());
   for (const bool marked : {false, true}) { // without an owner, then without anything
      follower->velMarkedForDeletionIs(marked);
      follower->notifierIs(marked ? Vel::Ptr<Siginfo>() : Vel::newEntity<Siginfo>("other", 7));
      follower->onSignalCode();
   }
   follower->velDoZombieReactors(false);
   reactor->siginfoIs(child->siginfo());
   reactor->siginfo()->notifierIs(nullptr);
   reactor->siginfoIs(nullptr); // it follows nobody, and stays
   EXPECT_TRUE(reactor->siginfo());
   reactor->notifierIs(nullptr);
   reactor->onSiginfo();
   EXPECT_FALSE(Vel::newEntity<Reactor>(nullptr, nullptr)->siginfo());
   EXPECT_EQ(calls.size(), 1U); // of the siginfo that came back
   EXPECT_THROW(tracker->childProcessIs(nullptr), Vel::RangeException);
   EXPECT_EQ(tracker->newChildProcess(nullptr)->fwkKey(), 0);
   tracker->childProcessDelAll();
   child->siginfo()->signalCodeIs(Siginfo::exited); // nothing to watch for any more
   EXPECT_TRUE(child->siginfo()->childPipeReactorIs(nullptr, child->siginfo()));
   EXPECT_THROW(child->siginfo()->childPipeReactorIs(nullptr, nullptr), Vel::RangeException);
   EXPECT_EQ(tracker->auditErrors(~0U) + tracker->auditErrors(1), 0U);
}

TEST_F(Tracking, SwitchesReachEveryReactorAndItsFollower) {
   const auto child = record(7);
   const Vel::Ptr<Reactor> reactor = tracker->childProcess(7);
   const auto state = [&] { // registered, active, marked: a digit each, two for the reactor's own
      const Reactor::VelSiginfo& follower = *reactor->siginfo();
      return 2 * reactor->isRegisteredNotifiee() + follower.isRegisteredNotifiee() +
             20 * reactor->hasNotificationActive() + 10 * follower.hasNotificationActive() +
             200 * reactor->velMarkedForDeletion() + 100 * follower.velMarkedForDeletion();
   };
   EXPECT_EQ(state(), 33);
   tracker->hasNotificationActiveIs(false);
   EXPECT_EQ(state(), 0);
   tracker->hasNotificationActiveIs(true);
   reactor->isRegisteredNotifieeIs(false); // not registered before, so not afterwards
   tracker->hasNotificationActiveIs(false);
   tracker->hasNotificationActiveIs(true);
   EXPECT_EQ(state(), 31);
   reactor->isRegisteredNotifieeIs(true);
   tracker->velDoZombieReactors(true);
   EXPECT_EQ(state(), 300);
   tracker->velDoZombieReactors(false);
   EXPECT_EQ(state(), 33);
   EXPECT_EQ(reactor->siginfoDel(), child->siginfo());
   endIs(*child, Siginfo::exited);
   EXPECT_EQ(tracker->outcomes(), 0U);
}

// ---- termination ----

TEST_F(Tracking, ANumberOfNobodysIsTracedWithTracingOffNothingIsComposed) {
   tracker->handleTerminatedChildProcess(-4); // makes the trace handle, which is then there
   newsLeft = 0;
   tracker->handleTerminatedChildProcess(-4);
   newsLeft = std::numeric_limits<int>::max();
   Calls calls;
   trace(calls);
   tracker->handleTerminatedChildProcess(-4);
   EXPECT_THAT(calls, ElementsAre(testing::EndsWith("(S32) -4 is not tracked")));
}

TEST_F(Tracking, EachEndIsTracedBookedHookedAndForgottenInThisOrder) {
   struct {
      Siginfo::SignalCode code;
      std::uint8_t value;
      const char* name;
      const char* described; // and the line of its trace message
      unsigned outcomes;
      Sm::terminationError error;
      bool ended;
   } const rows[] = {
      {Siginfo::SignalCode{5}, 5, "5", nullptr, 0, Sm::invalid, false},
      {Siginfo::lost, 0, "lost", nullptr, 0, Sm::invalid, true},
      {Siginfo::exited, 0, "exited", "119exited with status 0", 100, Sm::invalid, true},
      {Siginfo::exited, 255, "exited", "119exited with status 255", 1, Sm::nonZeroExitStatus, true},
      {Siginfo::killed, 9, "killed", "133killed by signal 9", 1, Sm::signaled, true},
   };
   for (const auto& row : rows) {
      Calls expected;
      const auto message = [&](const std::string& text) {
         expected.push_back("ChildProcessTracker 8 ChildProcessTracker:" + text.substr(0, 3) +
                            " handleTerminatedChildProcess void Zor::ChildProcessTrackerSm::"
                            "handleTerminatedChildProcess(S32) 7 'worker' " +
                            text.substr(3));
      };
      message(std::string("111signalCode=") + row.name);
      if (row.described != nullptr) {
         message(row.described);
      }
      if (row.outcomes == 100) {
         expected.push_back("successes 1");
      } else if (row.outcomes == 1) {
         expected.insert(expected.end(),
                         {"lastFailed 7", "error " + std::to_string(row.error), "errors 1"});
      }
      if (row.ended) {
         expected.insert(expected.end(), {"hook 7", "processDel 7", "childProcessDel 7"});
      }
      Calls calls;
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false); // while it is registered
      tracker = Zor::newTracker<RudeTracker>();
      const Child child = record(7);
      tracker->hook = [&](const Child& heard) {
         EXPECT_TRUE(heard == child && tracker->process(7) == child.get());
         EXPECT_EQ(tracker->outcomes(), row.outcomes);
      };
      tracker->calls = &calls;
      trace(calls);
      endIs(*child, row.code, row.value);
      EXPECT_EQ(calls, expected);
      EXPECT_EQ(tracker->outcomes(), row.outcomes);
      EXPECT_EQ(tracker->lastFailedProcessTerminationError(), row.error);
      EXPECT_EQ(tracker->lastFailedProcess() == child, row.error != Sm::invalid);
      EXPECT_EQ(tracked().empty(), row.ended);
   }
}

// ---- memory ----

TEST_F(Tracking, AChildCostsTwoDescriptorsAndLittleMemory) {
   constexpr std::size_t count = 400;
   forked.reserve(count);
   const std::size_t descriptorsBefore = openDescriptors().size();
   const std::size_t heapBefore = ::mallinfo2().uordblks;
   while (forked.size() < count) {
      start([] { ::pause(); });
   }
   EXPECT_LE(::mallinfo2().uordblks - heapBefore, 640 * count); // 0 where nobody keeps account
   EXPECT_EQ(openDescriptors().size() - descriptorsBefore, 2 * count);
}

} // namespace
