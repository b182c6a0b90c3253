// Starting child processes and keeping account of them until they end.
//
// A tracker forks children, closes in them what they are not to keep, hears on the event thread
// how each one ended, counts that, calls a hook and forgets the child. Everything here belongs to
// the activity thread; nothing starts a thread, takes a lock or handles a signal.
#pragma once

#include <Zor/Export.h>

#include <Vel/ChildSiginfo.h>
#include <Vel/HashMap.h>
#include <Vel/VelType.h>

#include <cstdint>
#include <iosfwd>
#include <utility>

namespace Zor {

using S32 = std::int32_t;
using ChildProcessInitCallbackContext = void*;

class ChildProcessTrackerSm;

// The record of one child, kept by the tracker until the child has ended and by whoever holds a
// handle. Watching starts with its construction. Changing or dropping the siginfo runs notifiees.
class ZOR_EXPORT ChildProcess : public Vel::PtrInterface {
 public:
   class NotifieeConst;

   // readFromChildFd: the read end of the child's status pipe, owned by the record once the
   // constructor has returned; SystemException when neither it nor the process can be watched.
   ChildProcess(int pid, Vel::String8 description, int readFromChildFd);

   int pid() const noexcept { return pid_; }
   const Vel::String8& description() const noexcept { return description_; }
   const Vel::Ptr<Vel::ChildSiginfo>& siginfo() const noexcept { return siginfo_; }

   void handleInitialized(int readFromChildFd);
   // The siginfo of that name and pid: the present one, or a new one in its place (which watches
   // nothing yet).
   Vel::Ptr<Vel::ChildSiginfo> siginfoIs(Vel::Name name, int pid);
   Vel::Ptr<Vel::ChildSiginfo> newSiginfo(Vel::Name name, int pid);
   // Takes the siginfo away and returns it.
   Vel::Ptr<Vel::ChildSiginfo> siginfoDel();

   Vel::NotifieeList* notifieeList() const override { return &notifieeList_; }
   void zeroReferencesIs(bool zero) override;
   const Vel::VelType* fwkType() const override;
   ~ChildProcess() override;

   static const Vel::VelType _velType;
   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend struct Vel::HashMapTraits<ChildProcess>;

   const int pid_;
   const Vel::String8 description_;
   Vel::Ptr<Vel::ChildSiginfo> siginfo_;
   Vel::Ptr<ChildProcess> next_; // in the bucket of the tracker's collection, which alone writes it
   mutable Vel::NotifieeList notifieeList_;
};

// Watches a child's record.
class ZOR_EXPORT ChildProcess::NotifieeConst : public Vel::PtrInterface::NotifieeConst {
 public:
   void isRegisteredNotifieeIs(bool registered) const override;
   void notifierIs(const Vel::Ptr<Vel::PtrInterface const>& notifier) override;
   ~NotifieeConst() override;

   Vel::Ptr<ChildProcess const> notifier() const {
      return static_cast<const ChildProcess*>(rawNotifier());
   }

   virtual void onSiginfo();
};

// "517 'worker'"; the number as the stream formats it.
ZOR_EXPORT std::ostream& operator<<(std::ostream& stream, const ChildProcess* child);

// The descriptors that a forked child keeps. Made with Vel::newEntity.
class ZOR_EXPORT ChildProcessTrackerCloseFdsContext : public Vel::PtrInterface {
 public:
   class VelSkipFd;
   using SkipFdMap = Vel::HashMap<VelSkipFd, int, bool>;

   ChildProcessTrackerCloseFdsContext();

   const SkipFdMap& skipFd() const noexcept { return skipFd_; }
   bool skipFd(int fd) const; // whether it is kept
   void skipFdIs(int fd, bool keep);
   Vel::Ptr<VelSkipFd> newSkipFd(int fd, bool keep);
   bool skipFdDel(int fd); // returns the flag it had, false for none
   bool skipFdDel(SkipFdMap::Iterator& iterator);
   void skipFdDelAll();
   void skipFdNotify(int fd);

