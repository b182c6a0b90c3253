#include "CommandList.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace jobs {

namespace {

[[noreturn]] void fail(const std::string& file, const std::string& why) {
   throw Unreadable((file == "-" ? "standard input" : file) + ": " + why);
}

// The file becomes standard input, which takes no owner of its own that would have to close it.
void standardInputIs(const std::string& file) {
   const int opened = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
   if (opened < 0) {
      fail(file, std::strerror(errno));
   }
   ::dup2(opened, STDIN_FILENO);
   ::close(opened);
}

std::string textOf(const std::string& file) {
   std::string text;
   char part[16 * 1024];
   ssize_t got = 0;
   while ((got = ::read(STDIN_FILENO, part, sizeof part)) != 0) {
      if (got > 0) {
         text.append(part, static_cast<std::size_t>(got));
      } else if (errno != EINTR) {
         fail(file, std::strerror(errno));
      }
   }
   return text;
}

// A command with a NUL byte in it would reach the shell cut short.
void refuseNul(const std::string& file, const std::string& text) {
   const auto nul = std::find(text.begin(), text.end(), '\0');
   if (nul != text.end()) {
      const auto line = std::count(text.begin(), nul, '\n') + 1;
      fail(file, "line " + std::to_string(line) + " has a NUL byte");
   }
}

bool isCommand(std::string_view line) {
   const auto first = line.find_first_not_of(" \t");
   return first != std::string_view::npos && line[first] != '#';
}

} // namespace

std::vector<std::string> readCommands(const std::string& file) {
   if (file != "-") {
      standardInputIs(file);
   }
   const std::string text = textOf(file);
   refuseNul(file, text);
   std::vector<std::string> commands;
   for (std::string_view rest = text; !rest.empty();) {
      std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(std::min(line.size() + 1, rest.size()));
      if (!line.empty() && line.back() == '\r') {
         line.remove_suffix(1);
      }
      if (isCommand(line)) {
         commands.emplace_back(line);
      }
   }
   return commands;
}

} // namespace jobs
