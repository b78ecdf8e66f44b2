#include "ctl/declared/declaration.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <unordered_map>

#include "ctl/declared/document.h"
#include "ctl/declared/sources.h"
#include "ctl/declared/suggestion.h"
#include "ctl/failure.h"
#include "ctl/task/arguments.h"

namespace {

/// Reads the settings of one task.
class TaskReader {
 public:
  TaskReader(std::string name, Mistakes& collected) : file(std::move(name)), mistakes(collected) {}

  /// Nothing when there are mistakes.
  std::optional<DeclaredTask> read(const std::string& key, const Value& value) {
    task = {key, {file, value.line}, {}, {}};
    isGood = true;
    if (!isOneWord(key)) {
      refuse(value, fmt::format("the key {}", kWordRule));
    } else if (value.kind != Value::Kind::kMap) {
      refuse(value, "settings are missing, such as plugin: and every:");
    } else {
      for (const auto& [name, setting] : value.entries) {
        task.lines[name] = setting.line;
        readSetting(name, setting);
      }
      if (task.lines.count("plugin") == 0) {
        refuse(value, "plugin: is missing");
      }
      if (task.lines.count("every") == 0 && task.lines.count("at") == 0) {
        refuse(value, "every: or at: is missing");
      }
      if (task.lines.count("zone") > 0 && task.lines.count("at") == 0) {
        refuse(value, "zone is the time zone of a calendar: it needs at:");
      }
      if (task.lines.count("until") > 0 && settingOf(task.definition, "paused") != "true") {
        refuse(value, "until is the end of a pause: it needs paused: true");
      }
    }
    return isGood ? std::optional(std::move(task)) : std::nullopt;
  }

 private:
  void refuse(const Value& value, const std::string& text) {
    isGood = false;
    mistakes.add({file, value.line}, task.key, text);
  }

  void readSetting(const std::string& name, const Value& value) {
    if (name == "arguments") {
      readArguments(value);
    } else if (name == "parameters") {
      readParameters(value);
    } else if (std::find(kSettings.begin(), kSettings.end(), name) == kSettings.end()) {
      refuse(value, fmt::format("there is no setting {}{}", name, suggestion(name, known())));
    } else if (value.kind != Value::Kind::kText) {
      refuse(value,
             fmt::format(R"({} must be a text; write the words "null" and "~" in quotes)", name));
    } else if (const std::string reason = whyNot(name, value.text); !reason.empty()) {
      refuse(value, reason);
    } else {
      task.definition[name] = value.text;
    }
  }

  static std::vector<std::string> known() {
    std::vector<std::string> names(kSettings.begin(), kSettings.end());
    names.emplace_back("parameters");
    return names;
  }

  /// "" for a value that the setting can have, as far as can be told without the database.
  static std::string whyNot(const std::string& name, const std::string& text) {
    if (name == "retries") {
      int number = -1;
      const char* end = text.data() + text.size();
      const auto parsed = std::from_chars(text.data(), end, number);
      const bool isDecimal = parsed.ptr == end && parsed.ec == std::errc() && number >= 0 &&
                             number <= 1000000 && std::to_string(number) == text;
      return isDecimal ? "" : "retries must be a number from 0 to 1000000, without leading zeros";
    }
    if (name == "paused") {
      return text == "true" || text == "false" ? "" : "paused must be true or false";
    }
    if (name == "first" || name == "until") {
      return secondsOf(text) ? "" : name + " must be a time in UTC, such as 2026-12-01 08:00";
    }
    return "";
  }

  void readArguments(const Value& value) {
    std::vector<std::string> arguments;
    bool areTexts = value.kind == Value::Kind::kList;
    for (const Value& item : value.items) {
      areTexts = areTexts && item.kind == Value::Kind::kText;
      arguments.push_back(item.text);
    }
    if (!areTexts) {
      refuse(value, "arguments must be a list of texts, such as [-w, \"5\", two words]");
      return;
    }
    try {
      setParameters(value, parameterString(arguments));
    } catch (const Failure& e) {
      refuse(value, e.what());
    }
  }
  void readParameters(const Value& value) {
    if (value.kind == Value::Kind::kText) {
      setParameters(value, value.text);
    } else {
      refuse(value, "parameters must be a text; arguments is a list");
    }
  }
  void setParameters(const Value& value, const std::string& text) {
    if (task.lines.count("arguments") > 0 && task.lines.count("parameters") > 0) {
      refuse(value, "arguments and parameters exclude each other");
    }
    task.lines["arguments"] = value.line;
    if (!text.empty()) {
      task.definition["arguments"] = text;
    }
  }

