// The jobs program, as its users meet it: run by a shell, or on a terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

std::string readAll(int descriptor) {
   std::string all;
   std::array<char, 4096> part{};
   for (ssize_t got = 0; (got = ::read(descriptor, part.data(), part.size())) > 0;) {
      all.append(part.data(), static_cast<std::size_t>(got));
   }
   return all;
}

// Each test has a folder of its own with the program and two named pipes: "up", which its scripts
// have open as descriptor 8 to wait for what commands write, and "meet", which nobody has open.
class Jobs : public testing::Test {
 protected:
   struct Run {
      std::string list, output; // an expression for all that comes, up to the end
      std::string script = "./jobs list -j1";
   };

   Jobs() {
      std::string made = testing::TempDir() + "jobsXXXXXX";
      folder_ = ::mkdtemp(made.data());
      ::mkfifo((folder_ / "up").c_str(), 0600);
      ::mkfifo((folder_ / "meet").c_str(), 0600);
      std::filesystem::create_symlink(JOBS_PROGRAM, folder_ / "jobs");
      ::setenv("FOLDER", folder_.c_str(), 1);
   }
   ~Jobs() override { std::filesystem::remove_all(folder_); }

   void listIs(const std::string& text) const { std::ofstream(folder_ / "list") << text; }

   // What the script writes, standard error included, and after that "=" and its exit status.
   static std::string shell(const std::string& script) {
      const std::string whole = "cd \"$FOLDER\"; exec 2>&1 8<>up\n" + script + "\necho \"=$?\"";
      const std::unique_ptr<FILE, int (*)(FILE*)> output(::popen(whole.c_str(), "r"), ::pclose);
      return readAll(::fileno(output.get()));
   }
   void check(std::initializer_list<Run> runs) const {
      for (const Run& run : runs) {
         listIs(run.list);
         EXPECT_THAT(shell(run.script), ContainsRegex(run.output + "\n$")) << run.script;
      }
   }

   std::filesystem::path folder_;
};

