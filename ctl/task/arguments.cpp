#include "ctl/task/arguments.h"

#include <fmt/format.h>

#include "ctl/failure.h"
#include "task/serviceSafe.h"

namespace {

void refuseInexpressible(const std::string& argument) {
  if (argument.empty()) {
    throw Failure(kRefused, "a plugin cannot get an empty argument: the daemon drops it");
  }
  if (argument.find_first_of("\"'") != std::string::npos) {
    throw Failure(kRefused,
                  fmt::format("the argument {} contains a quote, which an argument of a task "
                              "cannot: quotes only switch quoting on and off. Use a script as the "
                              "plugin, and write the quote there",
                              argument));
  }
}

std::string quoted(const std::string& argument) {
  return argument.find(' ') == std::string::npos ? argument : fmt::format("\"{}\"", argument);
}

}  // namespace

std::string parameterString(const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& argument : arguments) {
    refuseInexpressible(argument);
    text += fmt::format("{}{}", text.empty() ? "" : " ", quoted(argument));
  }
  // Checked with the daemon's own parser, whose rules apply.
  serviceSafe record;
  record.Setparameter(text);
  if (record.GetVectorParam() != arguments) {
    throw Failure(kRefused, fmt::format("the daemon would split {} into other arguments", text));
  }
  return text;
}
