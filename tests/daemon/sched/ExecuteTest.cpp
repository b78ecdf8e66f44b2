#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/signals.h"
#include "task/serviceSafe.h"
#include "task/serviceSafeException.h"
#include "tests/support/Files.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::EndsWith;
using testing::ExitedWithCode;

const char* const kSilent = "DAEMON: the plugin does not return anything on the stdout";
const char* const kNotExecutable = "DAEMON: plugin is not executable ";

constexpr int kHighestDescriptor = 256;

int countOpenDescriptors() {
  int count = 0;
  for (int file = 0; file < kHighestDescriptor; ++file) {
    count += fcntl(file, F_GETFD) == -1 ? 0 : 1;
  }
  return count;
}

/// The descriptors that refer to a pipe and are not in `known`, in order.
std::vector<int> pipesBeside(const std::vector<int>& known) {
  std::vector<int> pipes;
  for (int file = 0; file < kHighestDescriptor; ++file) {
    std::error_code ignored;
    const auto target =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored);
    if (target.string().starts_with("pipe:") && std::ranges::find(known, file) == known.end()) {
      pipes.push_back(file);
    }
  }
  return pipes;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

/// Makes a file for a plugin that waits for it; opens no descriptor.
void makeMark(const std::string& path) {
  std::filesystem::create_directory(path);
}

/// The hexadecimal bit set of `key` in a text like /proc/self/status.
unsigned long signalSet(const std::string& status, const std::string& key) {
  const auto begin = status.find(key + ":\t");
  return begin == std::string::npos
             ? ~0UL
             : std::stoul(status.substr(begin + key.size() + 2), nullptr, 16);
}

void setDescriptorLimit(rlim_t limit) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = limit;
  setrlimit(RLIMIT_NOFILE, &descriptors);
}

rlim_t descriptorLimit() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return descriptors.rlim_cur;
}

/// Drops the privilege to exceed limits, and the right to create further processes.
void forbidProcesses() {
  const rlimit none = {0, 0};
  if (setrlimit(RLIMIT_NPROC, &none) != 0 ||
      (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)) {
    perror("forbidProcesses");
  }
}

class ExecuteTest : public testing::Test {
 protected:
  ExecuteTest() {
    task.Setname("my task");
    task.SetReturnCode(1);
  }

  /// Makes the task's plugin a shell script with this body.
  void usePlugin(const std::string& body) { task.Setpath(writePlugin(directory / "plugin", body)); }
  /// Replaces the task's plugin by one that writes `output` in as few writes as possible and exits
  /// with 0.
  void usePluginPrinting(const std::string& output) {
    writeFile(directory / "content", output);
    task.Setpath("/bin/cat");
    task.Setparameter(directory / "content");
  }
  /// The part of every message after its prefix.
  std::string trailer(const std::string& detail) const {
    return "my task\npath:" + task.Getpath() + " " + task.Getparameter() + detail;
  }
  /// The text of the exception that a run throws; "" when it throws none.
  std::string failure() {
    try {
      task.execute();
    } catch (const serviceSafeException& e) {
      return e.what();
    }
    return "";
  }
  /// Fails once and succeeds once, on a thread each. When the sanitizer first meets a type it opens
  /// a pipe, which would fail under a test's limit of descriptors.
  void showTypesToSanitizer() {
    usePlugin("exit 0");
    startFailing().get();
    usePlugin("echo text");
    start().get();
    task.SetReturnCode(1);
  }
  /// Runs on another thread; the future returns the text of the exception.
  std::future<std::string> startFailing() {
    return std::async(std::launch::async, [this] { return failure(); });
  }
  std::future<int> start() {
    return std::async(std::launch::async, [this] { return task.execute(); });
  }

  TempDir directory;
  serviceSafe task;
};

TEST_F(ExecuteTest, EndsThePathAtANul) {
  task.Setpath(std::string("/bin/echo\0first", 15));
  task.Setparameter("second third");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), "second third\n");
}

