#include "Clock.h"

#include <algorithm>
#include <ctime>

namespace Bench {

namespace {

double now(clockid_t clock) noexcept {
   timespec time{};
   ::clock_gettime(clock, &time);
   return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Times between(const std::function<void()>& work) {
   const double wall = now(CLOCK_MONOTONIC);
   const double cpu = now(CLOCK_PROCESS_CPUTIME_ID);
   work();
   const double cpuEnd = now(CLOCK_PROCESS_CPUTIME_ID);
   return {now(CLOCK_MONOTONIC) - wall, cpuEnd - cpu};
}

Times clocksAlone() {
   std::vector<double> walls;
   std::vector<double> cpus;
   for (int i = 0; i < 1001; ++i) {
      const Times alone = between([] {});
      walls.push_back(alone.wall);
      cpus.push_back(alone.cpu);
   }
   return {median(walls), median(cpus)};
}

} // namespace

Times timesOf(const std::function<void()>& work) {
   static const Times alone = clocksAlone();
   const Times both = between(work);
   return {both.wall - alone.wall, both.cpu - alone.cpu};
}

double median(std::vector<double> values) {
   const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
   std::nth_element(values.begin(), middle, values.end());
   return *middle;
}

double medianRatio(const std::vector<double>& figures, const std::vector<double>& floor) {
   std::vector<double> ratios(figures.size());
   std::transform(figures.begin(), figures.end(), floor.begin(), ratios.begin(), std::divides<>());
   return median(std::move(ratios));
}

} // namespace Bench
