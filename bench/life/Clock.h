// How long something takes, and what is made of several such figures.
#pragma once

#include <functional>
#include <vector>

namespace Bench {

struct Times {
   double wall; // seconds
   double cpu;  // of this process, in user space and in the kernel
};

// What reading the clocks costs is taken off.
Times timesOf(const std::function<void()>& work);

double median(std::vector<double> values);

// The median of the quotients, each of two figures from the same round.
double medianRatio(const std::vector<double>& figures, const std::vector<double>& floor);

} // namespace Bench
