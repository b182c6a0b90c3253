// Starting a child.
#include <Zor/ChildProcessTracker.h>
#include <Zor/internal/TrackerTrace.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace Zor {

using Sm = ChildProcessTrackerSm;

namespace {

constexpr const char* signature =
   "virtual S32 Zor::ChildProcessTrackerSm::forkChild(Vel::String, void (* const&)"
   "(Zor::ChildProcessInitCallbackContext), void* const&, const Ptr&)";

struct StatusPipe {
   int read;
   int write;
};

// In the new process. Only the thread that forked exists here: no lock may be waited for that
// another thread of the parent may hold, and what is shared with the parent is left alone.
void runChild(const StatusPipe& pipe, void (*fn)(ChildProcessInitCallbackContext), void* arg,
              const Vel::Ptr<ChildProcessTrackerCloseFdsContext>& closeFdsContext) {
   if (fn != nullptr) {
      fn(arg);
   }
   if (closeFdsContext) {
      closeFdsContext->skipFdIs(pipe.write, true);
      childProcessTrackerCloseFds(closeFdsContext);
   }
}

// Whatever becomes of its registration, the child is the framework's to reap.
class ForkedChild {
 public:
   explicit ForkedChild(int pid) noexcept { Vel::ChildSiginfo::forkedIs(pid); }
   ForkedChild(const ForkedChild&) = delete;
   ForkedChild& operator=(const ForkedChild&) = delete;
   ~ForkedChild() { Vel::ChildSiginfo::forkedSettle(); }
};

// Removes a record whose number fork has just given to another process. Its end, when that is
// not recorded yet, is accounted for as far as it can still be learned. False in a child that its
// hook has forked, and that comes out of it: the process of that number is none of its own.
bool forgetStale(Sm& tracker, int pid, Vel::FirstException& first) {
   const Vel::Ptr<ChildProcess> stale(tracker.process(pid)); // the hook may forget it
   if (!stale) {
      return true;
   }
   const pid_t here = ::getpid();
   if (const Vel::Ptr<Vel::ChildSiginfo> siginfo = stale->siginfo()) {
      first.run([&] { siginfo->conclude(); });
   }
   if (tracker.process(pid) == stale.get()) {
      first.run([&] { tracker.processDel(pid); });
   }
   return ::getpid() == here;
}

// The read end while it is being handed to a record. By its number alone it can't be known again: a
// child that ends meanwhile has it closed, and a handler may have the number for something else.
class ReadEnd {
 public:
   explicit ReadEnd(int descriptor) noexcept
      : descriptor_(descriptor), known_(::fstat(descriptor, &pipe_) == 0) {}
   void closeUnlessTaken() const noexcept {
      if (!Vel::ActivityImplFacility::activityManagerSm()->fd(descriptor_) && isThePipe()) {
         ::close(descriptor_);
      }
   }

 private:
   bool isThePipe() const noexcept {
      struct stat present;
      if (::fstat(descriptor_, &present) != 0) {
         return errno != EBADF; // as far as anybody can tell
      }
      return !known_ || (present.st_dev == pipe_.st_dev && present.st_ino == pipe_.st_ino);
   }

   int descriptor_;
   struct stat pipe_; // if known
   bool known_;
};

void registerChild(Sm& tracker, int pid, const Vel::String8& name, int readEnd) {
   const Vel::Ptr<Sm> self(&tracker); // a hook may drop every other handle
   const ForkedChild forked(pid);
   Vel::FirstException fromStale; // thrown only when the new child is safe
   if (!forgetStale(tracker, pid, fromStale)) {
      ::close(readEnd);
      fromStale.rethrow();
      return;
   }
   const ReadEnd handed(readEnd);
   try {
      tracker.processIs(pid, name, readEnd);
   } catch (...) {
      handed.closeUnlessTaken();
      throw;
   }
   handed.closeUnlessTaken(); // as by a record that was there before and keeps its own
   fromStale.rethrow();
}

} // namespace

S32 Sm::forkChild(Vel::String8 name, void (*const& fn)(ChildProcessInitCallbackContext),
                  void* const& arg,
                  const Vel::Ptr<ChildProcessTrackerCloseFdsContext>& closeFdsContext) {
   // Held only while tracing and while registering: letting go of it in the child would cost that a
   // copy of the tracker's page.
   Vel::Ptr<ChildProcessTrackerSm> self;
   trace(63, "forkChild", signature, [&](std::ostream& stream) {
      self = this; // a sink may drop every other handle
      stream << name;
   });
   Vel::ChildSiginfo::forkedReserve();
   int ends[2];
   if (::pipe(ends) != 0) {
      return -1;
   }
   const StatusPipe pipe{ends[0], ends[1]};
   const pid_t pid = ::fork();
   if (pid < 0) {
      const int error = errno;
      ::close(pipe.read);
      ::close(pipe.write);
      errno = error;
   } else if (pid == 0) {
      runChild(pipe, fn, arg, closeFdsContext);
   } else {
      ::close(pipe.write);
      registerChild(*this, pid, name, pipe.read);
   }
   return pid;
}

} // namespace Zor
