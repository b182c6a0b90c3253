// Watching an entity: the notifiee's base, the notifier's list, and the announcing of a change.
#pragma once

#include <Vel/Ptr.h>

#include <cstddef>
#include <cstdint>

namespace Vel {

class ActivityConfig;

// A list of watchers, owned by value inside the thing watched; uncounted, one word.
// Activity thread only. doVisit runs handlers: they may add or remove members, empty the list or
// drop the last handle on its owner, so the caller holds the owner across it.
class VEL_EXPORT NotifieeListBase {
 public:
   NotifieeListBase() noexcept = default;
   NotifieeListBase(const NotifieeListBase&) = delete;
   NotifieeListBase& operator=(const NotifieeListBase&) = delete;
   ~NotifieeListBase() {
      if (!empty()) {
         deleteAll();
      }
   }

   bool empty() const noexcept { return head_ == 0; }
   unsigned members() const noexcept {
      const Block* const several = block();
      return several != nullptr ? several->live : (empty() ? 0 : 1);
   }

   // Makes the next newMember free of allocation; throws bad_alloc, or changes nothing seen.
   void reserveMember();
   // In the order of joining. One that joins during a visit isn't visited by it, one that leaves
   // before its turn is not visited either. If handlers throw, the others still have their turn
   // and the first exception then goes to the caller.
   void doVisit(void (*visit)(PtrInterface::NotifieeConst*)) const;
   void doDeleteMember(PtrInterface::NotifieeConst* member) noexcept;
   // Leaves every member unregistered, and a weak one without its notifier, which is going.
   void deleteAll() noexcept;

 protected:
   void doNewMember(PtrInterface::NotifieeConst* member);

 private:
   // Members in the order of joining; one that left is a hole (null) until nobody visits.
   struct Block {
      std::uint32_t used = 0;   // places given out, holes included
      std::uint32_t live = 0;   // members
      std::uint32_t room = 0;   // places
      std::uint32_t visits = 0; // under way: places keep their numbers meanwhile
      PtrInterface::NotifieeConst* members[1] = {}; // in truth as many as there is room for

      static Block* make(std::uint32_t room);
      void append(PtrInterface::NotifieeConst* member) noexcept;
      void closeHoles() noexcept;
   };
   Block* block() const noexcept {
      return (head_ & 1) != 0 ? reinterpret_cast<Block*>(head_ - 1) : nullptr;
   }
   PtrInterface::NotifieeConst* single() const noexcept {
      return (head_ & 1) == 0 ? reinterpret_cast<PtrInterface::NotifieeConst*>(head_) : nullptr;
   }
   void tidy() noexcept;

   // Null: empty. Low bit clear: the only member. Low bit set: a block of members.
   mutable std::uintptr_t head_ = 0;
};

// Inline, so that announcing makes one call a member: its function is known where it is compiled.
[[gnu::always_inline]] inline void
NotifieeListBase::doVisit(void (*visit)(PtrInterface::NotifieeConst*)) const {
   if ((head_ & 1) == 0) {
      if (head_ != 0) {
         visit(reinterpret_cast<PtrInterface::NotifieeConst*>(head_)); // a door, and the last step
      }
      return;
   }
   // Read afresh each time: a handler may have made the block move. It is not let go meanwhile.
   const auto now = [this]() -> Block& { return *reinterpret_cast<Block*>(head_ - 1); };
   const std::size_t end = now().used; // who joins from here on isn't visited
   FirstException first;
   ++now().visits;
   for (std::size_t place = 0; place != end; ++place) {
      if (auto* const member = now().members[place]) {
         first.run([&] { visit(member); });
      }
   }
   if (--now().visits == 0 && now().live == 0) {
      const_cast<NotifieeListBase*>(this)->tidy();
   }
   first.rethrow();
}

class VEL_EXPORT NotifieeList : public NotifieeListBase {
 public:
   // Adds a member that is in no list yet. Throws bad_alloc and changes nothing.
   void newMember(PtrInterface::NotifieeConst* member) { doNewMember(member); }
};

// Base of all watchers. Watches one notifier, held counted unless weak, and is called back while
// it is registered there and its notification is active. Each class of notifiers has its own
// NotifieeConst with a handler per attribute; handlers run inside the change that causes them.
class VEL_EXPORT PtrInterface::NotifieeConst : public PtrInterface {
 public:
   static constexpr std::uint32_t reactorFlag = 0x04000000;       // bit 26: a reactor
   static constexpr std::uint32_t wasRegisteredFlag = 0x00080000; // bit 19: when switched off

   // Switching off leaves the notifier's list, switching on restores the registration there was.
   void hasNotificationActiveIs(bool active) override;
   unsigned auditErrors(unsigned level) const override;
   ~NotifieeConst() override;
   virtual NotifieeConst* velReactor() const;
   // Enters the notifier's list or leaves it; remembered while there is no notifier.
   virtual void isRegisteredNotifieeIs(bool registered) const;
   // Watches another notifier, or none; one of another class counts as none.
   virtual void notifierIs(const Ptr<PtrInterface const>& notifier);
   virtual void handleNotification(ActivityConfig* config);
   virtual void onNotificationException();
   virtual void onZeroReferences();
   virtual Ptr<PtrInterface> velFwkActivity() const;
   virtual Ptr<PtrInterface> actsm();

   bool isRegisteredNotifiee() const noexcept { return isRegisteredNotifiee_; }
   bool weakNotifier() const noexcept { return weakNotifier_; }
   // Whether the notifier is kept alive. A weak notifiee that is registered is left without a
   // notifier when that ends; an unregistered one must let go of it before.
   void weakNotifierIs(bool weak);

   std::uint32_t notifieeFlags() const noexcept { return notifieeFlags_; }

   static AllocTrackTypeInfo* velAllocTrackTypeInfo_;
   static void operator delete(void* memory) noexcept {
      velMemFree(velAllocTrackTypeInfo_, memory);
   }

 protected:
   NotifieeConst() noexcept;

   void notifieeFlagsIs(std::uint32_t flags) noexcept { notifieeFlags_ = flags; }
   const PtrInterface* rawNotifier() const noexcept { return notifier_.get(); }

   // What every notifier class's isRegisteredNotifieeIs, notifierIs (with its argument narrowed)
   // and destructor do. All or nothing when the list has no memory.
   void registrationIs(bool registered) const;
   void attach(const PtrInterface* narrowed);
   void detach() noexcept;

 private:
   friend class NotifieeListBase;

   std::uint32_t notifieeFlags_ = 0;
   Ptr<PtrInterface const> notifier_; // its count is given back while weakNotifier_ is set
   bool weakNotifier_ = false;
   mutable bool isRegisteredNotifiee_ = false;
   mutable std::uint32_t place_ = 0; // in the block of the list it is in; the list keeps it
};

// Calls one handler on every notifiee of the notifier, which is held for as long as that takes.
// Flat, or a second call would stand between each member and its handler.
template <auto handler, class Watcher>
[[gnu::noinline, gnu::flatten]] void announceToSome(const PtrInterface* notifier,
                                                    const NotifieeList& list) {
   const Ptr<PtrInterface const> self(notifier); // a handler may drop every other handle on it
   list.doVisit(
      [](PtrInterface::NotifieeConst* notifiee) { (static_cast<Watcher*>(notifiee)->*handler)(); });
}

// The same, and nothing but a look when nobody watches: kept apart, or the look would need a frame.
template <auto handler, class Watcher>
void announceTo(const PtrInterface* notifier, const NotifieeList& list) {
   if (!list.empty()) {
      announceToSome<handler, Watcher>(notifier, list);
   }
}

} // namespace Vel
