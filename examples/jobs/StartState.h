// What the program was started with, and what its commands get of it.
#pragma once

#include <csignal>

namespace jobs {

// Opens /dev/null where 0, 1 or 2 is closed. Comes first: whatever else got such a number would be
// a command's standard output.
void openStandardDescriptors();

// Commands share standard input, and would eat a list or each other's lines.
void standardInputIsNull();

// The signal mask and dispositions at the start. While it is made it sets up the program's own:
// the signals that interrupt are blocked, to be read from a descriptor, a closed pipe is a write
// error, and ends of children stay to be waited for. One per process.
class StartState {
 public:
   explicit StartState(bool showsStatus); // whether SIGUSR1 is ours too

   const sigset_t& interrupting() const noexcept { return interrupting_; }
   const sigset_t& askingForStatus() const noexcept { return askingForStatus_; } // or no signal
   // What to send to commands to pass the signal on: they ignore what was ignored at the start.
   int passedOn(int signal) const noexcept;
   // In a forked child: as they were at the start. Makes only calls that are safe there.
   void restore() const noexcept;

 private:
   sigset_t mask_{};
   sigset_t interrupting_{};
   sigset_t askingForStatus_{};
   struct sigaction pipe_ {};
   struct sigaction child_ {};
};

} // namespace jobs
