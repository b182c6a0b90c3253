// The jobs program, as its users meet it: run by a shell, or on a terminal.
#include "../examples/jobs/StartState.cpp" // NOLINT(bugprone-suspicious-include): see below

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <pty.h>
#include <string>
#include <sys/wait.h>

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A process that the shell is about to start can miss a signal to the group: none is started here.
constexpr const char* twoWaiting = "echo up > up; exec sleep 99\necho up > up; exec sleep 98\n";

std::string readAll(int descriptor) {
   std::string all;
   std::array<char, 4096> part{};
   for (ssize_t got = 0; (got = ::read(descriptor, part.data(), part.size())) > 0;) {
      all.append(part.data(), static_cast<std::size_t>(got));
   }
   return all;
}

// Each test has a folder of its own with two named pipes: "up", which its scripts have open as
// descriptor 8 to wait for what commands write, and "meet", which nobody has open.
class Jobs : public testing::Test {
 protected:
   Jobs() {
      std::string made = testing::TempDir() + "jobsXXXXXX";
      folder_ = ::mkdtemp(made.data());
      ::mkfifo((folder_ / "up").c_str(), 0600);
      ::mkfifo((folder_ / "meet").c_str(), 0600);
      ::setenv("JOBS", JOBS_PROGRAM, 1);
      ::setenv("FOLDER", folder_.c_str(), 1);
   }
   ~Jobs() override { std::filesystem::remove_all(folder_); }

   void list(const std::string& text) const { std::ofstream(folder_ / "list") << text; }

   // What the script writes, standard error included, and after that "=" and its exit status.
   static std::string shell(const std::string& script) {
      const std::string whole = "cd \"$FOLDER\"; exec 2>&1 8<>up\n" + script + "\necho \"=$?\"";
      const std::unique_ptr<FILE, int (*)(FILE*)> output(::popen(whole.c_str(), "r"), ::pclose);
      return readAll(::fileno(output.get()));
   }
   std::string jobs(const std::string& text, const std::string& arguments = "") const {
      list(text);
      return shell("\"$JOBS\" list " + arguments);
   }
   std::string file(const char* name) const {
      std::ostringstream text;
      text << std::ifstream(folder_ / name).rdbuf();
      return text.str();
   }

   std::filesystem::path folder_;
};

