// Someone who forks children and hears of their ends: the bare system calls, this library, and
// what others offer. All do the same job: a pipe to the child, fork, a watch on the pipe and on the
// child's end, its status, everything freed.
#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>
#include <vector>

namespace Bench {

enum class Body { ends, waits };

class Contestant {
 public:
   Contestant() = default;
   Contestant(const Contestant&) = delete;
   Contestant& operator=(const Contestant&) = delete;
   virtual ~Contestant() = default;

   // Forks a child and watches it.
   virtual pid_t start(Body body) = 0;
   // Waits until something happens, and attends to what has.
   virtual void attend() = 0;

   std::size_t running() const noexcept { return running_; }
   void attendUntil(std::size_t stillRunning);

 protected:
   void started() noexcept { ++running_; }
   // With the exit code, or the signal.
   void ended(int value);

 private:
   std::size_t running_ = 0;
};

struct Entry {
   const char* name;
   std::unique_ptr<Contestant> (*make)(); // none: left out of this build
};

// The floor, this library, then the peers.
extern const std::vector<Entry> contestants;

std::unique_ptr<Contestant> makeFloor();
std::unique_ptr<Contestant> makeLibrary();
std::unique_ptr<Contestant> makeLibuv();
std::unique_ptr<Contestant> makeGLib();
std::unique_ptr<Contestant> makeLibev();
std::unique_ptr<Contestant> makeSdEvent();

// ---- what they share ----

// The same for everybody: a child that ends at once, or one that waits for a signal and doesn't
// outlive its parent.
[[noreturn]] void beChild(Body body) noexcept;

struct Forked {
   pid_t pid;
   int readEnd;
};
Forked forkWithPipe(Body body);

// Reads what came through the pipe; false at its end.
bool drained(int readEnd) noexcept;

// Throws a system_error when a call's result is negative.
int checked(int result, const char* call);

} // namespace Bench
