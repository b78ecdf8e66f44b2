// koduguard: a plugin that runs another one within limits of time and output.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <string_view>

#include "guard/capture.h"
#include "guard/child.h"
#include "guard/names.h"
#include "guard/options.h"
#include "guard/report.h"
#include "guard/say.h"
#include "guard/system.h"
#include "guard/watch.h"

namespace {

/// The exit code of the daemon's child when it cannot execute a plugin.
constexpr int kNotExecutable = 2;

/// Makes sure that 0, 1 and 2 are open, so that no pipe gets one of these numbers.
void openStandardFiles() {
  for (int file = STDIN_FILENO; file <= STDERR_FILENO; ++file) {
    if (kernel(SYS_fcntl, file, F_GETFD) < 0) {
      kernel(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR, 0);
    }
  }
}

/// Keeps SIGCHLD and the signals to pass on for the signalfd that it returns, a negated errno value
/// on failure, and fills `previousMask` with what was in force.
int catchSignals(SignalSet& previousMask) {
  // Inherited as ignored, the kernel would throw the plugin's exit code away.
  constexpr std::array<long, 4> kDefaultAction{};
  kernel(SYS_rt_sigaction, SIGCHLD, kDefaultAction.data(), nullptr, sizeof(SignalSet));
  constexpr SignalSet kCaught = signalBit(SIGCHLD) | signalBit(SIGTERM) | signalBit(SIGINT) |
                                signalBit(SIGHUP) | signalBit(SIGQUIT);
  kernel(SYS_rt_sigprocmask, SIG_BLOCK, &kCaught, &previousMask, sizeof kCaught);
  return static_cast<int>(
      kernel(SYS_signalfd4, -1, &kCaught, sizeof kCaught, SFD_CLOEXEC | SFD_NONBLOCK));
}

int failToPrepare(std::string_view path, int error) {
  say({"UNKNOWN - koduguard: cannot open the pipes for ", path, ": ", describe(error),
       "; raise the limits of open files and memory of the caller, or give a smaller -o\n"});
  return kUnknown;
}

int failToStart(std::string_view path, const Child& child) {
  if (child.execError == 0) {
    say({"UNKNOWN - koduguard: cannot create a process for ", path, ": ",
         describe(child.cloneError), "; raise the limit of processes of this user\n"});
    return kUnknown;
  }
  // The daemon's own text and code, so that a task reports the same with and without the guard.
  say({"DAEMON: plugin is not executable ", describe(child.execError), "\nkoduguard: cannot run ",
       path, "; give the absolute path of a file that this user may execute\n"});
  return kNotExecutable;
}

}  // namespace

int main(int, char** argv) {
  openStandardFiles();
  Options options;
  if (!parseOptions(argv + 1, options)) {
    return kUnknown;
  }
  const std::string_view path = options.plugin[0];
  // Descendants whose parent has ended become children of the guard, wherever they have moved to.
  kernel(SYS_prctl, PR_SET_CHILD_SUBREAPER, 1);
  SignalSet previousMask = 0;
  const int signalFile = catchSignals(previousMask);
  const auto limit = static_cast<std::size_t>(options.outputLimit);
  Capture output;
  Capture errors;
  int error = signalFile < 0 ? -signalFile : output.open(limit);
  if (error == 0 && options.withStandardError) {
    error = errors.open(limit);
  }
  if (error != 0) {
    return failToPrepare(path, error);
  }
  const Child child = startPlugin(options.plugin, output, errors, previousMask);
  if (child.pid < 0) {
    return failToStart(path, child);
  }
  const Outcome outcome = Watch(options, child.pid, signalFile, output, errors).run();
  // From here on a signal ends the guard: it must not wait for a reader that does not read.
  kernel(SYS_rt_sigprocmask, SIG_SETMASK, &previousMask, nullptr, sizeof previousMask);
  return report(options, outcome, output, errors);
}
