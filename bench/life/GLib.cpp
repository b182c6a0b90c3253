// GLib: a child watch and a descriptor watch in the default main context.
#include "Contestant.h"

#include <glib-unix.h>
#include <glib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

class GLib : public Contestant {
 public:
   pid_t start(Body body) override {
      const Forked forked = forkWithPipe(body);
      auto* const child = new Child{*this, forked.readEnd, 0};
      child->pipeWatch = g_unix_fd_add(forked.readEnd, G_IO_IN, &onReadable, child);
      g_child_watch_add(forked.pid, &onEnd, child);
      started();
      return forked.pid;
   }

   void attend() override { g_main_context_iteration(nullptr, TRUE); }

 private:
   struct Child {
      GLib& glib;
      int readEnd;
      guint pipeWatch; // 0: its end was seen
   };

   static gboolean onReadable(gint readEnd, GIOCondition, gpointer data) {
      if (drained(readEnd)) {
         return TRUE;
      }
      static_cast<Child*>(data)->pipeWatch = 0;
      return FALSE;
   }

   static void onEnd(GPid, gint status, gpointer data) {
      const std::unique_ptr<Child> child(static_cast<Child*>(data));
      if (child->pipeWatch != 0) {
         g_source_remove(child->pipeWatch);
      }
      ::close(child->readEnd);
      child->glib.ended(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
   }
};

} // namespace

std::unique_ptr<Contestant> makeGLib() { return std::make_unique<GLib>(); }

} // namespace Bench
