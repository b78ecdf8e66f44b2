// koductl: the command line tool for operators of koducron.

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <string>
#include <system_error>

#include "ctl/commandLine.h"
#include "ctl/failure.h"
#include "ctl/terminal/print.h"

namespace {

int fail(const std::string& reason, int exitCode) {
  printError("koductl: {}\n", reason);
  return exitCode;
}

/// Buffered output is part of the result too.
void requireWritten() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
}

}  // namespace

// Other exceptions are defects of koductl itself.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  // Texts of the database and the plugins are UTF-8 in any locale.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  const Request request = parseCommandLine(argc, argv);
  if (!request.run) {
    return request.exitCode;
  }
  try {
    const int exitCode = request.run(request.options);
    requireWritten();
    return exitCode;
  } catch (const Failure& e) {
    return fail(e.what(), e.exitCode);
  } catch (const std::system_error& e) {  // of a print
    return fail("cannot write to standard output: " + e.code().message(), kNotWritten);
  }
}
