// User instructions of a life, and of an exit. The parent's only.
#include "Instructions.h"
#include "Measures.h"
#include "Rows.h"
#include "Waiting.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace Bench {

namespace {

// The end is waited for first, so that all that tells of it comes at the same time.
void live(Contestant& contestant) {
   awaitEnd(contestant.start(Body::ends));
   contestant.attendUntil(contestant.running() - 1);
}

double ofALife(const Entry& entry) {
   std::unique_ptr<Contestant> contestant;
   const auto prepare = [&] {
      contestant = entry.make();
      for (int warming = 0; warming < 8; ++warming) {
         live(*contestant);
      }
   };
   return static_cast<double>(instructions(prepare, [&] { live(*contestant); }));
}

double ofAnExit(const Entry& entry, std::size_t tracked) {
   Stage stage;
   const auto prepare = [&] {
      stage.contestant = entry.make();
      waitingIs(stage, tracked);
      live(*stage.contestant);
      awaitEnd(stage.contestant->start(Body::ends));
   };
   return static_cast<double>(
      instructions(prepare, [&] { stage.contestant->attendUntil(tracked); }));
}

} // namespace

void measureInstructions() {
   for (std::size_t at = 0; at < contestants.size(); ++at) {
      const Entry& entry = contestants[at];
      if (entry.make == nullptr) {
         continue;
      }
      const std::string name = std::string(": ") + entry.name;
      row("user instructions of one life" + name, ofALife(entry), at == 1 ? "<= 4000" : "printed",
          "from the fork until it is forgotten");
      if (at <= 1) {
         row("user instructions of one exit, " + std::to_string(mostTracked()) + " others / 10" +
                name,
             ofAnExit(entry, mostTracked()) / ofAnExit(entry, 10), at == 1 ? "<= 1.03" : "printed",
             "");
      }
   }
}

} // namespace Bench