TEST_F(Jobs, EachEndIsToldAndDecidesTheExitStatus) {
   struct Row {
      const char *list, *told, *end;
   };
   for (const Row& row : {
           Row{"\n  \n # no command\n", "0 commands", "=0"},
           Row{"true", "(^|\n)ok +[0-9.]+ s  true\n", "=0"},
           Row{"exit 3\r\n", "(^|\n)status 3 +[0-9.]+ s  exit 3\n", "=1"},
           Row{"/no/such", "(^|\n)status 127 ", "=1"},
           Row{"kill -9 $$", "(^|\n)killed by SIGKILL +[0-9.]+ s  kill", "=1"},
           Row{"ulimit -c 0; kill -SEGV $$", "(^|\n)killed by SIGSEGV +[0-9]", "=1"},
           Row{"true\t\x1b[2J\xc2\x9b\xc3\xa9",
               "s  true\\\\x09\\\\x1b\\[2J\\\\xc2\\\\x9b\xc3\xa9\n", "=0"},
           Row{"-x", "(^|\n)status 127 ", "=1"},
           Row{"cat; echo read nothing", "(^|\n)read nothing\n", "=0"},
           Row{"false\ntrue\nexit 9", "3 commands, 1 succeeded, 2 failed, 0 lost", "=1"},
           Row{"true\nexit 9", "last failure: nonZeroExitStatus: exit 9\n", "=1"},
           Row{"kill -TERM $$", "last failure: signaled: kill", "=1"},
        }) {
      EXPECT_THAT(jobs(row.list, "-j1"),
                  AllOf(ContainsRegex(row.told), ContainsRegex(std::string(row.end) + "\n$")))
         << row.list;
   }
   EXPECT_THAT(jobs(": " + std::string(100'000, 'x')), EndsWith("=0\n"));
   EXPECT_THAT(jobs(": " + std::string(200'000, 'x')), HasSubstr("command too long"));
}

TEST_F(Jobs, WhatCannotBeReadOrMeantIsRefused) {
   list("true");
   shell("printf 'true\\na\\0b' > nul");
   for (const char* const arguments :
        {"-j 0", "-j -1", "-j 2.5", "-j", "--timeout -1", "--timeout=nan", "--timeout 1x", "--nope",
         "list list", ".", "missing", "''", "< .", "nul"}) {
      const std::string output = shell(std::string("\"$JOBS\" ") + arguments);
      EXPECT_THAT(output, AllOf(EndsWith("=2\n"), Not(StartsWith("=")), Not(HasSubstr("summary"))))
         << arguments;
   }
   EXPECT_THAT(shell("\"$JOBS\" --help"), AllOf(HasSubstr("--timeout"), EndsWith("=0\n")));
   EXPECT_THAT(shell("\"$JOBS\" --version"), AllOf(StartsWith("jobs "), EndsWith("=0\n")));
}

TEST_F(Jobs, AsManyRunAtATimeAsAskedFor) {
   // Each of the two waits for the other.
   constexpr const char* pair = "echo met > meet\ncat meet\n";
   EXPECT_THAT(jobs(pair, "-j2 --timeout 20"), AllOf(HasSubstr("met\n"), EndsWith("=0\n")));
   EXPECT_THAT(jobs(pair, "-j1 --timeout 0.1"), AllOf(HasSubstr("2 timed out"), EndsWith("=1\n")));
   std::string five;
   for (int command = 0; command < 5; ++command) {
      five += "mkdir lock && sleep 0.02 && rmdir lock\n";
   }
   EXPECT_THAT(jobs(five, "-j1"), EndsWith("=0\n"));
}

TEST_F(Jobs, WhatTakesTooLongIsTerminatedWithItsGroup) {
   // The reader of the pipe ends when the last of the group, a grandchild, has closed it.
   const auto held = [this](const std::string& command, const std::string& arguments) {
      list(command);
      return shell("cat meet & \"$JOBS\" list --timeout 0.2 " + arguments +
                   "; wait; echo all gone");
   };
   EXPECT_THAT(held("exec 7> meet; sleep 99 & sleep 99; :", ""),
               AllOf(ContainsRegex("killed by SIGTERM \\(timed out\\) +0\\.[2-9]"),
                     HasSubstr("1 timed out"), HasSubstr("all gone")));
   EXPECT_THAT(held("exec 7> meet; kill -STOP $$", ""), HasSubstr("SIGTERM (timed out)"));
   EXPECT_THAT(held("exec 7> meet; trap '' TERM; sleep 98; sleep 99", "--grace 0.1"),
               AllOf(HasSubstr("killed by SIGKILL (timed out)"), HasSubstr("all gone")));
   EXPECT_THAT(jobs("trap 'exit 0' TERM; sleep 99 & wait", "--timeout 0.1"),
               AllOf(HasSubstr("ok (timed out)"), EndsWith("=1\n")));
}

TEST_F(Jobs, AnInterruptionIsPassedOnAndStartsNothingMore) {
   struct Row {
      const char* start; // a shell starts what is in the background with SIGINT ignored
      const char* kill;
      const char* ending;
   };
   for (const Row& row : {
           Row{"env --default-signal=INT", "kill -INT $!", "killed by SIGINT.*1 not started.*=130"},
           Row{"env", "kill -INT $!", "killed by SIGTERM.*1 not started.*=130"},
           Row{"env", "kill -TERM $!", "killed by SIGTERM.*1 not started.*=143"},
           Row{"env", "kill -HUP $!", "killed by SIGHUP.*1 not started.*=129"},
           Row{"env --ignore-signal=HUP", "kill -HUP $!; sleep 0.1; kill -TERM $!",
               "SIGTERM.*=143"},
        }) {
      list(std::string(twoWaiting) + "echo never");
      const std::string output = shell(std::string(row.start) +
                                       " \"$JOBS\" list -j2 & "
                                       "read a <&8; read a <&8; " +
                                       row.kill + "; wait $!");
      EXPECT_THAT(output, AllOf(ContainsRegex(std::string(row.ending) + "\n$"),
                                HasSubstr("3 commands, 0 succeeded, 2 failed")))
         << row.start << ' ' << row.kill;
   }
}

TEST_F(Jobs, ASecondInterruptionKills) {
   list("trap 'echo heard > up' TERM; echo up > up; while :; do sleep 0.05; done");
   EXPECT_THAT(shell("\"$JOBS\" list & read a <&8; kill -TERM $!; read a <&8; kill -TERM $!; "
                     "wait $!"),
               AllOf(HasSubstr("killed by SIGKILL"), EndsWith("=143\n")));
}

TEST_F(Jobs, CommandsGetTheThreeDescriptorsAndTheStatusPipe) {
   // A shell that lives on has some of its own; the listing's is number 3.
   list("exec ls -lv /proc/self/fd > open");
   struct Row {
      const char *with, *error;
   };
   for (const Row& row : {
           Row{"9< list 7> other", "pipe:"},
           Row{"0<&-", "pipe:"},
           Row{"1>&- 2>&-", "/dev/null\n"},
           Row{"0<&- 1>&- 2>&-", "/dev/null\n"},
        }) {
      EXPECT_THAT(shell(std::string("\"$JOBS\" list ") + row.with), EndsWith("=0\n")) << row.with;
      EXPECT_THAT(file("open"),
                  ContainsRegex(std::string("^total 0\n[^\n]* 0 -> /dev/null\n[^\n]* 1 -> [^\n]*\n"
                                            "[^\n]* 2 -> ") +
                                row.error +
                                "[^ ]*[^\n]* 3 -> /proc/[^\n]*\n[^\n]* [0-9]+ -> pipe:[^\n]*\n$"))
         << row.with;
   }
}

TEST_F(Jobs, SignalsAreAsTheProgramWasStartedWith) {
   constexpr const char* ignored = "grep SigIgn /proc/self/status; :";
   list(ignored);
   EXPECT_THAT(shell("\"$JOBS\" list"), ContainsRegex("SigIgn:\t[0-9a-f]{12}0000\n"));
   EXPECT_THAT(shell("env --ignore-signal=PIPE --ignore-signal=USR2 \"$JOBS\" list"),
               ContainsRegex("SigIgn:\t[0-9a-f]{12}1800\n"));
   EXPECT_THAT(shell("env --ignore-signal=CHLD \"$JOBS\" list"), HasSubstr("1 succeeded"));
}

// Some shells clear the mask they are started with, so that no command can show it.
TEST(JobsDeathTest, TheMaskIsRestored) {
   const auto blocked = [](int signal) {
      sigset_t mask;
      ::sigprocmask(SIG_SETMASK, nullptr, &mask);
      return ::sigismember(&mask, signal) == 1;
   };
   const auto body = [&] {
      sigset_t start;
      ::sigemptyset(&start);
      ::sigaddset(&start, SIGUSR1);
      ::sigprocmask(SIG_SETMASK, &start, nullptr);
      const jobs::StartState state(false);
      const bool taken = blocked(SIGINT) && blocked(SIGTERM) && blocked(SIGUSR1);
      state.restore();
      ::_exit(taken && !blocked(SIGINT) && !blocked(SIGTERM) && blocked(SIGUSR1) ? 0 : 1);
   };
   EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
}

TEST_F(Jobs, OutputThatGoesNowhereIsAFailure) {
   list("true\nsleep 0.1; echo ran > ran");
   EXPECT_THAT(shell("\"$JOBS\" list > /dev/full"), AllOf(HasSubstr("No space"), EndsWith("=1\n")));
   EXPECT_THAT(shell("(\"$JOBS\" list; echo $? > status) | true; cat status"), HasSubstr("\n1\n"));
   EXPECT_EQ(file("ran"), "ran\n");
}

#ifndef __SANITIZE_ADDRESS__ // which takes descriptors of its own to look at memory

TEST_F(Jobs, WithFewDescriptorsFewerRunAtATime) {
   std::string twenty;
   for (int command = 0; command < 20; ++command) {
      twenty += "sleep 0.01\n";
   }
   list(twenty);
   EXPECT_THAT(shell("ulimit -n 12; \"$JOBS\" list -j20"),
               AllOf(HasSubstr("20 succeeded"), EndsWith("=0\n")));
   EXPECT_THAT(shell("ulimit -n 7; \"$JOBS\" list -j20"),
               AllOf(HasSubstr("not started (Too many open files)"), EndsWith("=1\n")));
}

#endif

TEST_F(Jobs, ATerminalShowsAProgressLineThatIsClearedForEachToldLine) {
   list("sleep 1.2\nfalse\n");
   int terminal = -1;
   const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
   if (pid == 0) {
      ::setenv("TERM", "xterm", 1);
      ::execl(JOBS_PROGRAM, "jobs", "-j2", (folder_ / "list").c_str(), nullptr);
      ::_exit(99);
   }
   const std::string output = readAll(terminal);
   ::close(terminal);
   int status = 0;
   ::waitpid(pid, &status, 0);
   EXPECT_EQ(WEXITSTATUS(status), 1);
   EXPECT_THAT(output, AllOf(HasSubstr("[2 running, 0 of 2 done, 0 failed, 0:00]"),
                             HasSubstr("0:00] \r\x1b[Kstatus 1 "),
                             HasSubstr("[1 running, 1 of 2 done, 1 failed, 0:01]"),
                             HasSubstr("0:01] \r\x1b[Kok "), HasSubstr("1.2")));
   EXPECT_THAT(jobs("true"), Not(HasSubstr("running")));
}

TEST_F(Jobs, TheTrackerIsTracedWhenAskedFor) {
   EXPECT_THAT(jobs("exit 4", "--trace 2> traced; cat traced"), HasSubstr("exited with status 4"));
   EXPECT_THAT(jobs("exit 4"), Not(HasSubstr("exited with status")));
}

TEST_F(Jobs, TheStateIsWrittenWhenAskedForAndAtTheEnd) {
   list("kill -USR1 $PPID; while [ ! -e state ]; do sleep 0.01; done; cp state seen; exit 3");
   EXPECT_THAT(shell("env --ignore-signal=USR1 \"$JOBS\" list --status state; ls"),
               Not(HasSubstr(".new")));
   EXPECT_THAT(file("seen"), AllOf(HasSubstr("\"signalCode\": \"none\""),
                                   HasSubstr("\"errorTerminationCount\": 0")));
   EXPECT_THAT(file("state"), AllOf(HasSubstr("\"process\": {}"), HasSubstr("\"exitStatus\": 3"),
                                    HasSubstr("\"errorTerminationCount\": 1")));
   EXPECT_THAT(jobs("true", "--status no/such/place"),
               AllOf(HasSubstr("No such file"), HasSubstr("1 succeeded"), EndsWith("=0\n")));
}

TEST_F(Jobs, TheShippedListEndsAsItSays) {
   const std::string output =
      shell("\"$JOBS\" -j4 " SOURCE_DIR "/examples/jobs/demo.jobs | grep -v '^a sleep'; :");
   EXPECT_THAT(output, AllOf(ContainsRegex("\nok +1\\.[0-9]+ s  for fd in"),
                             ContainsRegex("\nok +0\\.[0-9]+ s  sleep 2 &"),
                             HasSubstr("22 commands, 15 succeeded, 7 failed, 0 lost")));
}

} // namespace
