// libuv. uv_spawn always runs a program, which is another job; so this does with the loop's own
// means what uv_spawn does around it: one SIGCHLD watch, at which each child is asked after in
// turn, and a pipe handle for each.
#include "Contestant.h"

#include <csignal>
#include <list>
#include <sys/wait.h>
#include <uv.h>

namespace Bench {

namespace {

class Libuv : public Contestant {
 public:
   Libuv() {
      checked(uv_loop_init(&loop_), "uv_loop_init");
      checked(uv_signal_init(&loop_, &signal_), "uv_signal_init");
      signal_.data = this;
      checked(
         uv_signal_start(
            &signal_, [](uv_signal_t* signal, int) { self(signal->data).onSignal(); }, SIGCHLD),
         "uv_signal_start");
   }
   ~Libuv() override {
      for (auto& child : children_) {
         close(child.release());
      }
      uv_close(reinterpret_cast<uv_handle_t*>(&signal_), nullptr);
      uv_run(&loop_, UV_RUN_DEFAULT);
      uv_loop_close(&loop_);
   }

   pid_t start(Body body) override {
      const Forked forked = forkWithPipe(body);
      auto child = std::make_unique<Child>();
      child->pid = forked.pid;
      child->pipe.data = this;
      checked(uv_pipe_init(&loop_, &child->pipe, 0), "uv_pipe_init");
      checked(uv_pipe_open(&child->pipe, forked.readEnd), "uv_pipe_open");
      auto* const stream = reinterpret_cast<uv_stream_t*>(&child->pipe);
      checked(uv_read_start(stream, &allocate, &onRead), "uv_read_start");
      children_.push_back(std::move(child));
      started();
      return forked.pid;
   }

   void attend() override { uv_run(&loop_, UV_RUN_ONCE); }

 private:
   struct Child {
      uv_pipe_t pipe; // first: its address is the child's
      pid_t pid;
   };

   static Libuv& self(void* data) { return *static_cast<Libuv*>(data); }

   static void allocate(uv_handle_t* pipe, std::size_t, uv_buf_t* buffer) {
      Libuv& libuv = self(pipe->data);
      *buffer = uv_buf_init(libuv.buffer_, sizeof libuv.buffer_);
   }

   static void onRead(uv_stream_t* stream, ssize_t got, const uv_buf_t*) {
      if (got < 0) {
         uv_read_stop(stream);
      }
   }

   static void close(Child* child) {
      uv_close(reinterpret_cast<uv_handle_t*>(&child->pipe),
               [](uv_handle_t* pipe) { delete reinterpret_cast<Child*>(pipe); });
   }

   void onSignal() {
      for (auto at = children_.begin(); at != children_.end();) {
         int status = 0;
         if (::waitpid((*at)->pid, &status, WNOHANG) <= 0) {
            ++at;
            continue;
         }
         Child* const child = at->release();
         at = children_.erase(at);
         close(child);
         ended(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
      }
   }

   uv_loop_t loop_;
   uv_signal_t signal_;
   char buffer_[256];
   std::list<std::unique_ptr<Child>> children_;
};

} // namespace

std::unique_ptr<Contestant> makeLibuv() { return std::make_unique<Libuv>(); }

} // namespace Bench
