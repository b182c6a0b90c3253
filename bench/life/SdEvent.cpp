// systemd's sd-event: a child source, which uses a pidfd where there are any, and an io source.
#include "Contestant.h"

#include <csignal>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <unistd.h>

namespace Bench {

namespace {

class SdEvent : public Contestant {
 public:
   SdEvent() {
      sigset_t child;
      ::sigemptyset(&child);
      ::sigaddset(&child, SIGCHLD);
      ::sigprocmask(SIG_BLOCK, &child, nullptr); // sd-event demands it
      checked(sd_event_new(&loop_), "sd_event_new");
   }
   ~SdEvent() override { sd_event_unref(loop_); }

   pid_t start(Body body) override {
      const Forked forked = forkWithPipe(body);
      auto* const child = new Child{*this, forked.readEnd, nullptr, nullptr};
      checked(sd_event_add_io(loop_, &child->pipe, forked.readEnd, EPOLLIN, &onReadable, child),
              "sd_event_add_io");
      checked(sd_event_add_child(loop_, &child->end, forked.pid, WEXITED, &onEnd, child),
              "sd_event_add_child");
      started();
      return forked.pid;
   }

   void attend() override { checked(sd_event_run(loop_, UINT64_MAX), "sd_event_run"); }

 private:
   struct Child {
      SdEvent& sdEvent;
      int readEnd;
      sd_event_source* pipe;
      sd_event_source* end;
   };

   static int onReadable(sd_event_source* pipe, int readEnd, std::uint32_t, void*) {
      return drained(readEnd) ? 0 : sd_event_source_set_enabled(pipe, SD_EVENT_OFF);
   }

   static int onEnd(sd_event_source*, const siginfo_t* info, void* data) {
      const std::unique_ptr<Child> child(static_cast<Child*>(data));
      sd_event_source_disable_unref(child->pipe);
      ::close(child->readEnd);
      sd_event_source_disable_unref(child->end);
      child->sdEvent.ended(info->si_status);
      return 0;
   }

   sd_event* loop_ = nullptr;
};

} // namespace

std::unique_ptr<Contestant> makeSdEvent() { return std::make_unique<SdEvent>(); }

} // namespace Bench