// Return codes and what stays in Stdout.
TEST_F(ExecuteTest, StoresCodeAndOutputOfASuccessfulRun) {
  usePlugin("printf 'OK - fine'");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetReturnCode(), 0);
  EXPECT_EQ(task.GetStdout(), "OK - fine");
}

TEST_F(ExecuteTest, KeepsReturnCodesUpToFive) {
  for (const int code : {0, 1, 2, 3, 4, 5}) {
    usePlugin("echo text; exit " + std::to_string(code));

    EXPECT_EQ(task.execute(), code);
    EXPECT_EQ(task.GetReturnCode(), code);
    EXPECT_EQ(task.GetStdout(), "text\n");
  }
}

TEST_F(ExecuteTest, MakesHigherCodesUnknownAndKeepsTheText) {
  for (const int code : {6, 7, 127, 128, 254}) {
    usePlugin("echo text; exit " + std::to_string(code));

    EXPECT_EQ(task.execute(), 3) << code;
    EXPECT_EQ(task.GetReturnCode(), 3) << code;
    EXPECT_EQ(task.GetStdout(), "text\n") << code;
  }
}

TEST_F(ExecuteTest, KeepsThePluginsTextForExitCode255) {
  usePlugin("echo text; exit 255");

  EXPECT_EQ(task.execute(), 3);

  EXPECT_EQ(task.GetReturnCode(), 3);
  EXPECT_EQ(task.GetStdout(), "text\n");
}

TEST_F(ExecuteTest, FailsWithoutOutputWhateverTheCode) {
  for (const int code : {0, 1, 2, 3, 4, 5}) {
    usePlugin("exit " + std::to_string(code));
    task.SetReturnCode(1);

    EXPECT_EQ(failure(), kSilent) << code;
    EXPECT_EQ(task.GetReturnCode(), 3) << code;
    EXPECT_EQ(task.GetStdout(), "") << code;
  }
}

TEST_F(ExecuteTest, SaysCouldNotConnectForASilentExitCode255) {
  usePlugin("exit 255");

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(task.GetReturnCode(), 3);
  EXPECT_EQ(task.GetStdout(), "UNKNOWN: KoduDaemon could not connect to host");
}

TEST_F(ExecuteTest, SaysBadReturnCodeForASilentHigherCode) {
  for (const int code : {6, 7, 254}) {
    usePlugin("exit " + std::to_string(code));
    task.Setparameter("-a b");

    EXPECT_EQ(failure(), kSilent) << code;
    EXPECT_EQ(task.GetReturnCode(), 3) << code;
    EXPECT_EQ(task.GetStdout(), "Error execute: Bad return code\n" + trailer(" ")) << code;
  }
}

TEST_F(ExecuteTest, TreatsTwoSingleQuotesAsNoOutput) {
  usePlugin("printf \"''\"");

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(task.GetReturnCode(), 3);
  EXPECT_EQ(task.GetStdout(), "''");
}

TEST_F(ExecuteTest, PutsTwoSingleQuotesIntoTheBadReturnCodeText) {
  usePlugin("printf \"''\"; exit 7");

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(task.GetStdout(), "Error execute: Bad return code\n" + trailer(" ''"));
}

TEST_F(ExecuteTest, SaysCouldNotConnectForTwoSingleQuotesAnd255) {
  usePlugin("printf \"''\"; exit 255");

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(task.GetStdout(), "UNKNOWN: KoduDaemon could not connect to host");
}

TEST_F(ExecuteTest, TreatsMoreThanTwoSingleQuotesAsOutput) {
  usePlugin("echo \"''\"");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), "''\n");
}

TEST_F(ExecuteTest, ForgetsTheOutputOfTheRunBefore) {
  usePlugin("echo first");
  task.execute();
  usePlugin("exit 0");

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(task.GetStdout(), "");
}

