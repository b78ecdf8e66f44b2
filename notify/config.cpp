#include "notify/config.h"

#include <fmt/format.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "notify/fill.h"

namespace {

const std::set<std::string> kEvents = {"failed", "recovered", "interrupted", "skipped"};

/// Reads one file into a configuration.
class ConfigReader {
 public:
  explicit ConfigReader(std::string path) : file(std::move(path)) {}

  NotifyConfig read() {
    config.events = kEvents;
    const YAML::Node root = load();
    if (!root.IsMap()) {
      throw ConfigError(file + ": write a key in each line, as reader: pager");
    }
    for (const auto& entry : root) {
      take(entry.first.as<std::string>(), entry.second);
    }
    requireAll();
    return config;
  }

 private:
  YAML::Node load() const try { return YAML::LoadFile(file); } catch (const YAML::BadFile&) {
    throw ConfigError(file + ": cannot be read: check its path and its rights");
  } catch (const YAML::Exception& e) {
    throw ConfigError(fmt::format("{}:{}: {}", file, e.mark.line + 1, e.msg));
  }

  [[noreturn]] void refuse(const YAML::Node& place, const std::string& text) const {
    throw ConfigError(fmt::format("{}:{}: {}", file, place.Mark().line + 1, text));
  }

  void take(const std::string& key, const YAML::Node& value) {
    const std::map<std::string, std::function<void()>> keys = {
        {"database", [&] { config.database = text(key, value); }},
        {"reader", [&] { config.reader = nameOf(value); }},
        {"events", [&] { config.events = eventsOf(value); }},
        {"command", [&] { config.command = commandOf(value); }},
        {"http", [&] { config.url = urlOf(value); }},
        {"header_file", [&] { config.headerFile = text(key, value); }},
        {"body", [&] { config.body = templateOf(key, value); }},
        {"batch", [&] { config.batch = static_cast<int>(number(key, value, 1, 1000)); }},
        {"tries", [&] { config.tries = static_cast<int>(number(key, value, 1, 1000)); }},
        {"wait", [&] { config.wait = seconds(key, value, 3600); }},
        {"longest_wait", [&] { config.longestWait = seconds(key, value, 86400); }},
        {"timeout", [&] { config.timeout = seconds(key, value, 3600); }}};
    const auto found = keys.find(key);
    if (found == keys.end()) {
      refuse(value, fmt::format("unknown key {}; see docs/events.md", key));
    }
    found->second();
  }

  std::string text(const std::string& key, const YAML::Node& value) const {
    if (!value.IsScalar() || value.Scalar().empty()) {
      refuse(value, fmt::format("{} needs a text", key));
    }
    return value.Scalar();
  }

  std::string nameOf(const YAML::Node& value) const {
    std::string name = text("reader", value);
    const bool isWord = std::all_of(name.begin(), name.end(), [](unsigned char c) {
      return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-';
    });
    if (!isWord || name.size() > 63 || std::isalnum(static_cast<unsigned char>(name[0])) == 0) {
      refuse(value, "reader needs one word of at most 63 letters, digits and . _ -");
    }
    return name;
  }

  std::set<std::string> eventsOf(const YAML::Node& value) const {
    std::set<std::string> events;
    for (const YAML::Node& one : value) {
      const std::string event = text("events", one);
      if (kEvents.count(event) == 0) {
        refuse(one, fmt::format("there is no event {}; write some of {}", event,
                                fmt::join(kEvents, ", ")));
      }
      events.insert(event);
    }
    if (events.empty()) {
      refuse(value, "events needs a list, as [failed, recovered]");
    }
    return events;
  }

  std::string templateOf(const std::string& key, const YAML::Node& value) const {
    std::string given = text(key, value);
    if (const std::string unknown = unknownPlaceholder(given); !unknown.empty()) {
      refuse(value, fmt::format("{}: there is no {{{}}}; write one of {}", key, unknown,
                                fmt::join(placeholders(), ", ")));
    }
    return given;
  }

  std::vector<std::string> commandOf(const YAML::Node& value) const {
    std::vector<std::string> command;
    for (const YAML::Node& argument : value) {
      command.push_back(templateOf("command", argument));
    }
    if (command.empty() || command[0][0] != '/' || command[0].find('{') != std::string::npos) {
      refuse(value,
             "command needs a list that begins with a path, as [/usr/bin/logger, \"{name}\"]");
    }
    return command;
  }

  std::string urlOf(const YAML::Node& value) const {
    std::string url = text("http", value);
    if (!url.starts_with("http://") && !url.starts_with("https://")) {
      refuse(value, "http needs a URL that begins with http:// or https://");
    }
    return url;
  }

  double number(const std::string& key, const YAML::Node& value, double least, double most) const {
    double result = 0;
    try {
      result = value.as<double>();
    } catch (const YAML::Exception&) {
      result = most + 1;
    }
    if (!(result >= least && result <= most)) {
      refuse(value, fmt::format("{} needs a number from {} to {}", key, least, most));
    }
    return result;
  }

  std::chrono::milliseconds seconds(const std::string& key, const YAML::Node& value,
                                    double most) const {
    return std::chrono::milliseconds(static_cast<long>(number(key, value, 0.01, most) * 1000));
  }

  void requireAll() {
    const auto require = [&](bool isThere, const std::string& advice) {
      if (!isThere) {
        throw ConfigError(fmt::format("{}: {}", file, advice));
      }
    };
    require(!config.database.empty(), "database is missing: write a libpq connection string");
    require(!config.reader.empty(), "reader is missing: write a name for this program's position");
    require(config.command.empty() != config.url.empty(), "write either command or http");
    require(!config.url.empty() || (config.headerFile.empty() && config.body.empty()),
            "header_file and body belong to http");
    if (!config.body.empty() || !config.command.empty()) {
      config.batch = 1;
    }
  }

  const std::string file;
  NotifyConfig config;
};

}  // namespace

NotifyConfig readNotifyConfig(const std::string& path) {
  return ConfigReader(path).read();
}

void checkFiles(const NotifyConfig& config) {
  if (!config.command.empty() && access(config.command[0].c_str(), X_OK) != 0) {
    throw ConfigError(config.command[0] + " cannot be executed: check its path and its rights");
  }
  if (!config.headerFile.empty() && access(config.headerFile.c_str(), R_OK) != 0) {
    throw ConfigError(config.headerFile + " cannot be read: check its path and its rights");
  }
}
