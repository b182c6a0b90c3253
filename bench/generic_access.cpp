// What generic access costs: reading, writing and calling through an attribute's record and by its
// name, against the direct call. One interleaved run, with the ratios of the medians at the end.
#include <Zor/ChildProcessTracker.h>

#include <Vel/GenericIf.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Sm = Zor::ChildProcessTrackerSm;
using Handle = Vel::Ptr<Vel::GenericIf>;

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
      return ::pipe(ends) == 0 ? handle()->write("process", 5000001, "none", ends[0]) : Handle();
   }();
   return made;
}

template <class Step> void repeat(benchmark::State& state, const Step& step) {
   for ([[maybe_unused]] auto each : state) {
      step();
   }
}

// The virtual operations are called through a pointer that the compiler knows nothing of.
Sm& unknownSm() {
   Sm* sm = tracker().get();
   benchmark::DoNotOptimize(sm);
   return *sm;
}

struct Case {
   const char* name;
   const char* attribute;
   void (*direct)(Sm& sm, unsigned n);
   void (*byRecord)(const Vel::VelAttr* record, unsigned n);
   void (*byName)(const char* name, unsigned n);
};

constexpr int pid = 5000001;
constexpr Case cases[] = {
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

void registerAll() {
   for (const Case& what : cases) {
      const std::string base(what.name);
      benchmark::RegisterBenchmark((base + ", direct").c_str(), [&what](benchmark::State& state) {
         unsigned n = 0;
         repeat(state, [&] { what.direct(unknownSm(), ++n); });
      });
      benchmark::RegisterBenchmark(
         (base + ", by record").c_str(), [&what](benchmark::State& state) {
            const Vel::VelAttr* const record = handle()->attr(what.attribute);
            unsigned n = 0;
            repeat(state, [&] { what.byRecord(record, ++n); });
         });
      benchmark::RegisterBenchmark((base + ", by name").c_str(), [&what](benchmark::State& state) {
         unsigned n = 0;
         repeat(state, [&] { what.byName(what.attribute, ++n); });
      });
   }
}

// Prints as usual and keeps the medians.
class Medians : public benchmark::ConsoleReporter {
 public:
   Medians() : ConsoleReporter(OO_None) {}
   void ReportRuns(const std::vector<Run>& runs) override {
      ConsoleReporter::ReportRuns(runs);
      for (const Run& run : runs) {
         if (run.aggregate_name == "median") {
            times_[run.run_name.function_name] = run.GetAdjustedCPUTime();
         }
      }
   }
   void printRatios() {
      std::printf("\n%-14s %9s %18s %18s\n", "", "direct", "by record", "by name");
      for (const Case& what : cases) {
         const std::string base(what.name);
         const double direct = times_[base + ", direct"];
         const double byRecord = times_[base + ", by record"];
         const double byName = times_[base + ", by name"];
         std::printf("%-14s %6.1f ns %6.1f ns (%5.1fx) %6.1f ns (%5.1fx)\n", what.name, direct,
                     byRecord, byRecord / direct, byName, byName / direct);
      }
   }

 private:
   std::map<std::string, double> times_;
};

} // namespace

int main(int count, char** given) {
   std::string always[] = {"--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                           "--benchmark_enable_random_interleaving=true",
                           "--benchmark_report_aggregates_only=true"};
   std::vector<char*> args{given[0]};
   for (std::string& flag : always) {
      args.push_back(flag.data());
   }
   args.insert(args.end(), given + 1, given + count);
   int argCount = static_cast<int>(args.size());
   benchmark::Initialize(&argCount, args.data());
   if (benchmark::ReportUnrecognizedArguments(argCount, args.data()) || !child()) {
      return 1;
   }
   registerAll();
   Medians medians;
   benchmark::RunSpecifiedBenchmarks(&medians);
   medians.printRatios();
}
