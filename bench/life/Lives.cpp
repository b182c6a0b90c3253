// Whole lives: from the fork until the child is forgotten.
#include "Clock.h"
#include "Measures.h"
#include "Rows.h"
#include "Worker.h"

#include <string>
#include <sys/resource.h>

namespace Bench {

namespace {

constexpr int rounds = 41;
constexpr std::size_t livesPerTurn = 64;

// So many are running at any time, once that many have been started.
void live(Contestant& contestant, std::size_t outstanding) {
   for (std::size_t lived = 0; lived < livesPerTurn; ++lived) {
      contestant.start(Body::ends);
      contestant.attendUntil(outstanding - 1);
   }
   contestant.attendUntil(0);
}

double wall(Stage& stage, std::size_t outstanding) {
   return timesOf([&] { live(*stage.contestant, outstanding); }).wall;
}

double cpu(Stage& stage, std::size_t outstanding) {
   return timesOf([&] { live(*stage.contestant, outstanding); }).cpu;
}

// Each page that is written between two forks is a fault, and a copy while the child lives.
template <int who> double faults(Stage& stage, std::size_t outstanding) {
   rusage before{}, after{};
   ::getrusage(who, &before);
   live(*stage.contestant, outstanding);
   ::getrusage(who, &after);
   return static_cast<double>(after.ru_minflt - before.ru_minflt) / livesPerTurn;
}

void faultRows(const std::string& what, Task task, std::size_t outstanding) {
   const Workers workers = allWorkers();
   const auto figures = alternate(workers, task, outstanding, 11);
   for (std::size_t at = 0; at < workers.size(); ++at) {
      row("page faults of a life, " + what + ": " + workers[at]->name(), median(figures[at]),
          "printed", "");
   }
}

// The bound is this library's; the others are printed beside it.
void rows(const std::string& what, Task task, std::size_t outstanding, const char* bound) {
   const Workers workers = allWorkers();
   const auto figures = alternate(workers, task, outstanding, rounds);
   for (std::size_t at = 1; at < workers.size(); ++at) {
      row(what + ": " + workers[at]->name(), medianRatio(figures[at], figures[0]),
          at == 1 ? bound : "printed", "against the floor");
   }
}

} // namespace

void measureLives() {
   rows("life, one at a time, wall time", &wall, 1, "<= 1.03");
   rows("life, 64 outstanding, parent's CPU time", &cpu, 64, "<= 1.08");
   faultRows("in the parent, one at a time", &faults<RUSAGE_SELF>, 1);
   faultRows("in the parent, 64 outstanding", &faults<RUSAGE_SELF>, 64);
   faultRows("in the child", &faults<RUSAGE_CHILDREN>, 1);
   const Workers workers = allWorkers();
   for (const std::size_t outstanding : {1U, 4U, 16U, 64U}) {
      const auto figures = alternate(workers, &cpu, outstanding, 11);
      for (std::size_t at = 1; at < workers.size(); ++at) {
         point("life", workers[at]->name(), static_cast<double>(outstanding),
               medianRatio(figures[at], figures[0]));
      }
   }
}

} // namespace Bench
