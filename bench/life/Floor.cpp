// The system calls that the job takes, and next to nothing else.
#include "Contestant.h"

#include <array>
#include <cstdint>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr auto byPidfd = static_cast<idtype_t>(3); // P_PIDFD

class Floor : public Contestant {
 public:
   ~Floor() override { ::close(pollSet_); }

   pid_t start(Body body) override {
      const Forked forked = forkWithPipe(body);
      const int pidfd =
         checked(static_cast<int>(::syscall(SYS_pidfd_open, forked.pid, 0)), "pidfd_open");
      const std::uint64_t at = place();
      children_[at] = {forked.readEnd, pidfd};
      watch(forked.readEnd, at << 1);
      watch(pidfd, at << 1 | 1);
      started();
      return forked.pid;
   }

   void attend() override {
      const int count =
         ::epoll_wait(pollSet_, events_.data(), static_cast<int>(events_.size()), -1);
      for (int i = 0; i < count; ++i) {
         const std::uint64_t data = events_[static_cast<std::size_t>(i)].data.u64;
         if ((data & 1) != 0) {
            onEnd(data >> 1);
         } else if (Child& child = children_[data >> 1];
                    child.readEnd >= 0 && !drained(child.readEnd)) {
            forget(child.readEnd);
         }
      }
   }

 private:
   struct Child {
      int readEnd;
      int pidfd;
   };

   std::uint64_t place() {
      if (free_.empty()) {
         children_.emplace_back();
         return children_.size() - 1;
      }
      const std::uint64_t at = free_.back();
      free_.pop_back();
      return at;
   }

   void watch(int descriptor, std::uint64_t data) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = data;
      checked(::epoll_ctl(pollSet_, EPOLL_CTL_ADD, descriptor, &event), "epoll_ctl");
   }

   void onEnd(std::uint64_t at) {
      Child& child = children_[at];
      siginfo_t info;
      checked(::waitid(byPidfd, static_cast<id_t>(child.pidfd), &info, WEXITED), "waitid");
      forget(child.pidfd);
      if (child.readEnd >= 0) {
         forget(child.readEnd);
      }
      free_.push_back(at);
      ended(info.si_status);
   }

   // Closing alone does not take it out of the set while a younger child has a copy.
   void forget(int& descriptor) {
      checked(::epoll_ctl(pollSet_, EPOLL_CTL_DEL, descriptor, nullptr), "epoll_ctl");
      ::close(descriptor);
      descriptor = -1;
   }

   const int pollSet_ = checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
   std::array<epoll_event, 64> events_;
   std::vector<Child> children_;
   std::vector<std::uint64_t> free_;
};

} // namespace

std::unique_ptr<Contestant> makeFloor() { return std::make_unique<Floor>(); }

} // namespace Bench
