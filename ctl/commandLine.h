#pragma once

#include <functional>

#include "ctl/description.h"
#include "ctl/options.h"

/// What a command line asks for: `run` with `options`. Without `run` the parser has printed its
/// answer (help, version, or what is wrong) already, and `exitCode` is the end.
struct Request {
  Options options;
  std::function<int(const Options&)> run;
  int exitCode = 0;
};

/// Reads the command line. "--" ends koductl's own arguments; what follows is the plugin's.
Request parseCommandLine(int argc, const char* const* argv);

/// koductl's commands and options in words, by which its help and its reference are made.
CommandDescription describeCommandLine();
