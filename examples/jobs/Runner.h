// Running the commands of a list until all have ended.
#pragma once

#include "JobTracker.h"
#include "Options.h"
#include "Report.h"
#include "Screen.h"

#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace jobs {

// Runs commands, so many at a time, on the event loop of the one thread there is. What is still
// running when it is destroyed is killed.
class Runner {
 public:
   Runner(Options options, std::vector<std::string> commands, const StartState& startState,
          Screen& screen);
   Runner(const Runner&) = delete;
   Runner& operator=(const Runner&) = delete;
   ~Runner();

   void run();
   void showStatus() const; // in the file that the options name, if any

   Progress progress() const;
   int interruption() const noexcept { return interruption_; } // the first signal, 0 for none
   const JobTracker& tracker() const noexcept { return *tracker_; }

 private:
   static constexpr Clock::time_point never = Clock::time_point::max();

   struct Job {
      Vel::Ptr<Zor::ChildProcess const> child;
      Clock::time_point started;
      Clock::time_point deadline = never;
      bool timedOut = false;
   };

   bool startNext();
   void startedIs(int pid, Clock::time_point begun);
   void ended(const Zor::ChildProcess& child);
   void interruptedBy(int signal);
   void signalGroup(const Job& job, int signal) const;
   void terminateOverdue();
   void deadlineIs(Job& job, Clock::time_point deadline);
   Clock::time_point nextDue() const;

   const Clock::time_point begun_ = Clock::now();
   const Options options_;
   const std::vector<std::string> commands_;
   const StartState& startState_;
   Screen& screen_;
   Vel::Ptr<JobTracker> tracker_;
   Vel::Ptr<SignalWatch> signals_;
   Vel::Ptr<SignalWatch> statusSignals_;
   Vel::Ptr<Timer> timer_;
   std::unordered_map<int, Job> running_;                  // by process id
   std::set<std::pair<Clock::time_point, int>> deadlines_; // of those, with the process id
   std::size_t next_ = 0;                                  // of the commands, the one to start next
   std::size_t refused_ = 0;                               // could not be started
   std::size_t untracked_ = 0; // were started, but nobody will hear how they end
   std::size_t timedOut_ = 0;
   int interruption_ = 0;
};

} // namespace jobs
