// What the library keeps for as long as the process lives.
#include <Vel/internal/ChildWatch.h>

namespace Vel {

namespace {

struct ProcessState {
   constexpr ProcessState() noexcept : watch(core) { core.childEventsIs(&watch); }

   ActivityCore core;
   ChildWatch watch;
};

// There before anything runs and never destroyed: the program's static objects may end later and
// have descriptors and children.
union Kept {
   constexpr Kept() noexcept : state() {}
   ~Kept() {}
   ProcessState state;
};

// In a page of its own, but for what grows: a process that forks pays a fault for each page that it
// writes between two forks.
alignas(4096) constinit Kept kept;

} // namespace

ActivityCore& ActivityCore::instance() noexcept { return kept.state.core; }

ChildWatch& ChildWatch::instance() noexcept {
   kept.state.core.adoptProcess();
   return kept.state.watch;
}

} // namespace Vel
