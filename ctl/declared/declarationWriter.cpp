#include "ctl/declared/declarationWriter.h"

#include <fmt/format.h>

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "ctl/declared/yamlText.h"
#include "ctl/failure.h"
#include "ctl/task/arguments.h"
#include "ctl/terminal/print.h"
#include "task/serviceSafe.h"

namespace {

/// The parameters as the list of arguments that means exactly them; nothing where there is none.
std::optional<std::vector<std::string>> argumentsOf(const std::string& parameters) {
  serviceSafe record;
  try {
    record.Setparameter(parameters);
    std::vector<std::string> arguments = record.GetVectorParam();
    return parameterString(arguments) == parameters ? std::optional(arguments) : std::nullopt;
  } catch (const Failure&) {
    return std::nullopt;
  }
}

std::string listText(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) {
    list += (list.empty() ? "" : ", ") + quotedText(text).value_or("");
  }
  return "[" + list + "]";
}

/// Numbers, booleans, and in YAML the periods and times, which no reader takes for a number.
bool isBare(std::string_view name, const std::string& value, bool asJson) {
  if (name == "retries" || name == "paused") {
    return true;
  }
  const bool isPeriod = name == "every" || name == "timeout" || name == "retry-after";
  return !asJson && (name == "first" || name == "until" ||
                     (isPeriod && value.find_first_not_of("0123456789.dhms") == std::string::npos));
}

/// The name and the value of a setting as they are written.
std::pair<std::string, std::string> lineOf(const std::string& name, const std::string& value,
                                           bool asJson) {
  if (name == "arguments") {
    const auto arguments = argumentsOf(value);
    return arguments ? std::pair(name, listText(*arguments))
                     : std::pair(std::string("parameters"), quotedText(value).value_or(""));
  }
  if (isBare(name, value, asJson)) {
    return {name, value};
  }
  return {name, asJson ? quotedText(value).value_or("") : plainOrQuoted(value)};
}

}  // namespace

DeclarationWriter::DeclarationWriter(const std::string& set, bool isJson) : asJson(isJson) {
  if (asJson) {
    const std::string name = quotedText(set).value_or("");
    print("{{\n  {}\"tasks\": {{",
          Styled(set.empty() ? "" : fmt::format("\"set\": {},\n  ", name)));
  } else if (!set.empty()) {
    print("set: {}\n", Styled(plainOrQuoted(set)));
  }
}

void DeclarationWriter::write(const std::string& key, const Definition& definition) {
  if (asJson) {
    print("{}\n    {}: {{", Styled(count == 0 ? "" : ","), Styled(quotedText(key).value_or("")));
  } else {
    print("{}{}:\n", Styled(count == 0 ? "tasks:\n  " : "  "), Styled(plainOrQuoted(key)));
  }
  const char* separator = "";
  for (const char* setting : kSettings) {
    const auto found = definition.find(setting);
    if (found == definition.end()) {
      continue;
    }
    const auto [name, value] = lineOf(setting, found->second, asJson);
    if (asJson) {
      print("{}\n      \"{}\": {}", Styled(separator), name, Styled(value));
    } else {
      print("    {}: {}\n", name, Styled(value));
    }
    separator = ",";
  }
  print("{}", Styled(asJson ? "\n    }" : ""));
  ++count;
}

void DeclarationWriter::end() const {
  if (asJson) {
    print("{}}}\n}}\n", Styled(count == 0 ? "" : "\n  "));
  } else if (count == 0) {
    print("tasks: {{}}\n");
  }
}