TEST_F(ExecuteTest, ResetsTheExecState) {
  usePlugin("echo text");
  task.SetExecState(1);

  task.execute();

  EXPECT_EQ(task.GetExecState(), 0);
}

TEST_F(ExecuteTest, WipesADeletionThatCameBeforeTheRun) {
  usePlugin("echo text");
  task.SetExecState(3);

  task.execute();

  EXPECT_EQ(task.GetExecState(), 0);
}

TEST_F(ExecuteTest, ShowsParametersThatCameDuringTheRun) {
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; kill -KILL $$");
  task.Setparameter("old");
  std::string message;
  std::thread worker([&] {
    try {
      task.execute();
    } catch (const serviceSafeException& e) {
      message = e.what();
    }
  });
  EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(directory / "started"); }));
  auto change = std::async(std::launch::async, [&] { task.Setparameter("new"); });
  EXPECT_EQ(change.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  writeFile(directory / "go", "");
  worker.join();
  change.get();

  EXPECT_THAT(message, EndsWith(" new"));
}

TEST_F(ExecuteTest, KeepsADeletionThatComesDuringTheRun) {
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; echo text");
  auto run = start();
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "started"); }));

  task.SetExecState(3);
  makeMark(directory / "go");

  EXPECT_EQ(run.get(), 0);
  EXPECT_EQ(task.GetExecState(), 3);
}

// Collecting the output.
TEST_F(ExecuteTest, CollectsOutputAroundTheSizeOfItsBuffer) {
  for (const std::size_t size : {1UL, 1023UL, 1024UL, 1025UL, 2048UL, 100000UL}) {
    std::string content;
    for (std::size_t i = 0; i < size; ++i) {
      content += static_cast<char>('a' + i % 26);
    }
    usePluginPrinting(content);

    EXPECT_EQ(task.execute(), 0);
    EXPECT_EQ(task.GetStdout(), content) << size;
  }
}

TEST_F(ExecuteTest, CollectsAHundredMebibytes) {
  constexpr std::size_t kSize = 100UL * 1024 * 1024;
  usePlugin("PATH=/usr/bin:/bin; head -c " + std::to_string(kSize) + " /dev/zero | tr '\\0' x");

  EXPECT_EQ(task.execute(), 0);

  const std::string output = task.GetStdout();
  EXPECT_EQ(output.size(), kSize);
  EXPECT_EQ(output.find_first_not_of('x'), std::string::npos);
}

TEST_F(ExecuteTest, DropsWhatFollowsANulByteInItsChunk) {
  usePluginPrinting("ab" + std::string(1, '\0') + "cd");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), "ab");
}

TEST_F(ExecuteTest, ContinuesWithTheChunkAfterANulByte) {
  std::string content(1024, 'x');
  content[10] = '\0';
  usePluginPrinting(content + "tail");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), "xxxxxxxxxxtail");
}

TEST_F(ExecuteTest, KeepsAChunkWhoseLastByteIsNul) {
  usePluginPrinting(std::string(1023, 'x') + std::string(1, '\0') + std::string(1024, 'y'));

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), std::string(1023, 'x') + std::string(1024, 'y'));
}

TEST_F(ExecuteTest, TreatsNulBytesAloneAsNoOutput) {
  usePluginPrinting(std::string(3000, '\0'));

  EXPECT_EQ(failure(), kSilent);
}

TEST_F(ExecuteTest, ReadsUntilTheLastWriterHasClosedTheOutput) {
  usePlugin("(" + waitInShell(directory / "go") + "; echo late) & echo early; exit 1");
  auto run = start();
  // The plugin has ended when its process is a zombie; the process that it started prints after
  // that.
  ASSERT_TRUE(waitUntil([] {
    siginfo_t ended{};
    return waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0;
  }));

  makeMark(directory / "go");

  EXPECT_EQ(run.get(), 1);
  EXPECT_EQ(task.GetStdout(), "early\nlate\n");
}

