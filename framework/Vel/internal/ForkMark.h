// Tells, at the cost of a load, whether this process is a forked copy of the one that marked it.
#pragma once

namespace Vel {

// A word in a page that the kernel hands zeroed to every child. Compared with a fork handler it
// also sees children that were made around the C library; compared with getpid it is free.
class ForkMark {
 public:
   ForkMark() noexcept;
   ForkMark(const ForkMark&) = delete;
   ForkMark& operator=(const ForkMark&) = delete;
   ~ForkMark();

   bool crossed() const noexcept { return word_ != nullptr ? *word_ == 0 : otherProcess(); }
   void renew() noexcept; // this process is the marked one from here on

 private:
   bool otherProcess() const noexcept;

   volatile int* word_ = nullptr; // null where the kernel has no such pages: then the pid tells
   int pid_;
};

} // namespace Vel
