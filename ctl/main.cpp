// koductl: what the operator of a koducron asks it, and tells it to do.

#include <clocale>
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

}  // namespace

// What is not caught here is a fault of koductl itself.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  // What the database and the plugins say is UTF-8, whatever the caller's locale.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  try {
    const Request request = parseCommandLine(argc, argv);
    const int exitCode = request.run ? request.run(request.options) : request.exitCode;
    flushOutput();  // what stands in the buffer is part of the answer, too
    return exitCode;
  } catch (const Failure& e) {
    return fail(e.what(), e.exitCode);
  } catch (const std::system_error& e) {  // of a print
    return fail("cannot write to standard output: " + e.code().message(), kNotWritten);
  }
}
