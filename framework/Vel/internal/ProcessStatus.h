// The system calls on child processes: pidfds, waiting for one child, signalling it.
#pragma once

#include <cstdint>

namespace Vel {

// How a process ended, as the kernel tells it.
struct ProcessStatus {
   bool exited = false;    // else killed
   std::uint8_t value = 0; // exit status, or signal number
   bool coreDumped = false;
   bool recovered = false; // had from the kernel's record, after other code had waited
};

enum class Ended {
   yes,     // and the status is known
   lost,    // and nobody can say how
   no,      // or not yet to be seen
   unknown, // asking failed
};

// A pidfd of the process, close-on-exec; -1 with errno.
int pidfdOpen(int pid) noexcept;

// Whether this process may wait for that one: its own child, running or unreaped.
enum class Ours {
   yes,
   no,
   unknown,   // asking failed
   unaskable, // this kernel can't wait that way
};
Ours pidfdIsOurChild(int pidfd) noexcept;
Ours pidIsOurChild(int pid) noexcept;

// Waits without blocking, and so takes the status of an ended child away from the kernel.
Ended pidfdWait(int pidfd, ProcessStatus& status) noexcept;
Ended pidWait(int pid, ProcessStatus& status) noexcept;

// Sends a signal; 0 or an errno.
int pidfdSignal(int pidfd, int number) noexcept;
int pidSignal(int pid, int number) noexcept; // only to a child of ours, ESRCH otherwise

} // namespace Vel
