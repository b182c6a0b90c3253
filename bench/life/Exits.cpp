// What it costs to learn of an exit, with others running, and of all at once.
#include "Clock.h"
#include "Measures.h"
#include "Rows.h"
#include "Waiting.h"

#include <algorithm>
#include <string>

namespace Bench {

namespace {

constexpr int rounds = 11;
constexpr int exitsPerTurn = 15;

double exitCpu(Stage& stage, std::size_t tracked) {
   waitingIs(stage, tracked);
   Contestant& contestant = *stage.contestant;
   std::vector<double> costs;
   for (int exit = 0; exit < exitsPerTurn; ++exit) {
      SignalHeld held;
      awaitEnd(contestant.start(Body::ends));
      costs.push_back(cpuToLearn(contestant, held, tracked));
   }
   return median(costs);
}

double allAtOnceCpu(Stage& stage, std::size_t tracked) {
   waitingIs(stage, tracked);
   SignalHeld held;
   for (const pid_t pid : stage.waiting) {
      ::kill(pid, SIGKILL);
   }
   std::for_each(stage.waiting.begin(), stage.waiting.end(), &awaitEnd);
   stage.waiting.clear();
   return cpuToLearn(*stage.contestant, held, 0);
}

// Of all workers but the first, which is the floor. Only this library's are judged.
void exits(const Workers& workers, std::size_t tracked, bool judged) {
   const auto figures = alternate(workers, &exitCpu, tracked, rounds);
   for (std::size_t at = 1; at < workers.size(); ++at) {
      const std::string& name = workers[at]->name();
      const double ratio = medianRatio(figures[at], figures[0]);
      const bool ours = name == contestants[1].name;
      row("CPU time to learn of one exit, " + std::to_string(tracked) + " others: " + name, ratio,
          ours && judged ? "<= 1.25" : "printed", "against the floor with as many");
      point("exit", name, static_cast<double>(tracked + 1), ratio); // with the one that ends
   }
}

void allAtOnce() {
   const Workers workers = allWorkers();
   constexpr std::size_t together = 500;
   const auto figures = alternate(workers, &allAtOnceCpu, together, 9);
   for (std::size_t at = 1; at < workers.size(); ++at) {
      row("CPU time to learn of " + std::to_string(together) +
             " ends at once: " + workers[at]->name(),
          medianRatio(figures[at], figures[0]), "printed", "against the floor");
   }
}

} // namespace

void measureExits() {
   for (const std::size_t tracked : {0U, 9U, 100U, 1000U}) {
      exits(allWorkers(), tracked, tracked != 9);
   }
   allAtOnce();
}

// With thousands of children each, all together would be too many: one beside the floor at a time.
void measureCrowds() {
   Workers two;
   two.push_back(std::make_unique<Worker>(contestants[0]));
   for (std::size_t at = 1; at < contestants.size(); ++at) {
      if (contestants[at].make != nullptr) {
         two.push_back(std::make_unique<Worker>(contestants[at]));
         exits(two, mostTracked(), true);
         two.pop_back();
      }
   }
}

} // namespace Bench
