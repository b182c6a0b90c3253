// The children that this process watches or has to reap, and how each one's end is learned.
#pragma once

#include <Vel/ChildSiginfo.h>
#include <Vel/internal/ActivityCore.h>
#include <Vel/internal/Pages.h>
#include <Vel/internal/ProcessStatus.h>

#include <cstdint>

namespace Vel {

struct ChildSiginfo::End {
   SignalCode code;
   std::uint8_t value; // exit status, or signal number
   bool coreDumped;
   Provenance provenance;
};

// Each child has a place: one with a siginfo is somebody's, one without is the manager's own to
// reap. A pidfd, edge-triggered, tells of the end. Where there is none, or the poll set refuses
// it, the child is asked after: when its pipe ends, and in growing pauses, one timer for all.
class ChildWatch final : public ChildEvents {
 public:
   struct Place {
      ChildSiginfo* siginfo = nullptr; // uncounted: it leaves before it ends
      int pid = 0;
      int pidfd = -1;
      bool forked = false;    // by us: reaped even when nobody watches
      bool ours = true;       // our child, so waiting for it is right
      bool known = false;     // ... as the kernel has confirmed once
      bool owned = false;     // the manager knows whose the pidfd is
      bool watched = false;   // the poll set has it
      bool asked = false;     // in pauses, since nothing else would tell
      bool gone = false;      // ended for certain, status out of reach unless the pidfd has it
      bool unsettled = false; // to be watched anew
   };
   using Kept = PagedVector<Place>::Kept; // memory: a forked child starts with an empty table

   static ChildWatch& instance() noexcept; // this process's
   ChildWatch(Place* firstPlaces, Kept& kept, ActivityCore& core) noexcept
      : core_(core), children_(firstPlaces, kept) {}

   // Starts watching the process for the siginfo, beside the pipe if that is watched. Throws
   // bad_alloc; false when nothing would ever tell of the end, and then nothing is watched.
   bool watch(ChildSiginfo& siginfo, bool pipeWatched);
   // The siginfo goes: a child that was forked here is from now on the manager's alone, any other
   // is let go.
   void leave(ChildSiginfo& siginfo) noexcept;
   void pipeEnded(ChildSiginfo& siginfo);
   void conclude(ChildSiginfo& siginfo);
   bool signal(const ChildSiginfo& siginfo, int number);

   void forkedReserve() { children_.reserveOne(); }
   void forkedIs(int pid) noexcept;
   void settle() noexcept; // watches anew, or at all, whatever lost its watch or never got one

   void onEvent(std::uint32_t tag) override;
   void onPause() override;
   int pauseMs() const noexcept override;
   void onBeforeWait() noexcept override { settle(); }
   void onForgotten(std::uint32_t tag) noexcept override;
   void onPipeForgotten() noexcept override { pipesForgotten_ = true; }
   void onPollSetLost() noexcept override;

 private:
   static constexpr int longestPause = 1000;

   // Of a siginfo that is watched, in this process; else noPlace.
   std::uint32_t placeOf(const ChildSiginfo& siginfo) noexcept;
   std::uint32_t placeFor(ChildSiginfo& siginfo);
   void open(std::uint32_t at) noexcept;
   bool openPidfd(std::uint32_t at) noexcept;
   void askedIs(Place& place, bool asked) noexcept;
   void unsettledIs(Place& place, bool unsettled) noexcept;
   void goneIs(Place& place) noexcept;
   static bool pipeIsLost(const ChildSiginfo& siginfo);
   Ended ask(Place& place, ProcessStatus& status) noexcept;
   void conclude(std::uint32_t at, Ended ended, const ProcessStatus& status);
   void drop(std::uint32_t at) noexcept;
   void closePidfd(Place& place) noexcept;
   void askSoon() noexcept;
   void pauseIs(int ms) noexcept;
   bool openTimer() noexcept;
   void startTimer() noexcept;
   void closeTimer() noexcept;

   ActivityCore& core_;
   PagedVector<Place> children_;      // unordered; each siginfo and pidfd knows its place
   std::uint32_t unwatchedCount_ = 0; // places without a siginfo
   std::uint32_t askedCount_ = 0;
   std::uint32_t unsettledCount_ = 0;
   bool pipesForgotten_ = false; // of somebody who may have nothing else
   bool pidfdsRefused_ = false;  // found out once
   // The pauses between askings: one timer for the manager; without it, by the clock.
   int timer_ = -1;
   bool timerWatched_ = false; // the poll set has it
   bool pausing_ = false;
   std::int64_t pauseEnd_ = 0;     // in milliseconds of the monotonic clock
   int roundPause_ = longestPause; // after the present round, in milliseconds
   std::uint32_t cursor_ = 0;      // where the round goes on
};

} // namespace Vel
