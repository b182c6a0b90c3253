// What it costs to learn of an exit, with others running, and of all at once.
#include "Clock.h"
#include "Measures.h"
#include "Rows.h"
#include "Waiting.h"

#include <algorithm>
#include <string>

namespace Bench {

namespace {

constexpr int rounds = 15;
constexpr int exitsPerTurn = 25;

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

// Ends all that wait.
double endAllCpu(Stage& stage, std::size_t) {
   SignalHeld held;
   for (const pid_t pid : stage.waiting) {
      ::kill(pid, SIGKILL);
   }
   std::for_each(stage.waiting.begin(), stage.waiting.end(), &awaitEnd);
   stage.waiting.clear();
   return cpuToLearn(*stage.contestant, held, 0);
}

double allAtOnceCpu(Stage& stage, std::size_t tracked) {
   waitingIs(stage, tracked);
   return endAllCpu(stage, 0);
}

void exits(const Workers& workers, std::size_t tracked, const char* bound) {
   const double ratio = [&] {
      const auto figures = alternate(workers, &exitCpu, tracked, rounds);
      return medianRatio(figures[1], figures[0]);
   }();
   const std::string& name = workers[1]->name();
   row("CPU time to learn of one exit, " + std::to_string(tracked) + " others: " + name, ratio,
       bound, "against the floor with as many");
   point("exit", name, static_cast<double>(tracked + 1), ratio); // with the one that ends
}

void allAtOnce(const Workers& workers) {
   constexpr std::size_t together = 500;
   const auto figures = alternate(workers, &allAtOnceCpu, together, 9);
   for (std::size_t at = 1; at < workers.size(); ++at) {
      row("CPU time to learn of " + std::to_string(together) +
             " ends at once: " + workers[at]->name(),
          medianRatio(figures[at], figures[0]), "printed", "against the floor");
   }
}

} // namespace

// Two at a time: with thousands of children each, all together would have too many processes.
void measureExits() {
   allAtOnce(allWorkers());
   for (std::size_t at = 1; at < contestants.size(); ++at) {
      if (contestants[at].make == nullptr) {
         continue;
      }
      const Workers workers = floorAnd(contestants[at]);
      for (const std::size_t tracked :
           {std::size_t{0}, std::size_t{9}, std::size_t{100}, std::size_t{1000}, mostTracked()}) {
         const bool judged = at == 1 && tracked != 9;
         exits(workers, tracked, judged ? "<= 1.25" : "printed");
      }
      for (const auto& worker : workers) {
         worker->run(&endAllCpu, 0); // all gone before others come
      }
   }
}

} // namespace Bench
