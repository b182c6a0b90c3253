// What closing all descriptors but a few costs a forked child.
#include "Clock.h"
#include "Contestant.h"
#include "Measures.h"
#include "Rows.h"

#include <Vel/Activity.h>
#include <Zor/ChildProcessTracker.h>

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>

namespace Bench {

namespace {

constexpr std::size_t few = 1024;
constexpr int rounds = 15;

// Listed, looked up and closed, as by hand.
void closeByHand(const std::unordered_set<int>& kept) {
   std::vector<int> open;
   DIR* const directory = ::opendir("/proc/self/fd");
   while (const dirent* const entry = ::readdir(directory)) {
      if (entry->d_name[0] != '.') {
         open.push_back(std::atoi(entry->d_name));
      }
   }
   ::closedir(directory);
   for (const int descriptor : open) {
      if (kept.count(descriptor) == 0) {
         ::close(descriptor);
      }
   }
}

using Closing = void (*)(const std::vector<int>& kept, double& spent);

void library(const std::vector<int>& kept, double& spent) {
   const auto context = Vel::newEntity<Zor::ChildProcessTrackerCloseFdsContext>();
   for (const int descriptor : kept) {
      context->skipFdIs(descriptor, true);
   }
   spent = timesOf([&] { Zor::childProcessTrackerCloseFds(context); }).cpu;
}

void byHand(const std::vector<int>& kept, double& spent) {
   const std::unordered_set<int> set(kept.begin(), kept.end());
   spent = timesOf([&] { closeByHand(set); }).cpu;
}

[[noreturn]] void closeIn(Closing closing, std::size_t count, int result) {
   const int any = ::open("/dev/null", O_RDONLY);
   for (std::size_t open = static_cast<std::size_t>(any) + 1; open < count; ++open) {
      ::dup(any);
   }
   double spent = -1;
   closing({0, 1, 2, result}, spent);
   const bool closed =
      ::fcntl(any, F_GETFD) < 0 && ::fcntl(static_cast<int>(count) - 1, F_GETFD) < 0;
   ::_exit(closed && ::write(result, &spent, sizeof spent) == sizeof spent ? 0 : 1);
}

// In a child of its own, each time.
double cost(Closing closing, std::size_t count) {
   int ends[2];
   checked(::pipe(ends), "pipe");
   const pid_t pid = checked(::fork(), "fork");
   if (pid == 0) {
      closeIn(closing, count, ends[1]);
   }
   ::close(ends[1]);
   double spent = 0;
   const bool got = ::read(ends[0], &spent, sizeof spent) == sizeof spent;
   ::close(ends[0]);
   ::waitpid(pid, nullptr, 0);
   if (!got) {
      throw std::runtime_error("a child could not close its descriptors");
   }
   return spent;
}

struct Cost {
   double ratio;
   double perDescriptor;
};

Cost measure(std::size_t count) {
   std::vector<double> ours;
   std::vector<double> floor;
   for (int round = 0; round < rounds; ++round) {
      floor.push_back(cost(&byHand, count));
      ours.push_back(cost(&library, count));
   }
   const Cost result{medianRatio(ours, floor), median(ours) / static_cast<double>(count)};
   point("closing", "this library", static_cast<double>(count), result.ratio);
   return result;
}

void row(std::size_t count, const Cost& cost) {
   Bench::row("closing, " + std::to_string(count) + " open, CPU time", cost.ratio, "<= 1.10",
              "against listing, looking up and closing by hand");
}

} // namespace

void measureClosing() {
   Vel::ActivityImplFacility::activityManagerSm(); // as in a parent that has children
   for (const std::size_t count : {16U, 64U, 256U, 4096U}) {
      measure(count);
   }
   const std::size_t many = mostDescriptors();
   const Cost atFew = measure(few);
   const Cost atMany = measure(many);
   row(few, atFew);
   row(many, atMany);
   Bench::row("closing, for each descriptor, " + std::to_string(many) + " open / " +
                 std::to_string(few),
              atMany.perDescriptor / atFew.perDescriptor, "<= 1.3", "");
}

} // namespace Bench
