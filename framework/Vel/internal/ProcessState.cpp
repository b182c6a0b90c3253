#include <Vel/internal/ProcessState.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace Vel {

// The state, and behind it the first pages of its tables, zeroed.
struct ProcessState::Memory {
   alignas(ProcessState) std::byte state[sizeof(ProcessState)];
   DescriptorPlace descriptors[Pages<DescriptorPlace>::pageSize];
   ChildWatch::Place children[Pages<ChildWatch::Place>::pageSize];
};

namespace {

// What a process leaves to the children that it forks. There before anything runs and never
// destroyed: the program's static objects may end later and have descriptors and children.
struct Legacies {
   ActivityCore::Legacy core;
   ChildWatch::Kept watch;
};
union Kept {
   constexpr Kept() noexcept : legacies() {}
   ~Kept() {} // NOLINT(modernize-use-equals-default): it would be a deleted one
   Legacies legacies;
};
constinit Kept kept;

// Zeroed, and again in every child; null where the kernel has no such pages.
void* wipedOnFork(std::size_t size) noexcept {
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

int unwipedPid = 0; // whose the memory is that isn't wiped; 0: nobody's

} // namespace

constinit ProcessState* ProcessState::present_ = nullptr;

ProcessState::ProcessState(Memory& memory) noexcept
   : core(memory.descriptors, kept.legacies.core, watch),
     watch(memory.children, kept.legacies.watch, core), made_(unwipedPid == 0) {}

ProcessState& ProcessState::adopted() noexcept {
   alignas(Memory) static std::byte unwiped[sizeof(Memory)];
   if (present_ != nullptr && unwipedPid == ::getpid()) {
      return *present_;
   }
   void* memory = present_ != nullptr ? present_ : wipedOnFork(sizeof(Memory));
   if (memory == nullptr || unwipedPid != 0) {
      unwipedPid = ::getpid();
      memory = std::memset(unwiped, 0, sizeof unwiped);
   }
   return *(present_ = ::new (memory) ProcessState(*static_cast<Memory*>(memory)));
}

ActivityCore& ActivityCore::instance() noexcept { return ProcessState::current().core; }

ChildWatch& ChildWatch::instance() noexcept { return ProcessState::current().watch; }

} // namespace Vel
