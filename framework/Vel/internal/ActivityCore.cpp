#include <Vel/Exception.h>
#include <Vel/internal/ActivityCore.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <limits>
#include <unistd.h>
#include <utility>

namespace Vel {

namespace {

using Clock = std::chrono::steady_clock;

// The time that a call may still wait; -1 for ever.
class Deadline {
 public:
   explicit Deadline(std::int64_t ms) : ms_(ms) {
      if (ms > 0) {
         end_ = Clock::now() + std::chrono::milliseconds(ms);
      }
   }
   std::int64_t leftMs() const {
      if (ms_ <= 0) {
         return ms_;
      }
      // Rounded up: a wait that ends early would be followed by a busy rest.
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
      return std::max<std::int64_t>(left.count(), 0);
   }

 private:
   std::int64_t ms_;
   Clock::time_point end_{};
};

// What the kernel gives back with an event: the number, whose serial, whether a child's pipe.
constexpr std::uint32_t pipeBit = 0x80000000; // no number has it

std::uint64_t packed(int descriptor, const DescriptorPlace& place) {
   const auto number = static_cast<std::uint32_t>(descriptor);
   return static_cast<std::uint64_t>(place.serial) << 32 |
          (place.childPipe() ? number | pipeBit : number);
}

int numberOf(const epoll_event& event) { return static_cast<int>(event.data.u64 & (pipeBit - 1)); }
bool ofPipe(const epoll_event& event) { return (event.data.u64 & pipeBit) != 0; }

std::uintptr_t taggedOwner(std::uint32_t tag) {
   return static_cast<std::uintptr_t>(tag) << 1 | DescriptorPlace::tagBit;
}

} // namespace

// In a forked child the parent's set, and the pidfds and the pipes of its children, are open too,
// as far as the child was let keep them. They are left alone: the kernel shares what they stand
// for, and their numbers may long be something else's.
ActivityCore::ActivityCore(DescriptorPlace* firstPlaces, Legacy& legacy,
                           ChildEvents& children) noexcept
   : legacy_(legacy), table_(firstPlaces, legacy.places), children_(children) {
   ++legacy.generation;
   if (legacy.running != nullptr && legacy.running->thread != std::this_thread::get_id()) {
      legacy.running = nullptr; // of a thread that doesn't exist in this process
   }
   for (std::size_t number = 0; number < legacy.objects.size(); ++number) {
      if (FileDescriptor* const object = legacy.objects[number]) {
         const auto descriptor = static_cast<int>(number);
         table_.find(descriptor)->owner = reinterpret_cast<std::uintptr_t>(object);
      }
   }
}

// ---- who owns which descriptor ----

bool ActivityCore::fd(int descriptor) noexcept {
   const DescriptorPlace* const place = table_.find(descriptor);
   return descriptor >= 0 && (descriptor == pollSet_ || (place != nullptr && place->owner != 0));
}

void ActivityCore::ownerIs(int descriptor, FileDescriptor* object) {
   if ((object->settings_ & FileDescriptor::childPipeSetting) != 0) {
      ownerIs(descriptor, reinterpret_cast<std::uintptr_t>(object) | DescriptorPlace::childPipeBit);
      return;
   }
   const auto number = static_cast<std::size_t>(descriptor);
   if (number >= legacy_.objects.size()) {
      legacy_.objects.resize(number + 1);
   }
   ownerIs(descriptor, reinterpret_cast<std::uintptr_t>(object));
   legacy_.objects[number] = object;
}

void ActivityCore::ownerIs(int descriptor, std::uint32_t tag) {
   ownerIs(descriptor, taggedOwner(tag));
}

void ActivityCore::ownerIs(int descriptor, std::uintptr_t owner) {
   DescriptorPlace& place = table_.make(descriptor);
   if (place.owner != 0 || descriptor == pollSet_) {
      fdDel(descriptor);
   }
   place.owner = owner;
}

bool ActivityCore::owns(const FileDescriptor* object, int descriptor) noexcept {
   const DescriptorPlace* const place = table_.find(descriptor);
   return place != nullptr && place->object() == object;
}

std::uint64_t ActivityCore::stamp(int descriptor) noexcept {
   return std::uint64_t{legacy_.generation} << 32 | table_.find(descriptor)->serial;
}

void ActivityCore::tagIs(int descriptor, std::uint32_t tag) noexcept {
   table_.find(descriptor)->owner = taggedOwner(tag);
}

void ActivityCore::forgotten(std::uintptr_t owner) noexcept {
   const DescriptorPlace had{.owner = owner};
   if (FileDescriptor* const object = had.object()) {
      object->forget();
      if (had.childPipe()) {
         children_.onPipeForgotten();
      }
   } else {
      children_.onForgotten(had.tag());
   }
}

void ActivityCore::fdDel(int descriptor) noexcept {
   if (descriptor == pollSet_ && descriptor >= 0) {
      forgetPollSet();
      return;
   }
   DescriptorPlace* const place = table_.find(descriptor);
   if (place == nullptr || place->owner == 0) {
      return;
   }
   const std::uintptr_t owner = place->owner;
   release(descriptor);
   forgotten(owner);
}

int ActivityCore::fdDelUnless(bool (*kept)(int, const void*), const void* context) noexcept {
   // Also what a forked child has left to its parent was known to be open.
   const auto end = static_cast<int>(
      std::min<std::int64_t>(std::max<std::int64_t>(legacy_.pollSetEnd, table_.end()), INT_MAX));
   if (pollSet_ >= 0 && !kept(pollSet_, context)) {
      forgetPollSet();
   }
   table_.forEach([&](int descriptor, DescriptorPlace&) {
      if (!kept(descriptor, context)) {
         fdDel(descriptor);
      }
   });
   return end;
}

void ActivityCore::release(int descriptor) noexcept {
   DescriptorPlace* const place = table_.find(descriptor);
   if (place == nullptr || place->owner == 0) {
      return;
   }
   // Removed before it is closed: where a child has a copy, closing alone would leave it in.
   unwatch(descriptor, *place);
   if (place->object() != nullptr && !place->childPipe()) {
      legacy_.objects[static_cast<std::size_t>(descriptor)] = nullptr;
   }
   place->vacate();
}

// ---- the poll set ----

void ActivityCore::openPollSet() {
   pollSet_ = ::epoll_create1(EPOLL_CLOEXEC);
   if (pollSet_ < 0) {
      throwSystemException("no poll set", errno);
   }
   legacy_.pollSetEnd = std::max(legacy_.pollSetEnd, pollSet_ + 1);
   try {
      fillPollSet();
   } catch (...) { // a set that lacks some would never get them: the next use tries again
      ::close(pollSet_);
      forgetPollSet();
      throw;
   }
}

// What was watched before the set was lost, or inherited from the parent, goes into the new one.
void ActivityCore::fillPollSet() {
   table_.forEach([this](int descriptor, DescriptorPlace& place) {
      FileDescriptor* const object = place.object();
      const std::uint32_t wanted = object != nullptr ? object->wantedEvents() : 0;
      if (wanted == 0) {
         return;
      }
      const int error = control(EPOLL_CTL_ADD, descriptor, place, wanted);
      if (error == 0) {
         place.events = wanted;
      } else if (error != EBADF && error != EPERM) { // closed by somebody: nothing to wait for
         throwSystemException("a descriptor can't be watched", error);
      }
   });
}

void ActivityCore::forgetPollSet() noexcept {
   pollSet_ = -1;
   next_ = end_ = 0; // a fresh set yields again what these were
   table_.forEach([](int, DescriptorPlace& place) { place.events = 0; });
   children_.onPollSetLost();
}

int ActivityCore::control(int operation, int descriptor, const DescriptorPlace& place,
                          std::uint32_t events) noexcept {
   epoll_event event{};
   event.events = events;
   event.data.u64 = packed(descriptor, place);
   return ::epoll_ctl(pollSet_, operation, descriptor, &event) == 0 ? 0 : errno;
}

void ActivityCore::unwatch(int descriptor, DescriptorPlace& place) noexcept {
   if (place.events != 0) {
      ::epoll_ctl(pollSet_, EPOLL_CTL_DEL, descriptor, nullptr);
      place.events = 0;
   }
}

void ActivityCore::eventsIs(int descriptor, std::uint32_t events) {
   DescriptorPlace* const place = table_.find(descriptor);
   if (place->events == events) {
      return;
   }
   if (events == 0) {
      unwatch(descriptor, *place);
      return;
   }
   pollSet(); // may be new, and then has what this object wants already
   if (place->events == events) {
      return;
   }
   int error =
      control(place->events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, descriptor, *place, events);
   if (error == EEXIST) { // it went in under an owner that is gone
      error = control(EPOLL_CTL_MOD, descriptor, *place, events);
   }
   if (error != 0) {
      throwSystemException("a descriptor can't be watched", error);
   }
   place->events = events;
}

int ActivityCore::pollFd() {
   const int set = pollSet();
   children_.onBeforeWait();
   return set;
}

// ---- waiting and delivering ----

namespace {

// Where a runOnce counts its deliveries: on its stack, which a child that comes out of a handler
// has a copy of. One that is left by an exception leaves them to the outer one.
class Counting {
 public:
   explicit Counting(int*& innermost) noexcept : innermost_(innermost), outer_(innermost) {
      begin();
   }
   Counting(const Counting&) = delete;
   Counting& operator=(const Counting&) = delete;
   ~Counting() {
      innermost_ = outer_;
      if (outer_ != nullptr) {
         *outer_ += made_;
      }
   }
   void begin() noexcept { innermost_ = &made_; } // again: the core may be a child's by now
   int made() const noexcept { return made_; }
   int taken() noexcept { return std::exchange(made_, 0); }

