// Tells, at the cost of a load, whether this process is a forked copy of the one that marked it.
#pragma once

namespace Vel {

// A word in a page that the kernel hands zeroed to every child. Compared with a fork handler it
// also sees children that were made around the C library; compared with getpid it is free.
// Never given back: it lives for the process.
class ForkMark {
 public:
   // Also before the first renew.
   bool crossed() const noexcept { return *word_ == 0 && otherProcess(); }
   void renew() noexcept; // this process is the marked one from here on

 private:
   bool otherProcess() const noexcept;

   static constexpr int unmarked = 0;
   const volatile int* word_ = &unmarked;
   int* page_ = nullptr; // null where the kernel has no such pages: then the pid tells
   int pid_ = 0;
};

} // namespace Vel
