#pragma once

#include <sys/types.h>

#include "guard/system.h"

class Capture;

/// The result of an attempt to start a plugin.
struct Child {
  pid_t pid = -1;      // also the number of its process group; -1 when it does not run
  int cloneError = 0;  // errno when there was no process for it
  int execError = 0;   // errno when the process could not become the plugin
};

/// Starts `plugin` (path and arguments, ended by a null pointer) in a process group of its own,
/// with the caller's environment and standard input, the write end of `output` as standard output
/// and, where it is open, that of `errors` as standard error, and with `signalMask`. The kernel
/// kills it when the guard dies. Closes both write ends.
Child startPlugin(char** plugin, Capture& output, Capture& errors, SignalSet signalMask);

/// Sends `signal` to each child of the guard: the plugin, and those of its descendants whose parent
/// has ended, in whichever process group they are. Finds the former only where /proc is missing.
void signalChildren(int signal);
