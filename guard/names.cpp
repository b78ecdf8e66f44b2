#include "guard/names.h"

#include <array>
#include <cerrno>
#include <cstddef>

namespace {

struct Description {
  int error;
  std::string_view text;
};

// The C library's words, which the daemon uses for the plugins that it starts itself.
// GuardTest.ReportsAPluginThatCannotBeExecutedAsTheDaemonDoes compares them.
constexpr std::array<Description, 19> kDescriptions = {{
    {EPERM, "Operation not permitted"},
    {ENOENT, "No such file or directory"},
    {EIO, "Input/output error"},
    {E2BIG, "Argument list too long"},
    {ENOEXEC, "Exec format error"},
    {EAGAIN, "Resource temporarily unavailable"},
    {ENOMEM, "Cannot allocate memory"},
    {EACCES, "Permission denied"},
    {EFAULT, "Bad address"},
    {ENOTDIR, "Not a directory"},
    {EISDIR, "Is a directory"},
    {EINVAL, "Invalid argument"},
    {ENFILE, "Too many open files in system"},
    {EMFILE, "Too many open files"},
    {ETXTBSY, "Text file busy"},
    {ENAMETOOLONG, "File name too long"},
    {ELOOP, "Too many levels of symbolic links"},
    {ELIBBAD, "Accessing a corrupted shared library"},
    {ESTALE, "Stale file handle"},
}};

constexpr std::array<std::string_view, 31> kSignals = {
    "HUP",  "INT",  "QUIT", "ILL",    "TRAP",   "ABRT",  "BUS",  "FPE",  "KILL", "USR1", "SEGV",
    "USR2", "PIPE", "ALRM", "TERM",   "STKFLT", "CHLD",  "CONT", "STOP", "TSTP", "TTIN", "TTOU",
    "URG",  "XCPU", "XFSZ", "VTALRM", "PROF",   "WINCH", "POLL", "PWR",  "SYS"};

}  // namespace

std::string_view describe(int error) {
  for (const Description& description : kDescriptions) {
    if (description.error == error) {
      return description.text;
    }
  }
  return "";
}

std::string_view signalName(int signal) {
  const auto index = static_cast<std::size_t>(signal) - 1;
  return index < kSignals.size() ? kSignals[index] : "RT";
}
