#include <Vel/internal/ProcessState.h>

#include <cstddef>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace Vel {

namespace {

// What a process leaves to the children that it forks. There before anything runs and never
// destroyed: the program's static objects may end later and have descriptors and children.
union Kept {
   constexpr Kept() noexcept : legacies() {}
   ~Kept() {}
   struct {
      ActivityCore::Legacy core;
      ChildWatch::Legacy watch;
   } legacies;
};
constinit Kept kept;

// Zeroed, and again in every child; null where the kernel has no such pages.
void* wipedOnFork() noexcept {
   constexpr std::size_t size = sizeof(ProcessState);
   void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   if (memory == MAP_FAILED) {
      return nullptr;
   }
   if (::madvise(memory, size, MADV_WIPEONFORK) != 0) {
      ::munmap(memory, size);
      return nullptr;
   }
   return memory;
}

alignas(ProcessState) std::byte unwiped[sizeof(ProcessState)];
int unwipedPid = 0; // whose that is; 0: nobody's

} // namespace

constinit ProcessState* ProcessState::present_ = nullptr;

ProcessState::ProcessState() noexcept
   : core(kept.legacies.core, watch), watch(kept.legacies.watch, core), made_(unwipedPid == 0) {}

ProcessState& ProcessState::adopted() noexcept {
   if (unwipedPid != 0 && unwipedPid == ::getpid()) {
      return *present_;
   }
   void* memory = present_ != nullptr ? present_ : wipedOnFork();
   if (memory == nullptr || unwipedPid != 0) {
      memory = unwiped;
      unwipedPid = ::getpid();
   }
   return *(present_ = ::new (memory) ProcessState);
}

ActivityCore& ActivityCore::instance() noexcept { return ProcessState::current().core; }

ChildWatch& ChildWatch::instance() noexcept { return ProcessState::current().watch; }

} // namespace Vel
