// koductl: the command line tool for operators of koducron.

#include <clocale>
#include <string>
#include <string_view>
#include <system_error>

#include "ctl/command/test.h"
#include "ctl/commandLine.h"
#include "ctl/failure.h"
#include "ctl/terminal/print.h"

namespace {

int fail(const std::string& reason, int exitCode) {
  printError("koductl: {}\n", reason);
  return exitCode;
}

int runCommand(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == kTestInside) {
    return testInside();
  }
  const Request request = parseCommandLine(argc, argv);
  return request.run ? request.run(request.options) : request.exitCode;
}

}  // namespace

// Other exceptions are defects of koductl itself.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  // Texts of the database and the plugins are UTF-8 in any locale.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  try {
    const int exitCode = runCommand(argc, argv);
    flushOutput();  // what stands in the buffer is part of the answer, too
    return exitCode;
  } catch (const Failure& e) {
    return fail(e.what(), e.exitCode);
  } catch (const std::system_error& e) {  // of a print
    return fail("cannot write to standard output: " + e.code().message(), kNotWritten);
  }
}
