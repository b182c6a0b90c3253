// Sequences of tracker operations with a few real children, and a hook that does the same to the
// tracker that calls it.
#include "Children.h"
#include "Input.h"

#include <chrono>
#include <csignal>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int mostOperations = 200; // an input
constexpr int mostForks = 8;
constexpr int mostWaits = 16;

struct Rude {};

class RudeTracker : public Sm {
 public:
   void forkedChildExitCallback(const Child& child) override;
};

class Gate { // a pipe that children wait on until its last writer has closed it
 public:
   Gate() { require(::pipe(ends_) == 0, "a pipe"); }
   Gate(const Gate&) = delete;
   Gate& operator=(const Gate&) = delete;
   ~Gate() {
      open();
      ::close(ends_[0]);
   }
   void open() {
      if (ends_[1] >= 0) {
         ::close(std::exchange(ends_[1], -1));
      }
   }
   void pass() {
      open();
      char byte;
      while (::read(ends_[0], &byte, 1) > 0) {
      }
   }
   bool shut() const { return ends_[1] >= 0; }
   int taken() { return std::exchange(ends_[0], -1); }
   int reader() const { return ends_[0]; }

 private:
   int ends_[2];
};

class Play {
 public:
   explicit Play(Input& input) : input_(input) { play_ = this; }

   void run() {
      for (int left = mostOperations; left > 0 && !input_.atEnd(); --left) {
         refusable([this] { act(); });
      }
      tracker_ = nullptr;
      gate_.open();
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (anyUnreaped() && std::chrono::steady_clock::now() < deadline) {
         manager()->runOnce(1); // reaping is no delivery
      }
      require(!anyUnreaped(), "every child is reaped");
   }

   void ended(const Zor::ChildProcess& child) {
      const auto expected = expected_.find(child.pid());
      const Vel::Ptr<Siginfo>& end = child.siginfo();
      if (expected != expected_.end() && end && !meddled_) {
         require(
            end->signalCode() == expected->second.first &&
               (end->signalCode() == Siginfo::killed ? end->exitSignal() : end->exitStatus()) ==
                  expected->second.second,
            "an end is recorded as it was");
         expected_.erase(expected); // nor twice
      } else {
         require(meddled_, "an end is told once");
      }
      if (depth_ < 3) {
         ++depth_;
         const unsigned deeds = input_.below(3);
         for (unsigned deed = 0; deed < deeds; ++deed) {
            refusable([this] { act(); });
         }
         --depth_;
         if (input_.below(4) == 0) {
            throw Rude();
         }
      }
   }

   static Play& now() { return *play_; }

 private:
   // Whatever the library may throw, and the hook.
   template <class Deed> void refusable(const Deed& deed) {
      const int here = ::getpid();
      try {
         deed();
      } catch (const Vel::Exception&) {
         require(here == ::getpid(), "no child comes here");
      } catch (const Rude&) {
      }
   }

   bool anyUnreaped() const { // the fuzzer's own helpers are children too
      return std::any_of(forked_.begin(), forked_.end(), unreaped);
   }

   int somePid() {
      static constexpr int others[] = {1, 0, -1, 4'194'304};
      const unsigned at = input_.byte();
      return pids_.empty() || at % 8 == 0 ? others[at / 8 % 4] : pids_[at % pids_.size()];
   }

   void act() {
      const unsigned operation = input_.below(20);
      if (!tracker_) {
         tracker_ = Zor::newTracker<RudeTracker>();
      }
      const Vel::Ptr<RudeTracker> tracker(input_.flag() ? tracker_ : nullptr); // or held by nobody
      if (operation < 5) {
         fork();
      } else if (operation < 9) {
         manager()->runOnce(operation == 5 && waits_++ < mostWaits ? 2 : 0);
      } else if (operation < 12) {
         tracker_->processDel(somePid());
      } else {
         change(operation, somePid());
      }
   }

   void change(unsigned operation, int pid) {
      const Vel::Ptr<Zor::ChildProcess> child(tracker_->process(pid));
      switch (operation) {
      case 12:
         input_.flag() ? tracker_->processDelAll() : tracker_->childProcessDelAll();
         break;
      case 13:
         tracker_->childProcessDel(pid);
         break;
      case 14:
         registerStranger(pid);
         break;
      case 15:
         meddled_ = true;
         tracker_->handleTerminatedChildProcess(pid);
         break;
      case 16:
         input_.flag() ? tracker_->hasNotificationActiveIs(input_.flag())
                       : tracker_->velDoZombieReactors(input_.flag());
         break;
      case 17:
         meddle(child);
         break;
      case 18:
         tracker_ = nullptr;
         break;
      default:
         input_.flag() ? gate_.open() : kill(child);
      }
   }

   void registerStranger(int pid) {
      Gate pipe; // ends at once, unless a child has it too
      meddled_ = true;
      const bool known = tracker_->process(pid) != nullptr;
      tracker_->processIs(pid, input_.flag() ? "worker" : "stranger", pipe.reader());
      if (!known) {
         pipe.taken();
      }
   }

