#include <Vel/Exception.h>
#include <Vel/internal/ActivityCore.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace Vel {

AllocTrackTypeInfo* FileDescriptor::velAllocTrackTypeInfo_ = nullptr;

FileDescriptor::FileDescriptor(Name name) : name_(std::move(name)) {}

FileDescriptor::~FileDescriptor() { close(); }

void FileDescriptor::descriptorIs(int descriptor) {
   descriptor = std::max(descriptor, -1);
   descriptor_ = this->descriptor();
   if (descriptor == descriptor_) {
      return;
   }
   ActivityCore& core = ActivityCore::instance();
   if (descriptor >= 0) {
      if (::fcntl(descriptor, F_GETFD) < 0) { // it would be the next one's who gets the number
         throwSystemException("a descriptor that isn't open", errno);
      }
      core.ownerIs(descriptor, this);
      try {
         core.eventsIs(descriptor, wantedEvents());
      } catch (...) {
         core.release(descriptor);
         throw;
      }
   }
   close();
   descriptor_ = descriptor;
   if (nonBlocking()) {
      nonBlockingApply();
   }
}

void FileDescriptor::nonBlockingIs(bool on) {
   if (on == nonBlocking()) {
      return;
   }
   settings_ ^= nonBlockingSetting;
   nonBlockingApply();
}

// A descriptor that isn't open is told of when it is watched, like any other that can't be.
void FileDescriptor::nonBlockingApply() noexcept {
   if (const int descriptor = this->descriptor(); descriptor >= 0) {
      int on = nonBlocking() ? 1 : 0;
      ::ioctl(descriptor, FIONBIO, &on);
   }
}

void FileDescriptor::notifyOnReadableIs(bool on) { settingIs(readableSetting, on); }
void FileDescriptor::notifyOnWritableIs(bool on) { settingIs(writableSetting, on); }
void FileDescriptor::notifyOnExceptionIs(bool on) { settingIs(exceptionSetting, on); }

void FileDescriptor::settingIs(std::uint32_t setting, bool on) {
   const std::uint32_t previous = settings_;
   settings_ = on ? settings_ | setting : settings_ & ~setting;
   if (settings_ == previous || notifieeList_.empty()) { // nobody watches
      return;
   }
   try {
      watchUpdate();
   } catch (...) {
      settings_ = previous;
      throw;
   }
}

// Without a notifiee there is nobody to act on an event: polled for, it would come for ever.
std::uint32_t FileDescriptor::wantedEvents() const noexcept {
   if (notifieeList_.members() == 0) {
      return 0;
   }
   return (notifyOnReadable() ? EPOLLIN | EPOLLRDHUP : 0U) | (notifyOnWritable() ? EPOLLOUT : 0U) |
          (notifyOnException() ? EPOLLPRI : 0U);
}

void FileDescriptor::watchUpdate() {
   if (const int descriptor = this->descriptor(); descriptor >= 0) {
      ActivityCore::instance().eventsIs(descriptor, wantedEvents());
   }
}

void FileDescriptor::deliver(std::uint32_t events) {
   // A handler may end this object, or have it own another descriptor, even one of this number: so
   // nothing of the object is looked at before that is known. A child that comes out of a handler
   // asks its own poll set what is left.
   const int descriptor = descriptor_;
   const std::uint64_t stamp = ActivityCore::instance().stamp(descriptor);
   const auto still = [=] { return ActivityCore::instance().stamp(descriptor) == stamp; };
   if ((settings_ & childPipeSetting) == 0) {
      ActivityCore::instance().deliveryMade();
   }
   const bool failed = (events & (EPOLLHUP | EPOLLERR)) != 0;
   const bool toWriters = failed || (events & EPOLLOUT) != 0;
   const bool toOthers = failed || (events & EPOLLPRI) != 0;
   hungUp_ = (events & (EPOLLHUP | EPOLLIN)) == EPOLLHUP;
   if (notifyOnReadable() && (failed || (events & (EPOLLIN | EPOLLRDHUP)) != 0)) {
      announceTo<&NotifieeConst::onReadable, NotifieeConst>(this, notifieeList_);
   }
   if (toWriters && still() && notifyOnWritable()) {
      announceTo<&NotifieeConst::onWritable, NotifieeConst>(this, notifieeList_);
   }
   if (toOthers && still() && notifyOnException()) {
      announceTo<&NotifieeConst::onException, NotifieeConst>(this, notifieeList_);
   }
}

void FileDescriptor::close() noexcept {
   if (const int descriptor = this->descriptor(); descriptor >= 0) {
      ActivityCore::instance().release(descriptor);
      ::close(descriptor);
   }
   descriptor_ = -1;
}

int FileDescriptor::childPipeDescriptor() const noexcept {
   return ActivityCore::instance().owns(this, descriptor_) ? descriptor_ : -1;
}

void FileDescriptor::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
   if (registered == isRegisteredNotifiee()) {
      return;
   }
   registrationIs(registered);
   try {
      membersChanged(watchedOne());
   } catch (...) {
      registrationIs(!registered);
      throw;
   }
}

void FileDescriptor::NotifieeConst::notifierIs(const Ptr<PtrInterface const>& newNotifier) {
   const auto* const watched = narrowedTo<FileDescriptor const>(newNotifier.get());
   if (!isRegisteredNotifiee()) { // it is a member of neither
      attach(watched);
      return;
   }
   const Ptr<FileDescriptor const> previous = notifier();
   attach(watched);
   try {
      membersChanged(watched);
      membersChanged(previous.get());
   } catch (...) {
      attach(previous.get());
      throw;
   }
}

FileDescriptor::NotifieeConst::~NotifieeConst() {
   const FileDescriptor* const watched = isRegisteredNotifiee() ? watchedOne() : nullptr;
   detach();
   membersChanged(watched); // fewer members: it can only leave the poll set, which never fails
}

// The first member brings the descriptor into the poll set, the last one takes it out.
void FileDescriptor::NotifieeConst::membersChanged(const FileDescriptor* watched) {
   if (watched != nullptr && watched->notifieeList_.members() <= 1) {
      const_cast<FileDescriptor*>(watched)->watchUpdate();
   }
}

void FileDescriptor::NotifieeConst::onReadable() {}
void FileDescriptor::NotifieeConst::onWritable() {}
void FileDescriptor::NotifieeConst::onException() {}

} // namespace Vel
