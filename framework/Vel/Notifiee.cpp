#include <Vel/Exception.h>
#include <Vel/Notifiee.h>

#include <cassert>
#include <cstring>
#include <new>
#include <utility>

namespace Vel {

NotifieeListBase::Block* NotifieeListBase::Block::make(std::uint32_t room) {
   void* const memory =
      ::operator new(sizeof(Block) + (room - 1) * sizeof(PtrInterface::NotifieeConst*));
   auto* const made = ::new (memory) Block;
   made->room = room;
   return made;
}

void NotifieeListBase::Block::append(PtrInterface::NotifieeConst* member) noexcept {
   member->place_ = used;
   members[used++] = member;
   ++live;
}

void NotifieeListBase::Block::closeHoles() noexcept {
   std::uint32_t kept = 0;
   for (std::uint32_t place = 0; place < used; ++place) {
      if (auto* const member = members[place]) {
         member->place_ = kept;
         members[kept++] = member;
      }
   }
   used = kept;
}

void NotifieeListBase::reserveMember() {
   Block* const old = block();
   if (head_ == 0 || (old != nullptr && old->used < old->room)) {
      return;
   }
   if (old == nullptr) {
      Block* const made = Block::make(4);
      made->append(single());
      head_ = reinterpret_cast<std::uintptr_t>(made) | 1;
      return;
   }
   if (old->visits == 0 && old->live <= old->room / 2) {
      old->closeHoles();
      return;
   }
   Block* const made = Block::make(old->room * 2);
   std::memcpy(made->members, old->members, old->used * sizeof old->members[0]);
   made->used = old->used;
   made->live = old->live;
   made->visits = old->visits;
   head_ = reinterpret_cast<std::uintptr_t>(made) | 1;
   ::operator delete(old);
}

void NotifieeListBase::doNewMember(PtrInterface::NotifieeConst* member) {
   if (head_ == 0) {
      head_ = reinterpret_cast<std::uintptr_t>(member);
      return;
   }
   reserveMember();
   block()->append(member);
}

void NotifieeListBase::doDeleteMember(PtrInterface::NotifieeConst* member) noexcept {
   Block* const members = block();
   if (members == nullptr) {
      if (single() == member) {
         head_ = 0;
      }
      return;
   }
   if (member->place_ < members->used && members->members[member->place_] == member) {
      members->members[member->place_] = nullptr;
      --members->live;
      tidy();
   }
}

// An empty list is an empty word, which is all that announcing looks at.
void NotifieeListBase::tidy() noexcept {
   Block* const members = block();
   if (members != nullptr && members->live == 0 && members->visits == 0) {
      head_ = 0;
      ::operator delete(members);
   }
}

void NotifieeListBase::deleteAll() noexcept {
   const auto dropped = [](PtrInterface::NotifieeConst* member) {
      member->isRegisteredNotifiee_ = false;
      if (member->weakNotifier_) {
         // Its handle counts nothing: counted up, so that emptying it leaves the count alone.
         member->notifier_->referencesInc();
         member->notifier_ = nullptr;
      }
   };
   if (auto* const only = single()) {
      head_ = 0;
      dropped(only);
   } else if (Block* const members = block()) {
      for (std::uint32_t place = 0; place < members->used; ++place) {
         if (auto* const member = members->members[place]) {
            members->members[place] = nullptr;
            dropped(member);
         }
      }
      members->live = 0;
      tidy();
   }
}

AllocTrackTypeInfo* PtrInterface::NotifieeConst::velAllocTrackTypeInfo_ = nullptr;

PtrInterface::NotifieeConst::NotifieeConst() noexcept { bitsIs(notificationActiveBit, true); }

PtrInterface::NotifieeConst::~NotifieeConst() {
   // Also for one that was marked for deletion while it was registered: no list keeps the dead.
   NotifieeList* const list =
      isRegisteredNotifiee_ && notifier_ ? notifier_->notifieeList() : nullptr;
   if (list != nullptr) {
      list->doDeleteMember(this);
   }
}

void PtrInterface::NotifieeConst::hasNotificationActiveIs(bool active) {
   if (active == hasNotificationActive()) {
      return;
   }
   bitsIs(notificationActiveBit, active);
   if (active) {
      try {
         if ((notifieeFlags_ & wasRegisteredFlag) != 0) {
            isRegisteredNotifieeIs(true);
         }
      } catch (...) { // still off, so that switching on can be tried again
         bitsIs(notificationActiveBit, false);
         throw;
      }
      return;
   }
   notifieeFlags_ = isRegisteredNotifiee_ ? notifieeFlags_ | wasRegisteredFlag
                                          : notifieeFlags_ & ~wasRegisteredFlag;
   isRegisteredNotifieeIs(false);
}

unsigned PtrInterface::NotifieeConst::auditErrors(unsigned level) const {
   return PtrInterface::auditErrors(level);
}

PtrInterface::NotifieeConst* PtrInterface::NotifieeConst::velReactor() const {
   return const_cast<NotifieeConst*>(this);
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
   registrationIs(registered);
}

void PtrInterface::NotifieeConst::notifierIs(const Ptr<PtrInterface const>& notifier) {
   attach(notifier.get());
}

void PtrInterface::NotifieeConst::handleNotification(ActivityConfig*) {}
void PtrInterface::NotifieeConst::onNotificationException() {}
void PtrInterface::NotifieeConst::onZeroReferences() {}
Ptr<PtrInterface> PtrInterface::NotifieeConst::velFwkActivity() const { return {}; }
Ptr<PtrInterface> PtrInterface::NotifieeConst::actsm() { return {}; }

void PtrInterface::NotifieeConst::registrationIs(bool registered) const {
   if (isRegisteredNotifiee_ == registered) {
      return;
   }
   isRegisteredNotifiee_ = registered;
   NotifieeList* const list = notifier_ ? notifier_->notifieeList() : nullptr;
   if (list == nullptr) {
      return;
   }
   if (!registered) {
      list->doDeleteMember(velReactor());
      return;
   }
   try {
      list->newMember(velReactor());
   } catch (...) {
      isRegisteredNotifiee_ = false;
      throw;
   }
}

void PtrInterface::NotifieeConst::attach(const PtrInterface* narrowed) {
   if (narrowed == notifier_.get()) {
      return;
   }
   NotifieeList* const list =
      isRegisteredNotifiee_ && narrowed != nullptr ? narrowed->notifieeList() : nullptr;
   if (list != nullptr) {
      list->reserveMember(); // what can fail comes before anything has changed
   }
   // Its list outlives this member's leaving.
   const Ptr<PtrInterface const> previous =
      std::exchange(notifier_, Ptr<PtrInterface const>(narrowed));
   if (weakNotifier_) {
      if (previous) {
         previous->referencesInc();
      }
      if (notifier_) {
         notifier_->referencesDec();
      }
   }
   if (isRegisteredNotifiee_) {
      if (previous && previous->notifieeList() != nullptr) {
         previous->notifieeList()->doDeleteMember(this);
      }
      if (list != nullptr) {
         list->newMember(this);
      }
   }
}

void PtrInterface::NotifieeConst::detach() noexcept {
   if (!notifier_) {
      return;
   }
   if (weakNotifier_) {
      notifier_->referencesInc(); // for the base destructor to take back
   }
   if (isRegisteredNotifiee_ && !velMarkedForDeletion()) {
      if (NotifieeList* const list = notifier_->notifieeList()) {
         list->doDeleteMember(this);
      }
      isRegisteredNotifiee_ = false;
   }
}

void PtrInterface::NotifieeConst::weakNotifierIs(bool weak) {
   if (weak == weakNotifier_) {
      return;
   }
   weakNotifier_ = weak;
   if (notifier_) {
      weak ? static_cast<void>(notifier_->referencesDec()) : notifier_->referencesInc();
   }
}

} // namespace Vel
