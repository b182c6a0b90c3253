// The inside of the activity manager: this process's poll set, who owns the descriptors in it, and
// the delivery of what it yields.
#pragma once

#include <Vel/Activity.h>
#include <Vel/internal/DescriptorTable.h>
#include <Vel/internal/ForkMark.h>

#include <array>
#include <cstdint>
#include <sys/epoll.h>

namespace Vel {

// The watch of children, as the core sees it: an owner of descriptors that are not objects.
class ChildEvents {
 public:
   virtual void onEvent(std::uint32_t tag) = 0; // may run handlers, throw
   virtual void onPause() = 0;                  // the pause is over; likewise
   virtual int pauseMs() const noexcept = 0;    // to onPause; -1: a timer says so, or never
   virtual void onBeforeWait() noexcept = 0;    // the time to open anew what was lost
   virtual void onForgotten(std::uint32_t tag) noexcept = 0;
   virtual void onPipeForgotten() noexcept = 0;
   virtual void onPollSetLost() noexcept = 0;
   virtual void onFork() noexcept = 0; // nothing of the parent's is this process's

 protected:
   ~ChildEvents() = default;
};

class ActivityCore {
 public:
   static ActivityCore& instance() noexcept;

   int runOnce(int timeoutMs);
   void run();
   void stop() noexcept;
   int pollFd();
   ActivityManagerSm::Wakeups wakeups() const noexcept { return wakeups_; }
   bool fd(int descriptor) noexcept;
   void fdDel(int descriptor) noexcept;
   int fdDelUnless(bool (*kept)(int, const void*), const void* context) noexcept;

   // Makes the number its owner's; whoever had it forgets it. Throws bad_alloc, changed nothing.
   void ownerIs(int descriptor, FileDescriptor* object);
   void ownerIs(int descriptor, std::uint32_t tag);
   void tagIs(int descriptor, std::uint32_t tag) noexcept; // its owner goes by another tag now
   // Watches an owned one for these events, or no more for 0. SystemException when the kernel
   // refuses.
   void eventsIs(int descriptor, std::uint32_t events);
   // Out of the poll set and without an owner, who is about to close it.
   void release(int descriptor) noexcept;

   constexpr void childEventsIs(ChildEvents* children) noexcept { children_ = children; }
   void deliveryMade() noexcept { ++deliveries_; }
   // Called first by whatever may run in a forked child: leaves the parent's things to the parent.
   void adoptProcess() noexcept {
      if (mark_.crossed()) {
         leaveParent();
      }
   }

 private:
   class Batch;

   void leaveParent() noexcept;
   void ownerIs(int descriptor, std::uintptr_t owner);
   void forgotten(std::uintptr_t owner) noexcept;
   void forgetPollSet() noexcept;
   int pollSet() {
      adoptProcess();
      if (pollSet_ < 0) {
         openPollSet();
      }
      return pollSet_;
   }
   void openPollSet();
   void fillPollSet();
   int control(int operation, int descriptor, const DescriptorPlace& place,
               std::uint32_t events) noexcept;
   void unwatch(int descriptor, DescriptorPlace& place) noexcept;
   std::uint64_t unclaimed() const noexcept { return deliveries_ - claimed_; }
   void fetch(std::int64_t waitMs);
   void pipesLast() noexcept;
   int wait(std::int64_t waitMs);
   void deliverFetched();
   const DescriptorPlace* placeOf(const epoll_event& event) noexcept;
   void deliver(const epoll_event& event);
   void closeBatch() noexcept;
   void armAgain() noexcept;

   ForkMark mark_;
   DescriptorTable table_;
   ChildEvents* children_ = nullptr; // lives for the process, and is there before anything runs
   int pollSet_ = -1;
   int pollSetEnd_ = 0; // one more than the highest number that it ever had
   // Events that were fetched and not yet delivered. They are the manager's, not a call's: a run
   // within a handler goes on with them.
   std::array<epoll_event, 64> fetched_{};
   int next_ = 0;
   int end_ = 0;
   bool batchOpen_ = false; // fetched, and not yet told whether it delivered anything
   std::uint64_t deliveredBefore_ = 0;
   std::uint64_t deliveries_ = 0;
   std::uint64_t claimed_ = 0; // of the deliveries: those that a runOnce has returned
   ActivityManagerSm::Wakeups wakeups_{0, 0};
   bool* stopped_ = nullptr; // the innermost run's
};

} // namespace Vel
