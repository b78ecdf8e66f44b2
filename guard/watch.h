#pragma once

#include <sys/types.h>

#include "guard/capture.h"
#include "guard/options.h"

/// How a plugin's run ended.
struct Outcome {
  int status = 0;         // the plugin's, of waitpid; without meaning unless hasEnded
  bool hasEnded = false;  // false when not even KILL could end it
  bool hasTimedOut = false;
  int interruptedBy = 0;       // the signal that the guard was sent; 0 for none
  bool leftProcesses = false;  // it ended, and what it had started held its output open
  bool hasSurvivors = false;   // a process that KILL could not end, or that was not found
};

/// Waits for the end of a plugin and of its output, and brings about both where they do not come.
///
/// A run goes through these phases, the first or the first two being all of most runs:
/// - running: until the time limit or a signal to the guard;
/// - lingering: the plugin has ended and its output has not; a moment for what is on its way;
/// - terminating: the group was sent TERM, or the guard's signal, and has the grace to end;
/// - killing: it was sent KILL. What the kernel does not end, as in a hung file system, is left
///   behind after a second.
class Watch {
 public:
  /// `signalFile` is a signalfd of SIGCHLD and of the signals to pass on, without waiting.
  Watch(const Options& options, pid_t plugin, int signalFile, Capture& output, Capture& errors);

  /// Returns once the plugin and both streams have ended or are given up.
  Outcome run();

 private:
  enum class Phase { kRunning, kLingering, kTerminating, kKilling };

  bool isOutputOpen() const { return output.isOpen() || errors.isOpen(); }
  bool isEnding() const { return phase >= Phase::kTerminating; }
  bool isOver() const;
  void wait() const;
  void readSignals();
  void reap();
  void followTree();
  void advance();
  void terminate(int signal);
  void signalGroup(int signal) const;

  const Options& options;
  const pid_t plugin;
  const int signalFile;
  Capture& output;
  Capture& errors;

  Phase phase = Phase::kRunning;
  long deadline;               // milliseconds of the monotonic clock
  bool isGroupGone = false;    // then its number may be another's
  bool isTreeChanged = false;  // a process has ended since the adopted ones were looked for
  int endSignal = 0;           // of the present phase
  Outcome outcome;
};