TEST_F(ExecuteTest, LeavesStandardErrorAlone) {
  usePlugin("echo 'not captured' >&2; echo captured");
  testing::internal::CaptureStderr();

  task.execute();

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "not captured\n");
  EXPECT_EQ(task.GetStdout(), "captured\n");
}

TEST_F(ExecuteTest, TreatsStandardErrorAloneAsNoOutput) {
  usePlugin("echo 'not captured' >&2");
  testing::internal::CaptureStderr();

  EXPECT_EQ(failure(), kSilent);

  EXPECT_EQ(testing::internal::GetCapturedStderr(), "not captured\n");
}

// Text that is not valid UTF-8.
TEST_F(ExecuteTest, ReplacesEachInvalidSequenceByOneSpace) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a\xFFz", "a z"},                                      // never in UTF-8
      {"a\xFF\xFEz", "a  z"},                                 // two of them
      {"a\x80\xBFz", "a  z"},                                 // continuations without a lead
      {"a\xC3z", "a z"},                                      // two bytes, the second missing
      {"a\xE2\x82z", "a z"},                                  // three bytes, the third missing
      {"a\xE2(\xA1z", "a ( z"},                               // three bytes, the second wrong
      {"a\xF0\x9F\x98z", "a z"},                              // four bytes, the fourth missing
      {"a\xE2\x82", "a "},                                    // cut at the end of the output
      {"a\xC0\x80z", "a z"},                                  // overlong, two bytes
      {"a\xE0\x80\xAFz", "a z"},                              // overlong, three bytes
      {"a\xF0\x80\x80\xAFz", "a z"},                          // overlong, four bytes
      {"a\xED\xA0\x80z", "a z"},                              // a surrogate
      {"a\xF4\x90\x80\x80z", "a z"},                          // beyond U+10FFFF
      {"a\xF8\x88\x80\x80\x80z", "a     z"},                  // five bytes, no lead at all
      {"caf\xE9", "caf "},                                    // Latin-1
      {"\xFF", " "},                                          // nothing else
      {"\xC3\xA9\xFF\xE2\x82\xAC", "\xC3\xA9 \xE2\x82\xAC"},  // between valid ones
  };
  for (const auto& [printed, stored] : cases) {
    usePluginPrinting(printed);

    EXPECT_EQ(task.execute(), 0);
    EXPECT_EQ(task.GetStdout(), stored);
  }
}

TEST_F(ExecuteTest, LeavesValidTextAlone) {
  const std::string text =
      "\xEF\xBB\xBF$ \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xED\x9F\xBF \xEF\xBF\xBF "
      "\xF4\x8F\xBF\xBF \x01\x7F";
  usePluginPrinting(text);

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), text);
}

TEST_F(ExecuteTest, JoinsACharacterSplitBetweenTwoChunks) {
  usePluginPrinting(std::string(1023, 'x') + "\xC3\xA9");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), std::string(1023, 'x') + "\xC3\xA9");
}

// What the plugin inherits and receives.
TEST_F(ExecuteTest, PassesTheArgumentsOfTheParameterString) {
  usePlugin("printf '[%s]' \"$@\"");
  task.Setparameter("-m \"two  words\" 'it is' a\tb  -x");

  task.execute();

  EXPECT_EQ(task.GetStdout(), "[-m][two  words][it is][a\tb][-x]");
}

TEST_F(ExecuteTest, PassesItsPathAsTheFirstArgument) {
  task.Setpath("/bin/cat");
  task.Setparameter("/proc/self/cmdline");

  task.execute();

  EXPECT_EQ(task.GetStdout(), "/bin/cat");
}

TEST_F(ExecuteTest, PassesParametersWithoutAShell) {
  usePlugin("printf '[%s]' \"$@\"");
  task.Setparameter("$HOME `id` $(id) * ~ ; | > <x & \\n # %s {a,b}");

  task.execute();

  EXPECT_EQ(task.GetStdout(), "[$HOME][`id`][$(id)][*][~][;][|][>][<x][&][\\n][#][%s][{a,b}]");
}

