#include <Vel/Exception.h>
#include <Vel/internal/ChildWatch.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Vel {

namespace {

constexpr std::uint32_t timerTag = 0x7fffffff;
constexpr int shortestPause = 1;
constexpr int pauseGrowth = 4;
constexpr int askedAtOnce = 256; // in one round, so that none takes long

std::int64_t nowMs() {
   using namespace std::chrono;
   return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

// ---- places ----

void ChildWatch::forkedIs(int pid) noexcept {
   // Whoever else is asked for by this number has been reaped by other code, or fork could not
   // have given the number out again. From now on waiting by number would take the wrong one.
   const bool byNumber = askedCount_ != 0 || unsettledCount_ != 0;
   for (std::uint32_t at = 0; byNumber && at < children_.size(); ++at) {
      Place& stale = children_[at];
      if (stale.pid == pid && stale.pidfd < 0) {
         goneIs(stale);
      }
   }
   children_.push_back({.siginfo = nullptr, .pid = pid, .forked = true});
   ++unwatchedCount_;
   unsettledIs(children_.back(), true);
}

// It is told of as lost, unless its pidfd knows better; by its number nobody is waited for.
void ChildWatch::goneIs(Place& place) noexcept {
   place.gone = true;
   place.ours = false;
   unsettledIs(place, true);
}

void ChildWatch::unsettledIs(Place& place, bool unsettled) noexcept {
   unsettledCount_ +=
      static_cast<std::uint32_t>(unsettled) - static_cast<std::uint32_t>(place.unsettled);
   place.unsettled = unsettled;
}

// What a copy in a forked child says of itself is the parent's.
std::uint32_t ChildWatch::placeOf(const ChildSiginfo& siginfo) noexcept {
   const std::uint32_t at = siginfo.place_;
   return at < children_.size() && children_[at].siginfo == &siginfo ? at : ChildSiginfo::noPlace;
}

// The place of a child that waits for a siginfo, or a new one.
std::uint32_t ChildWatch::placeFor(ChildSiginfo& siginfo) {
   if (unwatchedCount_ != 0) {
      // From the back: it is nearly always the child that has just been forked.
      for (std::uint32_t at = children_.size(); at-- > 0;) {
         Place& place = children_[at];
         if (place.siginfo == nullptr && place.pid == siginfo.pid() && !place.gone) {
            place.siginfo = &siginfo;
            --unwatchedCount_;
            return at;
         }
      }
   }
   children_.reserveOne();
   children_.push_back({.siginfo = &siginfo, .pid = siginfo.pid()});
   return children_.size() - 1;
}

bool ChildWatch::watch(ChildSiginfo& siginfo, bool pipeWatched) {
   if (placeOf(siginfo) == ChildSiginfo::noPlace) {
      siginfo.place_ = placeFor(siginfo);
   }
   open(siginfo.place_);
   const Place& place = children_[siginfo.place_];
   if (pipeWatched || place.watched || (place.asked && timerWatched_)) {
      return true;
   }
   leave(siginfo);
   return false;
}

void ChildWatch::leave(ChildSiginfo& siginfo) noexcept {
   const std::uint32_t at = placeOf(siginfo);
   if (at == ChildSiginfo::noPlace) {
      return;
   }
   siginfo.place_ = ChildSiginfo::noPlace;
   Place& place = children_[at];
   place.siginfo = nullptr;
   ++unwatchedCount_;
   if (!place.forked) {
      drop(at);
   } else if (!place.watched) {
      unsettledIs(place, true);
   }
}

void ChildWatch::drop(std::uint32_t at) noexcept {
   Place& place = children_[at];
   closePidfd(place);
   askedIs(place, false);
   unsettledIs(place, false);
   if (place.siginfo != nullptr) {
      place.siginfo->place_ = ChildSiginfo::noPlace;
   } else {
      --unwatchedCount_;
   }
   if (at != children_.size() - 1) { // the last one moves here, and what knows its place is told
      place = children_.back();
      if (place.siginfo != nullptr) {
         place.siginfo->place_ = at;
      }
      if (place.owned) {
         core_.tagIs(place.pidfd, at);
      }
   }
   children_.pop_back();
}

void ChildWatch::closePidfd(Place& place) noexcept {
   if (place.owned) {
      core_.release(place.pidfd);
   }
   if (place.pidfd >= 0) {
      ::close(place.pidfd);
      place.pidfd = -1;
   }
   place.owned = place.watched = false;
}

// ---- starting to watch ----

// Watches by pidfd as far as that goes; otherwise a child of ours is asked after.
void ChildWatch::open(std::uint32_t at) noexcept {
   Place& place = children_[at];
   unsettledIs(place, false);
   if (!place.watched && place.ours && !openPidfd(at) && place.pidfd < 0) {
      // A child that was forked here is ours until somebody says that it isn't any more.
      const Ours ours = place.ours ? pidIsOurChild(place.pid) : Ours::no;
      place.ours = place.forked ? ours != Ours::no : ours == Ours::yes;
      // Other code has waited for what is known to have been ours.
      place.gone = !place.ours && (place.known || place.forked);
   }
   place.known = place.known || place.ours;
   askedIs(place, (place.ours && !place.watched) || place.gone);
   if (place.gone) {
      askSoon();
   } else if (place.asked) {
      pauseIs(longestPause);
   }
}

bool ChildWatch::openPidfd(std::uint32_t at) noexcept {
   Place& place = children_[at];
   if (place.pidfd < 0) {
      if (pidfdsRefused_ || place.pid <= 0) {
         return false;
      }
      const int pidfd = pidfdOpen(place.pid);
      if (pidfd < 0) {
         pidfdsRefused_ = errno == ENOSYS || errno == EPERM || errno == EACCES;
         return false;
      }
      const Ours ours = pidfdIsOurChild(pidfd);
      if (ours != Ours::yes) {
         ::close(pidfd);
         pidfdsRefused_ = ours == Ours::unaskable;
         place.ours = ours != Ours::no; // a stranger's status is not ours to ask for
         return false;
      }
      place.pidfd = pidfd;
   }
   try {
      if (!place.owned) {
         core_.ownerIs(place.pidfd, at);
         place.owned = true;
      }
      core_.eventsIs(place.pidfd, EPOLLIN | EPOLLET);
      place.watched = true;
   } catch (const std::exception&) {
      // No memory, or no room in the poll set: the pidfd still serves for waiting.
   }
   return place.watched;
}

void ChildWatch::settle() noexcept {
   if (pausing_ && !timerWatched_) {
      startTimer();
   }
   if (unsettledCount_ == 0 && !pipesForgotten_) {
      return;
   }
   pipesForgotten_ = false;
   for (std::uint32_t at = 0; at < children_.size(); ++at) {
      Place& place = children_[at];
      if (place.unsettled) {
         open(at);
      }
      if (place.siginfo == nullptr && !place.ours) {
         drop(at--); // reaped by other code before it could be watched: nobody wants to know
      } else if (!place.ours && !place.gone && pipeIsLost(*place.siginfo)) {
         goneIs(place); // a stranger of whom nothing can be heard any more
         open(at);
      }
   }
}

bool ChildWatch::pipeIsLost(const ChildSiginfo& siginfo) {
   const auto& reactor = siginfo.childPipeReactor();
   return reactor && (!reactor->notifier() || reactor->notifier()->descriptor() < 0);
}

void ChildWatch::onForgotten(std::uint32_t tag) noexcept {
   if (tag == timerTag) {
      timer_ = -1;
      timerWatched_ = false;
      return;
   }
   Place& place = children_[tag];
   place.pidfd = -1;
   place.owned = place.watched = false;
   unsettledIs(place, true);
}

void ChildWatch::onPollSetLost() noexcept {
   for (std::uint32_t at = 0; at < children_.size(); ++at) {
      Place& place = children_[at];
      unsettledIs(place, place.unsettled || place.watched);
      place.watched = false;
   }
   timerWatched_ = false; // but open: whoever closes all descriptors has its number on the list
}

// ---- learning of the end ----

Ended ChildWatch::ask(Place& place, ProcessStatus& status) noexcept {
   Ended ended = Ended::no;
   if (place.pidfd >= 0) {
      ended = pidfdWait(place.pidfd, status);
   } else if (place.ours) {
      ended = pidWait(place.pid, status);
   }
   return ended != Ended::yes && place.gone ? Ended::lost : ended;
}

void ChildWatch::onEvent(std::uint32_t tag) {
   if (tag == timerTag) {
      std::uint64_t expirations = 0;
      // Its value is of no interest; that it doesn't block is.
      [[maybe_unused]] const ssize_t got = ::read(timer_, &expirations, sizeof expirations);
      onPause();
      return;
   }
   ProcessStatus status;
   const Ended ended = ask(children_[tag], status);
   if (ended == Ended::unknown) { // the edge is gone, and there may be no other
      askedIs(children_[tag], true);
      askSoon();
   }
   conclude(tag, ended, status);
}

void ChildWatch::pipeEnded(ChildSiginfo& siginfo) {
   const std::uint32_t at = placeOf(siginfo);
   if (at == ChildSiginfo::noPlace || children_[at].watched) {
      return; // the pidfd decides
   }
   Place& place = children_[at];
   place.gone = place.gone || !place.ours;
   ProcessStatus status;
   const Ended ended = ask(place, status);
   if (ended == Ended::no || ended == Ended::unknown) {
      askSoon(); // usually a moment before it can be waited for
   }
   conclude(at, ended, status);
}

void ChildWatch::conclude(ChildSiginfo& siginfo) {
   if (const std::uint32_t at = placeOf(siginfo); at != ChildSiginfo::noPlace) {
      Place& place = children_[at];
      place.gone = true;
      place.ours = false; // its number is another process's now
      ProcessStatus status;
      conclude(at, ask(place, status), status);
   }
}

// The child leaves the table, and its descriptors are closed, before anybody hears of the end.
void ChildWatch::conclude(std::uint32_t at, Ended ended, const ProcessStatus& status) {
   if (ended != Ended::yes && ended != Ended::lost) {
      return;
   }
   const Ptr<ChildSiginfo> siginfo(children_[at].siginfo); // whoever hears may drop the rest
   drop(at);
   if (!siginfo) {
      return; // reaped, which is all that was left to do
   }
   core_.deliveryMade();
   if (ended == Ended::lost) {
      siginfo->endIs({ChildSiginfo::lost, 0, false, ChildSiginfo::unknown});
   } else {
      siginfo->endIs({status.exited ? ChildSiginfo::exited : ChildSiginfo::killed, status.value,
                      status.coreDumped,
                      status.recovered ? ChildSiginfo::recovered : ChildSiginfo::reaped});
   }
}

bool ChildWatch::signal(const ChildSiginfo& siginfo, int number) {
   const std::uint32_t at = placeOf(siginfo);
   if (at == ChildSiginfo::noPlace) {
      return false;
   }
   const Place& place = children_[at];
   int error = ESRCH;
   if (place.pidfd >= 0) {
      error = pidfdSignal(place.pidfd, number);
   }
   if (place.ours && (place.pidfd < 0 || error == ENOSYS)) {
      error = pidSignal(place.pid, number);
   }
   if (error != 0 && error != ESRCH) {
      throwSystemException("a signal can't be sent", error);
   }
   return error == 0;
}

// ---- asking in pauses ----

void ChildWatch::askedIs(Place& place, bool asked) noexcept {
   if (asked == place.asked) {
      return;
   }
   place.asked = asked;
   askedCount_ += asked ? 1U : ~0U;
   if (askedCount_ == 0) {
      pausing_ = false;
      closeTimer();
   }
}

// Starts a pause, unless one is running that ends before.
void ChildWatch::pauseIs(int ms) noexcept {
   const std::int64_t end = nowMs() + ms;
   if (askedCount_ == 0 || (pausing_ && pauseEnd_ <= end)) {
      return;
   }
   pausing_ = true;
   pauseEnd_ = end;
   startTimer();
}

// There is news of somebody: pauses are short again, and then grow.
void ChildWatch::askSoon() noexcept {
   roundPause_ = shortestPause;
   pauseIs(shortestPause);
}

bool ChildWatch::openTimer() noexcept {
   try {
      if (timer_ < 0) {
         timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
         if (timer_ < 0) {
            return false;
         }
         core_.ownerIs(timer_, timerTag);
      }
      core_.eventsIs(timer_, EPOLLIN);
      timerWatched_ = true;
   } catch (const std::exception&) {
      // No memory, or no room in the poll set.
   }
   return timerWatched_;
}

// Without a timer the loop's own wait is cut short.
void ChildWatch::startTimer() noexcept {
   if (!timerWatched_ && !openTimer()) {
      closeTimer();
      return;
   }
   const std::int64_t ms = std::max<std::int64_t>(pauseEnd_ - nowMs(), 1);
   itimerspec time{};
   time.it_value = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1'000'000};
   ::timerfd_settime(timer_, 0, &time, nullptr);
}

void ChildWatch::closeTimer() noexcept {
   if (timer_ >= 0) {
      core_.release(timer_);
      ::close(timer_);
      timer_ = -1;
      timerWatched_ = false;
   }
}

int ChildWatch::pauseMs() const noexcept {
   if (!pausing_ || timerWatched_) {
      return -1;
   }
   return static_cast<int>(std::max<std::int64_t>(pauseEnd_ - nowMs(), 0));
}

// Asks some of the children; a round over all of them is followed by a longer pause.
void ChildWatch::onPause() {
   pausing_ = false;
   if (cursor_ == 0) {
      roundPause_ = std::min(roundPause_ * pauseGrowth, longestPause);
   }
   // The rest of the round is due soon, also when a handler throws. In a child that comes out of
   // a handler there is no rest: these are its parent's children.
   const struct Next {
      ~Next() {
         ChildWatch& watch = instance();
         const bool done = watch.cursor_ >= watch.children_.size();
         watch.cursor_ = done ? 0 : watch.cursor_;
         watch.pauseIs(done ? watch.roundPause_ : shortestPause);
      }
   } next;
   for (int asked = 0; asked < askedAtOnce && cursor_ < children_.size();) {
      Place& place = children_[cursor_];
      if (!place.asked) {
         ++cursor_;
         continue;
      }
      ++asked;
      ProcessStatus status;
      const Ended ended = ask(place, status);
      if (ended == Ended::yes || ended == Ended::lost) {
         conclude(cursor_, ended, status); // another child has its place now
         instance(); // a child that comes out of a handler starts here with an empty table
      } else {
         ++cursor_;
      }
   }
}

} // namespace Vel
