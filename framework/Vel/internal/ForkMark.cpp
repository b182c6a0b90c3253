#include <Vel/internal/ForkMark.h>

#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

namespace Vel {

namespace {

// Zeroed, and again in every child; null where the kernel has no such pages.
int* wipedOnFork() noexcept {
   constexpr std::size_t size = 4096;
   void* const page =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   if (page == MAP_FAILED) {
      return nullptr;
   }
   if (::madvise(page, size, MADV_WIPEONFORK) != 0) {
      ::munmap(page, size);
      return nullptr;
   }
   return static_cast<int*>(page);
}

} // namespace

bool ForkMark::otherProcess() const noexcept { return page_ != nullptr || pid_ != ::getpid(); }

void ForkMark::renew() noexcept {
   if (pid_ == 0) {
      page_ = wipedOnFork();
   }
   pid_ = ::getpid();
   if (page_ != nullptr) {
      *page_ = 1;
      word_ = page_;
   }
}

} // namespace Vel
