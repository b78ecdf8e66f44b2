#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "task/serviceSafe.h"
#include "tests/support/Files.h"
#include "tests/support/Process.h"
#include "tests/support/builtProgram.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char* const kTimedOut = "UNKNOWN - timed out after 1 s\n";
const char* const kLeft =
    "[koduguard: ended processes that kept the output open after the plugin had ended]\n";

/// True until the process has ended and its parent has waited for it.
bool lives(pid_t pid) {
  const std::string state = readFile("/proc/" + std::to_string(pid) + "/stat");
  return !state.empty() && state.find(") Z") == std::string::npos &&
         state.find(") X") == std::string::npos;
}

/// Makes a system call fail with `error` in this process and its children.
void forbid(unsigned call, unsigned error) {
  std::array<sock_filter, 4> filter = {
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

void limit(__rlimit_resource resource, rlim_t most) {
  const rlimit value = {most, most};
  setrlimit(resource, &value);
}

class GuardTest : public testing::Test {
 protected:
  ~GuardTest() override {
    if (guard > 0) {
      kill(guard, SIGKILL);
      waitpid(guard, nullptr, 0);
    }
  }

  /// Starts the guard with an empty environment; `prepare` is called in the child before.
  void start(
      std::vector<std::string> arguments, const std::function<void()>& prepare = [] {}) {
    arguments.insert(arguments.begin(), builtProgram("KODU_TEST_GUARD"));
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const std::string console = directory / "console";
    begin = Clock::now();
    guard = fork();
    if (guard == 0) {
      std::array<char*, 2> environment = {const_cast<char*>(variable), nullptr};
      dup2(ends[1], STDOUT_FILENO);
      dup2(open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
      prepare();
      execve(pointers[0], pointers.data(), environment.data());
      _exit(127);
    }
    close(ends[1]);
    reader = ends[0];
  }

  /// Reads the guard's output to its end and waits for it.
  void finish() {
    std::array<char, 4096> chunk{};
    for (ssize_t length = 0; (length = read(reader, chunk.data(), chunk.size())) > 0;) {
      output.append(chunk.data(), static_cast<std::size_t>(length));
    }
    close(reader);
    int raw = 0;
    waitpid(guard, &raw, 0);
    guard = -1;
    duration = Clock::now() - begin;
    status = raw;
    errors = readFile(directory / "console");
  }

  void run(
      const std::vector<std::string>& arguments, const std::function<void()>& prepare = [] {}) {
    output.clear();
    start(arguments, prepare);
    finish();
  }

  /// Runs a shell script with this body as the plugin, after `options`.
  void runScript(std::vector<std::string> options, const std::string& body) {
    addScript(options, body);
    run(options);
  }
  /// The same with `terminal` as standard output; closes it afterwards.
  void runScriptOn(int terminal, const std::string& body) {
    std::vector<std::string> options;
    addScript(options, body);
    run(options, [terminal] { dup2(terminal, STDOUT_FILENO); });
    close(terminal);
  }
  void addScript(std::vector<std::string>& options, const std::string& body) const {
    options.insert(options.end(),
                   {"--", writePlugin(directory / "plugin", "PATH=/usr/bin:/bin\n" + body)});
  }

  /// Starts a script that first writes its process id to notePath(), and waits until it has.
  void startNoting(std::vector<std::string> options, const std::string& body) {
    addScript(options, "echo $$ >" + notePath() + ".new; mv " + notePath() + ".new " + notePath() +
                           "\n" + body);
    start(options);
    ASSERT_TRUE(waitUntil([&] { return noted() > 0; }));
  }
  std::string notePath() const { return directory / "note"; }
  /// The process id that the script has written; 0 before.
  pid_t noted() const {
    const std::string text = readFile(notePath());
    return text.empty() ? 0 : std::stoi(text);
  }

  int code() const { return exitStatusOf(status); }

  TempDir directory;
  const char* variable = nullptr;  // the environment, "NAME=value"
  pid_t guard = -1;
  int reader = -1;
  Clock::time_point begin;
  Clock::duration duration{};
  std::optional<int> status;
  std::string output;
  std::string errors;
};

// Output, exit code and environment.

TEST_F(GuardTest, PassesOutputAndExitCodeThrough) {
  for (const int exitCode : {0, 1, 2, 3, 4, 5, 7, 255}) {
    runScript({}, "echo words; echo lost >&2; exit " + std::to_string(exitCode));
    EXPECT_EQ(output, "words\n");
    EXPECT_EQ(errors, "lost\n");
    EXPECT_EQ(code(), exitCode);
  }
}

TEST_F(GuardTest, ReplacesControlCharactersOnATerminal) {
  int terminal = -1;
  int end = -1;
  ASSERT_EQ(openpty(&terminal, &end, nullptr, nullptr, nullptr), 0);
  runScriptOn(end, R"(printf 'a\033[31m\tb\302\23331m\177\377 \303\251\342\200\256\n')");
  std::array<char, 256> shown{};
  const ssize_t length = read(terminal, shown.data(), shown.size());
  close(terminal);
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(shown.data(), static_cast<std::size_t>(length)),
            "a?[31m\tb?31m?? \303\251?\r\n");
}

TEST_F(GuardTest, KeepsEachByteOfTheOutput) {
  runScript({}, R"(printf 'a\000b\377c')");
  EXPECT_EQ(output, std::string("a\0b\377c", 5));
}

TEST_F(GuardTest, PassesTheArgumentsUnchanged) {
  run({"-t", "9", "--", writePlugin(directory / "arguments", "for a; do echo \"<$a>\"; done"),
       "two words", "", "--", "-t", "$1"});
  EXPECT_EQ(output, "<two words>\n<>\n<-->\n<-t>\n<$1>\n");
}

TEST_F(GuardTest, PassesTheEnvironment) {
  run({"--", "/usr/bin/env"});
  EXPECT_EQ(output, "/usr/bin/env printed nothing, exit code 0\n");
  variable = "KEY=value";
  run({"--", "/usr/bin/env"});
  EXPECT_EQ(output, "KEY=value\n");
}

TEST_F(GuardTest, PassesStandardInputAndNoOtherDescriptor) {
  writeFile(directory / "input", "typed\n");
  const std::string input = directory / "input";
  run({"-e", "--", "/bin/sh", "-c", "/bin/cat; /bin/ls /proc/self/fd"}, [&] {
    dup2(open(input.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
  });
  EXPECT_EQ(output, "typed\n0\n1\n2\n3\n");  // 3 is the directory that ls reads
}

TEST_F(GuardTest, LeavesTheSignalMaskAlone) {
  run({"--", "/bin/grep", "SigBlk", "/proc/self/status"});
  EXPECT_EQ(output, "SigBlk:\t0000000000000000\n");
}

TEST_F(GuardTest, RunsThePluginInAGroupOfItsOwn) {
  runScript({}, "set -- $(cat /proc/$$/stat); echo $(($1 - $5))");  // its process id, its group
  EXPECT_EQ(output, "0\n");
}

TEST_F(GuardTest, OpensStandardFilesThatAreClosed) {
  run({"--", "/bin/ls", "/proc/self/fd"}, [] {
    close(STDIN_FILENO);
    close_range(STDERR_FILENO, ~0U, 0);
  });
  EXPECT_EQ(output, "0\n1\n2\n3\n");  // 3 is the directory that ls reads
}

TEST_F(GuardTest, ToleratesClosedStandardFiles) {
  run({"-e", "--", "/bin/sh", "-c", "echo out; echo err >&2"}, [] {
    close(STDIN_FILENO);
    close(STDERR_FILENO);
  });
  EXPECT_EQ(output, "out\nerr\n");
}

TEST_F(GuardTest, WaitsForThePluginWhenSigchldIsIgnored) {
  run({"--", "/bin/sh", "-c", "echo out; exit 2"}, [] { std::signal(SIGCHLD, SIG_IGN); });
  EXPECT_EQ(output, "out\n");
  EXPECT_EQ(code(), 2);
}

TEST_F(GuardTest, WaitsForAReaderOfANonBlockingPipe) {
  // Far more than the pipe's capacity, into a non-blocking pipe.
  start({"-o", "1000000", "--", "/usr/bin/head", "-c", "1000000", "/dev/zero"},
        [] { fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK); });
  pollfd file = {reader, POLLIN, 0};
  ASSERT_EQ(poll(&file, 1, 10'000), 1);
  finish();
  EXPECT_EQ(output.size(), 1'000'000U);
  EXPECT_EQ(code(), 0);
}

// The time limit.

TEST_F(GuardTest, EndsAPluginAtTheTimeLimit) {
  runScript({"-t", "1"}, "echo $$; exec sleep 60");
  EXPECT_THAT(output, StartsWith(kTimedOut));
  EXPECT_EQ(code(), 3);
  EXPECT_GE(duration, milliseconds(1000));
  EXPECT_LT(duration, milliseconds(5000));  // without the grace period
  EXPECT_FALSE(lives(std::stoi(output.substr(std::string(kTimedOut).size()))));
}

TEST_F(GuardTest, SendsTermAtTheTimeLimit) {
  runScript({"-t", "1"}, "trap 'echo bye; exit 0' TERM; echo hello; sleep 60 & wait");
  EXPECT_EQ(output, std::string(kTimedOut) + "hello\nbye\n");
  EXPECT_EQ(code(), 3);
}

TEST_F(GuardTest, SendsKillAfterTheGrace) {
  runScript({"-t", "1", "-k", "1"}, "trap '' TERM; echo hello; while :; do sleep 0.1; done");
  EXPECT_EQ(output, std::string(kTimedOut) + "hello\n");
  EXPECT_GE(duration, milliseconds(2000));
  EXPECT_LT(duration, milliseconds(10'000));
}

TEST_F(GuardTest, KillsAtOnceWithoutAGrace) {
  runScript({"-t", "1", "-k", "0"}, "trap '' TERM; while :; do sleep 0.1; done");
  EXPECT_EQ(output, kTimedOut);
  EXPECT_LT(duration, milliseconds(5000));
}

TEST_F(GuardTest, EndsTheWholeGroupAtTheTimeLimit) {
  // The background process has another output and ignores TERM.
  runScript({"-t", "1", "-k", "1"}, "(trap '' TERM; exec sleep 60) >/dev/null & echo $! >" +
                                        notePath() + "; exec sleep 60");
  EXPECT_EQ(output, kTimedOut);
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, EndsAStoppedPlugin) {
  runScript({"-t", "1"}, "echo before; kill -STOP $$; echo after");
  EXPECT_EQ(output, std::string(kTimedOut) + "before\n");
  EXPECT_LT(duration, milliseconds(5000));
}

TEST_F(GuardTest, WaitsForAPluginThatHasClosedItsOutput) {
  runScript({}, "echo words; exec >&-; sleep 0.3; exit 2");
  EXPECT_EQ(output, "words\n");
  EXPECT_EQ(code(), 2);
}

TEST_F(GuardTest, EndsAPluginThatHasClosedItsOutputAndHangs) {
  runScript({"-t", "1"}, "echo words; exec >&-; exec sleep 60");
  EXPECT_EQ(output, std::string(kTimedOut) + "words\n");
}

TEST_F(GuardTest, KeepsTheTimeLimitAfterAStop) {
  startNoting({"-t", "1"}, "exec sleep 60");
  const pid_t plugin = noted();
  kill(guard, SIGSTOP);
  kill(guard, SIGCONT);
  finish();
  EXPECT_EQ(output, kTimedOut);
  EXPECT_LT(duration, milliseconds(5000));
  EXPECT_FALSE(lives(plugin));
}

TEST_F(GuardTest, GivesUpOnAPluginThatCannotBeKilled) {
  run({"-t", "1", "-k", "0", "--", "/bin/sh", "-c", "echo words; exec /bin/sleep 60"},
      [] { forbid(SYS_kill, EPERM); });
  EXPECT_EQ(output, std::string(kTimedOut) +
                        "words\n[koduguard: some processes of the plugin could not be ended; "
                        "find them with ps]\n");
  EXPECT_EQ(code(), 3);
  EXPECT_GE(duration, milliseconds(2000));
  EXPECT_LT(duration, milliseconds(10'000));
}

// The output limit.

TEST_F(GuardTest, KeepsAnOutputOfExactlyTheLimit) {
  runScript({"-o", "6"}, "echo 12345");
  EXPECT_EQ(output, "12345\n");
}

TEST_F(GuardTest, MarksAnOutputBeyondTheLimit) {
  runScript({"-o", "5"}, "echo 12345; exit 1");
  EXPECT_EQ(output, "12345\n[koduguard: output cut at 5 bytes, 1 dropped; -o sets the limit]\n");
  EXPECT_EQ(code(), 1);
}

TEST_F(GuardTest, KeepsReadingBeyondTheLimit) {
  run({"-o", "65536", "--", "/usr/bin/head", "-c", "10000000", "/dev/zero"});
  EXPECT_THAT(output, HasSubstr(" 9934464 dropped;"));
  EXPECT_EQ(code(), 0);
}

TEST_F(GuardTest, KeepsBothLimitsUnderAFlood) {
  run({"-t", "1", "-o", "4", "--", "/usr/bin/yes"});
  EXPECT_THAT(output, StartsWith(std::string(kTimedOut) + "y\ny\n[koduguard: output cut at 4 "));
  EXPECT_LT(duration, milliseconds(5000));
}

// Standard error.

TEST_F(GuardTest, AddsStandardErrorAfterTheOutput) {
  runScript({"-e"}, "echo second >&2; echo first");
  EXPECT_EQ(output, "first\nsecond\n");
  EXPECT_EQ(errors, "");
}

TEST_F(GuardTest, BeginsANewLineForStandardError) {
  runScript({"-e"}, "echo second >&2; printf first");
  EXPECT_EQ(output, "first\nsecond\n");
}

TEST_F(GuardTest, CountsBothStreamsTogether) {
  runScript({"-e", "-o", "8"}, "echo 12345 >&2; echo 67890");
  EXPECT_EQ(output,
            "67890\n12\n[koduguard: output cut at 8 bytes, 4 dropped; -o sets the limit]\n");
}

TEST_F(GuardTest, AddsStandardErrorOfAHungPlugin) {
  runScript({"-e", "-t", "1"}, "echo second >&2; echo first; exec sleep 60");
  EXPECT_EQ(output, std::string(kTimedOut) + "first\nsecond\n");
}

// A plugin that prints nothing, or is ended by a signal.

TEST_F(GuardTest, SaysThatAPluginPrintedNothing) {
  for (const int exitCode : {0, 2, 255}) {
    runScript({}, "echo lost >&2; exit " + std::to_string(exitCode));
    EXPECT_EQ(output, directory / "plugin" + " printed nothing, exit code " +
                          std::to_string(exitCode) + "\n");
    EXPECT_EQ(code(), exitCode);
  }
}

TEST_F(GuardTest, TreatsTwoQuotesAsNoOutput) {
  runScript({}, "printf \"''\"");
  EXPECT_EQ(output, directory / "plugin" + " printed nothing, exit code 0\n");
}

TEST_F(GuardTest, CountsAddedStandardErrorAsOutput) {
  runScript({"-e"}, "echo words >&2");
  EXPECT_EQ(output, "words\n");
}

TEST_F(GuardTest, SaysWhichSignalEndedAPlugin) {
  runScript({}, "echo words; kill -SEGV $$");
  EXPECT_EQ(output, "UNKNOWN - " + directory / "plugin" +
                        " was terminated by SIGSEGV (signal 11)\nwords\n");
  EXPECT_EQ(code(), 3);
}

TEST_F(GuardTest, ReportsAPluginThatCannotBeExecutedAsTheDaemonDoes) {
  writeFile(directory / "text", "no program");
  writeFile(directory / "binary", std::string("\177ELF\0\0", 6));
  chmod((directory / "binary").c_str(), 0700);
  for (const std::string& path : {directory / "missing", directory / "text", directory / "binary",
                                  directory / "text/below", directory.path()}) {
    serviceSafe task;
    task.Setpath(path);
    const int daemonsCode = task.execute();
    run({"--", path});
    EXPECT_THAT(output, StartsWith(task.GetStdout()));
    EXPECT_THAT(output, HasSubstr("koduguard: cannot run " + path + "; give the absolute path of"));
    EXPECT_EQ(code(), daemonsCode);
  }
}

// Processes that a plugin leaves behind.

TEST_F(GuardTest, EndsAGrandchildThatHoldsTheOutput) {
  runScript({"-t", "30"}, "sleep 60 & echo $! >" + notePath() + "; echo words; exit 1");
  EXPECT_EQ(output, std::string("words\n") + kLeft);
  EXPECT_EQ(code(), 1);
  EXPECT_LT(duration, milliseconds(10'000));
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, EndsAGrandchildThatHoldsTheOutputAndIgnoresTerm) {
  runScript({"-t", "30", "-k", "1"},
            "(trap '' TERM; exec sleep 60) & echo $! >" + notePath() + "; echo words");
  EXPECT_EQ(output, std::string("words\n") + kLeft);
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, EndsAGrandchildThatHasLeftTheGroup) {
  runScript({"-t", "30"}, "setsid sh -c 'echo $$ >" + notePath() +
                              "; exec sleep 60' & until [ -s " + notePath() +
                              " ]; do sleep 0.01; done; echo words; exit 1");
  EXPECT_EQ(output, std::string("words\n") + kLeft);
  EXPECT_EQ(code(), 1);
  EXPECT_LT(duration, milliseconds(10'000));
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, EndsGenerationsThatHaveLeftTheGroupAndIgnoreTerm) {
  const std::string inner =
      writePlugin(directory / "inner",
                  "trap '' TERM; echo $$ >" + notePath() + "; while :; do /bin/sleep 0.1; done");
  const std::string outer =
      writePlugin(directory / "outer", "trap '' TERM\n/usr/bin/setsid " + inner + " & wait");
  runScript({"-t", "1", "-k", "1"}, "setsid " + outer + " & echo words; wait");
  EXPECT_EQ(output, std::string(kTimedOut) + "words\n");
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, KeepsTheOutputOfAGrandchildThatEndsInTime) {
  runScript({}, "(sleep 0.05; echo late) & echo early");
  EXPECT_EQ(output, "early\nlate\n");
}

TEST_F(GuardTest, LeavesAGrandchildAloneWithoutTheOutput) {
  const std::string mark = directory / "mark";
  runScript({}, "setsid sh -c '" + waitInShell(mark) + "; rm " + mark +
                    "' >/dev/null 2>&1 </dev/null & echo words");
  EXPECT_EQ(output, "words\n");
  writeFile(mark, "");
  EXPECT_TRUE(waitUntil([&] { return !std::filesystem::exists(mark); }));
}

// Signals to the guard.

TEST_F(GuardTest, ForwardsSignalsToTheGroup) {
  for (const auto& [signal, name] : {std::pair{SIGTERM, "TERM"}, std::pair{SIGINT, "INT"},
                                     std::pair{SIGHUP, "HUP"}, std::pair{SIGQUIT, "QUIT"}}) {
    std::filesystem::remove(notePath());
    output.clear();
    startNoting({}, std::string("trap 'echo caught; exit 0' ") + name + "; echo ready >" +
                        (directory / "ready") + "; while :; do sleep 0.01; done");
    ASSERT_TRUE(waitUntil([&] { return !readFile(directory / "ready").empty(); }));
    std::filesystem::remove(directory / "ready");
    kill(guard, signal);
    finish();
    EXPECT_EQ(output, std::string("UNKNOWN - interrupted by SIG") + name + "\ncaught\n");
    EXPECT_EQ(code(), 3);
  }
}

TEST_F(GuardTest, KillsAPluginThatIgnoresAForwardedSignal) {
  startNoting({"-k", "1"}, "trap '' TERM; echo ready >" + (directory / "ready") +
                               "; while :; do sleep 0.1; done");
  ASSERT_TRUE(waitUntil([&] { return !readFile(directory / "ready").empty(); }));
  kill(guard, SIGTERM);
  finish();
  EXPECT_EQ(output, "UNKNOWN - interrupted by SIGTERM\n");
  EXPECT_FALSE(lives(noted()));
}

TEST_F(GuardTest, EndsThePluginWhenItIsKilled) {
  startNoting({}, "exec sleep 60");
  const pid_t plugin = noted();
  ASSERT_TRUE(lives(plugin));
  kill(guard, SIGKILL);
  finish();
  EXPECT_EQ(signalOf(status), SIGKILL);
  EXPECT_TRUE(waitUntil([&] { return !lives(plugin); }));
}

// The command line.

TEST_F(GuardTest, RunsThePluginWithoutOptions) {
  run({"/bin/echo", "-t", "words"});
  EXPECT_EQ(output, "-t words\n");
}

TEST_F(GuardTest, RefusesAWrongCommandLine) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "no plugin given; write its path and arguments after --"},
      {{"-t", "1", "--"}, "no plugin given; write its path and arguments after --"},
      {{"-x", "--", "/bin/echo"}, "unknown option -x"},
      {{"-t"}, "-t takes whole seconds from 1 to 86400, not \"\""},
      {{"-t", "0", "--", "/bin/echo"}, "-t takes whole seconds from 1 to 86400, not \"0\""},
      {{"-t", "86401", "/bin/echo"}, "-t takes whole seconds from 1 to 86400, not \"86401\""},
      {{"-t", "1.5", "/bin/echo"}, "-t takes whole seconds from 1 to 86400, not \"1.5\""},
      {{"-k", "-1", "/bin/echo"}, "-k takes whole seconds from 0 to 3600, not \"-1\""},
      {{"-k", "99999999999999999999", "x"},
       "-k takes whole seconds from 0 to 3600, not \"99999999999999999999\""},
      {{"-o", "1k", "/bin/echo"}, "-o takes bytes from 1 to 1073741824, not \"1k\""},
      {{"-h"}, "help requested"},
      {{"--help"}, "help requested"},
  };
  for (const auto& [arguments, reason] : cases) {
    run(arguments);
    EXPECT_THAT(output, StartsWith("UNKNOWN - koduguard: " + reason + "\nusage: koduguard [-t "));
    EXPECT_EQ(code(), 3);
  }
}

TEST_F(GuardTest, ReportsWhyItCannotOpenThePipes) {
  run({"--", "/bin/echo"}, [] { limit(RLIMIT_NOFILE, 4); });
  EXPECT_THAT(output, StartsWith("UNKNOWN - koduguard: cannot open the pipes for /bin/echo: Too "
                                 "many open files; raise the limits "));
  EXPECT_EQ(code(), 3);
  run({"-o", "1073741824", "--", "/bin/echo"}, [] { limit(RLIMIT_AS, 1UL << 28); });
  EXPECT_THAT(output, HasSubstr("/bin/echo: Cannot allocate memory; "));
  EXPECT_EQ(code(), 3);
}

TEST_F(GuardTest, ReportsWhyItCannotCreateAProcess) {
  run({"--", "/bin/echo"}, [] { forbid(SYS_clone, EAGAIN); });
  EXPECT_EQ(output,
            "UNKNOWN - koduguard: cannot create a process for /bin/echo: Resource temporarily "
            "unavailable; raise the limit of processes of this user\n");
  EXPECT_EQ(code(), 3);
}

TEST_F(GuardTest, AcceptsTheLargestNumbers) {
  run({"-t", "86400", "-k", "3600", "-o", "1073741824", "--", "/bin/echo", "words"});
  EXPECT_EQ(output, "words\n");
}

TEST_F(GuardTest, NeedsNoLoaderAndNoLibrary) {
  EXPECT_THAT(readFile(builtProgram("KODU_TEST_GUARD")), Not(HasSubstr("/ld-linux")));
}

}  // namespace
