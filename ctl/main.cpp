// koductl: the command line tool for operators of koducron.

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

// Other exceptions are defects of koductl itself.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  // Texts of the database and the plugins are UTF-8 in any locale.
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