TEST_F(Jobs, EachEndIsToldAndDecidesTheExitStatus) {
   check({
      {"\n  \n # no command\n", "0 commands.*=0"},
      {"true", "(^|\n)ok +[0-9.]+ s  true\n.*=0"},
      {"exit 3\r\n", "(^|\n)status 3 +[0-9.]+ s  exit 3\n.*=1"},
      {"/no/such", "(^|\n)status 127 .*=1"},
      {"kill -9 $$", "(^|\n)killed by SIGKILL +[0-9.]+ s  kill.*=1"},
      {"ulimit -c 0; kill -SEGV $$", "(^|\n)killed by SIGSEGV +[0-9].*=1"},
      {"true\t\x1b[2J\xc2\x9b\xc3\xa9", "s  true\\\\x09\\\\x1b\\[2J\\\\xc2\\\\x9b\xc3\xa9\n.*=0"},
      {"-x", "(^|\n)status 127 .*=1"},
      {"cat; echo read nothing", "(^|\n)read nothing\n.*=0"},
      {"false\ntrue\nexit 9", "3 commands, 1 succeeded, 2 failed, 0 lost.*=1"},
      {"true\nexit 9", "last failure: nonZeroExitStatus: exit 9\n.*=1"},
      {"kill -TERM $$", "last failure: signaled: kill.*=1"},
      {": " + std::string(100'000, 'x'), "=0"},
      {": " + std::string(200'000, 'x'), "command too long.*=[12]"},
      {"", "--timeout.*=0", "./jobs --help"},
      {"", "^jobs .*=0", "./jobs --version"},
   });
}

TEST_F(Jobs, WhatCannotBeReadOrMeantIsRefused) {
   listIs("true");
   shell("printf 'true\\na\\0b' > nul");
   for (const char* const arguments :
        {"-j 0", "-j -1", "-j 2.5", "-j", "--timeout -1", "--timeout=nan", "--timeout 1x", "--nope",
         "list list", ".", "missing", "''", "< .", "nul"}) {
      EXPECT_THAT(shell(std::string("./jobs ") + arguments),
                  AllOf(ContainsRegex("^[^=].*=2\n$"), Not(HasSubstr("summary"))))
         << arguments;
   }
}

TEST_F(Jobs, AsManyRunAtATimeAsAskedFor) {
   const std::string pair = "echo met > meet\ncat meet\n"; // each waits for the other
   const std::string alone = "mkdir lock && sleep 0.02 && rmdir lock\n";
   check({{pair, "met\n.*=0", "./jobs list -j2 --timeout 20"},
          {pair, "2 timed out.*=1", "./jobs list -j1 --timeout 0.1"},
          {alone + alone + alone + alone, "4 succeeded.*=0"}});
}

TEST_F(Jobs, WhatTakesTooLongIsTerminatedWithItsGroup) {
   // The reader of the pipe ends when the last of the group, a grandchild, has closed it.
   const auto held = [](const std::string& options) {
      return "cat meet & ./jobs list --timeout 0.2 " + options + "; wait; echo all gone";
   };
   check({
      {"exec 7> meet; sleep 99 & sleep 99; :",
       "killed by SIGTERM \\(timed out\\) +0\\.[2-9].*1 timed out.*all gone\n=0", held("")},
      {"exec 7> meet; trap '' TERM; sleep 98; sleep 99",
       "killed by SIGKILL \\(timed out\\).*all gone\n=0", held("--grace 0.1")},
      {"kill -STOP $$", "SIGTERM \\(timed out\\).*=1", "./jobs list --timeout 0.2"},
      {"trap 'exit 0' TERM; sleep 99 & wait", "ok \\(timed out\\).*=1",
       "./jobs list --timeout 0.1"},
   });
}

TEST_F(Jobs, AnInterruptionIsPassedOnStartsNothingMoreAndTheSecondOneKills) {
   // A process that the shell is about to start can miss a signal to the group: none is started
   // here. Shells start what is in the background with SIGINT ignored.
   const std::string list = "echo up > up; exec sleep 99\necho up > up; exec sleep 98\necho never";
   const std::string told = ".*3 commands, 0 succeeded, 2 failed.*1 not started.*=";
   const auto run = [](const std::string& start, const std::string& kill) {
      return start + " ./jobs list -j2 & read a <&8; read a <&8; " + kill + "; wait $!";
   };
   check({
      {list, "by SIGINT" + told + "130", run("env --default-signal=INT", "kill -INT $!")},
      {list, "by SIGTERM" + told + "130", run("", "kill -INT $!")},
      {list, "by SIGTERM" + told + "143", run("", "kill -TERM $!")},
      {list, "by SIGHUP" + told + "129", run("", "kill -HUP $!")},
      {list, "by SIGTERM" + told + "143",
       run("env --ignore-signal=HUP", "kill -HUP $!; sleep 0.1; kill -TERM $!")},
      {"trap 'echo heard > up' TERM; echo up > up; while :; do sleep 0.05; done",
       "by SIGKILL.*=143",
       "./jobs list & read a <&8; kill -TERM $!; read a <&8; kill -TERM $!; wait $!"},
   });
}

TEST_F(Jobs, CommandsGetTheThreeDescriptorsAndTheStatusPipe) {
   // A shell that lives on has some of its own; the listing's is number 3.
   const auto run = [](const std::string& with, const std::string& error) {
      return Run{"exec ls -lv /proc/self/fd > open",
                 "\ntotal 0\n[^\n]* 0 -> /dev/null\n[^\n]* 1 -> [^\n]*\n[^\n]* 2 -> " + error +
                    "[^ ]*[^\n]* 3 -> /proc/[^\n]*\n[^\n]* [0-9]+ -> pipe:[^\n]*\n=0",
                 "./jobs list " + with + " && echo && cat open"};
   };
   check({run("9< list 7> other", "pipe:"), run("0<&-", "pipe:"), run("1>&- 2>&-", "/dev/null\n"),
          run("0<&- 1>&- 2>&-", "/dev/null\n")});
}

TEST_F(Jobs, SignalsAreAsTheProgramWasStartedWith) {
   const std::string ignored = "grep SigIgn /proc/self/status; :";
   check({{ignored, "SigIgn:\t[0-9a-f]{12}0000\n.*=0"},
          {ignored, "SigIgn:\t[0-9a-f]{12}1800\n.*=0",
           "env --ignore-signal=PIPE --ignore-signal=USR2 ./jobs list"},
          {ignored, "1 succeeded.*=0", "env --ignore-signal=CHLD ./jobs list"}});
}

TEST_F(Jobs, OutputThatGoesNowhereIsAFailure) {
   check({{"true", "No space.*=1", "./jobs list > /dev/full"},
          {"true\nsleep 0.1; echo ran > ran", "\n1\nran\n=0",
           "(./jobs list; echo $? > status) | true; echo; cat status ran"}});
}

#ifndef __SANITIZE_ADDRESS__ // which takes descriptors of its own to look at memory

TEST_F(Jobs, WithFewDescriptorsFewerRunAtATime) {
   const std::string twenty = "yes 'sleep 0.01' | head -n 20 | ./jobs -j20";
   check({{"", "20 succeeded.*=0", "ulimit -n 12; " + twenty},
          {"", "not started \\(Too many open files\\).*=1", "ulimit -n 7; " + twenty}});
}

#endif

TEST_F(Jobs, ATerminalShowsAProgressLineThatIsClearedForEachToldLine) {
   check({{"sleep 1.2\nfalse",
           "\\[2 running, 0 of 2 done, 0 failed, 0:00\\] \r\x1b\\[Kstatus 1 .*"
           "\\[1 running, 1 of 2 done, 1 failed, 0:01\\] \r\x1b\\[Kok +1\\.2.*=1",
           "TERM=xterm script -qec './jobs list -j2' /dev/null < /dev/null"},
          {"true", "^0\n=1", "./jobs list | grep -c running"}});
}

TEST_F(Jobs, TheTrackerIsTracedWhenAskedFor) {
   check({{"exit 4", "exited with status 4.*=0", "./jobs list --trace 2> traced; cat traced"},
          {"exit 4", "\n0\n=1", "./jobs list > told 2>&1; echo; grep -c 'exited with' told"}});
}

TEST_F(Jobs, TheStateIsWrittenWhenAskedForAndAtTheEndAsAWholeFile) {
   check({
      {"kill -USR1 $PPID; while [ ! -e state ]; do sleep 0.01; done; cp state seen; exit 3",
       "\n0\n.*\"signalCode\": \"none\".*\"errorTerminationCount\": 0.*"
       "\"process\": \\{\\}.*\"exitStatus\": 3.*\"errorTerminationCount\": 1.*=0",
       "env --ignore-signal=USR1 ./jobs list --status state; ls | grep -c new; cat seen state"},
      {"true", "No such file.*1 succeeded.*=0", "./jobs list --status no/such/place"},
   });
}

TEST_F(Jobs, TheShippedListEndsAsItSays) {
   const std::string output =
      shell("./jobs -j4 " SOURCE_DIR "/examples/jobs/demo.jobs | grep -v '^a sleep'; :");
   EXPECT_THAT(output, AllOf(ContainsRegex("\nok +1\\.[0-9]+ s  for fd in"),
                             ContainsRegex("\nok +0\\.[0-9]+ s  sleep 2 &"),
                             HasSubstr("22 commands, 15 succeeded, 7 failed, 0 lost")));
}

} // namespace
