// koductl test: runs a task's plugin as the daemon does and prints the outcome instead of storing
// it.

#include "ctl/command/test.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/daemon/sandbox.h"
#include "ctl/daemon/serviceManager.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/task/task.h"
#include "ctl/terminal/capturedErrors.h"
#include "ctl/terminal/diff.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"
#include "task/serviceCron.h"
#include "task/serviceSafeException.h"

namespace {

constexpr int kCritical = 2;

struct Run {
  int code = kCritical;
  std::string output;
  std::string failure;  // why the daemon would try again; "" for a run that counts
  double seconds = 0;
};

const char* wordFor(int code) {
  switch (code) {
    case 0:
      return "OK";
    case 1:
      return "WARNING";
    case kCritical:
      return "CRITICAL";
    case 3:
      return "UNKNOWN";
    default:
      return "undefined";
  }
}

/// A plugin of the daemon has no input.
void closeInput() {
  const int nothing = open("/dev/null", O_RDONLY);
  dup2(nothing, STDIN_FILENO);
  close(nothing);
}

/// Continues in a child. This process waits for the child and exits with its status.
void continueInChild() {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
  }
  if (child <= 0) {
    return;
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

/// A plugin of the daemon has no controlling terminal. With the caller's it could write what
/// commands that, past all filters, and type commands into root's shell (TIOCSTI).
void leaveTerminal() {
  // Whose terminal is its session's leader's: Ctrl-C would end with it.
  if (getsid(0) == getpid()) {
    continueInChild();
  }
  const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal >= 0) {
    ioctl(terminal, TIOCNOTTY);
    close(terminal);
  }
}

Run runOnce(const std::shared_ptr<serviceCron>& record) {
  using Clock = std::chrono::steady_clock;
  Run run;
  const auto begin = Clock::now();
  try {
    run.code = record->execute();
  } catch (const serviceSafeException& e) {
    run.failure = e.what();
  }
  run.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  run.output = record->GetStdout();
  return run;
}

/// Ends the plugin before this process: a signal that only koductl gets, from kill or timeout,
/// would otherwise leave the plugin running. Calls only what a signal handler may.
void endWithPlugin(int signal) {
  std::array<char, 64> text{};
  const int file = open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
  const ssize_t length = read(file, text.data(), text.size() - 1);
  pid_t child = 0;
  for (ssize_t i = 0; i < length; ++i) {
    const char c = text[static_cast<std::size_t>(i)];
    if (c >= '0' && c <= '9') {
      child = child * 10 + (c - '0');
    } else if (child > 1) {
      kill(child, SIGTERM);
      child = 0;
    }
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

/// A signal that is ignored stays so.
void passSignalsToPlugin() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (std::signal(signal, endWithPlugin) == SIG_IGN) {
      std::signal(signal, SIG_IGN);
    }
  }
}

/// Runs the plugin in this process, which becomes one of the daemon's user for good.
Run runHere(const Task& task, const DaemonIdentity& daemon) {
  becomeDaemonUser(daemon);
  closeInput();
  leaveTerminal();
  passSignalsToPlugin();
  return runOnce(task.record());
}

Run runInUnit(const Task& task, const DaemonIdentity& daemon) {
  Json::Value wanted;
  wanted["id"] = task.id;
  wanted["name"] = task.name;
  wanted["path"] = task.path;
  wanted["parameter"] = task.parameter;
  Json::Value left;
  std::istringstream text(runInSandbox(daemon, kTestInside, wanted.toStyledString()));
  std::string error;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &left, &error)) {
    throw Failure(kNotPermitted, "the sandbox returned no result: " + error);
  }
  return {left["code"].asInt(), left["output"].asString(), left["failure"].asString(),
          left["seconds"].asDouble()};
}

/// Runs the plugin in the sandbox of the daemon's unit if that is possible.
Run runAs(const Task& task, const DaemonIdentity& daemon, bool inUnit) {
  // Text that the plugin writes directly to a terminal would not be made printable.
  std::optional<CapturedErrors> errors;
  if (isatty(STDERR_FILENO) == 1) {
    errors.emplace();
  }
  Run run = inUnit ? runInUnit(task, daemon) : runHere(task, daemon);
  if (errors) {
    printError("{}", errors->take());
  }
  return run;
}

std::string sandboxText(const DaemonIdentity& daemon, bool inUnit) {
  if (inUnit) {
    return fmt::format("in the sandbox of {}", kServiceUnit);
  }
  return daemon.isService
             ? fmt::format("without the sandbox of {}: only root can enter it", kServiceUnit)
             : fmt::format("without a sandbox: {} does not run here", kServiceUnit);
}

