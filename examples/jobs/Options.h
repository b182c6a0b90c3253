// The command line.
#pragma once

#include <optional>
#include <string>

namespace jobs {

struct Options {
   std::string list = "-"; // a file, or - for standard input
   unsigned jobs = 1;      // at a time
   double timeout = 0;     // seconds that a command may take; 0: as long as it likes
   double grace = 2;       // seconds between asking it to end and killing it
   bool trace = false;
   std::string status; // the file that shows the state; empty: none
};

// Fills in what the command line says. Returns the exit status when there is nothing to run: help
// and version have been printed, or what is wrong.
std::optional<int> parse(int argc, char** argv, Options& options);

} // namespace jobs
