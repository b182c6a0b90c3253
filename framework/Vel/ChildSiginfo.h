// How a child process ended, and the watching that finds it out.
#pragma once

#include <Vel/Activity.h>

#include <cstdint>
#include <iosfwd>

namespace Vel {

// An entity with a name and, if it wants one, a parent, which it keeps alive.
class VEL_EXPORT Entity : public PtrInterface {
 public:
   explicit Entity(Name name) noexcept;
   const Name& name() const noexcept { return name_; }
   const Ptr<Entity>& parent() const noexcept { return parent_; }
   // With an empty parent: detached. Dropping the old parent may end it.
   void parentIs(const Ptr<Entity>& parent) { parent_ = parent; }
   ~Entity() override;

 private:
   Name name_;
   Ptr<Entity> parent_;
};

// The record of one child's end. Owned by counted handles; activity thread only. By itself it
// watches nothing: childPipeReactorIs starts that, and from then on runOnce records the end, once.
// Setters announce a change to the notifiees, which may do anything, and are silent for an equal
// value.
class VEL_EXPORT ChildSiginfo : public Entity {
 public:
   enum SignalCode : std::uint32_t {
      none = 0,   // nothing recorded
      exited = 3, // see exitStatus
      killed = 4, // see exitSignal and coreDumped
      lost = 6,   // ended, but other code took the status and the kernel no longer has it
   };
   enum class Provenance : std::uint8_t {
      none,      // nothing recorded by the loop
      reaped,    // by our own wait
      recovered, // from the kernel's record, after other code had waited
      unknown,   // lost
   };
   using Provenance::reaped;
   using Provenance::recovered;
   using Provenance::unknown;
   class NotifieeConst;

   ChildSiginfo(Name name, int pid) noexcept;

   int pid() const noexcept { return pid_; }
   SignalCode signalCode() const noexcept { return signalCode_; }
   std::uint8_t exitStatus() const noexcept { return exitStatus_; }
   std::uint8_t exitSignal() const noexcept { return exitSignal_; }
   bool coreDumped() const noexcept { return coreDumped_; }
   Provenance provenance() const noexcept { return provenance_; }
   void signalCodeIs(SignalCode code);
   void exitStatusIs(std::uint8_t status);
   void exitSignalIs(std::uint8_t signal);

   // The descriptor object of the child's pipe, and a new one in its place, without a descriptor.
   const Ptr<FileDescriptor>& childPipe() const noexcept { return childPipe_; }
   Ptr<FileDescriptor> childPipeIs(Name name);

   // Starts watching the pipe and the process; siginfo is this object. The end is recorded by the
   // loop, never here. The process need not be ours: then the end of the pipe is the end, lost.
   // SystemException when neither can be watched.
   const Ptr<FileDescriptor::NotifieeConst>& childPipeReactor() const noexcept {
      return childPipeReactor_;
   }
   Ptr<FileDescriptor::NotifieeConst> childPipeReactorIs(const Ptr<FileDescriptor const>& pipe,
                                                         const Ptr<ChildSiginfo>& siginfo);

   // Sends a signal to the process. False when its end is recorded or it is not (or not known to
   // be) a child of ours; SystemException for a signal that can't be sent at all.
   bool signal(int number) const;

   // Records the end of a process that can't be running any more, because its number has been
   // given to another one: as far as it can still be learned, else as lost. Runs handlers.
   void conclude();

   // For whoever forks a child that is to be tracked. The child is the framework's from forkedIs
   // on, until it ends: reaped then, also when no siginfo watches it or its siginfo goes before.
   static void forkedReserve(); // before the fork, so that nothing can fail behind it
   static void forkedIs(int pid) noexcept;
   static void forkedSettle() noexcept; // once registering it is over, however that went

   NotifieeList* notifieeList() const override { return &notifieeList_; }
   const VelType* fwkType() const override;
   ~ChildSiginfo() override;

   static const VelType _velType;
   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 private:
   friend class ChildWatch;
   class ChildPipeReactor;
   struct End;

   static constexpr std::uint32_t noPlace = ~std::uint32_t{0};

   template <auto handler> void announce() const;
   void endIs(const End& end);

   int pid_;
   SignalCode signalCode_ = none;
   Ptr<FileDescriptor> childPipe_;
   Ptr<FileDescriptor::NotifieeConst> childPipeReactor_;
   mutable NotifieeList notifieeList_;
   std::uint32_t place_ = noPlace; // in the table of watched children, which keeps it
   std::uint8_t exitStatus_ = 0;
   std::uint8_t exitSignal_ = 0;
   bool coreDumped_ = false;
   Provenance provenance_ = Provenance::none;
};

// Watches the record of a child's end.
class VEL_EXPORT ChildSiginfo::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
   void isRegisteredNotifieeIs(bool registered) const override;
   void notifierIs(const Ptr<PtrInterface const>& notifier) override;
   ~NotifieeConst() override;

   Ptr<ChildSiginfo const> notifier() const {
      return static_cast<const ChildSiginfo*>(rawNotifier());
   }

   virtual void onExitSignal();
   virtual void onExitStatus();
   virtual void onSignalCode();
   virtual void onChildPipe();
   virtual void onChildPipeReactor();
};

// The code's name: none, exited, killed or lost; the number of any other.
VEL_EXPORT std::ostream& operator<<(std::ostream& stream, const ChildSiginfo::SignalCode& code);

} // namespace Vel
