#pragma once

#include <chrono>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

/// Why a configuration cannot be used: file, line, and what to write instead.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The configuration of kodunotify, see docs/events.md. Either `command` or `url` has a value.
struct NotifyConfig {
  std::string database;          // a libpq connection string
  std::string reader;            // a name, of at most 63 letters, digits, ".", "_" and "-"
  std::set<std::string> events;  // those that are delivered

  std::vector<std::string> command;  // path and arguments, with placeholders
  std::string url;                   // http:// or https://
  std::string headerFile;            // "": none; a header in each line
  std::string body;                  // with placeholders; "": the events as JSON
  int batch = 50;                    // events in a request, at most

  int tries = 10;
  std::chrono::milliseconds wait{1000};            // after the first try; then twice as long
  std::chrono::milliseconds longestWait{300'000};  // at most
  std::chrono::milliseconds timeout{10'000};       // of a try
};

/// Reads a YAML file. Throws ConfigError.
NotifyConfig readNotifyConfig(const std::string& path);

/// Finds what does not exist on this machine: the command, the file of headers. Throws ConfigError.
void checkFiles(const NotifyConfig& config);
