#pragma once

#include <functional>

#include "ctl/description.h"
#include "ctl/options.h"

/// The result of parsing a command line: call `run` with `options`. Without `run`, the parser has
/// already printed help, version or an error, and koductl ends with `exitCode`.
struct Request {
  Options options;
  std::function<int(const Options&)> run;
  int exitCode = 0;
};

/// Reads the command line. "--" ends koductl's own arguments; what follows is the plugin's.
Request parseCommandLine(int argc, const char* const* argv);

/// The description of koductl's commands and options, from which help and reference are generated.
CommandDescription describeCommandLine();
