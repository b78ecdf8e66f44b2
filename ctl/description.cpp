#include "ctl/description.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>

namespace {

/// With more optional options than this, a synopsis says "[OPTION...]".
constexpr std::ptrdiff_t kListedOptions = 4;
/// The group that the library gives to an option without one.
constexpr const char* kOwnOptions = "Options";

std::string dashed(const char* dashes, const std::vector<std::string>& names) {
  return names.empty() ? "" : dashes + names.front();
}

/// "VALUE (DEFAULT)"; without such a text the value is named after its type.
std::string textOf(const CLI::Option& option) {
  if (option.get_items_expected_max() == 0 || !option.get_option_text().empty()) {
    return option.get_option_text();
  }
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

OptionDescription describeOption(const CLI::Option& option) {
  OptionDescription result;
  result.shortName = dashed("-", option.get_snames());
  result.longName = dashed("--", option.get_lnames());
  const std::string text = textOf(option);
  const auto bracket = text.find(" (");
  result.value = text.substr(0, bracket);
  if (bracket != std::string::npos) {
    result.standard = text.substr(bracket + 2, text.size() - bracket - 3);
  }
  if (option.get_positional()) {
    result.value = option.get_single_name();
    result.isForPlugin = option.get_items_expected_max() == 0;
  }
  result.meaning = option.get_description();
  if (!option.get_positional() && option.get_group() != kOwnOptions) {
    result.group = option.get_group();
  }
  result.isRequired = option.get_required();
  result.isRepeatable = option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
  return result;
}

std::string fullName(const CLI::App& app) {
  if (app.get_parent() == nullptr) {
    return "";
  }
  const std::string parent = fullName(*app.get_parent());
  return parent + (parent.empty() ? "" : " ") + app.get_name();
}

/// A command inherits --help, which is one of the common options.
bool isShown(const CLI::App& app, const CLI::Option& option) {
  return app.get_parent() == nullptr || &option != app.get_help_ptr();
}

/// A command without a footer of its own inherits one.
std::string detailsOf(const CLI::App& app) {
  const CLI::App* parent = app.get_parent();
  const bool isInherited = parent != nullptr && app.get_footer() == parent->get_footer();
  return isInherited ? "" : app.get_footer();
}

void collectCommands(const CommandDescription& parent, std::vector<CommandDescription>& all) {
  for (const CommandDescription& command : parent.commands) {
    if (!command.needsCommand) {
      all.push_back(command);
    }
    collectCommands(command, all);
  }
}

template <typename Described>
std::vector<std::string> groupsIn(const std::vector<Described>& members) {
  std::vector<std::string> groups;
  for (const Described& member : members) {
    if (std::find(groups.begin(), groups.end(), member.group) == groups.end()) {
      groups.push_back(member.group);
    }
  }
  return groups;
}

/// The options that a synopsis does not have to name.
std::string optionalPart(const std::vector<OptionDescription>& options) {
  std::string text;
  for (const OptionDescription& option : options) {
    if (!option.isRequired) {
      text += " " + option.usage();
    }
  }
  const auto count = std::count_if(options.begin(), options.end(),
                                   [](const auto& option) { return !option.isRequired; });
  return count > kListedOptions ? " [OPTION...]" : text;
}

}  // namespace

std::string OptionDescription::heading() const {
  const char* comma = shortName.empty() || longName.empty() ? "" : ", ";
  const char* blank = longName.empty() || value.empty() ? "" : " ";
  return shortName + comma + longName + blank + value;
}

std::string OptionDescription::usage() const {
  if (isForPlugin) {
    return fmt::format("[-- {}...]", value);
  }
  const char* blank = longName.empty() || value.empty() ? "" : " ";
  const std::string text = longName + blank + value;
  return isRequired ? text : fmt::format("[{}]{}", text, isRepeatable ? "..." : "");
}

std::string OptionDescription::meaningAndDefault() const {
  return meaning + (standard.empty() ? "" : fmt::format(" (default: {})", standard));
}

std::string CommandDescription::synopsis() const {
  std::string text = name;
  std::string last = needsCommand ? " COMMAND [ARGUMENT...]" : "";
  for (const OptionDescription& argument : arguments) {
    (argument.isForPlugin ? last : text) += " " + argument.usage();
  }
  for (const OptionDescription& option : options) {
    text += option.isRequired ? " " + option.usage() : "";
  }
  text += optionalPart(options) + last;
  return text.starts_with(' ') ? text.substr(1) : text;
}

std::string CommandDescription::sentences() const {
  return meaning + "." + (details.empty() ? "" : " ") + details;
}

CommandDescription describe(const CLI::App& app) {
  CommandDescription result;
  result.name = fullName(app);
  result.group = app.get_group();
  result.meaning = app.get_description();
  result.details = detailsOf(app);
  result.needsCommand = app.get_require_subcommand_min() > 0;
  for (const CLI::Option* option : app.get_options()) {
    if (isShown(app, *option)) {
      auto& list = option->get_positional() ? result.arguments : result.options;
      list.push_back(describeOption(*option));
    }
  }
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    result.commands.push_back(describe(*sub));
  }
  return result;
}

std::vector<CommandDescription> allCommands(const CommandDescription& program) {
  std::vector<CommandDescription> all;
  collectCommands(program, all);
  return all;
}

std::vector<std::string> groupsOf(const std::vector<CommandDescription>& commands) {
  return groupsIn(commands);
}

std::vector<std::string> groupsOf(const std::vector<OptionDescription>& options) {
  return groupsIn(options);
}
