// Which descriptors a forked child keeps, and the closing of all others.
#include <Zor/ChildProcessTracker.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <limits>
#include <memory>
#include <new>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace Zor {

using Context = ChildProcessTrackerCloseFdsContext;

Vel::AllocTrackTypeInfo* Context::velAllocTrackTypeInfo_ = nullptr;
Vel::AllocTrackTypeInfo* Context::VelSkipFd::velAllocTrackTypeInfo_ = nullptr;

Context::ChildProcessTrackerCloseFdsContext() = default;
Context::~ChildProcessTrackerCloseFdsContext() = default;
Context::VelSkipFd::~VelSkipFd() = default;

bool Context::skipFd(int fd) const {
   const VelSkipFd* const entry = skipFd_[fd];
   return entry != nullptr && entry->value();
}

void Context::skipFdIs(int fd, bool keep) {
   if (VelSkipFd* const entry = skipFd_[fd]) {
      entry->valueIs(keep);
   } else {
      newSkipFd(fd, keep);
   }
}

Vel::Ptr<Context::VelSkipFd> Context::newSkipFd(int fd, bool keep) {
   Vel::Ptr<VelSkipFd> entry = Vel::newEntity<VelSkipFd>(fd, keep);
   skipFd_.newMemberG(entry, &fd);
   return entry;
}

bool Context::skipFdDel(int fd) {
   const Vel::Ptr<VelSkipFd> removed(skipFd_[fd]);
   if (!removed) {
      return false;
   }
   skipFd_.deleteMember(removed);
   return removed->value();
}

bool Context::skipFdDel(SkipFdMap::Iterator& iterator) {
   const Vel::Ptr<VelSkipFd> removed(iterator.ptr());
   if (!removed) {
      return false;
   }
   skipFd_.deleteMember(removed);
   return removed->value();
}

void Context::skipFdDelAll() {
   for (SkipFdMap::Iterator entry(&skipFd_); entry; entry.advance()) {
      skipFdDel(entry);
   }
}

void Context::skipFdNotify(int) {}

namespace {

using ContextPtr = Vel::Ptr<Context const>;

struct CloseDirectory {
   void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

// The numbers of all open descriptors but the listing's own; false when they can't be had.
bool listOpen(std::vector<int>& open) {
   const std::unique_ptr<DIR, CloseDirectory> directory(::opendir("/proc/self/fd"));
   if (!directory) {
      return false;
   }
   const int own = ::dirfd(directory.get());
   bool complete = false; // a listing without its own descriptor isn't one of this process
   errno = 0;
   while (const dirent* const entry = ::readdir(directory.get())) {
      if (entry->d_name[0] == '.') {
         continue;
      }
      const auto descriptor = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
      if (descriptor == own) {
         complete = true;
      } else {
         open.push_back(descriptor);
      }
      errno = 0;
   }
   return complete && errno == 0;
}

// The lowest kept descriptor that is not below the given one; -1 for none.
int nextKept(const Context& context, int from) {
   int next = -1;
   for (const auto& entry : context.skipFd()) {
      if (entry.value() && entry.fwkKey() >= from && (next < 0 || entry.fwkKey() < next)) {
         next = entry.fwkKey();
      }
   }
   return next;
}

// Closes the numbers from first to last. Without the kernel's help, up to where descriptors can
// be expected: to what is known to be open, or to a usual limit.
void closeRange(unsigned first, unsigned last, unsigned knownEnd) {
   if (::syscall(SYS_close_range, first, last, 0) == 0) {
      return;
   }
   constexpr rlim_t usualLimit = 65536;
   rlimit limit{};
   ::getrlimit(RLIMIT_NOFILE, &limit);
   const auto expected = static_cast<unsigned>(std::min(limit.rlim_cur, usualLimit));
   const unsigned end = std::max(expected, knownEnd);
   for (unsigned descriptor = first; descriptor <= last && descriptor < end; ++descriptor) {
      ::close(static_cast<int>(descriptor));
   }
}

// Without a listing: everything that the manager knows of is forgotten first, then all that is
// between the kept ones is closed.
void closeUnlisted(const ContextPtr& context, Vel::ActivityManagerSm& manager) {
   const int knownEnd = manager.fdDelUnless(
      [](int descriptor, const void* kept) {
         return static_cast<const Context*>(kept)->skipFd(descriptor);
      },
      context.get());
   int from = 0;
   for (int kept = nextKept(*context, 0); kept >= 0; kept = nextKept(*context, from)) {
      if (kept > from) {
         closeRange(static_cast<unsigned>(from), static_cast<unsigned>(kept - 1),
                    static_cast<unsigned>(knownEnd));
      }
      if (kept == std::numeric_limits<int>::max()) {
         return;
      }
      from = kept + 1;
   }
   closeRange(static_cast<unsigned>(from), std::numeric_limits<unsigned>::max(),
              static_cast<unsigned>(knownEnd));
}

} // namespace

void childProcessTrackerCloseFds(const ContextPtr& context) {
   if (!context) {
      Vel::throwRangeException(
         "null context parameter to Zor::childProcessTrackerCloseFds not allowed");
   }
   const Vel::Ptr<Vel::ActivityManagerSm> manager = Vel::ActivityImplFacility::activityManagerSm();
   // Listed whole before anything is closed: closing what is being read would lose entries.
   std::vector<int> open;
   bool listed = false;
   try {
      listed = listOpen(open);
   } catch (const std::bad_alloc&) {
      // No room for the list: the other way needs none.
   }
   if (!listed) {
      closeUnlisted(context, *manager);
      return;
   }
   for (const int descriptor : open) {
      if (!context->skipFd(descriptor)) {
         manager->fdDel(descriptor);
         ::close(descriptor); // whatever it says, the number is free: never twice
      }
   }
}

} // namespace Zor
