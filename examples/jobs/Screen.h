// Standard output: lines that stay and, on a terminal, one line that doesn't.
#pragma once

#include <string>
#include <string_view>

namespace jobs {

// Commands write to the same place, so each line goes out at once and in one piece. What a command
// leaves without a line end goes when the progress line is cleared.
class Screen {
 public:
   // live: there is a progress line, which takes a terminal.
   explicit Screen(bool live) noexcept : live_(live) {}

   bool live() const noexcept { return live_; }
   // The errno of the first write that failed, after which nothing more is written; 0 for none.
   int error() const noexcept { return error_; }

   void tell(std::string_view line);
   void progressIs(const std::string& text); // redrawn only when it has changed

 private:
   void write(std::string_view bytes);

   bool live_;
   int error_ = 0;
   std::string shown_; // the progress line as it stands there, empty for none
};

} // namespace jobs
