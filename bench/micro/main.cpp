// Micro-benchmarks of what claims to be cheap. Prints the times on standard error and what they
// come to, as ratios and instructions, on standard output.
#include "Micro.h"

#include <benchmark/benchmark.h>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr const Bench::Suite* suites[] = {&Bench::handles,       &Bench::collections,
                                          &Bench::notification,  &Bench::tracing,
                                          &Bench::genericAccess, &Bench::registration};

class Collecting : public benchmark::ConsoleReporter {
 public:
   Collecting() : ConsoleReporter(OO_None) { SetOutputStream(&std::cerr); }
   const Bench::Times& times() const noexcept { return times_; }

   void ReportRuns(const std::vector<Run>& runs) override {
      std::vector<Run> aggregates;
      for (const Run& run : runs) {
         if (run.run_type == Run::RT_Aggregate) {
            aggregates.push_back(run);
         } else {
            times_.timeIs(run.run_name.function_name, run.GetAdjustedCPUTime());
         }
      }
      ConsoleReporter::ReportRuns(aggregates);
   }

 private:
   Bench::Times times_;
};

// The given arguments come behind these, and so win.
std::vector<char*> arguments(int count, char** given) {
   static std::string always[] = {"--benchmark_repetitions=25", "--benchmark_min_time=0.01",
                                  "--benchmark_enable_random_interleaving=true"};
   std::vector<char*> all{given[0]};
   for (std::string& flag : always) {
      all.push_back(flag.data());
   }
   all.insert(all.end(), given + 1, given + count);
   return all;
}

} // namespace

int main(int count, char** given) {
   std::vector<char*> args = arguments(count, given);
   int argCount = static_cast<int>(args.size());
   benchmark::Initialize(&argCount, args.data());
   if (benchmark::ReportUnrecognizedArguments(argCount, args.data())) {
      return 1;
   }
   for (const Bench::Suite* suite : suites) {
      suite->add();
   }
   Collecting reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   for (const Bench::Suite* suite : suites) {
      suite->report(reporter.times());
   }
}