TEST_F(ExecuteTest, PassesNoEnvironment) {
  task.Setpath("/usr/bin/env");
  ASSERT_NE(std::getenv("PATH"), nullptr);

  EXPECT_EQ(failure(), kSilent);
}

TEST_F(ExecuteTest, PassesNoDescriptorAboveStandardError) {
  const int leaked = open(directory.path().c_str(), O_RDONLY);
  const int leakedFar = fcntl(leaked, F_DUPFD, 200);
  task.Setpath("/bin/ls");
  task.Setparameter("/proc/self/fd");

  task.execute();

  EXPECT_EQ(task.GetStdout(), "0\n1\n2\n3\n") << "3 is the directory that ls reads";
  close(leaked);
  close(leakedFar);
}

TEST_F(ExecuteTest, RunsThePluginWithTheCallersSignalMask) {
  task.Setpath("/bin/cat");
  task.Setparameter("/proc/self/status");
  installEmptySignalMask();

  task.execute();

  EXPECT_EQ(signalSet(task.GetStdout(), "SigBlk"), 0UL);
}

TEST_F(ExecuteTest, RunsThePluginWithTheDefaultActionOfSigterm) {
  task.Setpath("/bin/cat");
  task.Setparameter("/proc/self/status");
  const auto previous = std::signal(SIGTERM, SIG_IGN);

  task.execute();

  std::signal(SIGTERM, previous);
  EXPECT_EQ(signalSet(task.GetStdout(), "SigIgn") & (1UL << (SIGTERM - 1)), 0UL);
  EXPECT_EQ(signalSet(task.GetStdout(), "SigCgt"), 0UL);
}

TEST_F(ExecuteTest, RunsThePluginWithTheDefaultActionOfSigpipeAndKeepsItsOwn) {
  task.Setpath("/bin/cat");
  task.Setparameter("/proc/self/status");
  const auto previous = std::signal(SIGPIPE, SIG_IGN);

  task.execute();

  EXPECT_EQ(std::signal(SIGPIPE, previous), SIG_IGN);
  EXPECT_EQ(signalSet(task.GetStdout(), "SigIgn") & (1UL << (SIGPIPE - 1)), 0UL);
}

TEST_F(ExecuteTest, EndsAPipelineOfThePluginWhoseReaderHasGone) {
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  usePlugin("PATH=/usr/bin:/bin; exec 3>&1; { yes; echo \"ended with $?\" >&3; } | head -n 1 >&2");
  testing::internal::CaptureStderr();

  task.execute();

  std::signal(SIGPIPE, previous);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "y\n") << "yes has reported an error";
  EXPECT_EQ(task.GetStdout(), "ended with 141\n");
}

TEST_F(ExecuteTest, LeavesTheCallersSignalMaskAlone) {
  usePlugin("echo text");
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);

  task.execute();

  sigset_t current;
  pthread_sigmask(SIG_SETMASK, nullptr, &current);
  installEmptySignalMask();
  EXPECT_TRUE(sigismember(&current, SIGUSR2));
  EXPECT_FALSE(sigismember(&current, SIGTERM));
}

// Plugins that cannot be started.
TEST_F(ExecuteTest, SaysThatAMissingPluginIsNotExecutable) {
  task.Setpath(directory / "missing");

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetReturnCode(), 2);
  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "No such file or directory\n");
}

TEST_F(ExecuteTest, SaysThatAnEmptyPathIsNotExecutable) {
  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "No such file or directory\n");
}

TEST_F(ExecuteTest, SaysThatAFileWithoutExecutePermissionIsNotExecutable) {
  usePlugin("echo text");
  std::filesystem::permissions(task.Getpath(), std::filesystem::perms::owner_read);

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "Permission denied\n");
}

TEST_F(ExecuteTest, SaysThatADirectoryIsNotExecutable) {
  task.Setpath(directory.path());

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "Permission denied\n");
}