   const Vel::VelType* fwkType() const override;
   ~ChildProcessTrackerCloseFdsContext() override;

   static const Vel::VelType _velType;
   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   SkipFdMap skipFd_;
};

// One entry of skipFd.
class ZOR_EXPORT ChildProcessTrackerCloseFdsContext::VelSkipFd : public Vel::PtrInterface {
 public:
   VelSkipFd(int fd, bool keep) noexcept : fd_(fd), keep_(keep) {}
   int fwkKey() const noexcept { return fd_; }
   bool value() const noexcept { return keep_; }
   void valueIs(bool keep) noexcept { keep_ = keep; }
   ~VelSkipFd() override;

   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend struct Vel::HashMapTraits<VelSkipFd>;

   const int fd_;
   bool keep_;
   Vel::Ptr<VelSkipFd> next_;
};

// Closes every open descriptor of this process that the context doesn't keep, standard input,
// output and error included; the activity manager forgets each one first. Meant for a freshly
// forked child. Reports nothing; RangeException for an empty context.
ZOR_EXPORT void
childProcessTrackerCloseFds(const Vel::Ptr<ChildProcessTrackerCloseFdsContext const>& context);

} // namespace Zor

template <> struct Vel::HashMapTraits<Zor::ChildProcess> {
   static int key(const Zor::ChildProcess& entry) noexcept { return entry.pid(); }
   static Ptr<Zor::ChildProcess>& link(Zor::ChildProcess& entry) noexcept { return entry.next_; }
};

template <> struct Vel::HashMapTraits<Zor::ChildProcessTrackerCloseFdsContext::VelSkipFd> {
   using Entry = Zor::ChildProcessTrackerCloseFdsContext::VelSkipFd;
   static int key(const Entry& entry) noexcept { return entry.fwkKey(); }
   static Ptr<Entry>& link(Entry& entry) noexcept { return entry.next_; }
};

namespace Zor {

// The tracker. Owned by counted handles, any number may exist. forkChild and everything that
// changes process or childProcess, or hears of an end, may run the hook of a derived tracker.
class ZOR_EXPORT ChildProcessTrackerSm : public Vel::PtrInterface {
 public:
   class VelChildProcess;
   using ProcessMap = Vel::HashMap<ChildProcess, int, ChildProcess>;
   using ChildProcessMap = Vel::HashMap<VelChildProcess, int, ChildProcess>;

   enum terminationError : std::uint32_t {
      invalid = 0,           // no failure recorded
      nonZeroExitStatus = 1, // exited with a status other than 0
      signaled = 2,          // killed by a signal
   };

   // A new tracker with notification on. For a derived one: Zor::newTracker.
   static Vel::Ptr<ChildProcessTrackerSm> ChildProcessTrackerSmIs();

   void hasNotificationActiveIs(bool active) override;
   const Vel::VelType* fwkType() const override;
   ~ChildProcessTrackerSm() override;

   // Forks. In the parent: the child's process id, with the child registered under it and the name
   // as its description; a negative value, with errno, when there was no pipe or no child. In the
   // child: 0, after fn(arg) has run (when set) and, with a context, every descriptor but the kept
   // ones and the write end of the status pipe has been closed; the caller's code goes on there.
   // When registering the child throws, it runs on untracked and is reaped when it ends.
   virtual S32 forkChild(Vel::String8 name, void (*const& fn)(ChildProcessInitCallbackContext),
                         void* const& arg,
                         const Vel::Ptr<ChildProcessTrackerCloseFdsContext>& closeFdsContext);
   // The hook: called once for each end, after the counts, while the child is still in process;
   // does nothing here. When it throws, the child stays there and the caller of the loop gets it.
   virtual void forkedChildExitCallback(const Vel::Ptr<ChildProcess const>& child);

