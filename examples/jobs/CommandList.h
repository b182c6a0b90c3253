// Reading the list of commands.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace jobs {

struct Unreadable : std::runtime_error {
   using std::runtime_error::runtime_error;
};

// The commands of a file (- for standard input), read whole before the first one runs, so that
// none can change the list under way. Throws Unreadable.
std::vector<std::string> readCommands(const std::string& file);

} // namespace jobs
