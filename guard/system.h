#pragma once

#include <sys/syscall.h>
#include <sys/types.h>

#include <array>

// The guard calls the kernel itself. The startup of a C library queries the processor's features,
// and on a virtual machine each query is a trip to the host. That takes 0.25 of the 0.33 ms that a
// static program that does nothing takes to run. The guard would add it to each plugin. On other
// processors than x86-64 the same calls go through the C library.

/// Signals as the kernel counts them: bit 0 is signal 1.
using SignalSet = unsigned long;
constexpr SignalSet signalBit(int signal) {
  return 1UL << (signal - 1);
}

/// What the program was started with, as for execve.
extern char** startEnvironment;

/// Returns the kernel's answer: a negative one is a negated errno value.
long callKernel(long number, long a, long b, long c, long d, long e, long f);

/// The same for numbers and pointers of any type, as many as the call takes.
template <typename... Arguments>
long kernel(long number, Arguments... arguments) {
  // A plain cast, because no other takes both.
  const std::array<long, 6> words = {(long)arguments...};
  return callKernel(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

/// Runs `child` with `argument` in a new process, which borrows this one's memory; this one waits
/// until the other has become a program or has ended. `child` never returns. Returns the new
/// process's number or a negated errno value. One at a time, since all have one stack.
pid_t lendMemory(void (*child)(void*), void* argument);

[[noreturn]] void endProcess(int code);
