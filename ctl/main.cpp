// koductl: what the operator of a koducron asks it, and tells it to do.

#include <fmt/core.h>

#include <exception>

#include "ctl/commandLine.h"
#include "ctl/failure.h"

namespace {

int fail(const std::exception& e, int exitCode) {
  fmt::print(stderr, "koductl: {}\n", e.what());
  return exitCode;
}

}  // namespace

// What is not caught here is a fault of koductl itself.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  const Request request = parseCommandLine(argc, argv);
  if (!request.run) {
    return request.exitCode;
  }
  try {
    return request.run(request.options);
  } catch (const Failure& e) {
    return fail(e, e.exitCode);
  }
}
