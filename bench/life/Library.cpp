// This library: forkChild, and the loop.
#include "Contestant.h"

#include <Zor/ChildProcessTracker.h>

namespace Bench {

namespace {

class Library : public Contestant {
 public:
   pid_t start(Body body) override {
      const pid_t pid = checked(tracker_->forkChild(name_, nullptr, nullptr, nullptr), "forkChild");
      if (pid == 0) {
         beChild(body);
      }
      started();
      return pid;
   }
   void attend() override { loop_->runOnce(-1); }

 private:
   class Tracker : public Zor::ChildProcessTrackerSm {
    public:
      explicit Tracker(Library& library) : library_(library) {}
      void forkedChildExitCallback(const Vel::Ptr<Zor::ChildProcess const>& child) override {
         const auto& end = child->siginfo();
         library_.ended(end->exitStatus() + end->exitSignal()); // one of them is 0
      }

    private:
      Library& library_;
   };

   const Vel::String8 name_ = "child"; // the same for all, as for a program's workers
   const Vel::Ptr<Tracker> tracker_ = Zor::newTracker<Tracker>(*this);
   const Vel::Ptr<Vel::ActivityManagerSm> loop_ = Vel::ActivityImplFacility::activityManagerSm();
};

} // namespace

std::unique_ptr<Contestant> makeLibrary() { return std::make_unique<Library>(); }

} // namespace Bench
