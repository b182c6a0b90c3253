#include "Report.h"

#include <csignal>
#include <cstring>
#include <sstream>

namespace jobs {

namespace {

template <class... Args> std::string text(const char* format, Args... args) {
   return std::string(std::string_view(Vel::format(format, args...)));
}

// Control characters as \xNN, those of the upper half in UTF-8 too: a list must not be able to
// move the cursor.
std::string escaped(std::string_view command) {
   std::string shown;
   unsigned char previous = 0;
   for (const char character : command) {
      const auto byte = static_cast<unsigned char>(character);
      const bool upperControl = previous == 0xc2 && byte >= 0x80 && byte < 0xa0;
      if (upperControl) {
         shown.pop_back();
         shown += "\\xc2";
      }
      shown += byte < 0x20 || byte == 0x7f || upperControl ? text("\\x%02x", byte)
                                                           : std::string(1, character);
      previous = byte;
   }
   return shown;
}

std::string signalName(int signal) {
   if (const char* const name = ::sigabbrev_np(signal)) {
      return std::string("SIG") + name;
   }
   return signal >= SIGRTMIN ? text("SIGRTMIN+%d", signal - SIGRTMIN) : text("signal %d", signal);
}

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

std::string outcome(const Vel::ChildSiginfo& end) {
   switch (end.signalCode()) {
   case Vel::ChildSiginfo::exited:
      return end.exitStatus() == 0 ? "ok" : text("status %d", end.exitStatus());
   case Vel::ChildSiginfo::killed:
      return "killed by " + signalName(end.exitSignal()) +
             (end.coreDumped() ? ", core dumped" : "");
   default:
      return "lost (status unknown)";
   }
}

} // namespace

std::string endLine(const Zor::ChildProcess& child, Clock::duration took, bool timedOut) {
   const std::string how = outcome(*child.siginfo()) + (timedOut ? " (timed out)" : "");
   return text("%-17s %8.3f s  ", how.c_str(), seconds(took)) + escaped(child.description());
}

std::string troubleLine(std::string_view outcome, std::string_view why, std::string_view command) {
   return std::string(outcome) + " (" + std::string(why) + ")  " + escaped(command);
}

std::string progressLine(const Progress& progress) {
   const auto passed = std::chrono::floor<std::chrono::seconds>(progress.elapsed).count();
   return text("[%zu running, %zu of %zu done, %zu failed, %lld:%02lld] ", progress.running,
               progress.started - progress.running + progress.refused, progress.total,
               progress.troubles(), static_cast<long long>(passed / 60),
               static_cast<long long>(passed % 60));
}

std::string summary(const Progress& progress) {
   std::string line = text("summary: %zu commands, %zu succeeded, %zu failed, %zu lost",
                           progress.total, progress.succeeded, progress.failed, progress.lost);
   if (progress.started < progress.total) {
      line += text(", %zu not started", progress.total - progress.started);
   }
   if (progress.timedOut > 0) {
      line += text(", %zu timed out", progress.timedOut);
   }
   return line + text(", %.3f s", seconds(progress.elapsed));
}

std::string lastFailure(const Zor::ChildProcessTrackerSm& tracker) {
   const auto& child = tracker.lastFailedProcess();
   if (!child) {
      return "";
   }
   std::ostringstream line;
   line << "last failure: " << tracker.lastFailedProcessTerminationError() << ": "
        << escaped(child->description());
   return line.str();
}

} // namespace jobs
