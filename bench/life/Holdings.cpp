// What is held for a child while it runs, and after.
#include "Measures.h"
#include "Rows.h"
#include "Waiting.h"

#include <cstdint>
#include <filesystem>
#include <malloc.h>
#include <string>

namespace Bench {

namespace {

double heap() {
   const auto info = ::mallinfo2();
   return static_cast<double>(info.uordblks + info.hblkhd);
}

double descriptors() {
   const std::filesystem::directory_iterator list("/proc/self/fd");
   return static_cast<double>(std::distance(begin(list), end(list)));
}

// How much more of something there is for each of so many waiting children.
template <double (*amount)()> double perChild(Stage& stage, std::size_t count) {
   stage.waiting.reserve(count);
   const double before = amount();
   waitingIs(stage, count);
   return (amount() - before) / static_cast<double>(count);
}

template <double (*amount)()> double leftAfterLife(Stage& stage, std::size_t count) {
   const double before = amount();
   for (std::size_t lived = 0; lived < count; ++lived) {
      stage.contestant->start(Body::ends);
   }
   stage.contestant->attendUntil(0);
   return amount() - before;
}

// A life comes first: what is made on first use is no child's.
double held(const Entry& entry, Task task, std::size_t count) {
   Worker worker(entry);
   worker.run(&leftAfterLife<&heap>, 10);
   return worker.run(task, count);
}

} // namespace

void measureHoldings() {
   constexpr std::size_t count = 1000;
   for (std::size_t at = 1; at < contestants.size(); ++at) {
      const Entry& entry = contestants[at];
      if (entry.make == nullptr) {
         continue;
      }
      const std::string name = std::string(": ") + entry.name;
      const auto bound = [at](const char* ours) { return at == 1 ? ours : "printed"; };
      row("heap for each of 1,000 tracked children, bytes" + name,
          held(entry, &perChild<&heap>, count), bound("<= 640"), "all that malloc gave");
      row("descriptors for each tracked child" + name, held(entry, &perChild<&descriptors>, count),
          bound("= 2"), "");
      row("descriptors left by 100 children that ended" + name,
          held(entry, &leftAfterLife<&descriptors>, 100), bound("= 0"), "");
   }
}

} // namespace Bench
