// Lifecycles of children of all kinds, for SECONDS or until there were LIFECYCLES of them. One
// process runs them; now and then it lets all of them end and has its parent judge it from outside.
#include <Zor/ChildProcessTracker.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t mostOutstanding = 32;
constexpr double judgedEvery = 0.05; // of the whole
constexpr long residentSlackKiB = 64;
constexpr unsigned mostWakeups = 3; // a child

enum Kind : unsigned { ok, status, signal, earlyClose, grandchild, forgotten, kinds };

// What the process that runs the children says of itself.
struct Report {
   double progress = 0; // up to 1
   double seconds = 0;
   std::uint64_t started = 0;
   std::uint64_t successes = 0;
   std::uint64_t errors = 0;
   std::uint64_t lost = 0;
   std::uint64_t forgotten = 0;
   std::uint64_t wakeups = 0;
};

struct Pipe {
   Pipe() {
      if (::pipe(ends) != 0) {
         throw std::runtime_error("no pipe");
      }
   }
   int read() const { return ends[0]; }
   int write() const { return ends[1]; }
   int ends[2];
};

// ---- running the children ----

class Tracker : public Zor::ChildProcessTrackerSm {
 public:
   void forkedChildExitCallback(const Vel::Ptr<Zor::ChildProcess const>& child) override {
      lost += child->siginfo()->signalCode() == Vel::ChildSiginfo::lost;
   }
   std::uint64_t lost = 0;
};

[[noreturn]] void runChild(Kind kind, const Pipe* gate) {
   char byte;
   switch (kind) {
   case status:
      ::_exit(3);
   case signal:
      ::raise(SIGKILL);
      break;
   case earlyClose:
      ::close_range(3, ~0U, 0);
      ::usleep(300);
      break;
   case grandchild:
      if (::fork() == 0) {
         ::usleep(3000);
      }
      break;
   case forgotten:
      ::close(gate->write());
      while (::read(gate->read(), &byte, 1) > 0) { // ends when it has been forgotten
      }
      break;
   default:
      break;
   }
   ::_exit(0);
}

bool reaped(int pid) {
   siginfo_t info;
   return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0;
}

class Runner {
 public:
   Runner(double seconds, std::uint64_t lifecycles, int reports, int verdicts)
      : seconds_(seconds), lifecycles_(lifecycles), reports_(reports), verdicts_(verdicts) {
      for (int standard = 0; standard < 3; ++standard) {
         keep_->skipFdIs(standard, true);
      }
      manager_->pollFd(); // its poll set is no child's
   }

   void run() {
      report();
      while (report_.progress < 1) {
         const double next = std::min(report_.progress + judgedEvery, 1.0);
         while (report_.progress < next) {
            while (outstanding() < mostOutstanding) {
               start(static_cast<Kind>(report_.started % kinds));
            }
            manager_->runOnce(-1);
            progress();
         }
         while (outstanding() != 0) {
            manager_->runOnce(100); // reaping a forgotten one is no delivery
         }
         report();
      }
   }

 private:
   std::size_t outstanding() {
      std::erase_if(forgotten_, reaped);
      return tracker_->process().members() + forgotten_.size();
   }

   void start(Kind kind) {
      kind == forgotten ? startForgotten() : static_cast<void>(fork(kind, keep_, nullptr));
      ++report_.started;
   }

   int fork(Kind kind, const Vel::Ptr<Zor::ChildProcessTrackerCloseFdsContext>& keep,
            const Pipe* gate) {
      const int pid = tracker_->forkChild("soaked", nullptr, nullptr, keep);
      if (pid == 0) {
         runChild(kind, gate);
      }
      if (pid < 0) {
         throw std::runtime_error("no child");
      }
      return pid;
   }

   // Forgotten for certain while it runs: it ends only when the gate is closed.
   void startForgotten() {
      const Pipe gate;
      const int pid = fork(forgotten, {}, &gate);
      report_.forgotten += static_cast<bool>(tracker_->processDel(pid));
      forgotten_.push_back(pid);
      ::close(gate.read());
      ::close(gate.write());
   }

   void progress() {
      using namespace std::chrono;
      report_.seconds = duration<double>(steady_clock::now() - begin_).count();
      report_.progress = std::max(report_.seconds / seconds_, static_cast<double>(report_.started) /
                                                                 static_cast<double>(lifecycles_));
   }

   void report() {
      report_.successes = tracker_->successfulTerminationCount();
      report_.errors = tracker_->errorTerminationCount();
      report_.lost = tracker_->lost;
      report_.wakeups = manager_->wakeups().total;
      char verdict;
      if (::write(reports_, &report_, sizeof report_) != sizeof report_ ||
          ::read(verdicts_, &verdict, 1) != 1) {
         throw std::runtime_error("nobody judges");
      }
   }

