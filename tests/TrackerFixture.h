// What the tests that fork share: a tracker that can be told to misbehave, children that never run
// on into the tests, and a fixture that expects to find everything as it was. For one source file
// of a program only, since it replaces operator new.
#pragma once

#include <Zor/ChildProcessTracker.h>

#include <Vel/Exception.h>
#include <Vel/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <new>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

inline int newsLeft = std::numeric_limits<int>::max(); // allocations until there is no memory

[[gnu::noinline]] void* operator new(std::size_t size) {
   void* const memory = newsLeft-- > 0 ? std::malloc(size) : nullptr;
   return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

using Sm = Zor::ChildProcessTrackerSm;
using Reactor = Sm::VelChildProcess;
using Context = Zor::ChildProcessTrackerCloseFdsContext;
using Siginfo = Vel::ChildSiginfo;
using Child = Vel::Ptr<Zor::ChildProcess const>;
using Calls = std::vector<std::string>;

inline constexpr int cannot = 77; // what the test needs is not to be had here

// Memory that a child's findings come back in.
template <class T> class Shared {
 public:
   Shared()
      : found_(::new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                             -1, 0)) T{}) {}
   Shared(const Shared&) = delete;
   Shared& operator=(const Shared&) = delete;
   ~Shared() { ::munmap(found_, sizeof(T)); }
   T& operator*() const { return *found_; }

 private:
   T* found_;
};

// From here on the system call fails like that in this process.
inline void refuse(unsigned number, unsigned error) {
   sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   const sock_fprog program{4, filter};
   if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
       ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      ::_exit(cannot);
   }
}

inline Vel::Ptr<Vel::ActivityManagerSm> manager() {
   return Vel::ActivityImplFacility::activityManagerSm();
}

template <class Done> bool runUntil(Done done) {
   const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (!done() && std::chrono::steady_clock::now() < end) {
      manager()->runOnce(20);
   }
   return done();
}

// Notes every virtual call and does in it what the test wants.
class RudeTracker : public Sm {
 public:
   std::function<void(const Child&)> hook;
   std::function<void(const Child&)> childProcessIsStarts;
   std::function<void(int)> processIsStarts;
   std::function<void(const std::string&)> called;
   Calls* calls = nullptr;

   void forkedChildExitCallback(const Child& child) override {
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
      noted("processIs", pid);
      if (processIsStarts) {
         processIsStarts(pid);
      }
      return Sm::processIs(pid, name, readEnd);
   }
   Child childProcessDel(int pid) override {
      return noted("childProcessDel", pid).Sm::childProcessDel(pid);
   }
   Child childProcessDel(ChildProcessMap::Iterator& at) override {
      return noted("childProcessDel at", at ? at->fwkKey() : 0).Sm::childProcessDel(at);
   }
   void childProcessIs(const Child& child) override {
      noted("childProcessIs", child ? child->pid() : 0);
      if (childProcessIsStarts) {
         childProcessIsStarts(child);
      }
      Sm::childProcessIs(child);
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

inline std::set<int> openDescriptors() {
   std::set<int> open;
   for (int descriptor = 0; descriptor < 6000; ++descriptor) {
      if (::fcntl(descriptor, F_GETFD) >= 0) {
         open.insert(descriptor);
      }
   }
   return open;
}

inline bool hasChildren() {
   siginfo_t info;
   return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

inline void awaitZombie(int pid) {
   siginfo_t info;
   ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

// Ends a forked process with what its expectations came to, and 99 for an exception.
[[noreturn]] inline void runAndExit(const std::function<void()>& body) {
   int status = 99;
   ::alarm(30); // whoever forked it may be gone
   try {
      body();
      status = testing::Test::HasFailure() ? 1 : 0;
   } catch (...) {
   }
   std::fflush(stdout);
   ::_exit(status);
}

// Runs the body in a process of its own, for what can't be undone. True when its expectations
// held; 77 is its way to say that this system doesn't allow what it needs.
inline int apart(const std::function<void()>& body) {
   std::fflush(stdout);
   const pid_t pid = ::fork();
   if (pid == 0) {
      runAndExit(body);
   }
   int status = -1;
   EXPECT_EQ(::waitpid(pid, &status, 0), pid);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class TrackerTest : public testing::Test {
 protected:
   void SetUp() override {
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      manager()->pollFd();
      tallies_ = tallies();
      open_ = openDescriptors();
      tracker = Zor::newTracker<RudeTracker>();
   }

   // Also after a failed assertion: no child is left, and everything is as it was.
   void TearDown() override {
      newsLeft = std::numeric_limits<int>::max();
      Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, false);
      Vel::TraceFacility::sinkIs({});
      tracker = nullptr;
      for (const int descriptor : writeEnds_) {
         ::close(descriptor);
      }
      siginfo_t info;
      for (const int pid : forked) {
         if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
            ::kill(pid, SIGKILL);
         }
      }
      EXPECT_TRUE(runUntil([] { return !hasChildren(); })) << "a child that nobody reaps";
      while (::waitpid(-1, nullptr, 0) > 0) {
      }
      EXPECT_EQ(tallies(), tallies_);
      EXPECT_EQ(openDescriptors(), open_);
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

   int forkBody(const std::function<void()>& body, const Vel::Ptr<Context>& context = {},
                const Vel::String8& name = "worker", void (*init)(void*) = nullptr,
                void* arg = nullptr) {
      std::fflush(stdout);
      const pid_t here = ::getpid();
      try {
         const int pid = tracker->forkChild(name, init, arg, context);
         if (pid == 0) {
            runAndExit(body);
         }
         forked.push_back(pid);
         return pid;
      } catch (...) {
         if (::getpid() != here) {
            ::_exit(98);
         }
         throw;
      }
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
   static std::vector<std::uint64_t> tallies() {
      std::vector<std::uint64_t> live;
      for (const auto* info :
           {Sm::velAllocTrackTypeInfo_, Zor::ChildProcess::velAllocTrackTypeInfo_,
            Reactor::velAllocTrackTypeInfo_, Reactor::VelSiginfo::velAllocTrackTypeInfo_,
            Context::velAllocTrackTypeInfo_, Context::VelSkipFd::velAllocTrackTypeInfo_,
            Siginfo::velAllocTrackTypeInfo_, Vel::FileDescriptor::velAllocTrackTypeInfo_,
            Vel::PtrInterface::NotifieeConst::velAllocTrackTypeInfo_,
            Vel::String8::Data::velAllocTrackTypeInfo_}) {
         live.push_back(info != nullptr ? info->liveCount() : 0);
      }
      return live;
   }

   std::vector<std::uint64_t> tallies_;
   std::set<int> open_;
   std::vector<int> writeEnds_;
};

// Sets the child's record as if the loop had learned of its end.
inline void endIs(const Zor::ChildProcess& child, Siginfo::SignalCode code,
                  std::uint8_t value = 0) {
   const Vel::Ptr<Siginfo> siginfo = child.siginfo();
   code == Siginfo::killed ? siginfo->exitSignalIs(value) : siginfo->exitStatusIs(value);
   siginfo->signalCodeIs(code);
}