  const std::string file;
  Mistakes& mistakes;
  DeclaredTask task;
  bool isGood = true;
};

/// Reads files into one declaration.
class DeclarationReader {
 public:
  explicit DeclarationReader(Mistakes& collected) : mistakes(collected) {}

  void read(const Source& source) {
    const std::optional<Value> document = readDocument(source.name, source.content, mistakes);
    if (!document) {
      return addUnlessKnown(source);
    }
    if (document->kind != Value::Kind::kMap) {
      return mistakes.add({source.name, document->line}, "", "a map with tasks: is expected");
    }
    bool hasTasks = false;
    for (const auto& [name, value] : document->entries) {
      hasTasks = hasTasks || name == "tasks";
      readPart(source.name, name, value);
    }
    if (!hasTasks) {
      mistakes.add({source.name, 0}, "", "tasks: is missing; tasks: {} declares none");
    }
  }

  Declaration result;

 private:
  void addUnlessKnown(const Source& source) {
    if (!mistakes.areThere()) {
      mistakes.add({source.name, 0}, "", "the file is empty; tasks: {} declares no task");
    }
  }

  void readPart(const std::string& file, const std::string& name, const Value& value) {
    if (name == "set") {
      readSet({file, value.line}, value);
    } else if (name == "tasks") {
      readTasks(file, value);
    } else {
      mistakes.add({file, value.line}, "",
                   fmt::format("there is no {} here{}", name, suggestion(name, {"set", "tasks"})));
    }
  }

  void readSet(const Place& place, const Value& value) {
    if (value.kind != Value::Kind::kText || !isOneWord(value.text)) {
      mistakes.add(place, "", fmt::format("the name of the set {}", kWordRule));
    } else if (!result.set.empty() && result.set != value.text) {
      mistakes.add(
          place, "",
          fmt::format("another file belongs to the set {}: apply each set by itself", result.set));
    } else {
      result.set = value.text;
    }
  }

  void readTasks(const std::string& file, const Value& value) {
    if (value.kind != Value::Kind::kMap) {
      return mistakes.add({file, value.line}, "",
                          "tasks must be a map of keys and tasks; tasks: {} declares none");
    }
    TaskReader reader(file, mistakes);
    for (const auto& [key, entry] : value.entries) {
      const auto [first, isNew] = places.emplace(key, Place{file, entry.line});
      if (!isNew && first->second.file != file) {
        mistakes.add({file, entry.line}, key,
                     fmt::format("the key stands in {} already", first->second.file));
      }
      if (auto task = reader.read(key, entry)) {
        result.tasks.push_back(std::move(*task));
      }
    }
  }

  Mistakes& mistakes;
  std::unordered_map<std::string, Place> places;  // of the keys
};

}  // namespace

// What the table of keys accepts.
bool isOneWord(std::string_view text) {
  constexpr std::size_t kLongest = 200;
  constexpr std::string_view kMarks = "._:/@-";
  const auto isPart = [kMarks](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kMarks.find(c) != std::string_view::npos;
  };
  return !text.empty() && text.size() <= kLongest &&
         kMarks.find(text.front()) == std::string_view::npos &&
         std::all_of(text.begin(), text.end(), isPart);
}

Place DeclaredTask::placeOf(const std::string& setting) const {
  const auto found = lines.find(setting);
  return {place.file, found == lines.end() ? place.line : found->second};
}

Declaration readDeclaration(const std::vector<Source>& sources, Mistakes& mistakes) {
  DeclarationReader reader(mistakes);
  for (const Source& source : sources) {
    reader.read(source);
  }
  return std::move(reader.result);
}