   void meddle(const Vel::Ptr<Zor::ChildProcess>& child) {
      meddled_ = true;
      const unsigned how = input_.below(5);
      if (!child) {
         return;
      }
      if (how == 0) {
         child->siginfoDel();
      } else if (how == 1) {
         child->siginfoIs("another", child->pid());
      } else if (how == 2) {
         tracker_->childProcessIs(child);
      } else if (how == 3) {
         tracker_->lastFailedProcessIs(child);
      } else if (forked_.count(child->pid()) != 0) {
         ::waitpid(child->pid(), nullptr, WNOHANG); // a thief
      }
   }

   void kill(const Vel::Ptr<Zor::ChildProcess>& child) {
      if (child && child->siginfo() && gate_.shut() && waiting_.count(child->pid()) != 0 &&
          child->siginfo()->signal(SIGKILL)) {
         expected_[child->pid()] = {Siginfo::killed, SIGKILL};
      }
   }

   // ---- children ----

   enum Kind {
      exits,
      killsItself,
      waits,
      closesAndWaits,
      leavesGrandchild,
      initThrows,
      tracks,
      kinds
   };

   void fork() {
      if (forks_ >= mostForks) {
         return;
      }
      ++forks_;
      const auto kind = static_cast<Kind>(input_.below(kinds));
      const unsigned status = input_.byte();
      const Vel::Ptr<Context> keep = input_.flag() ? Vel::newEntity<Context>() : nullptr;
      if (keep) {
         for (int kept = 0; kept < 3; ++kept) {
            keep->skipFdIs(kept, true);
         }
         keep->skipFdIs(gate_.reader(), true);
      }
      const int here = ::getpid();
      int pid = 0;
      try {
         pid = tracker_->forkChild(
            "worker", kind == initThrows ? +[](void*) { throw Rude(); } : nullptr, nullptr, keep);
      } catch (...) {
         if (::getpid() != here) {
            ::_exit(98);
         }
         throw;
      }
      if (pid == 0) {
         live(kind, status);
      }
      require(pid > 0, "a child");
      pids_.push_back(pid);
      forked_.insert(pid);
      noteExpected(pid, kind, status);
   }

   void noteExpected(int pid, Kind kind, unsigned status) {
      if (kind == killsItself) {
         expected_[pid] = {Siginfo::killed, SIGKILL};
      } else {
         expected_[pid] = {Siginfo::exited, kind == exits ? status : kind == initThrows ? 98 : 0};
      }
      if (kind == waits || kind == closesAndWaits) {
         waiting_.insert(pid);
      }
   }

   [[noreturn]] void live(Kind kind, unsigned status) {
      switch (kind) {
      case exits:
         ::_exit(static_cast<int>(status));
      case killsItself:
         ::raise(SIGKILL);
         break;
      case closesAndWaits:
         ::close_range(static_cast<unsigned>(gate_.reader()) + 1, ~0U, 0);
         gate_.pass();
         break;
      case leavesGrandchild:
         if (::fork() == 0) {
            gate_.pass();
         }
         break;
      case waits:
         gate_.pass();
         break;
      default: // goes on to use the library
         trackOne();
      }
      ::_exit(0);
   }

   // In a child: lets go of its copy of the parent's tracker and has a child of its own.
   void trackOne() {
      tracker_ = nullptr;
      const auto own = Zor::childProcessTrackerSmFactory();
      if (own->forkChild("grandchild", nullptr, nullptr, {}) != 0) {
         while (own->process().members() != 0) {
            manager()->runOnce(-1);
         }
         ::_exit(own->successfulTerminationCount() == 1 ? 0 : 97);
      }
   }

   Input& input_;
   Vel::Ptr<RudeTracker> tracker_;
   Gate gate_;
   std::map<int, std::pair<Siginfo::SignalCode, unsigned>> expected_;
   std::vector<int> pids_;
   std::set<int> forked_;
   std::set<int> waiting_;
   bool meddled_ = false; // from here on ends may be told twice, or as lost
   int forks_ = 0;
   int waits_ = 0;
   int depth_ = 0;
   static inline Play* play_ = nullptr;
};

void RudeTracker::forkedChildExitCallback(const Child& child) { Play::now().ended(*child); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   manager()->pollFd(); // its poll set stays, and so does the trace handle
   Zor::childProcessTrackerSmFactory()->handleTerminatedChildProcess(0);
   const auto tallied = tallies();
   const auto open = openDescriptors(256);
   {
      Input input(data, size);
      Play(input).run();
   }
   // The loop has yet to hear of those that a thief has reaped.
   for (int turns = 1000; turns > 0 && openDescriptors(256) != open; --turns) {
      manager()->runOnce(1);
   }
   require(tallies() == tallied, "every object ends");
   require(openDescriptors(256) == open, "every descriptor is closed");
   return 0;
}
