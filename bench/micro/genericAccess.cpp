// Reading, writing and calling through an attribute's record and by its name, against the direct
// call.
#include "Micro.h"

#include <Zor/ChildProcessTracker.h>

#include <Vel/GenericIf.h>

#include <benchmark/benchmark.h>
#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace Bench {

namespace {

using Sm = Zor::ChildProcessTrackerSm;
using Handle = Vel::Ptr<Vel::GenericIf>;

constexpr int pid = 5000001; // of no process

const Vel::Ptr<Sm>& tracker() {
   static const Vel::Ptr<Sm> made = Sm::ChildProcessTrackerSmIs();
   return made;
}
const Handle& handle() {
   static const Handle made = Vel::GenericIf::of(tracker());
   return made;
}
const Handle& child() {
   static const Handle made = [] {
      int ends[2];
      if (::pipe(ends) != 0) {
         throw std::system_error(errno, std::generic_category(), "pipe");
      }
      return handle()->write("process", pid, "none", ends[0]);
   }();
   return made;
}

// The virtual operations are called through a pointer that the compiler knows nothing of.
Sm& unknownSm() {
   Sm* sm = tracker().get();
   benchmark::DoNotOptimize(sm);
   return *sm;
}

struct Access {
   const char* name;
   const char* attribute;
   void (*direct)(Sm& sm, unsigned n);
   void (*byRecord)(const Vel::VelAttr* record, unsigned n);
   void (*byName)(const char* name, unsigned n);
};

constexpr Access accesses[] = {
   {"read", "errorTerminationCount",
    [](Sm& sm, unsigned) {
       unsigned count = sm.errorTerminationCount();
       benchmark::DoNotOptimize(count);
    },
    [](const Vel::VelAttr* record, unsigned) { benchmark::DoNotOptimize(handle()->read(record)); },
    [](const char* name, unsigned) { benchmark::DoNotOptimize(handle()->read(name)); }},
   {"read at a key", "process",
    [](Sm& sm, unsigned) {
       const Vel::Ptr<Zor::ChildProcess> found(sm.process(pid));
       benchmark::DoNotOptimize(found.get());
    },
    [](const Vel::VelAttr* record, unsigned) {
       benchmark::DoNotOptimize(handle()->read(record, pid));
    },
    [](const char* name, unsigned) { benchmark::DoNotOptimize(handle()->read(name, pid)); }},
   {"write", "errorTerminationCount", [](Sm& sm, unsigned n) { sm.errorTerminationCountIs(n); },
    [](const Vel::VelAttr* record, unsigned n) { handle()->write(record, n); },
    [](const char* name, unsigned n) { handle()->write(name, n); }},
   {"call", "forkedChildExitCallback",
    [](Sm& sm, unsigned) {
       sm.forkedChildExitCallback(Vel::Ptr<Zor::ChildProcess const>(sm.process(pid)));
    },
    [](const Vel::VelAttr* record, unsigned) { handle()->call(record, child()); },
    [](const char* name, unsigned) { handle()->call(name, child()); }},
};

template <class Step> Turns repeated(const Step& step) {
   return [step](unsigned count) {
      for (; count != 0; --count) {
         step(count);
      }
   };
}

std::string caseName(const Access& access, const char* way) {
   return std::string("generic ") + access.name + '/' + way;
}

void add() {
   child(); // what is read and called is there
   for (const Access& access : accesses) {
      const Vel::VelAttr* const record = handle()->attr(access.attribute);
      timed(caseName(access, "direct"),
            repeated([&access](unsigned n) { access.direct(unknownSm(), n); }));
      timed(caseName(access, "by record"),
            repeated([&access, record](unsigned n) { access.byRecord(record, n); }));
      timed(caseName(access, "by name"),
            repeated([&access](unsigned n) { access.byName(access.attribute, n); }));
   }
}

void report(const Times& times) {
   for (const Access& access : accesses) {
      for (const char* way : {"by record", "by name"}) {
         times.ratioRow(std::string("generic ") + access.name + ' ' + way + ", time / direct call",
                        caseName(access, way), caseName(access, "direct"), "printed");
      }
   }
}

} // namespace

const Suite genericAccess{add, report};

} // namespace Bench
