#include "guard/options.h"

#include <array>
#include <charconv>
#include <initializer_list>
#include <string_view>
#include <system_error>

#include "guard/say.h"

namespace {

constexpr std::string_view kUsage =
    "usage: koduguard [-t SECONDS] [-k SECONDS] [-o BYTES] [-e] -- PLUGIN [ARGUMENT...]\n"
    "  -t  time limit of the plugin in seconds, 1 to 86400, default 30\n"
    "  -k  seconds between TERM and KILL, 0 to 3600, default 5\n"
    "  -o  limit of the output in bytes, 1 to 1073741824, default 65536\n"
    "  -e  append standard error to the output\n";

struct NumberOption {
  std::string_view name;
  long Options::*field;
  long lowest;
  long highest;
  std::string_view unit;
};

constexpr std::array<NumberOption, 3> kNumberOptions = {{
    {"-t", &Options::timeLimitSeconds, 1, 86400, "whole seconds"},
    {"-k", &Options::graceSeconds, 0, 3600, "whole seconds"},
    {"-o", &Options::outputLimit, 1, 1L << 30, "bytes"},
}};

/// Prints the error and the usage. Returns false, which parseOptions returns too.
bool refuse(std::initializer_list<std::string_view> reason) {
  say({"UNKNOWN - koduguard: "});
  say(reason);
  say({"\n", kUsage});
  return false;
}

/// Null when no option of that name takes a number.
const NumberOption* findNumberOption(std::string_view name) {
  for (const NumberOption& option : kNumberOptions) {
    if (option.name == name) {
      return &option;
    }
  }
  return nullptr;
}

/// `text` is null when the command line ends after the option's name.
bool readNumber(const NumberOption& option, const char* text, Options& options) {
  const std::string_view digits = text == nullptr ? "" : text;
  long number = 0;
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), number);
  if (error != std::errc() || end != digits.end() || number < option.lowest ||
      number > option.highest) {
    return refuse({option.name, " takes ", option.unit, " from ", Digits(option.lowest), " to ",
                   Digits(option.highest), ", not \"", digits, "\""});
  }
  options.*option.field = number;
  return true;
}

}  // namespace

bool parseOptions(char** arguments, Options& options) {
  for (; *arguments != nullptr && **arguments == '-'; ++arguments) {
    const std::string_view name = *arguments;
    if (name == "--") {
      ++arguments;
      break;
    }
    if (name == "-e") {
      options.withStandardError = true;
    } else if (const NumberOption* option = findNumberOption(name); option == nullptr) {
      const bool isHelp = name == "-h" || name == "--help";
      return refuse({isHelp ? "help requested" : "unknown option ", isHelp ? "" : name});
    } else if (readNumber(*option, arguments[1], options)) {
      ++arguments;
    } else {
      return false;
    }
  }
  options.plugin = arguments;
  return *arguments != nullptr ||
         refuse({"no plugin given; write its path and arguments after --"});
}
