// Loaded into an asan build of the daemon: looks for leaks at its end, which is an abort by design
// and so never comes to the check at an orderly exit. The report goes where ASAN_OPTIONS' log_path
// says; with no leak, an empty file named by SOAK_NO_LEAK is made.

#include <sanitizer/lsan_interface.h>

#include <cstdlib>
#include <exception>
#include <fstream>

namespace {

[[noreturn]] void checkAndAbort() {
  if (__lsan_do_recoverable_leak_check() == 0) {
    const std::ofstream sign(std::getenv("SOAK_NO_LEAK"));
  }
  std::abort();
}

[[gnu::constructor]] void install() {
  std::set_terminate(checkAndAbort);
}

}  // namespace
