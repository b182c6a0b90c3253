// The frame of the micro-benchmarks: a case does one thing a number of times; it is timed, counted
// in instructions, and judged against another case of the same run.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Bench {

using Turns = std::function<void(unsigned count)>;

// Times a case; turns is called with so many turns at a time, enough to hide the call.
void timed(const std::string& name, Turns turns, unsigned atATime = 64);

// The times of a turn of all cases, when the run is over.
class Times {
 public:
   void timeIs(const std::string& name, double time);
   // Prints a row with the ratio of two cases' repetitions, which were run in random order; none if
   // either was left out of the run.
   void ratioRow(const std::string& what, const std::string& name, const std::string& floor,
                 const char* bound, const char* note = "") const;

 private:
   double typical(const std::string& name) const;

   std::map<std::string, std::vector<double>> repetitions_;
};

// Instructions of one turn, without what all of them have in common. For cases which are the same
// in every turn.
double instructionsPerTurn(const Turns& turns, unsigned count = 64);

// One subject: registers what is to be timed, and prints its rows afterwards.
struct Suite {
   void (*add)();
   void (*report)(const Times& times);
};
extern const Suite handles, collections, notification, tracing, genericAccess, registration;

} // namespace Bench
