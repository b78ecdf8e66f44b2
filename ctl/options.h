#pragma once

#include <optional>
#include <string>
#include <vector>

/// The command line of koductl, as it was given. A field that belongs to one command only is at its
/// default for all others.
struct Options {
  std::string configFile;  // the daemon's main INI file
  std::string user;        // "": the role of the INI file
  bool asJson = false;

  int id = 0;

  // status
  bool onlyFailed = false;
  bool onlyLate = false;
  bool watch = false;

  // history, output, rerun
  int count = 20;        // rows
  std::string archived;  // "": the last output; a file name, or a number counted from the latest
  bool follow = false;

  // add, set; without a value the database's default, or what is there, stays
  std::string plugin;
  std::optional<std::string> every, fileName, retryAfter, first;
  std::optional<int> retries;
  std::optional<int> timeoutSeconds;
  /// What stood behind "--"; nothing without a "--".
  std::optional<std::vector<std::string>> pluginArguments;

  // delete, stagger, prune
  bool isConfirmed = false;

  // forecast, stagger, prune
  int hours = 24;
  std::string durationSeconds;
  bool apply = false;
  std::string olderThan;
};
