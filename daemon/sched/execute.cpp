#include <fcntl.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

#include "core/constants.h"
#include "core/signals.h"
#include "sched/pluginOutput.h"
#include "task/serviceSafe.h"
#include "task/serviceSafeException.h"

/// Both ends of a plugin's output pipe, closed on destruction at the latest.
class serviceSafe::Pipe {
 public:
  Pipe() { std::ignore = pipe2(ends.data(), O_CLOEXEC); }
  ~Pipe() {
    closeReadEnd();
    closeWriteEnd();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  /// False when the pipe could not be made; errno says why.
  bool isOpen() const { return readEnd() >= 0; }
  int readEnd() const { return ends[0]; }
  int writeEnd() const { return ends[1]; }
  void closeReadEnd() { closeOnce(ends[0]); }
  void closeWriteEnd() { closeOnce(ends[1]); }

 private:
  static void closeOnce(int& end) {
    if (end >= 0) {
      close(std::exchange(end, -1));
    }
  }

  std::array<int, 2> ends = {-1, -1};
};

namespace {

constexpr int kCouldNotConnect = 255;
constexpr int kHighestPassedThrough = 5;
constexpr int kUnknown = 3;
constexpr int kChildFailure = 2;

/// The description of `error`. Unlike strerror, it neither locks nor allocates, so the child may
/// ask for it.
std::string_view describe(int error) {
  const char* text = strerrordesc_np(error);
  return text == nullptr ? "Unknown error" : text;
}

/// Writes `prefix`, the description of `error` and a newline to `descriptor`, as one write.
void report(int descriptor, std::string_view prefix, int error) {
  const auto part = [](std::string_view text) {
    return iovec{const_cast<char*>(text.data()), text.size()};
  };
  const std::array<iovec, 3> parts = {part(prefix), part(describe(error)), part("\n")};
  [[maybe_unused]] const auto written = writev(descriptor, parts.data(), parts.size());
}

/// The child's side: turns the child into the plugin with its standard output in the pipe, and ends
/// it with code 2 when that fails. It runs in the parent's memory, on the stack below the parent's
/// frame (so it must not be inlined). The parent's thread is suspended meanwhile, its other threads
/// continue. It changes nothing of theirs but that thread's errno, takes no lock and allocates
/// nothing.
[[noreturn, gnu::noinline]] void becomePlugin(int readEnd, int writeEnd, char* const* arguments,
                                              const sigset_t& signalMask) {
  close(readEnd);
  if (dup2(writeEnd, STDOUT_FILENO) < 0) {
    const int error = errno;
    report(STDERR_FILENO, "EXEC fils: erreur de redirection de flux (dup2): ", error);
    close(writeEnd);
    _exit(kChildFailure);
  }
  close(writeEnd);
  // What the daemon opens is close-on-exec; it may have inherited other descriptors.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  // A service manager may start the daemon with SIGPIPE ignored, and a pipeline relies on it.
  std::signal(SIGPIPE, SIG_DFL);
  // In this order: a pending SIGTERM must end the child, not run HandlerQuit.
  std::signal(SIGTERM, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &signalMask, nullptr);

  std::array<char*, 1> emptyEnvironment = {nullptr};
  execve(arguments[0], arguments, emptyEnvironment.data());
  report(STDOUT_FILENO, "DAEMON: plugin is not executable ", errno);
  _exit(kChildFailure);
}

/// Pointers to the NUL-terminated strings in `packed`, then a null pointer. Valid as long as
/// `packed`.
std::vector<char*> pointersInto(std::string& packed) {
  std::vector<char*> pointers;
  pointers.reserve(static_cast<std::size_t>(std::ranges::count(packed, '\0')) + 2);
  for (std::size_t at = 0; at < packed.size(); at = packed.find('\0', at) + 1) {
    pointers.push_back(packed.data() + at);
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

int serviceSafe::execute() {
  Pipe pipe;
  if (!pipe.isOpen()) {
    const int error = errno;
    const std::lock_guard lock(mutex);  // for the strings of the message
    throw serviceSafeException(failureText("Error open pipe ", std::strerror(error)));
  }
  // Held over the whole run, so that one task never runs twice at a time.
  const std::lock_guard lock(mutex);
  // Also clears a deletion mark that was set after the worker looked: a run that has begun is
  // completed. The worker restores the mark then. Tested by
  // ExecuteTest.WipesADeletionThatCameBeforeTheRun.
  ExecState = kRecordNormal;
  Stdout.clear();
  const int pid = startPlugin(pipe);
  // From here on there is only one copy, because an output can be large.
  Stdout = readOutput(pipe);
  const int exitCode = exitCodeOf(waitForPlugin(pid, pipe));
  repairUtf8(Stdout);
  ReturnCode = exitCode > kHighestPassedThrough ? kUnknown : exitCode;
  requireOutput(exitCode);
  return ReturnCode;
}

std::string serviceSafe::failureText(std::string_view prefix, std::string_view detail) const {
  constexpr std::string_view kPathLabel = "\npath:";
  std::string text;
  text.reserve(prefix.size() + name.size() + kPathLabel.size() + path.size() + 1 +
               parameter.size() + detail.size());
  text.append(prefix).append(name).append(kPathLabel).append(path);
  text.append(1, ' ').append(parameter).append(detail);
  return text;
}

int serviceSafe::startPlugin(Pipe& pipe) const {
  // The path up to its first NUL, like the arguments in the list.
  std::string arguments(path, 0, path.find('\0'));
  arguments += '\0' + parameterVector.characters();
  const std::vector<char*> pointers = pointersInto(arguments);
  pid_t pid = -1;
  int error = 0;
  {
    // A signal that reaches the child before execve would run HandlerQuit in it.
    const SignalBlock noSignals = SignalBlock::all();
    // Not fork, which would copy the page tables of all loaded tasks for every run. The child only
    // calls a function that never returns, so this frame is not changed.
    pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
      // NOLINTNEXTLINE(clang-analyzer-unix.Vfork)
      becomePlugin(pipe.readEnd(), pipe.writeEnd(), pointers.data(), noSignals.previous());
    }
    error = errno;
  }
  if (pid < 0) {
    pipe.closeReadEnd();
    pipe.closeWriteEnd();
    throw serviceSafeException(failureText("Error create fork ", std::strerror(error)));
  }
  pipe.closeWriteEnd();
  return pid;
}

std::string serviceSafe::readOutput(Pipe& pipe) const {
  std::string output;
  std::array<char, 1024> chunk{};
  for (;;) {
    const ssize_t length = read(pipe.readEnd(), chunk.data(), chunk.size());
    if (length == 0) {
      return output;
    }
    if (length > 0) {
      appendChunk(output, {chunk.data(), static_cast<std::size_t>(length)});
    } else if (errno != EINTR) {
      // The child is not waited for: it may run without a limit.
      std::string message = failureText("Error read buffer: ", std::strerror(errno));
      pipe.closeReadEnd();
      throw serviceSafeException(std::move(message));
    }
  }
}

int serviceSafe::waitForPlugin(int pid, Pipe& pipe) const {
  int status = 0;
  const pid_t ended = waitpid(pid, &status, WUNTRACED | WCONTINUED);
  const int error = errno;
  pipe.closeReadEnd();
  if (ended == -1) {
    throw serviceSafeException(failureText("Error execute ", std::strerror(error)));
  }
  return status;
}

int serviceSafe::exitCodeOf(int status) {
  if (!WIFEXITED(status)) {  // killed by a signal, or reported as stopped
    ReturnCode = kUnknown;
    const std::string reason = "Error: kodu can't execute ";
    std::string message = failureText(reason, Stdout);
    Stdout = reason + path;
    throw serviceSafeException(std::move(message));
  }
  return WEXITSTATUS(status);
}

void serviceSafe::requireOutput(int exitCode) {
  // The plugin's own text is kept for an unusual exit code too: the return code says that something
  // is wrong, and the text says what. Tested by ExecuteTest.KeepsThePluginsTextForExitCode255.
  if (!Stdout.empty() && Stdout != "''") {
    return;
  }
  if (exitCode == kCouldNotConnect) {
    Stdout = "UNKNOWN: KoduDaemon could not connect to host";
  } else if (exitCode > kHighestPassedThrough) {
    Stdout = failureText("Error execute: Bad return code\n", " " + Stdout);
  }
  ReturnCode = kUnknown;
  throw serviceSafeException("DAEMON: the plugin does not return anything on the stdout");
}
