#include "ctl/terminal/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "common/plainText.h"
#include "ctl/terminal/print.h"
#include "sched/pluginOutput.h"

namespace {

std::string formatted(const std::tm& parts, const char* pattern) {
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), pattern, &parts);
  return {text.data(), length};
}

std::string local(long time, const char* pattern) {
  const std::time_t seconds = time;
  std::tm parts{};
  localtime_r(&seconds, &parts);
  return formatted(parts, pattern);
}

}  // namespace

std::string escapedJson(std::string_view json) {
  std::string text;
  text.reserve(json.size());
  while (!json.empty()) {
    const Utf8Character first = firstUtf8Character(json);
    if (isUnsafe(first.code) && first.code != '\n') {
      text += fmt::format("\\u{:04x}", static_cast<unsigned>(first.code));
    } else {
      text += json.substr(0, first.bytes);
    }
    json.remove_prefix(first.bytes);
  }
  return text;
}

std::string timeText(long time) {
  return local(time, "%Y-%m-%d %H:%M:%S");
}

std::string zonedTime(long time) {
  return local(time, "%Y-%m-%d %H:%M:%S %Z");
}

std::optional<long> utcTime(const std::string& text) {
  std::tm parts{};
  const char* end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  return end != nullptr && *end == '\0' ? std::optional(timegm(&parts)) : std::nullopt;
}

std::string localText(const std::string& utc) {
  const auto time = utcTime(utc);
  return time ? timeText(*time) : utc;
}

std::string shortTime(std::optional<long> time, long now) {
  if (!time) {
    return "-";
  }
  constexpr const char* kDay = "%Y-%m-%d";
  return local(*time, kDay) == local(now, kDay) ? local(*time, "%H:%M:%S") : timeText(*time);
}

std::string durationText(long seconds) {
  constexpr std::array<std::pair<long, char>, 4> kUnits = {
      {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}}};
  std::string text;
  int parts = 0;
  for (const auto& [length, letter] : kUnits) {
    const long amount = seconds / length;
    seconds %= length;
    if (amount > 0) {
      text += fmt::format("{}{}{}", text.empty() ? "" : " ", amount, letter);
    }
    if (!text.empty() && ++parts == 2) {
      break;
    }
  }
  return text.empty() ? "0s" : text;
}

std::string counted(long count, const std::string& noun) {
  return fmt::format("{} {}{}", grouped(count), noun, count == 1 ? "" : "s");
}

std::string grouped(long count) {
  const std::string digits = std::to_string(count);
  std::string text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    const bool isGroupEnd = i > 0 && (digits.size() - i) % 3 == 0;
    text += isGroupEnd ? fmt::format(",{}", digits[i]) : std::string(1, digits[i]);
  }
  return text;
}

Json::Value jsonMoment(std::string time) {
  if (time.empty()) {
    return {};
  }
  std::replace(time.begin(), time.end(), ' ', 'T');
  return time + "Z";
}

std::optional<std::string> jsonTimeText(std::optional<long> time) {
  if (!time) {
    return std::nullopt;
  }
  const std::time_t seconds = *time;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return formatted(parts, "%Y-%m-%dT%H:%M:%SZ");
}

Json::Value jsonTime(std::optional<long> time) {
  return jsonText(jsonTimeText(time));
}

Json::Value jsonNumber(std::optional<long> number) {
  return number ? Json::Value(Json::Int64{*number}) : Json::Value();
}

Json::Value jsonText(const std::optional<std::string>& text) {
  return text ? Json::Value(*text) : Json::Value();
}

std::string printedJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  std::string text = Json::writeString(builder, value);
  repairUtf8(text);
  return escapedJson(text);
}

void printJson(const Json::Value& value) {
  print("{}\n", Styled(printedJson(value)));
}
