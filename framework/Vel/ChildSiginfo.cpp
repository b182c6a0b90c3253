#include <Vel/Exception.h>
#include <Vel/internal/ChildWatch.h>

#include <cerrno>
#include <string>
#include <unistd.h>
#include <utility>

namespace Vel {

Entity::Entity(Name name) noexcept : name_(std::move(name)) {}
Entity::~Entity() = default;

AllocTrackTypeInfo* ChildSiginfo::velAllocTrackTypeInfo_ = nullptr;

// Drains the child's pipe, whose content means nothing, and reports its end.
class ChildSiginfo::ChildPipeReactor final : public FileDescriptor::NotifieeConst {
 public:
   explicit ChildPipeReactor(ChildSiginfo* siginfo) noexcept : siginfo_(siginfo) {}
   ~ChildPipeReactor() override = default;

   void siginfoIs(ChildSiginfo* siginfo) noexcept { siginfo_ = siginfo; }
   void onReadable() override;
   FileDescriptor* pipe() const noexcept { // uncounted
      return const_cast<FileDescriptor*>(static_cast<const FileDescriptor*>(rawNotifier()));
   }

 private:
   static bool drained(const FileDescriptor& pipe) noexcept;

   ChildSiginfo* siginfo_; // uncounted: the siginfo owns this reactor and clears it when it goes
};

void ChildSiginfo::ChildPipeReactor::onReadable() {
   const FileDescriptor& watched = *pipe(); // held by whoever delivers
   if (!watched.hungUp_ && drained(watched)) {
      return;
   }
   isRegisteredNotifieeIs(false); // out of the poll set: it would be readable for ever
   if (siginfo_ != nullptr) {
      ChildWatch::instance().pipeEnded(*siginfo_); // the last step: it may end all of these
   }
}

// One read, of what is known to be there: another one could block, since the child may have made
// its copy of the read end, and so this one, blocking. At most 64 KiB, so that a child that writes
// without end doesn't hold up the others. False at the end of the pipe.
bool ChildSiginfo::ChildPipeReactor::drained(const FileDescriptor& pipe) noexcept {
   // Not on the stack: reading the end of the pipe would touch a page far below, at a fault a life.
   static char dropped[64 * 1024];
   const ssize_t got = ::read(pipe.descriptor(), dropped, sizeof dropped);
   // An error won't get better, and counts as the end.
   return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

ChildSiginfo::ChildSiginfo(Name name, int pid) noexcept : Entity(std::move(name)), pid_(pid) {}

ChildSiginfo::~ChildSiginfo() {
   if (place_ != noPlace) {
      ChildWatch::instance().leave(*this);
   }
   if (childPipeReactor_) {
      static_cast<ChildPipeReactor&>(*childPipeReactor_).siginfoIs(nullptr);
   }
}

template <auto handler> void ChildSiginfo::announce() const {
   announceTo<handler, NotifieeConst>(this, notifieeList_);
}

void ChildSiginfo::signalCodeIs(SignalCode code) {
   if (code != signalCode_) {
      signalCode_ = code;
      announce<&NotifieeConst::onSignalCode>();
   }
}

void ChildSiginfo::exitStatusIs(std::uint8_t status) {
   if (status != exitStatus_) {
      exitStatus_ = status;
      announce<&NotifieeConst::onExitStatus>();
   }
}

void ChildSiginfo::exitSignalIs(std::uint8_t signal) {
   if (signal != exitSignal_) {
      exitSignal_ = signal;
      announce<&NotifieeConst::onExitSignal>();
   }
}

// Called by the watch, which holds this object. Status and signal come before the code, so that
// whoever hears the code reads a whole record; the code comes although their handlers threw.
void ChildSiginfo::endIs(const End& end) {
   if (childPipe_) {
      childPipe_->close();
   }
   FileDescriptor* const watched =
      childPipeReactor_ ? static_cast<ChildPipeReactor&>(*childPipeReactor_).pipe() : nullptr;
   if (watched != nullptr && watched != childPipe_.get()) {
      watched->close();
   }
   coreDumped_ = end.coreDumped;
   provenance_ = end.provenance;
   FirstException first;
   first.run([&] { exitStatusIs(end.code == exited ? end.value : 0); });
   first.run([&] { exitSignalIs(end.code == killed ? end.value : 0); });
   first.run([&] { signalCodeIs(end.code); });
   first.rethrow();
}

Ptr<FileDescriptor> ChildSiginfo::childPipeIs(Name name) {
   const Ptr<ChildSiginfo> self(this); // a notifiee may drop every other handle on it
   ValidPtr<FileDescriptor> pipe(newEntity<FileDescriptor>(std::move(name)));
   pipe->settings_ |= FileDescriptor::childPipeSetting;
   childPipe_ = pipe;
   announce<&NotifieeConst::onChildPipe>();
   return pipe;
}

Ptr<FileDescriptor::NotifieeConst>
ChildSiginfo::childPipeReactorIs(const Ptr<FileDescriptor const>& pipe,
                                 const Ptr<ChildSiginfo>& siginfo) {
   if (siginfo.get() != this) {
      throwRangeException("a child pipe reactor reports to the siginfo that owns it");
   }
   const Ptr<ChildSiginfo> self(this); // a notifiee may drop every other handle on it
   Ptr<ChildPipeReactor> reactor = newEntity<ChildPipeReactor>(this);
   bool pipeWatched = false;
   int error = EBADF;
   if (signalCode_ == none) {
      reactor->notifierIs(pipe);
      try {
         reactor->isRegisteredNotifieeIs(true);
         pipeWatched = pipe && pipe->descriptor() >= 0;
      } catch (const SystemException& refused) {
         error = refused.error(); // the process may still be watched
      }
      if (!ChildWatch::instance().watch(*this, pipeWatched)) {
         throw SystemException("process " + std::to_string(pid_) + " can't be watched", error);
      }
   }
   if (childPipeReactor_) {
      static_cast<ChildPipeReactor&>(*childPipeReactor_).siginfoIs(nullptr);
   }
   childPipeReactor_ = reactor;
   announce<&NotifieeConst::onChildPipeReactor>();
   return reactor;
}

bool ChildSiginfo::signal(int number) const { return ChildWatch::instance().signal(*this, number); }

void ChildSiginfo::conclude() {
   const Ptr<ChildSiginfo> self(this); // a notifiee may drop every other handle on it
   ChildWatch::instance().conclude(*this);
}

void ChildSiginfo::forkedReserve() { ChildWatch::instance().forkedReserve(); }
void ChildSiginfo::forkedIs(int pid) noexcept { ChildWatch::instance().forkedIs(pid); }
void ChildSiginfo::forkedSettle() noexcept { ChildWatch::instance().settle(); }

// ---- the notifiee ----

void ChildSiginfo::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
   registrationIs(registered);
}

void ChildSiginfo::NotifieeConst::notifierIs(const Ptr<PtrInterface const>& newNotifier) {
   attach(narrowedTo<ChildSiginfo const>(newNotifier.get()));
}

ChildSiginfo::NotifieeConst::~NotifieeConst() { detach(); }

void ChildSiginfo::NotifieeConst::onExitSignal() {}
void ChildSiginfo::NotifieeConst::onExitStatus() {}
void ChildSiginfo::NotifieeConst::onSignalCode() {}
void ChildSiginfo::NotifieeConst::onChildPipe() {}
void ChildSiginfo::NotifieeConst::onChildPipeReactor() {}

} // namespace Vel