   const double seconds_;
   const std::uint64_t lifecycles_;
   const int reports_;
   const int verdicts_;
   const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
   const Vel::Ptr<Vel::ActivityManagerSm> manager_ = Vel::ActivityImplFacility::activityManagerSm();
   const Vel::Ptr<Tracker> tracker_ = Zor::newTracker<Tracker>();
   const Vel::Ptr<Zor::ChildProcessTrackerCloseFdsContext> keep_ =
      Vel::newEntity<Zor::ChildProcessTrackerCloseFdsContext>();
   std::vector<int> forgotten_; // and not yet reaped
   Report report_;
};

// ---- judging ----

class Judge {
 public:
   explicit Judge(int pid) : process_("/proc/" + std::to_string(pid)) {}

   void judge(const Report& report) {
      if (report.started == 0) {
         descriptors_ = descriptors();
      }
      expect(descriptors() == descriptors_, "the descriptors are not those from before");
      expect(children().empty(), "children are left: " + children());
      expect(report.started == report.successes + report.errors + report.lost + report.forgotten,
             "the sums are not exact");
      expect(report.wakeups <= mostWakeups * report.started, "too many wake-ups");
      const long resident = residentKiB();
      if (report.progress >= 0.2) {
         firstFifthKiB_ = firstFifthKiB_ != 0 ? firstFifthKiB_ : resident;
         mostKiB_ = std::max(mostKiB_, resident);
      }
      last_ = report;
   }

   bool passed() {
      expect(last_.progress >= 1, "the process ended before its time");
      expect(firstFifthKiB_ != 0 && mostKiB_ <= firstFifthKiB_ + residentSlackKiB,
             "resident memory grew");
      const auto started = static_cast<double>(last_.started);
      std::cout << last_.started << " lifecycles in " << last_.seconds << " s, "
                << started / last_.seconds << " a second: " << last_.successes << " successes, "
                << last_.errors << " errors, " << last_.lost << " lost, " << last_.forgotten
                << " forgotten while running\n"
                << "resident: " << firstFifthKiB_ << " KiB after the first fifth, then at most "
                << mostKiB_ << " KiB\n"
                << "wake-ups: " << static_cast<double>(last_.wakeups) / started << " a child; "
                << descriptors_.size() << " descriptors before the first child\n"
                << (passed_ ? "nothing was violated\n" : "FAILED\n");
      return passed_;
   }

 private:
   void expect(bool holds, const std::string& violation) {
      if (!holds) {
         std::cout << "VIOLATED after " << last_.started << ": " << violation << '\n';
         passed_ = false;
      }
   }

   std::set<std::string> descriptors() const {
      std::set<std::string> found;
      for (const auto& entry : std::filesystem::directory_iterator(process_ + "/fd")) {
         found.insert(entry.path().filename().string() + ' ' +
                      std::filesystem::read_symlink(entry.path()).string());
      }
      return found;
   }

   std::string children() const { // zombies too
      std::ifstream file(process_ + "/task/" + process_.substr(6) + "/children");
      std::string pids = file ? "" : "unknown";
      std::getline(file, pids);
      return pids;
   }

   long residentKiB() const {
      std::ifstream file(process_ + "/status");
      std::string word;
      while (file >> word && word != "VmRSS:") {
      }
      long kiB = 0;
      file >> kiB;
      return kiB;
   }

   const std::string process_;
   std::set<std::string> descriptors_; // before the first child
   long firstFifthKiB_ = 0;
   long mostKiB_ = 0;
   Report last_;
   bool passed_ = true;
};

int soak(double seconds, std::uint64_t lifecycles) {
   // Grandchildren that lose their parent are inherited here, and go without a trace.
   ::prctl(PR_SET_CHILD_SUBREAPER, 1);
   const Pipe reports;
   const Pipe verdicts;
   const pid_t pid = ::fork();
   if (pid == 0) {
      ::close(reports.read());
      ::close(verdicts.write());
      Runner(seconds, lifecycles, reports.write(), verdicts.read()).run();
      ::_exit(0);
   }
   ::signal(SIGCHLD, SIG_IGN);
   ::close(reports.write());
   ::close(verdicts.read());
   Judge judge(pid);
   for (Report report; ::read(reports.read(), &report, sizeof report) == sizeof report;) {
      judge.judge(report);
      if (::write(verdicts.write(), "", 1) != 1) {
         break;
      }
   }
   return judge.passed() ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) try {
   const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 300;
   const std::uint64_t lifecycles = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1'000'000;
   if (argc > 3 || seconds <= 0 || lifecycles == 0) {
      std::cerr << "usage: soak [SECONDS [LIFECYCLES]]\n";
      return 2;
   }
   return soak(seconds, lifecycles);
} catch (const std::exception& exception) {
   std::cerr << "soak: " << exception.what() << '\n';
   return EXIT_FAILURE;
}