 private:
   int*& innermost_;
   int* outer_;
   int made_ = 0;
};

} // namespace

int ActivityCore::runOnce(int timeoutMs) {
   Counting counting(made_);
   const Deadline deadline(timeoutMs);
   std::int64_t left = timeoutMs;
   // Events than could be fetched at once: looked for until every descriptor has had its turn, and
   // no longer, since those whose events are no deliveries may never run dry.
   bool more = false;
   auto turns = table_.end() / static_cast<std::int64_t>(fetched_.size());
   do {
      if (next_ == end_) {
         fetch(left);
         more = end_ == static_cast<int>(fetched_.size());
      }
      counting.begin();
      deliverFetched();
      counting.begin();
      if (children_.pauseMs() == 0) {
         children_.onPause();
      }
      left = deadline.leftMs();
   } while (counting.made() == 0 && (left != 0 || (more && turns-- > 0)));
   return counting.taken();
}

void ActivityCore::run() {
   Legacy::Run running{std::this_thread::get_id()};
   Legacy::Run* const outer = std::exchange(legacy_.running, &running);
   const struct Restore {
      Legacy::Run*& innermost;
      Legacy::Run* outer;
      ~Restore() { innermost = outer; }
   } restore{legacy_.running, outer};
   while (!running.stopped) {
      runOnce(-1);
   }
}

void ActivityCore::stop() noexcept {
   if (legacy_.running != nullptr) {
      legacy_.running->stopped = true;
   }
}

void ActivityCore::fetch(std::int64_t waitMs) {
   closeBatch();
   pollSet();
   children_.onBeforeWait();
   const int pause = children_.pauseMs();
   const bool pauseFirst = pause >= 0 && (waitMs < 0 || pause <= waitMs);
   next_ = end_ = 0;
   end_ = wait(pauseFirst ? pause : waitMs);
   if (end_ > 0) {
      pipesLast();
      ++wakeups_.total;
      batchOpen_ = true;
      delivered_ = false;
   }
}

// Puts the pipes of children behind what else was fetched. Usually their ends are among that, and
// then the pipes are closed before their turn.
void ActivityCore::pipesLast() noexcept {
   auto others = fetched_.begin(); // the end of those that are in front
   for (auto at = others; at != fetched_.begin() + end_; ++at) {
      if (!ofPipe(*at)) {
         std::rotate(others++, at, at + 1);
      }
   }
}

int ActivityCore::wait(std::int64_t waitMs) {
   const Deadline deadline(waitMs);
   bool replaced = false;
   for (;;) {
      const auto left = std::min<std::int64_t>(deadline.leftMs(), std::numeric_limits<int>::max());
      const int set = pollSet_;
      const int count = ::epoll_wait(set, fetched_.data(), static_cast<int>(fetched_.size()),
                                     static_cast<int>(left));
      const int error = errno;
      instance();
      if (pollSet_ != set) { // a signal handler has forked, and this is the child
         pollSet();
         children_.onBeforeWait();
         continue;
      }
      if (count >= 0) {
         return count;
      }
      if ((error == EBADF || error == EINVAL) && !replaced) {
         // Somebody closed it, and the number may be another's by now: a fresh one, once.
         replaced = true;
         forgetPollSet();
         pollSet();
         children_.onBeforeWait();
      } else if (error != EINTR) {
         throwSystemException("waiting for events failed", error);
      }
   }
}

void ActivityCore::deliverFetched() {
   // What an exception leaves undelivered goes back to the kernel, where pollFd shows it.
   const struct ArmAgain {
      ActivityCore& core;
      ~ArmAgain() {
         instance();
         if (core.next_ != core.end_) {
            core.armAgain();
         }
         core.closeBatch();
      }
   } armAgain{*this};
   while (next_ != end_) {
      // Copied and counted off first: a run within the handler goes on behind it, and a child that
      // comes out of the handler must not deliver what its parent has fetched.
      const epoll_event event = fetched_[static_cast<std::size_t>(next_++)];
      deliver(event);
      instance();
   }
}

// The place that a fetched event is for: there is one, since it was watched. Null when its
// descriptor was forgotten since, and the number may be another's.
const DescriptorPlace* ActivityCore::placeOf(const epoll_event& event) noexcept {
   const DescriptorPlace* const place = table_.find(numberOf(event));
   return place->events != 0 && place->serial == event.data.u64 >> 32 ? place : nullptr;
}

void ActivityCore::deliver(const epoll_event& event) {
   const DescriptorPlace* const place = placeOf(event);
   if (place == nullptr) {
      return;
   }
   if (FileDescriptor* const object = place->object()) {
      object->deliver(event.events);
   } else {
      children_.onEvent(place->tag());
   }
}

void ActivityCore::closeBatch() noexcept {
   if (batchOpen_) {
      batchOpen_ = false;
      wakeups_.empty += delivered_ ? 0 : 1;
   }
}

// Modifying a registration makes the kernel look again, which brings back an edge that was fetched
// and not delivered.
void ActivityCore::armAgain() noexcept {
   for (; next_ != end_; ++next_) {
      const epoll_event& event = fetched_[static_cast<std::size_t>(next_)];
      if (const DescriptorPlace* const place = placeOf(event)) {
         control(EPOLL_CTL_MOD, numberOf(event), *place, place->events);
      }
   }
}

} // namespace Vel
