#include <Vel/internal/ForkMark.h>

#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

namespace Vel {

namespace {
constexpr std::size_t markSize = 4096;
}

ForkMark::ForkMark() noexcept : pid_(::getpid()) {
   void* const page =
      ::mmap(nullptr, markSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
   if (page == MAP_FAILED) {
      return;
   }
   if (::madvise(page, markSize, MADV_WIPEONFORK) != 0) {
      ::munmap(page, markSize);
      return;
   }
   word_ = static_cast<volatile int*>(page);
   *word_ = 1;
}

ForkMark::~ForkMark() {
   if (word_ != nullptr) {
      ::munmap(const_cast<int*>(word_), markSize);
   }
}

bool ForkMark::otherProcess() const noexcept { return pid_ != ::getpid(); }

void ForkMark::renew() noexcept {
   if (word_ != nullptr) {
      *word_ = 1;
   } else {
      pid_ = ::getpid();
   }
}

} // namespace Vel
