#include "guard/watch.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "guard/child.h"
#include "guard/system.h"

namespace {

// Milliseconds.
constexpr long kLinger = 200;
constexpr long kKillPatience = 1000;
constexpr long kLookAgain = 50;

/// Milliseconds; no step of the wall clock moves it.
long now() {
  timespec time{};
  kernel(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
}

}  // namespace

Watch::Watch(const Options& givenOptions, pid_t startedPlugin, int openSignalFile,
             Capture& openOutput, Capture& openErrors)
    : options(givenOptions),
      plugin(startedPlugin),
      signalFile(openSignalFile),
      output(openOutput),
      errors(openErrors),
      deadline(now() + givenOptions.timeLimitSeconds * 1000) {}

Outcome Watch::run() {
  while (!isOver()) {
    wait();
    readSignals();
    // After the signals: a plugin's last output is in the pipe when its end is known.
    output.drain();
    errors.drain();
    followTree();
    if (now() >= deadline) {
      advance();
    }
  }
  outcome.hasSurvivors = !outcome.hasEnded || isOutputOpen() || (isEnding() && !isGroupGone);
  return outcome;
}

bool Watch::isOver() const {
  const bool isGivenUp = phase == Phase::kKilling && now() >= deadline;
  const bool isQuiet = outcome.hasEnded && !isOutputOpen();
  return isGivenUp || (isQuiet && (!isEnding() || isGroupGone));
}

void Watch::wait() const {
  std::array<pollfd, 3> files = {
      {{signalFile, POLLIN, 0}, {output.readEnd(), POLLIN, 0}, {errors.readEnd(), POLLIN, 0}}};
  long left = std::max(deadline - now(), 0L);
  if (isEnding()) {
    // No signal tells of a descendant's end that another one has waited for.
    left = std::min(left, kLookAgain);
  }
  // An interruption counts as an event: the caller checks everything anyway.
  timespec time = {left / 1000, left % 1000 * 1'000'000};
  kernel(SYS_ppoll, files.data(), files.size(), &time, nullptr, 0);
}

void Watch::readSignals() {
  signalfd_siginfo signal{};
  while (kernel(SYS_read, signalFile, &signal, sizeof signal) > 0) {
    const int number = static_cast<int>(signal.ssi_signo);
    if (number == SIGCHLD) {
      reap();
    } else if (phase == Phase::kKilling) {
      continue;
    } else if (isEnding()) {
      signalGroup(number);
    } else {
      outcome.interruptedBy = outcome.hasEnded ? 0 : number;
      outcome.leftProcesses = outcome.hasEnded;
      terminate(number);
    }
  }
  if (isEnding()) {
    reap();
  }
}

void Watch::reap() {
  int status = 0;
  for (long pid = 0; (pid = kernel(SYS_wait4, -1, &status, WNOHANG, nullptr)) > 0;) {
    isTreeChanged = true;
    if (pid == plugin) {
      outcome.hasEnded = true;
      outcome.status = status;
    }
  }
  // A member that the guard has not waited for keeps the group's number; the plugin did so far.
  isGroupGone = outcome.hasEnded && (isGroupGone || kernel(SYS_kill, -plugin, 0) == -ESRCH);
}

void Watch::followTree() {
  if (phase == Phase::kRunning && outcome.hasEnded && isOutputOpen()) {
    phase = Phase::kLingering;
    deadline = std::min(deadline, now() + kLinger);
  }
  // Who holds the output now has left the group, by setsid or the like, and is a child of the guard
  // since its parent has ended.
  if (isEnding() && isGroupGone && isOutputOpen() && isTreeChanged) {
    signalChildren(endSignal);
    isTreeChanged = phase == Phase::kKilling;
  }
}

void Watch::advance() {
  switch (phase) {
    case Phase::kRunning:
      outcome.hasTimedOut = true;
      terminate(SIGTERM);
      break;
    case Phase::kLingering:
      outcome.leftProcesses = true;
      terminate(SIGTERM);
      break;
    case Phase::kTerminating:
      phase = Phase::kKilling;
      deadline = now() + kKillPatience;
      endSignal = SIGKILL;
      isTreeChanged = true;
      signalGroup(SIGKILL);
      break;
    case Phase::kKilling:
      break;  // isOver() sees it
  }
}

void Watch::terminate(int signal) {
  phase = Phase::kTerminating;
  deadline = now() + options.graceSeconds * 1000;
  endSignal = signal;
  isTreeChanged = true;
  signalGroup(signal);
}

void Watch::signalGroup(int signal) const {
  if (!isGroupGone) {
    kernel(SYS_kill, -plugin, signal);
    kernel(SYS_kill, -plugin, SIGCONT);  // a stopped process takes no other signal than KILL
  }
}
