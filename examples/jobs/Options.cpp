#include "Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <thread>

namespace jobs {

namespace {

constexpr int badUsage = 2;
constexpr unsigned mostJobs = 1'000'000;
constexpr double mostSeconds = 1e9; // what the clock can add up, with room to spare

// Written so that a value which is no number at all is turned down too.
std::string checkSeconds(const std::string& text) {
   double value = -1;
   const bool fits = CLI::detail::lexical_cast(text, value) && value >= 0 && value <= mostSeconds;
   return fits ? "" : "'" + text + "' is no number of seconds";
}

int told(const CLI::App& app, const CLI::ParseError& result) {
   const int status = app.exit(result) == 0 ? 0 : badUsage;
   std::cout.flush();
   return status == 0 && !std::cout ? 1 : status;
}

} // namespace

std::optional<int> parse(int argc, char** argv, Options& options) {
   options.jobs = std::max(1U, std::thread::hardware_concurrency());
   CLI::App app("Runs the commands of a list, several at a time, and tells how each one ended.\n"
                "A list has one shell command a line; blank lines and # lines are skipped.",
                "jobs");
   app.footer("Exit status: 0 when every command succeeded, 1 when one failed, 2 for bad usage or\n"
              "an unreadable list, 128 + signal after an interruption.");
   app.set_version_flag("--version", "jobs 0.1.0");
   app.add_option("list", options.list, "The list; standard input when it is - or left out")
      ->type_name("FILE");
   app.add_option("-j,--jobs", options.jobs, "How many to run at a time")
      ->check(CLI::Range(1U, mostJobs).description(""))
      ->type_name("N")
      ->capture_default_str();
   app.add_option("--timeout", options.timeout, "Terminate what takes longer; 0: nothing")
      ->check(CLI::Validator(checkSeconds, ""))
      ->type_name("SECONDS");
   app.add_option("--grace", options.grace, "Kill what is still there so long after that")
      ->check(CLI::Validator(checkSeconds, ""))
      ->type_name("SECONDS")
      ->capture_default_str();
   app.add_option("--status", options.status,
                  "Write the tracker's state there as JSON, on SIGUSR1 and at the end")
      ->type_name("FILE");
   app.add_flag("--trace", options.trace, "Trace the tracker to standard error");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& result) {
      return told(app, result);
   }
   return std::nullopt;
}

} // namespace jobs
