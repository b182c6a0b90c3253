#include "Micro.h"

#include "Instructions.h"
#include "Rows.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <utility>

namespace Bench {

void timed(const std::string& name, Turns turns, unsigned atATime) {
   auto* const added = benchmark::RegisterBenchmark(
      name.c_str(), [turns = std::move(turns), atATime](benchmark::State& state) {
         turns(atATime); // warm
         while (state.KeepRunningBatch(atATime)) {
            turns(atATime);
         }
      });
   if (atATime == 1) {
      added->Repetitions(7); // so long a turn is a mean of many by itself
   }
}

void Times::timeIs(const std::string& name, double time) { repetitions_[name].push_back(time); }

void Times::ratioRow(const std::string& what, const std::string& name, const std::string& floor,
                     const char* bound, const char* note) const {
   if (repetitions_.count(name) != 0 && repetitions_.count(floor) != 0) {
      row(what, typical(name) / typical(floor), bound, note);
   }
}

// The best repetition: a busy machine makes others slower, in bouts that one case may fall into and
// the other not; nothing makes one faster.
double Times::typical(const std::string& name) const {
   const std::vector<double>& times = repetitions_.at(name);
   return *std::min_element(times.begin(), times.end());
}

double instructionsPerTurn(const Turns& turns, unsigned count) {
   const auto counted = [&](unsigned times) {
      return static_cast<double>(instructions([&] { turns(2 * count); }, [&] { turns(times); }));
   };
   return (counted(2 * count) - counted(count)) / count;
}

} // namespace Bench
