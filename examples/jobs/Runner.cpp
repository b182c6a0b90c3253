#include "Runner.h"

#include "Report.h"
#include "StatusFile.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace jobs {

namespace {

Clock::duration duration(double seconds) {
   return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

} // namespace

Runner::Runner(Options options, std::vector<std::string> commands, const StartState& startState,
               Screen& screen)
   : options_(std::move(options)), commands_(std::move(commands)), startState_(startState),
     screen_(screen), tracker_(Zor::newTracker<JobTracker>(
                         startState, [this](const Zor::ChildProcess& child) { ended(child); })),
     signals_(Vel::newEntity<SignalWatch>(startState.interrupting(),
                                          [this](int signal) { interruptedBy(signal); })),
     timer_(Vel::newEntity<Timer>()) {
   if (!options_.status.empty()) {
      statusSignals_ =
         Vel::newEntity<SignalWatch>(startState.askingForStatus(), [this](int) { showStatus(); });
   }
}

Runner::~Runner() {
   for (const auto& entry : running_) {
      signalGroup(entry.second, SIGKILL);
   }
}

// One start between two looks at the loop: also while thousands are started an interruption is
// heard at once, and what has ended makes room.
void Runner::run() {
   const auto loop = Vel::ActivityImplFacility::activityManagerSm();
   bool more = startNext();
   while (more || !running_.empty()) {
      screen_.progressIs(progressLine(progress()));
      timer_->dueIs(nextDue());
      loop->runOnce(more ? 0 : -1);
      terminateOverdue();
      more = startNext();
   }
   screen_.progressIs("");
}

// Returns whether another one may follow at once; else one that runs has to end first.
bool Runner::startNext() {
   if (interruption_ != 0 || next_ == commands_.size() || running_.size() >= options_.jobs) {
      return false;
   }
   const std::string& command = commands_[next_];
   const Clock::time_point begun = Clock::now();
   try {
      const int pid = tracker_->start(command);
      const int error = errno;
      if (pid < 0 && !running_.empty()) {
         return false; // no room for another process; tried again when something has happened
      }
      if (pid < 0) {
         ++refused_;
         screen_.tell(troubleLine("not started", std::strerror(error), command));
      } else {
         startedIs(pid, begun);
      }
   } catch (const Vel::Exception& untracked) {
      ++untracked_;
      screen_.tell(troubleLine("lost", untracked.what(), command));
   }
   ++next_;
   return true;
}

void Runner::startedIs(int pid, Clock::time_point begun) {
   Job& job = running_[pid];
   job.child = tracker_->process(pid);
   job.started = begun;
   if (options_.timeout > 0) {
      deadlineIs(job, job.started + duration(options_.timeout));
   }
}

void Runner::ended(const Zor::ChildProcess& child) {
   const auto entry = running_.extract(child.pid());
   if (entry.empty()) {
      return; // was told as one that can't be tracked
   }
   const Job& job = entry.mapped();
   deadlines_.erase({job.deadline, child.pid()});
   timedOut_ += job.timedOut;
   screen_.tell(endLine(child, Clock::now() - job.started, job.timedOut));
}

void Runner::showStatus() const {
   if (!options_.status.empty()) {
      writeStatus(options_.status, tracker_);
   }
}

// The first time whoever asked is passed on and what runs may end in its own way.
void Runner::interruptedBy(int signal) {
   const int sent = interruption_ == 0 ? startState_.passedOn(signal) : SIGKILL;
   if (interruption_ == 0) {
      interruption_ = signal;
   }
   for (const auto& entry : running_) {
      signalGroup(entry.second, sent);
   }
}

// Only while the end isn't recorded is the group's number sure to be the command's: until then
// nobody has waited for its process.
void Runner::signalGroup(const Job& job, int signal) const {
   if (job.child->siginfo()->signalCode() != Vel::ChildSiginfo::none) {
      return;
   }
   ::kill(-job.child->pid(), signal);
   ::kill(-job.child->pid(), SIGCONT); // a stopped process would not act on the signal
}

void Runner::terminateOverdue() {
   const Clock::time_point now = Clock::now();
   while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
      Job& job = running_.at(deadlines_.begin()->second);
      const bool asked = std::exchange(job.timedOut, true);
      signalGroup(job, asked ? SIGKILL : SIGTERM);
      deadlineIs(job, asked ? never : now + duration(options_.grace));
   }
}

void Runner::deadlineIs(Job& job, Clock::time_point deadline) {
   const int pid = job.child->pid();
   deadlines_.erase({job.deadline, pid});
   job.deadline = deadline;
   if (deadline != never) {
      deadlines_.emplace(deadline, pid);
   }
}

// The next deadline or, for the clock in the progress line, the next full second.
Clock::time_point Runner::nextDue() const {
   const Clock::time_point deadline = deadlines_.empty() ? never : deadlines_.begin()->first;
   if (!screen_.live()) {
      return deadline;
   }
   const auto passed = std::chrono::floor<std::chrono::seconds>(Clock::now() - begun_);
   return std::min(deadline, begun_ + passed + std::chrono::seconds(1));
}

Progress Runner::progress() const {
   Progress progress;
   progress.total = commands_.size();
   progress.started = next_ - refused_;
   progress.running = running_.size();
   progress.succeeded = tracker_->successfulTerminationCount();
   progress.failed = tracker_->errorTerminationCount();
   progress.lost = tracker_->lostCount() + untracked_;
   progress.refused = refused_;
   progress.timedOut = timedOut_;
   progress.elapsed = Clock::now() - begun_;
   return progress;
}

} // namespace jobs