TEST_F(ExecuteTest, SaysThatAFileOpenForWritingIsNotExecutable) {
  usePlugin("echo text");
  const std::ofstream writer(task.Getpath(), std::ios::app);

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "Text file busy\n");
}

TEST_F(ExecuteTest, SaysThatATextIsNotExecutable) {
  usePlugin("");
  writeFile(task.Getpath(), "echo text\n");

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "Exec format error\n");
}

TEST_F(ExecuteTest, DoesNotSearchThePathForAPlugin) {
  task.Setpath("echo");

  EXPECT_EQ(task.execute(), 2);

  EXPECT_EQ(task.GetStdout(), std::string(kNotExecutable) + "No such file or directory\n");
}

// Failures of the run itself.
TEST_F(ExecuteTest, FailsWhenASignalKillsThePlugin) {
  for (const char* signal : {"HUP", "INT", "ABRT", "KILL", "SEGV", "PIPE", "TERM"}) {
    usePlugin("echo partial; kill -" + std::string(signal) + " $$");
    task.Setparameter("-a b");
    task.SetReturnCode(1);

    EXPECT_EQ(failure(), "Error: kodu can't execute " + trailer("partial\n")) << signal;
    EXPECT_EQ(task.GetReturnCode(), 3) << signal;
    EXPECT_EQ(task.GetStdout(), "Error: kodu can't execute " + task.Getpath()) << signal;
  }
}

TEST_F(ExecuteTest, FailsWhenASilentPluginIsKilled) {
  usePlugin("kill -KILL $$");

  EXPECT_EQ(failure(), "Error: kodu can't execute " + trailer(""));
}

TEST_F(ExecuteTest, KeepsInvalidTextInTheMessageOfAKilledPlugin) {
  usePlugin("printf 'a\\377z'; kill -KILL $$");

  EXPECT_EQ(failure(), "Error: kodu can't execute " + trailer("a\xFFz"));
}

TEST_F(ExecuteTest, FailsWhenThePluginStops) {
  usePlugin("echo partial; echo $$ >" + directory / "pid; exec >&-; kill -STOP $$");

  const std::string text = failure();

  EXPECT_EQ(text, "Error: kodu can't execute " + trailer("partial\n"));
  EXPECT_EQ(task.GetReturnCode(), 3);
  EXPECT_EQ(task.GetStdout(), "Error: kodu can't execute " + task.Getpath());
  const pid_t plugin = std::stoi(readFile(directory / "pid"));
  EXPECT_EQ(kill(plugin, SIGKILL), 0) << "it has been waited for";
  EXPECT_EQ(waitpid(plugin, nullptr, 0), plugin);
}

TEST_F(ExecuteTest, FailsWhenThePluginWasStoppedAndContinued) {
  // A child of the plugin keeps the output open until the plugin has been continued.
  usePlugin("(" + waitInShell(directory / "go") + ") & echo $$ >" +
            directory / "pid; echo partial; " + "exec >&-; kill -STOP $$; > " +
            directory / "continued; " + waitInShell(directory / "end"));
  auto run = startFailing();
  const auto pluginStopped = [&] {
    siginfo_t stopped{};
    return waitid(P_ALL, 0, &stopped, WSTOPPED | WNOHANG | WNOWAIT) == 0 && stopped.si_pid != 0;
  };
  ASSERT_TRUE(waitUntil(pluginStopped));
  const pid_t plugin = std::stoi(readFile(directory / "pid"));
  kill(plugin, SIGCONT);
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "continued"); }));

  makeMark(directory / "go");

  EXPECT_EQ(run.get(), "Error: kodu can't execute " + trailer("partial\n"));
  EXPECT_EQ(task.GetReturnCode(), 3);
  makeMark(directory / "end");
  EXPECT_EQ(waitpid(plugin, nullptr, 0), plugin);
}