   // The children being tracked. Removing one returns it, empty when there is none.
   virtual Vel::Ptr<ChildProcess> processDel(int pid);
   virtual Vel::Ptr<ChildProcess> processDel(ProcessMap::Iterator& iterator);
   virtual void processNotify(int pid);
   // The child of that number, registered if it is new: any running child of this process, which
   // is waited for from here on, or a stranger, whose end is that of its pipe. NameInUseException
   // for a known number with another description. An exception leaves readFromChildFd with the
   // caller, and so does a number that is known.
   virtual Vel::Ptr<ChildProcess> processIs(int pid, Vel::String8 description, int readFromChildFd);

   // The reactors, one for each child; removing one returns the child that it watched.
   virtual Vel::Ptr<ChildProcess const> childProcessDel(int pid);
   virtual Vel::Ptr<ChildProcess const> childProcessDel(ChildProcessMap::Iterator& iterator);
   virtual void childProcessNotify(int pid);
   virtual void childProcessIs(const Vel::Ptr<ChildProcess const>& child);

   virtual void lastFailedProcessIs(const Vel::Ptr<ChildProcess const>& child);
   virtual void lastFailedProcessTerminationErrorIs(terminationError error);
   virtual void successfulTerminationCountInc(unsigned n);
   virtual void successfulTerminationCountIs(unsigned n);
   virtual void errorTerminationCountInc(unsigned n);
   virtual void errorTerminationCountIs(unsigned n);

   virtual void velDoZombieReactors(bool zombie);

   const ProcessMap& process() const noexcept { return process_; }
   ChildProcess* process(int pid) const { return process_[pid]; } // null when there is none
   Vel::Ptr<ChildProcess> newProcess(int pid, Vel::String8 description, int readFromChildFd);
   void processDelAll();

   const ChildProcessMap& childProcess() const noexcept { return childProcess_; }
   VelChildProcess* childProcess(int pid) const;
   Vel::Ptr<VelChildProcess> newChildProcess(const Vel::Ptr<ChildProcess const>& child);
   void childProcessDelAll();

   // Accounts for the end of a child that its siginfo shows; traces, and changes nothing, when it
   // shows none or the child is not tracked.
   void handleTerminatedChildProcess(int pid);

   const Vel::Ptr<ChildProcess const>& lastFailedProcess() const noexcept {
      return lastFailedProcess_;
   }
   terminationError lastFailedProcessTerminationError() const noexcept {
      return lastFailedProcessTerminationError_;
   }
   unsigned successfulTerminationCount() const noexcept { return successfulTerminationCount_; }
   unsigned errorTerminationCount() const noexcept { return errorTerminationCount_; }

   // The value of that number or name; RangeException for one that the enumeration doesn't have.
   static terminationError terminationErrorInstance(unsigned number);
   static terminationError terminationErrorInstance(const Vel::String8& name);

   Vel::Ptr<Vel::PtrInterface> velFwkActivity() const;

   static const Vel::VelType _velType;
   static const Vel::VelType _velType_terminationError;
   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 protected:
   template <class T, class... Args> friend Vel::Ptr<T> Vel::newEntity(Args&&... args);
   ChildProcessTrackerSm();

 private:
   Vel::Ptr<ChildProcess const> reactorDel(VelChildProcess* entry);

   ProcessMap process_;
   ChildProcessMap childProcess_;
   Vel::Ptr<ChildProcess const> lastFailedProcess_;
   terminationError lastFailedProcessTerminationError_ = invalid;
   std::uint32_t successfulTerminationCount_ = 0;
   std::uint32_t errorTerminationCount_ = 0;
};

// The reactor that follows one child's siginfo attribute. Owned by the tracker's collection.
class ZOR_EXPORT ChildProcessTrackerSm::VelChildProcess : public ChildProcess::NotifieeConst {
 public:
   class VelSiginfo;

   VelChildProcess(const Vel::Ptr<ChildProcess const>& childProcess,
                   ChildProcessTrackerSm* childProcessTrackerSm);

   void hasNotificationActiveIs(bool active) override;
   void notifierIs(const Vel::Ptr<Vel::PtrInterface const>& notifier) override;
   void onSiginfo() override;
   ~VelChildProcess() override;

