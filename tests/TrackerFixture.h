// What the tests that fork share: a tracker that can be told to misbehave, children that never run
// on into the tests, and a world that expects to be left as it was found. For one source file of a
// program only, since it replaces operator new and close.
#pragma once

#include "../fuzz/Children.h"

#include <Vel/Exception.h>
#include <Vel/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <new>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

inline int newsLeft = std::numeric_limits<int>::max(); // allocations until there is no memory
inline int badCloses = 0;                              // of numbers that were nobody's
inline int closeSays = 0;                              // the error, although it has closed

[[gnu::noinline]] void* operator new(std::size_t size) {
   void* const memory = newsLeft-- > 0 ? std::malloc(size) : nullptr;
   return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

extern "C" int close(int descriptor) {
   const auto result = static_cast<int>(::syscall(SYS_close, descriptor));
   badCloses += result != 0 && errno == EBADF && descriptor >= 0;
   errno = closeSays != 0 ? closeSays : errno;
   return closeSays != 0 ? -1 : result;
}

using Reactor = Sm::VelChildProcess;
using Calls = std::vector<std::string>;

// ---- the loop ----

template <class Done> bool runUntil(Done done) {
   const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (!done() && std::chrono::steady_clock::now() < end) {
      manager()->runOnce(20);
   }
   return done();
}

// The loop has nothing to tell for a while, and sleeps meanwhile.
inline void expectQuiet(int ms, std::uint64_t wakeups) {
   const auto before = manager()->wakeups();
   const std::clock_t busyBefore = std::clock();
   EXPECT_EQ(manager()->runOnce(ms), 0);
   const auto after = manager()->wakeups();
   EXPECT_LE(after.total - before.total, wakeups);
   EXPECT_EQ(after.empty - before.empty, after.total - before.total);
   EXPECT_LT(std::clock() - busyBefore, CLOCKS_PER_SEC / 20);
}

// ---- processes and descriptors ----

inline void awaitZombie(int pid) {
   siginfo_t info;
   EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

// Ends a forked process with what its expectations came to, and 99 for an exception.
[[noreturn]] inline void runAndExit(const std::function<void()>& body) {
   int status = 99;
   ::alarm(60); // whoever forked it may be gone
   try {
      body();
      status = testing::Test::HasFailure() ? 1 : 0;
   } catch (const std::exception& thrown) {
      std::printf("thrown: %s\n", thrown.what());
   }
   std::fflush(stdout);
   ::_exit(status);
}

// A child that was not forked by a tracker.
inline int outside(const std::function<void()>& body) {
   std::fflush(stdout);
   const int pid = ::fork();
   if (pid == 0) {
      runAndExit(body);
   }
   return pid;
}

// Runs the body in a process of its own, for what can't be undone: 0 when its expectations held.
inline int apart(const std::function<void()>& body) {
   const int pid = outside(body);
   int status = -1;
   EXPECT_EQ(::waitpid(pid, &status, 0), pid);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

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

// ---- the tracker ----

// Notes the calls of its virtual operations and does in them what the test wants.
class RudeTracker : public Sm {
 public:
   std::function<void(const Child&)> hook;
   std::function<void(const std::string&)> called; // at the start of each, with its name
   Calls* calls = nullptr;
   unsigned told = 0; // ends

   void forkedChildExitCallback(const Child& child) override {
      ++told;
      noted("hook", child->pid());
      if (hook) {
         hook(child);
      }
   }
   Vel::Ptr<Zor::ChildProcess> processDel(int pid) override {
      return noted("processDel", pid).Sm::processDel(pid);
   }
   Vel::Ptr<Zor::ChildProcess> processDel(ProcessMap::Iterator& at) override {
      return noted("processDel at", at ? at->pid() : 0).Sm::processDel(at);
   }
   Vel::Ptr<Zor::ChildProcess> processIs(int pid, Vel::String8 name, int readEnd) override {
      return noted("processIs", pid).Sm::processIs(pid, name, readEnd);
   }
   Child childProcessDel(int pid) override {
      return noted("childProcessDel", pid).Sm::childProcessDel(pid);
   }
   Child childProcessDel(ChildProcessMap::Iterator& at) override {
      return noted("childProcessDel at", at ? at->fwkKey() : 0).Sm::childProcessDel(at);
   }
   void childProcessIs(const Child& child) override {
      noted("childProcessIs", child ? child->pid() : 0).Sm::childProcessIs(child);
   }
   void lastFailedProcessIs(const Child& child) override {
      noted("lastFailed", child ? child->pid() : 0).Sm::lastFailedProcessIs(child);
   }
   void lastFailedProcessTerminationErrorIs(terminationError error) override {
      noted("error", error).Sm::lastFailedProcessTerminationErrorIs(error);
   }
   void successfulTerminationCountInc(unsigned n) override {
      noted("successes", n).Sm::successfulTerminationCountInc(n);
   }
   void errorTerminationCountInc(unsigned n) override {
      noted("errors", n).Sm::errorTerminationCountInc(n);
   }
   unsigned left() const { return process().members(); }
   unsigned outcomes() const { // both counts, readable as one number
      return successfulTerminationCount() * 100 + errorTerminationCount();
   }

 private:
   template <class Number> RudeTracker& noted(const char* call, Number number) {
      if (calls != nullptr) {
         calls->push_back(call + (' ' + std::to_string(number)));
      }
      if (called) {
         called(call);
      }
      return *this;
   }
};

// Sets the child's record as if the loop had learned of its end.
inline void endIs(const Zor::ChildProcess& child, Siginfo::SignalCode code,
                  std::uint8_t value = 0) {
   const Vel::ValidPtr<Siginfo> siginfo(child.siginfo());
   code == Siginfo::killed ? siginfo->exitSignalIs(value) : siginfo->exitStatusIs(value);
   siginfo->signalCodeIs(code);
}

// Waits for the loop to record the child's end.
inline void expectEnd(const Child& child, Siginfo::SignalCode code, int value,
                      Siginfo::Provenance provenance = Siginfo::reaped) {
   const Vel::Ptr<Siginfo> info = child->siginfo();
   EXPECT_TRUE(runUntil([&] { return info->signalCode() != Siginfo::none; }));
   EXPECT_EQ(info->signalCode(), code);
   EXPECT_EQ(info->exitStatus(), code == Siginfo::exited ? value : 0);
   EXPECT_EQ(info->exitSignal(), code == Siginfo::killed ? value : 0);
   EXPECT_EQ(info->provenance(), provenance);
   EXPECT_EQ(info->childPipe()->descriptor(), -1);
   EXPECT_FALSE(info->signal(0));
}

// A tracker and its children. Its end, also after a failed assertion, leaves no child, and expects
// objects and descriptors as they were, and a later child to be accounted for as ever.
class World {
 public:
   World() {
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      tracker = Zor::newTracker<RudeTracker>();
      start([] {}); // the first life: what is made once is, and a sanitizer has looked at it
      runAll();
      tracker = nullptr;
      forked.clear();
      tallies_ = tallies();
      open_ = openBesidesThePollSet();
      tracker = Zor::newTracker<RudeTracker>();
   }
   World(const World&) = delete;
   World& operator=(const World&) = delete;
   ~World() {
      newsLeft = std::numeric_limits<int>::max();
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      Vel::TraceFacility::sinkIs({});
      siginfo_t info;
      for (const int pid : forked) {
         if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
            ::kill(pid, SIGKILL);
         }
      }
      EXPECT_TRUE(runUntil([] { return !hasChildren(); })) << "a child that nobody reaps";
      tracker = Zor::newTracker<RudeTracker>();
      expectEnd(childOf(start([] { ::_exit(3); })), Siginfo::exited, 3);
      EXPECT_EQ(tracker->outcomes(), 1U);
      tracker = nullptr;
      EXPECT_EQ(badCloses, 0);
      for (const int descriptor : writeEnds_) {
         ::close(descriptor);
      }
      EXPECT_EQ(tallies(), tallies_);
      EXPECT_EQ(openBesidesThePollSet(), open_);
   }

   // A record of a process that is none of ours, with a pipe that stays open.
   Vel::Ptr<Zor::ChildProcess> record(int pid, const char* name = "worker") {
      return tracker->processIs(pid, name, readEnd());
   }
   int readEnd() {
      int ends[2] = {-1, -1};
      EXPECT_EQ(::pipe(ends), 0);
      writeEnds_.push_back(ends[1]);
      return ends[0];
   }

   int start(const std::function<void()>& body, const Vel::Ptr<Context>& context = {},
             const Vel::String8& name = "worker", void (*init)(void*) = nullptr,
             void* arg = nullptr) {
      std::fflush(stdout);
      const pid_t here = ::getpid();
      try {
         const int pid = tracker->forkChild(name, init, arg, context);
         if (pid == 0) {
            runAndExit(body);
         }
         if (pid > 0) {
            forked.push_back(pid);
         }
         return pid;
      } catch (...) {
         if (::getpid() != here) {
            ::_exit(98);
         }
         throw;
      }
   }
   int startAt(const Gate& gate, int status) {
      return start([&gate, status] {
         gate.pass();
         endWith(status);
      });
   }
   Child childOf(int pid) const { return Child(tracker->process(pid)); }
   void runAll() const {
      EXPECT_TRUE(runUntil([this] { return tracker->left() == 0; }));
   }

   void trace(Calls& into) {
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, true);
      Vel::TraceFacility::sinkIs(
         [&into](auto handle, int level, auto file, int line, auto function, auto text) {
            into.push_back(std::string(handle) + ' ' + std::to_string(level) + ' ' +
                           std::string(file) + ':' + std::to_string(line) + ' ' +
                           std::string(function) + ' ' + std::string(text));
         });
   }

   Vel::Ptr<RudeTracker> tracker;
   std::vector<int> forked;

 private:
   static std::set<int> openBesidesThePollSet() { // whose number may be another one
      const int pollSet = manager()->pollFd();
      auto open = openDescriptors();
      open.erase(pollSet);
      return open;
   }
   std::vector<std::uint64_t> tallies_;
   std::set<int> open_;
   std::vector<int> writeEnds_;
};

class TrackerTest : public testing::Test, protected World {};
