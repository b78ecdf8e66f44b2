#include "guard/child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <string_view>

#include "guard/capture.h"
#include "guard/system.h"

namespace {

/// Arguments and result of the child's side, which runs in the guard's memory until its execve.
struct Start {
  char** plugin;
  int output;
  int errors;  // -1 for the guard's own standard error
  SignalSet signalMask;
  long guard;
  int execError = 0;
};

/// The child's side; it does not return.
void becomePlugin(void* argument) {
  auto& start = *static_cast<Start*>(argument);
  kernel(SYS_setpgid, 0, 0);
  kernel(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL);
  if (kernel(SYS_getppid) != start.guard) {
    endProcess(0);  // the guard died before the line above and could not end the plugin
  }
  kernel(SYS_dup3, start.output, STDOUT_FILENO, 0);
  if (start.errors >= 0) {
    kernel(SYS_dup3, start.errors, STDERR_FILENO, 0);
  }
  kernel(SYS_rt_sigprocmask, SIG_SETMASK, &start.signalMask, nullptr, sizeof start.signalMask);
  start.execError =
      static_cast<int>(-kernel(SYS_execve, start.plugin[0], start.plugin, startEnvironment));
  endProcess(127);
}

/// The list of the guard's children as the kernel writes it, numbers, each followed by a space;
/// what does not fit is omitted. Empty where /proc is missing.
std::string_view readChildren(std::array<char, 4096>& buffer) {
  const long file =
      kernel(SYS_openat, AT_FDCWD, "/proc/thread-self/children", O_RDONLY | O_CLOEXEC, 0);
  long length = kernel(SYS_read, file, buffer.data(), buffer.size());
  kernel(SYS_close, file);
  while (length > 0 && buffer[static_cast<std::size_t>(length) - 1] != ' ') {
    --length;
  }
  return {buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

}  // namespace

Child startPlugin(char** plugin, Capture& output, Capture& errors, SignalSet signalMask) {
  Start start{plugin, output.writeEnd(), errors.writeEnd(), signalMask, kernel(SYS_getpid)};
  // Memory is lent, not copied: half the cost of a fork.
  const pid_t pid = lendMemory(becomePlugin, &start);
  output.closeWriteEnd();
  if (errors.isOpen()) {
    errors.closeWriteEnd();
  }
  if (pid < 0) {
    return {.cloneError = -pid};
  }
  if (start.execError != 0) {
    kernel(SYS_wait4, pid, nullptr, 0, nullptr);
    return {.execError = start.execError};
  }
  return {.pid = pid};
}

void signalChildren(int signal) {
  std::array<char, 4096> buffer{};
  std::string_view list = readChildren(buffer);
  while (!list.empty()) {
    pid_t pid = 0;
    const char* end = std::from_chars(list.begin(), list.end(), pid).ptr;
    if (pid > 0) {
      kernel(SYS_kill, pid, signal);
    }
    list.remove_prefix(static_cast<std::size_t>(end - list.begin()) + 1);
  }
}
