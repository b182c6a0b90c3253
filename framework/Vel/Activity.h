// The event side of the framework: the activity manager, which waits and delivers, and descriptors
// that can be watched.
#pragma once

#include <Vel/Notifiee.h>
#include <Vel/String8.h>

#include <cstdint>

namespace Vel {

class ActivityCore;

// Waits for events and delivers them, on the one thread that calls it. One per process; it is
// never destroyed. Handlers run inside runOnce and run, and may do anything: drop the last handle
// on what is being delivered, watch, fork, run the loop again, throw.
//
// After a fork the child keeps its copies of watched descriptors and, on first use, gets a poll
// set of its own for them; the parent's children are not its children, and nothing that it does
// reaches what the parent watches.
class VEL_EXPORT ActivityManagerSm : public PtrInterface {
 public:
   // Waits until something is delivered, at most timeoutMs milliseconds (-1: for ever, 0: not at
   // all), and returns how many deliveries were made: rounds of a descriptor's handlers, and
   // recorded ends of children. Signals don't cut it short. An exception from a handler comes out
   // here; what was not yet delivered is delivered by the next call. Within a handler it first
   // delivers what the outer call has already fetched. SystemException when waiting fails.
   int runOnce(int timeoutMs);
   // Delivers until stopped. stop ends the innermost run, after the deliveries at hand.
   void run();
   void stop() noexcept;
   // A descriptor of the manager's that is readable whenever runOnce(0) has work, for hosting in
   // another event loop. Ask again after a fork or after descriptors were closed wholesale.
   int pollFd();

   struct Wakeups {
      std::uint64_t total; // returns of the wait that had events
      std::uint64_t empty; // those of them that delivered nothing
   };
   Wakeups wakeups() const noexcept;

   // Whether the manager knows an owner of this descriptor: a descriptor object, the manager
   // itself, or the watch of a child.
   bool fd(int descriptor) const noexcept;
   // Forgets a descriptor: whoever owned it no longer watches it and will not close it. Any number
   // is welcome. What the manager needs itself it opens anew at its next use.
   void fdDel(int descriptor) noexcept;
   // fdDel of every descriptor that is known and not wanted; returns one more than the highest
   // number known.
   int fdDelUnless(bool (*kept)(int descriptor, const void* context), const void* context) noexcept;

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   template <class T, class... Args> friend Ptr<T> newEntity(Args&&... args);
   ActivityManagerSm();
   ~ActivityManagerSm() override;
};

class VEL_EXPORT ActivityImplFacility {
 public:
   // The process's manager, made on first use; creates no descriptor.
   static Ptr<ActivityManagerSm> activityManagerSm();
};

// A descriptor that can be watched, level-triggered, and that it owns: it is closed when the
// object is destroyed or given another one, unless it was told to forget it. A number has one
// owner: an object that is given a number which another one had makes that one forget it.
// It is in the poll set while it has a descriptor, something to be notified on, and a registered
// notifiee; so watching starts, and can fail with SystemException, with the last of the three.
class VEL_EXPORT FileDescriptor : public PtrInterface {
 public:
   class NotifieeConst;

   explicit FileDescriptor(Name name);

   const Name& name() const noexcept { return name_; }
   int descriptor() const noexcept { // -1 when it has none
      const bool sure = descriptor_ < 0 || (settings_ & childPipeSetting) == 0;
      return sure ? descriptor_ : childPipeDescriptor();
   }
   bool nonBlocking() const noexcept { return settings_ & nonBlockingSetting; }
   bool notifyOnReadable() const noexcept { return settings_ & readableSetting; }
   bool notifyOnWritable() const noexcept { return settings_ & writableSetting; }
   bool notifyOnException() const noexcept { return settings_ & exceptionSetting; }

   // Owns and watches another descriptor from now on, or none for a negative number; the previous
   // one is closed. SystemException, without having taken it, for a number that isn't open or
   // can't be watched; whoever had that number before has lost it all the same.
   virtual void descriptorIs(int descriptor);
   // Sets or clears O_NONBLOCK on the present descriptor and, while on, on those to come.
   virtual void nonBlockingIs(bool on);
   // End of file and errors count as readable, or as writable when only that is asked for.
   virtual void notifyOnReadableIs(bool on);
   virtual void notifyOnWritableIs(bool on);
   virtual void notifyOnExceptionIs(bool on);

   NotifieeList* notifieeList() const override { return &notifieeList_; }
   ~FileDescriptor() override;

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend class ActivityCore;
   friend class ChildSiginfo;

   static constexpr std::uint32_t readableSetting = 1;
   static constexpr std::uint32_t writableSetting = 2;
   static constexpr std::uint32_t exceptionSetting = 4;
   static constexpr std::uint32_t nonBlockingSetting = 8;
   static constexpr std::uint32_t childPipeSetting = 16; // its deliveries are the framework's own

   void settingIs(std::uint32_t setting, bool on);
   std::uint32_t wantedEvents() const noexcept;
   void nonBlockingApply() noexcept;
   void watchUpdate();
   void deliver(std::uint32_t events);
   // In a forked child, which has copies of the objects, the number is the parent's.
   int childPipeDescriptor() const noexcept;
   void close() noexcept;
   void forget() noexcept { descriptor_ = -1; }

   int descriptor_ = -1;
   Name name_;
   mutable NotifieeList notifieeList_;
   std::uint32_t settings_ = 0;
   bool hungUp_ = false; // the last event told of the end, and of nothing to read before it
};

// Watches a descriptor. Handlers run on the activity thread and may do anything.
class VEL_EXPORT FileDescriptor::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
   void isRegisteredNotifieeIs(bool registered) const override;
   void notifierIs(const Ptr<PtrInterface const>& notifier) override;
   ~NotifieeConst() override;

   Ptr<FileDescriptor const> notifier() const {
      return static_cast<const FileDescriptor*>(rawNotifier());
   }

   virtual void onReadable();
   virtual void onWritable();
   virtual void onException();

 private:
   const FileDescriptor* watchedOne() const noexcept { // uncounted
      return static_cast<const FileDescriptor*>(rawNotifier());
   }
   static void membersChanged(const FileDescriptor* watched);
};

} // namespace Vel