/// The file's content; nothing when there is none.
std::optional<std::string> storedOutput(const Task& task) {
  try {
    return readOutput(task.outputPath());
  } catch (const Failure&) {
    return std::nullopt;
  }
}

void printDifference(const std::string& line) {
  if (isTerminal()) {
    print("{}\n", coloured(line, line.front() == '-' ? Colour::kRed : Colour::kGreen));
  } else {
    printOutput(line + "\n");
  }
}

void printComparison(const Task& task, const Run& run, const std::optional<std::string>& stored) {
  if (!stored) {
    print("--- no stored output to compare with ({})\n", task.outputPath());
    return;
  }
  if (*stored == run.output) {
    print("--- the same as the stored output, {}\n", task.outputPath());
    return;
  }
  // The daemon does not truncate the file, so a shorter output is followed by the end of a longer
  // one.
  if (stored->starts_with(run.output)) {
    print("--- the same as the stored output, {}, except for {} left from an older, longer one\n",
          task.outputPath(),
          counted(static_cast<long>(stored->size() - run.output.size()), "byte"));
    return;
  }
  print("--- compared with the stored output, {}:\n", task.outputPath());
  for (const std::string& line : diffLines(*stored, run.output)) {
    printDifference(line);
  }
}

void printForPeople(const Task& task, const DaemonIdentity& daemon, bool inUnit, const Run& run,
                    const std::optional<std::string>& stored) {
  const bool endsInLine = run.output.empty() || run.output.back() == '\n';
  printOutput(endsInLine ? run.output : run.output + "\n");
  print("--- return code {} ({}), {:.2f} s, as user {} in {}{}\n", run.code, wordFor(run.code),
        run.seconds, daemon.userName(), daemon.directory,
        daemon.pid ? "" : " (no daemon with this configuration runs here)");
  print("--- {}\n", sandboxText(daemon, inUnit));
  if (!run.failure.empty()) {
    print("--- {}\n--- the daemon tries three times before the run counts as failed\n",
          run.failure);
  }
  printComparison(task, run, stored);
}

void printAsJson(const Task& task, const DaemonIdentity& daemon, bool inUnit, const Run& run,
                 const std::optional<std::string>& stored) {
  Json::Value json;
  json["id"] = task.id;
  json["return_code"] = run.code;
  json["output"] = run.output;
  json["failure"] = run.failure.empty() ? Json::Value() : Json::Value(run.failure);
  json["seconds"] = run.seconds;
  json["user"] = daemon.userName();
  json["directory"] = daemon.directory;
  json["sandbox"] = inUnit ? Json::Value(kServiceUnit) : Json::Value();
  json["stored_output"] = stored ? Json::Value(*stored) : Json::Value();
  json["diff"] = Json::Value(Json::arrayValue);
  for (const std::string& line : diffLines(stored.value_or(""), run.output)) {
    json["diff"].append(line);
  }
  printJson(json);
}

}  // namespace

int runTest(const Options& options) {
  std::optional<Task> task;
  DaemonIdentity daemon;
  {
    // Closed before the plugin starts, so that the plugin gets nothing of the session.
    Session session(options);
    session.makeReadOnly();
    task = readTask(session, options.id);
    daemon = findDaemon(session.config);
  }
  const bool inUnit = daemon.isService && geteuid() == 0;
  const Run run = runAs(*task, daemon, inUnit);
  std::optional<std::string> stored;
  {
    const AsDaemon rights(daemon);
    stored = storedOutput(*task);
  }
  if (options.asJson) {
    printAsJson(*task, daemon, inUnit, run, stored);
  } else {
    printForPeople(*task, daemon, inUnit, run, stored);
  }
  return run.code;
}

int testInside() {
  Json::Value wanted;
  std::string error;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), std::cin, &wanted, &error)) {
    throw Failure(kWrongUsage, "standard input holds no task: " + error);
  }
  Task task;
  task.id = wanted["id"].asInt();
  task.name = wanted["name"].asString();
  task.path = wanted["path"].asString();
  task.parameter = wanted["parameter"].asString();
  closeInput();
  const Run run = runOnce(task.record());
  Json::Value left;
  left["code"] = run.code;
  left["output"] = run.output;
  left["failure"] = run.failure;
  left["seconds"] = run.seconds;
  printJson(left);
  return kDone;
}