   virtual Vel::Ptr<Vel::ChildSiginfo const> siginfoDel();
   virtual void siginfoIs(const Vel::Ptr<Vel::ChildSiginfo const>& siginfo);
   virtual void velDoZombieReactors(bool zombie);

   Vel::Ptr<VelSiginfo> newSiginfo(const Vel::Ptr<Vel::ChildSiginfo const>& siginfo);
   const Vel::Ptr<VelSiginfo>& siginfo() const noexcept { return siginfo_; }
   ChildProcessTrackerSm* childProcessTrackerSm() const noexcept { return childProcessTrackerSm_; }
   void childProcessTrackerSmIs(ChildProcessTrackerSm* sm) noexcept { childProcessTrackerSm_ = sm; }
   // The pid of the watched child, 0 without one: the key in the tracker's collection.
   int fwkKey() const noexcept {
      const auto* const child = static_cast<const ChildProcess*>(rawNotifier());
      return child != nullptr ? child->pid() : 0;
   }
   // Tells the tracker; the pair may be gone when it returns.
   void vel_handleSiginfo_signalCode();

   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend struct Vel::HashMapTraits<VelChildProcess>;

   // Uncounted. The tracker clears it when it lets the reactor go, and marks the reactor first.
   ChildProcessTrackerSm* childProcessTrackerSm_;
   Vel::Ptr<VelChildProcess> next_;
   Vel::Ptr<VelSiginfo> siginfo_;
};

// The reactor that follows the signal code of one siginfo. Owned by its VelChildProcess.
class ZOR_EXPORT ChildProcessTrackerSm::VelChildProcess::VelSiginfo
   : public Vel::ChildSiginfo::NotifieeConst {
 public:
   VelSiginfo(const Vel::Ptr<Vel::ChildSiginfo const>& siginfo, VelChildProcess* velChildProcess);

   void hasNotificationActiveIs(bool active) override;
   void notifierIs(const Vel::Ptr<Vel::PtrInterface const>& notifier) override;
   void onSignalCode() override;
   ~VelSiginfo() override;
   virtual void velDoZombieReactors(bool zombie);

   VelChildProcess* velChildProcess() const noexcept { return velChildProcess_; }
   void velChildProcessIs(VelChildProcess* owner) noexcept { velChildProcess_ = owner; }

   static Vel::AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   // Uncounted. The owner clears it when it lets the reactor go, and marks the reactor first.
   VelChildProcess* velChildProcess_;
};

// A new tracker, owned by the handle; its children are forgotten when the last handle goes.
ZOR_EXPORT Vel::Ptr<ChildProcessTrackerSm> childProcessTrackerSmFactory();

// A new tracker of a derived class, ready for use: the creation steps, then notification on.
template <class Derived, class... Args> Vel::Ptr<Derived> newTracker(Args&&... args) {
   Vel::Ptr<Derived> made = Vel::newEntity<Derived>(std::forward<Args>(args)...);
   made->hasNotificationActiveIs(true);
   return made;
}

// The name of a value, or its number when it has none, and back.
ZOR_EXPORT Vel::String8 stringValue(ChildProcessTrackerSm::terminationError error);
ZOR_EXPORT std::ostream& operator<<(std::ostream& stream,
                                    const ChildProcessTrackerSm::terminationError& error);
ZOR_EXPORT Vel::String8 valueToStrep(const ChildProcessTrackerSm::terminationError& error);
ZOR_EXPORT ChildProcessTrackerSm::terminationError
sequenceToValue(Vel::String8::IteratorConst& it, const Vel::String8::IteratorConst& end,
                ChildProcessTrackerSm::terminationError*);

} // namespace Zor

template <> struct Vel::HashMapTraits<Zor::ChildProcessTrackerSm::VelChildProcess> {
   using Entry = Zor::ChildProcessTrackerSm::VelChildProcess;
   static int key(const Entry& entry) noexcept { return entry.fwkKey(); }
   static Ptr<Entry>& link(Entry& entry) noexcept { return entry.next_; }
};
