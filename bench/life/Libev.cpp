// libev: ev_child and ev_io in the default loop, the only one that watches children.
#include "Contestant.h"

#include <ev.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

class Libev : public Contestant {
 public:
   pid_t start(Body body) override {
      const Forked forked = forkWithPipe(body);
      auto* const child = new Child{*this, {}, {}};
      ev_io_init(&child->pipe, &onReadable, forked.readEnd, EV_READ);
      ev_child_init(&child->end, &onEnd, forked.pid, 0);
      child->end.data = child;
      ev_io_start(loop_, &child->pipe);
      ev_child_start(loop_, &child->end);
      started();
      return forked.pid;
   }

   void attend() override { ev_run(loop_, EVRUN_ONCE); }

 private:
   struct Child {
      Libev& libev;
      ev_io pipe;
      ev_child end;
   };

   static void onReadable(struct ev_loop* loop, ev_io* pipe, int) {
      if (!drained(pipe->fd)) {
         ev_io_stop(loop, pipe);
      }
   }

   static void onEnd(struct ev_loop* loop, ev_child* end, int) {
      const std::unique_ptr<Child> child(static_cast<Child*>(end->data));
      ev_child_stop(loop, end);
      ev_io_stop(loop, &child->pipe);
      ::close(child->pipe.fd);
      const int status = end->rstatus;
      child->libev.ended(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
   }

   struct ev_loop* const loop_ = ev_default_loop(0);
};

} // namespace

std::unique_ptr<Contestant> makeLibev() { return std::make_unique<Libev>(); }

} // namespace Bench
