#include "Screen.h"

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace jobs {

namespace {

constexpr const char* clearedLine = "\r\x1b[K"; // to its start, and erase what is there

// What fits in a line: a wrapped one could not be cleared.
std::size_t width() noexcept {
   winsize size{};
   const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
   return known ? size.ws_col - 1U : 79U;
}

} // namespace

void Screen::tell(std::string_view line) {
   std::string bytes = shown_.empty() ? "" : clearedLine;
   shown_.clear();
   write(bytes.append(line) += '\n');
}

void Screen::progressIs(const std::string& text) {
   if (!live_) {
      return;
   }
   std::string fitting = text.substr(0, width());
   if (fitting != shown_) {
      write(clearedLine + fitting);
      shown_ = std::move(fitting);
   }
}

void Screen::write(std::string_view bytes) {
   while (error_ == 0 && !bytes.empty()) {
      const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
      if (written >= 0) {
         bytes.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno == EAGAIN) { // whoever shares it has made it non-blocking
         pollfd writable{STDOUT_FILENO, POLLOUT, 0};
         ::poll(&writable, 1, -1);
      } else if (errno != EINTR) {
         error_ = errno;
      }
   }
}

} // namespace jobs
