// jobs: runs the commands of a list, several at a time, and tells how each one ended.
#include "CommandList.h"
#include "Options.h"
#include "Report.h"
#include "Runner.h"
#include "StartState.h"

#include <Vel/Trace.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string_view>
#include <unistd.h>

namespace {

constexpr int someFailed = 1;
constexpr int unreadable = 2;

// The tracker's messages would run into a progress line on the same terminal.
bool wantsProgressLine(const jobs::Options& options) {
   const char* const kind = std::getenv("TERM");
   return ::isatty(STDOUT_FILENO) != 0 && (kind == nullptr || std::string_view(kind) != "dumb") &&
          !(options.trace && ::isatty(STDERR_FILENO) != 0);
}

void tellSummary(const jobs::Runner& runner, jobs::Screen& screen) {
   screen.tell(jobs::summary(runner.progress()));
   if (const std::string last = jobs::lastFailure(runner.tracker()); !last.empty()) {
      screen.tell(last);
   }
}

int exitStatus(const jobs::Runner& runner, const jobs::Screen& screen) {
   if (screen.error() != 0) {
      std::cerr << "jobs: standard output: " << std::strerror(screen.error()) << '\n';
   }
   if (runner.interruption() != 0) {
      return 128 + runner.interruption();
   }
   return runner.progress().allWell() && screen.error() == 0 ? 0 : someFailed;
}

int run(int argc, char** argv) {
   jobs::openStandardDescriptors();
   jobs::Options options;
   if (const auto nothingToRun = jobs::parse(argc, argv, options)) {
      return *nothingToRun;
   }
   std::vector<std::string> commands = jobs::readCommands(options.list);
   jobs::standardInputIsNull();
   Vel::TraceFacility::levelEnabledIs("ChildProcessTracker", 8, options.trace);
   const jobs::StartState startState(!options.status.empty());
   jobs::Screen screen(wantsProgressLine(options));
   jobs::Runner runner(options, std::move(commands), startState, screen);
   runner.run();
   runner.showStatus();
   tellSummary(runner, screen);
   return exitStatus(runner, screen);
}

} // namespace

int main(int argc, char** argv) {
   try {
      return run(argc, argv);
   } catch (const jobs::Unreadable& problem) {
      std::cerr << "jobs: " << problem.what() << '\n';
      return unreadable;
   } catch (const std::exception& problem) {
      std::cerr << "jobs: " << problem.what() << '\n';
      return someFailed;
   }
}
