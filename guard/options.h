#pragma once

/// The options of a command line.
struct Options {
  long timeLimitSeconds = 30;
  long graceSeconds = 5;     // between TERM and KILL
  long outputLimit = 65536;  // bytes, standard output and standard error together
  bool withStandardError = false;
  char** plugin = nullptr;  // path and arguments, ended by a null pointer; part of argv
};

/// Reads `arguments`, argv without its first element, into `options`. Returns false, after printing
/// the reason on standard output, when there is nothing to run.
bool parseOptions(char** arguments, Options& options);