TEST_F(ExecuteTest, LeavesTheRecordUnchangedWithoutAPipe) {
  showTypesToSanitizer();
  usePlugin("echo text");
  task.Setparameter("-a b");
  task.SetStdout("before");
  task.SetExecState(1);
  const rlim_t limit = descriptorLimit();
  setDescriptorLimit(0);

  const std::string text = failure();

  setDescriptorLimit(limit);
  EXPECT_EQ(text, "Error open pipe " + trailer("Too many open files"));
  EXPECT_EQ(task.GetStdout(), "before");
  EXPECT_EQ(task.GetExecState(), 1);
  EXPECT_EQ(task.GetReturnCode(), 1);
}

TEST_F(ExecuteTest, ClosesThePipeWithoutAChild) {
  task.Setpath("/bin/true");
  task.Setparameter("-a b");
  task.SetStdout("before");
  task.SetExecState(1);
  const auto runWithoutChild = [this] {
    forbidProcesses();
    const int before = countOpenDescriptors();
    const std::string text = failure();
    std::fprintf(stderr, "%s|left %d|Stdout '%s'|ExecState %d|ReturnCode %d", text.c_str(),
                 countOpenDescriptors() - before, task.GetStdout().c_str(), task.GetExecState(),
                 task.GetReturnCode());
    _exit(0);
  };

  EXPECT_EXIT(runWithoutChild(), ExitedWithCode(0),
              EndsWith("Error create fork " + trailer("Resource temporarily unavailable") +
                       "|left 0|Stdout ''|ExecState 0|ReturnCode 1"));
}

TEST_F(ExecuteTest, FailsWhenTheReadFailsAndLeavesTheChild) {
  const std::vector<int> known = pipesBeside({});
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; echo text; " +
            waitInShell(directory / "end"));
  auto run = startFailing();
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "started"); }));
  ASSERT_TRUE(waitUntil([&] { return pipesBeside(known).size() == 1; }));
  // Replaces the pipe by a directory: the present read returns the text, the next one fails. The
  // plain system call, so that the thread sanitizer does not report it.
  const int readEnd = pipesBeside(known).front();
  const int unreadable = open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  syscall(SYS_dup3, unreadable, readEnd, O_CLOEXEC);
  close(unreadable);

  makeMark(directory / "go");

  EXPECT_EQ(run.get(), "Error read buffer: " + trailer("Is a directory"));
  EXPECT_EQ(fcntl(readEnd, F_GETFD), -1) << "the read end is left open";
  EXPECT_EQ(task.GetStdout(), "");
  EXPECT_EQ(task.GetExecState(), 0);
  EXPECT_EQ(task.GetReturnCode(), 1);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the child lives, and is still to be waited for";
  makeMark(directory / "end");
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(ExecuteTest, FailsWhenThePluginCannotBeWaitedFor) {
  usePlugin("echo text; exit 2");
  task.Setparameter("-a b");
  const int before = countOpenDescriptors();
  const auto previous = std::signal(SIGCHLD, SIG_IGN);

  const std::string text = failure();

  std::signal(SIGCHLD, previous);
  EXPECT_EQ(text, "Error execute " + trailer("No child processes"));
  EXPECT_EQ(countOpenDescriptors(), before);
  EXPECT_EQ(task.GetStdout(), "text\n");
  EXPECT_EQ(task.GetReturnCode(), 1);
}

TEST_F(ExecuteTest, ReportsAnOutputThatCannotBeRedirected) {
  showTypesToSanitizer();
  // The second run creates its pipe and waits for the first one. Meanwhile the limit of descriptors
  // is lowered below 2, so that the child cannot make the pipe its standard output.
  const std::vector<int> known = pipesBeside({});
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; echo text");
  auto first = start();
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "started"); }));
  ASSERT_TRUE(waitUntil([&] { return pipesBeside(known).size() == 1; }));
  auto second = startFailing();
  ASSERT_TRUE(waitUntil([&] { return pipesBeside(known).size() == 3; }));
  testing::internal::CaptureStderr();
  const rlim_t limit = descriptorLimit();
  setDescriptorLimit(1);

  makeMark(directory / "go");

  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), kSilent);
  setDescriptorLimit(limit);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "EXEC fils: erreur de redirection de flux (dup2): Bad file descriptor\n");
}

