// The inside of the activity manager: this process's poll set, who owns the descriptors in it, and
// the delivery of what it yields.
#pragma once

#include <Vel/Activity.h>
#include <Vel/internal/DescriptorTable.h>

#include <array>
#include <cstdint>
#include <sys/epoll.h>
#include <thread>
#include <vector>

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

 protected:
   ~ChildEvents() = default;
};

class ActivityCore {
 public:
   // What a forked child takes over; all else it starts with anew.
   struct Legacy {
      std::vector<FileDescriptor*> objects; // by descriptor; the pipes of children not among them
      DescriptorTable::Kept places;
      int pollSetEnd = 0; // one more than the highest number that a poll set ever had
      std::uint32_t generation = 0;
      struct Run {
         std::thread::id thread;
         bool stopped = false;
      };
      Run* running = nullptr; // the innermost one
   };

   // This process's. Whoever may have run a handler asks again before looking at it: in a child
   // that comes out of there it is another one, at the same place.
   static ActivityCore& instance() noexcept;
   ActivityCore(DescriptorPlace* firstPlaces, Legacy& legacy, ChildEvents& children) noexcept;
   ActivityCore(const ActivityCore&) = delete;
   ActivityCore& operator=(const ActivityCore&) = delete;

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
   bool owns(const FileDescriptor* object, int descriptor) noexcept;
   // Another one once the number's present owner has given it up, and in a forked child.
   std::uint64_t stamp(int descriptor) noexcept;
   // Watches an owned one for these events, or no more for 0. SystemException when the kernel
   // refuses.
   void eventsIs(int descriptor, std::uint32_t events);
   // Out of the poll set and without an owner, who is about to close it.
   void release(int descriptor) noexcept;

   void deliveryMade() noexcept {
      delivered_ = true;
      if (made_ != nullptr) {
         ++*made_;
      }
   }

 private:
   void ownerIs(int descriptor, std::uintptr_t owner);
   void forgotten(std::uintptr_t owner) noexcept;
   void forgetPollSet() noexcept;
   int pollSet() {
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
   void vacate(int descriptor, DescriptorPlace& place) noexcept;
   void fetch(std::int64_t waitMs);
   void pipesLast() noexcept;
   int wait(std::int64_t waitMs);
   void deliverFetched();
   const DescriptorPlace* placeOf(const epoll_event& event) noexcept;
   void deliver(const epoll_event& event);
   void closeBatch() noexcept;
   void armAgain() noexcept;

   Legacy& legacy_;
   DescriptorTable table_;
   ChildEvents& children_;
   int pollSet_ = -1;
   // Events that were fetched and not yet delivered. They are the manager's, not a call's: a run
   // within a handler goes on with them.
   std::array<epoll_event, 64> fetched_;
   int next_ = 0;
   int end_ = 0;
   bool batchOpen_ = false; // fetched, and not yet told whether it delivered anything
   bool delivered_ = false; // something, since
   int* made_ = nullptr;    // where the innermost runOnce counts its deliveries
   ActivityManagerSm::Wakeups wakeups_{0, 0};
};

} // namespace Vel
