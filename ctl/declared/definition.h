#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// What a task is, as texts by the names of koductl's options. A setting with its default value is
/// left out, and equal settings have equal texts. "arguments" is the parameter string.
using Definition = std::map<std::string, std::string>;

/// The settings in the order in which they are shown. Those after "arguments" are no part of a
/// task's row that apply compares by itself: it only moves, pauses and resumes by them, and adds a
/// task for a host. "host" is left out for the default one.
constexpr std::array<const char*, 15> kSettings = {
    "plugin", "name",      "at",   "zone",  "every",  "retries", "timeout", "retry-after",
    "file",   "arguments", "host", "first", "paused", "reason",  "until"};

constexpr const char* kDefaultFile = "$SERVICEID_$DATE.txt";
constexpr const char* kDefaultRetryAfter = "2m";
constexpr const char* kDefaultZone = "UTC";

/// The value of a setting; "" when it has its default.
std::string settingOf(const Definition& definition, const std::string& name);

/// A period as it is written in declarations, in the largest unit that needs no fraction: "5m",
/// "36h", "2.5s". `seconds` is a number as the database prints it; any other text, as of an
/// interval with months, is returned unchanged.
std::string periodText(const std::string& seconds);

/// The seconds of such a text; nothing for 0, fractions and months.
std::optional<long> secondsIn(const std::string& period);

/// "2026-12-01 08:00", with or without seconds, as seconds since the epoch; nothing for another
/// text. Times of declarations are UTC, whatever the operator's zone is.
std::optional<long> secondsOf(std::string_view time);

/// Seconds since the epoch as such a text, with seconds.
std::string declaredTime(long time);

/// A text of the database as the definition of a task; the texts of the periods are those of
/// periodText(). `guard` is the path of koduguard that tasks with a time limit have in this
/// database: such a task is shown as the plugin that it runs, with "timeout".
struct StoredTexts {
  std::string path, name, parameters, file, every, retries, retryAfter;
  std::string at = {}, zone = {};  // "": no calendar
  std::string host = {};           // "": the default one
};
Definition definitionOf(const StoredTexts& texts, const std::string& guard);

/// The name of the file at a path, which is the default name of a task.
std::string fileNameOf(const std::string& path);