/// Makes SIGUSR1 interrupt the system call in progress.
void interruptBySigusr1() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
}

TEST_F(ExecuteTest, KeepsReadingAfterASignal) {
  interruptBySigusr1();
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; echo text");
  std::atomic<bool> isDone = false;
  int code = -1;
  std::thread runner([&] {
    code = task.execute();
    isDone = true;
  });
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "started"); }));

  for (int i = 0; i < 50; ++i) {
    pthread_kill(runner.native_handle(), SIGUSR1);
  }
  EXPECT_FALSE(isDone);
  makeMark(directory / "go");

  runner.join();
  EXPECT_EQ(code, 0);
  EXPECT_EQ(task.GetStdout(), "text\n");
}

TEST_F(ExecuteTest, FailsWhenASignalInterruptsTheWait) {
  interruptBySigusr1();
  usePlugin("echo text; exec >&-; " + waitInShell(directory / "end"));
  std::atomic<bool> isDone = false;
  std::string text;
  std::thread runner([&] {
    text = failure();
    isDone = true;
  });

  EXPECT_TRUE(waitUntil([&] {
    pthread_kill(runner.native_handle(), SIGUSR1);
    return isDone.load();
  }));

  makeMark(directory / "end");
  runner.join();
  EXPECT_EQ(text, "Error execute " + trailer("Interrupted system call"));
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

// The record's lock, and what a run leaves behind.
TEST_F(ExecuteTest, HoldsTheRecordsLockUntilThePluginEnds) {
  usePlugin("> " + directory / "started; " + waitInShell(directory / "go") + "; echo text");
  auto run = start();
  ASSERT_TRUE(waitUntil([&] { return exists(directory / "started"); }));
  std::atomic<bool> isAsking = false;
  auto getter = std::async(std::launch::async, [&] {
    isAsking = true;
    return task.GetStdout();
  });
  ASSERT_TRUE(waitUntil([&] { return isAsking.load(); }));
  EXPECT_EQ(task.GetExecState(), 0) << "scalars do not wait";

  makeMark(directory / "go");

  EXPECT_EQ(getter.get(), "text\n") << "the getter returned before the plugin had ended";
  EXPECT_EQ(run.get(), 0);
}

TEST_F(ExecuteTest, NeverRunsOneTaskTwiceAtATime) {
  const std::string lock = directory / "running";
  usePlugin("/bin/mkdir " + lock + " || exit 2; " + waitInShell(directory / "go") +
            "; /bin/rmdir " + lock + "; echo text");
  const std::vector<int> known = pipesBeside({});
  auto first = start();
  ASSERT_TRUE(waitUntil([&] { return exists(lock); }));
  ASSERT_TRUE(waitUntil([&] { return pipesBeside(known).size() == 1; }));
  auto second = start();
  ASSERT_TRUE(waitUntil([&] { return pipesBeside(known).size() == 3; }));

  makeMark(directory / "go");

  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 0);
}

TEST_F(ExecuteTest, RunsAgainAfterAFailure) {
  usePlugin("kill -KILL $$");
  EXPECT_NE(failure(), "");
  usePlugin("echo text");

  EXPECT_EQ(task.execute(), 0);

  EXPECT_EQ(task.GetStdout(), "text\n");
}

TEST_F(ExecuteTest, LeavesNeitherADescriptorNorAZombie) {
  const int before = countOpenDescriptors();
  for (const char* body : {"echo text", "exit 0", "kill -KILL $$", "echo text; exit 255"}) {
    usePlugin(body);
    failure();

    EXPECT_EQ(countOpenDescriptors(), before) << body;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << body;
    EXPECT_EQ(errno, ECHILD) << body;
  }
}

}  // namespace
