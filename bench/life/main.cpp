// Whole lives of children, compared: rows and points for scripts/bench.
#include "Contestant.h"
#include "Measures.h"
#include "Rows.h"
#include "Worker.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <map>
#include <string>
#include <sys/resource.h>

namespace Bench {

namespace {

const std::map<std::string, void (*)()> measures = {
   {"lives", &measureLives},       {"exits", &measureExits},
   {"holdings", &measureHoldings}, {"instructions", &measureInstructions},
   {"forking", &measureForking},   {"closing", &measureClosing},
   {"crowds", &measureCrowds},
};

std::size_t limitIn(const char* path) {
   std::size_t limit = 32768;
   std::ifstream(path) >> limit;
   return limit;
}

void raiseLimit() {
   rlimit limit{};
   checked(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
   limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 20000);
   checked(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

void run(int count, char** names) {
   raiseLimit();
   pinToOneCore();
   for (const Entry& entry : contestants) {
      if (entry.make == nullptr) {
         absent(entry.name);
      }
   }
   for (const auto& [name, measure] : measures) {
      if (count == 0 || std::find(names, names + count, name) != names + count) {
         measure();
      }
   }
}

} // namespace

std::size_t mostDescriptors() {
   rlimit limit{};
   checked(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
   return limit.rlim_cur - 100;
}

std::size_t mostTracked() {
   constexpr std::size_t spare = 2000; // what else runs here
   constexpr std::size_t most = 9900;
   rlimit processes{};
   checked(::getrlimit(RLIMIT_NPROC, &processes), "getrlimit");
   const std::size_t ids =
      std::min({limitIn("/proc/sys/kernel/pid_max"), limitIn("/proc/sys/kernel/threads-max"),
                static_cast<std::size_t>(processes.rlim_cur)});
   return std::min({most, (mostDescriptors() - 50) / 2, (ids - spare) / 2});
}

} // namespace Bench

int main(int argc, char** argv) try {
   Bench::run(argc - 1, argv + 1);
   return EXIT_SUCCESS;
} catch (const std::exception& exception) {
   std::cerr << "life: " << exception.what() << '\n';
   return EXIT_FAILURE;
}
