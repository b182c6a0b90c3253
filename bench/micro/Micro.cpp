#include "Micro.h"

#include "Instructions.h"
#include "Rows.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <utility>

namespace Bench {

void timed(const std::string& name, Turns turns, unsigned atATime) {
   benchmark::RegisterBenchmark(name.c_str(),
                                [turns = std::move(turns), atATime](benchmark::State& state) {
                                   turns(atATime); // warm
                                   while (state.KeepRunningBatch(atATime)) {
                                      turns(atATime);
                                   }
                                });
}

void Times::timeIs(const std::string& name, double time) { repetitions_[name].push_back(time); }

void Times::ratioRow(const std::string& what, const std::string& name, const std::string& floor,
                     const char* bound, const char* note) const {
   if (repetitions_.count(name) != 0 && repetitions_.count(floor) != 0) {
      row(what, median(name) / median(floor), bound, note);
   }
}

double Times::median(const std::string& name) const {
   std::vector<double> sorted = repetitions_.at(name);
   std::sort(sorted.begin(), sorted.end());
   return sorted[sorted.size() / 2];
}

double instructionsPerTurn(const Turns& turns, unsigned count) {
   const auto counted = [&](unsigned times) {
      return static_cast<double>(instructions([&] { turns(2 * count); }, [&] { turns(times); }));
   };
   return (counted(2 * count) - counted(count)) / count;
}

} // namespace Bench
