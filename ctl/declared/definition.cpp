#include "ctl/declared/definition.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace {

bool isNumber(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// What koduguard is told to run.
struct Guarded {
  std::string seconds, path, arguments;
};

/// The parts of parameters in the form that kodu_guarded() writes; nothing for others, which
/// koduguard may understand nevertheless.
std::optional<Guarded> guardedBy(std::string_view parameters) {
  constexpr std::string_view kBegin = "-t ";
  constexpr std::string_view kMiddle = " -- ";
  const std::size_t middle = parameters.find(kMiddle);
  if (!parameters.starts_with(kBegin) || middle == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view seconds = parameters.substr(kBegin.size(), middle - kBegin.size());
  constexpr std::size_t kMostDigits = 5;
  if (!isNumber(seconds) || seconds.front() == '0' || seconds.size() > kMostDigits ||
      std::stoi(std::string(seconds)) > 86400) {
    return std::nullopt;
  }
  std::string_view rest = parameters.substr(middle + kMiddle.size());
  const bool isQuoted = rest.starts_with('"');
  const std::size_t end = isQuoted ? rest.find('"', 1) : std::min(rest.find(' '), rest.size());
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view path = rest.substr(isQuoted ? 1 : 0, end - (isQuoted ? 1 : 0));
  rest.remove_prefix(end + (isQuoted ? 1 : 0));
  const bool isPath = path.starts_with('/') && path.find_first_of("\"'") == std::string_view::npos;
  if (!isPath || isQuoted != (path.find(' ') != std::string_view::npos) ||
      !(rest.empty() || rest.starts_with(' '))) {
    return std::nullopt;
  }
  return Guarded{std::string(seconds), std::string(path),
                 std::string(rest.substr(std::min<std::size_t>(1, rest.size())))};
}

int digitsAt(std::string_view text, std::size_t place, std::size_t count) {
  return std::stoi(std::string(text.substr(place, count)));
}

/// True for a text with a digit for each "0" of the pattern, and the same characters elsewhere.
bool looksLike(std::string_view text, std::string_view pattern) {
  return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                    [](char c, char p) { return p == '0' ? c >= '0' && c <= '9' : c == p; });
}

}  // namespace

std::string settingOf(const Definition& definition, const std::string& name) {
  const auto found = definition.find(name);
  return found == definition.end() ? "" : found->second;
}

std::string periodText(const std::string& seconds) {
  if (!isNumber(seconds)) {
    const bool isFraction = seconds.find_first_not_of("0123456789.") == std::string::npos;
    return isFraction && !seconds.empty() ? seconds + "s" : seconds;
  }
  constexpr std::array<std::pair<long, char>, 3> kUnits = {{{86400, 'd'}, {3600, 'h'}, {60, 'm'}}};
  const long number = std::atol(seconds.c_str());  // NOLINT(cert-err34-c): digits only
  for (const auto& [length, letter] : kUnits) {
    if (number > 0 && number % length == 0) {
      return fmt::format("{}{}", number / length, letter);
    }
  }
  return fmt::format("{}s", number);
}

std::optional<long> secondsIn(const std::string& period) {
  char* unit = nullptr;
  const long number = std::strtol(period.c_str(), &unit, 10);
  const std::string rest = unit;
  if (number <= 0 || rest.size() != 1) {
    return std::nullopt;
  }
  switch (rest.front()) {
    case 'd':
      return number * 86400;
    case 'h':
      return number * 3600;
    case 'm':
      return number * 60;
    default:
      return number;
  }
}

std::optional<long> secondsOf(std::string_view time) {
  namespace chr = std::chrono;
  const bool hasSeconds = looksLike(time, "0000-00-00 00:00:00");
  if (!hasSeconds && !looksLike(time, "0000-00-00 00:00")) {
    return std::nullopt;
  }
  const chr::year_month_day day(chr::year(digitsAt(time, 0, 4)),
                                chr::month(static_cast<unsigned>(digitsAt(time, 5, 2))),
                                chr::day(static_cast<unsigned>(digitsAt(time, 8, 2))));
  const int hour = digitsAt(time, 11, 2);
  const int minute = digitsAt(time, 14, 2);
  const int second = hasSeconds ? digitsAt(time, 17, 2) : 0;
  if (!day.ok() || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  return chr::sys_days(day).time_since_epoch().count() * 86400L + hour * 3600L + minute * 60L +
         second;
}

std::string declaredTime(long time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string fileNameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // the whole text without a slash
}

Definition definitionOf(const StoredTexts& texts, const std::string& guard) {
  Definition definition;
  const auto set = [&definition](const char* name, const std::string& text,
                                 const std::string& standard) {
    if (text != standard) {
      definition[name] = text;
    }
  };
  const auto guarded = texts.path == guard ? guardedBy(texts.parameters) : std::nullopt;
  const std::string plugin = guarded ? guarded->path : texts.path;
  set("plugin", plugin, "");
  set("name", texts.name, fileNameOf(plugin));
  set("at", texts.at, "");
  set("zone", texts.zone, texts.at.empty() ? "" : kDefaultZone);
  set("every", texts.every, "");
  set("retries", texts.retries, "1");
  set("timeout", guarded ? periodText(guarded->seconds) : "", "");
  set("retry-after", texts.retryAfter, kDefaultRetryAfter);
  set("file", texts.file, kDefaultFile);
  set("arguments", guarded ? guarded->arguments : texts.parameters, "");
  set("host", texts.host, "");
  return definition;
}
