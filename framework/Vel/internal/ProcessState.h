// What the library keeps for one process, and the telling of a process from the one that forked it.
#pragma once

#include <Vel/internal/ActivityCore.h>
#include <Vel/internal/ChildWatch.h>

namespace Vel {

// Lies in pages that the kernel hands zeroed to every child, who then starts with a new one: the
// parent's poll set and children are none of its own. A process that forks pays a fault for each
// ordinary page that it writes between two forks; for such a one it doesn't.
class ProcessState {
 public:
   // This process's, made on first use; at the same place as the parent's. Whoever has run a
   // handler calls it before looking at any of it: it may be a child that comes out of there.
   static ProcessState& current() noexcept {
      return present_ != nullptr && present_->made_ ? *present_ : adopted();
   }

   ActivityCore core;
   ChildWatch watch;

 private:
   struct Memory;
   explicit ProcessState(Memory& memory) noexcept;
   static ProcessState& adopted() noexcept;

   bool made_; // never where no page can be wiped: then the process id tells, each time
   static ProcessState* present_; // the first thing in its memory
};

} // namespace Vel
