#include "common/metrics/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "common/plainText.h"

namespace {

constexpr std::string_view kSecondsSuffix = "_seconds";

/// The texts of a type: in the line TYPE of both formats, and behind the name of a sample.
struct TypeTexts {
  const char *classic, *open, *suffix;
};

TypeTexts textsOf(MetricType type) {
  switch (type) {
    case MetricType::kCounter:
      return {"counter", "counter", "_total"};
    case MetricType::kHistogram:
      return {"histogram", "histogram", ""};
    case MetricType::kInfo:
      return {"gauge", "info", "_info"};
    case MetricType::kGauge:
      break;
  }
  return {"gauge", "gauge", ""};
}

/// What both formats demand in a quoted value. Nothing in it can control a terminal that shows it.
std::string escaped(std::string_view value) {
  std::string text;
  while (!value.empty()) {
    const Utf8Character character = firstUtf8Character(value);
    if (character.code == '\n') {
      text += "\\n";
    } else if (isUnsafe(character.code)) {
      text += '?';
    } else {
      if (character.code == '"' || character.code == '\\') {
        text += '\\';
      }
      text += value.substr(0, character.bytes);
    }
    value.remove_prefix(character.bytes);
  }
  return text;
}

/// The shortest text that reads as the same number.
std::string numberText(double value) {
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  // A count as it is usually written; a double holds these exactly.
  constexpr double kExact = 9007199254740992;
  if (std::trunc(value) == value && std::abs(value) < kExact) {
    return fmt::format("{}", static_cast<long long>(value));
  }
  return fmt::format("{}", value);
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  return first == std::string_view::npos
             ? ""
             : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Takes the part of `rest` before the next `separator`.
std::string_view takePart(std::string_view& rest, char separator) {
  const auto end = std::min(rest.find(separator), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return trimmed(part);
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return result;
}

/// One entry of a header Accept: "text/plain;version=0.0.4;q=0.5".
struct Accepted {
  std::string type;
  double weight = 1;
};

Accepted acceptedOf(std::string_view entry) {
  Accepted accepted{lowered(takePart(entry, ';')), 1};
  while (!entry.empty()) {
    const std::string parameter = lowered(takePart(entry, ';'));
    if (parameter.starts_with("q=")) {
      const char* end = parameter.data() + parameter.size();
      double weight = 0;
      const auto parsed = std::from_chars(parameter.data() + 2, end, weight);
      accepted.weight = parsed.ec == std::errc() && parsed.ptr == end ? weight : 0;
    }
  }
  return accepted;
}

}  // namespace

const char* contentTypeOf(MetricsFormat format) {
  return format == MetricsFormat::kOpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

MetricsFormat acceptedFormat(std::string_view accept) {
  double open = 0, classic = 0;
  while (!accept.empty()) {
    const Accepted accepted = acceptedOf(takePart(accept, ','));
    if (accepted.type == "application/openmetrics-text") {
      open = std::max(open, accepted.weight);
    } else if (accepted.type == "text/plain" || accepted.type == "text/*") {
      classic = std::max(classic, accepted.weight);
    }
  }
  return open > 0 && open >= classic ? MetricsFormat::kOpenMetrics : MetricsFormat::kClassic;
}

void MetricsPage::begin(MetricType type, const std::string& name, const std::string& help) {
  const TypeTexts texts = textsOf(type);
  const bool isOpen = format == MetricsFormat::kOpenMetrics;
  current = type;
  family = name;
  // OpenMetrics names the family, the classic format its samples.
  const std::string described = isOpen ? name : name + texts.suffix;
  lines += fmt::format("# HELP {} {}\n# TYPE {} {}\n", described, help, described,
                       isOpen ? texts.open : texts.classic);
  if (isOpen && name.ends_with(kSecondsSuffix)) {
    lines += fmt::format("# UNIT {} seconds\n", name);
  }
}

void MetricsPage::add(const Labels& labels, double value) {
  add(textsOf(current).suffix, labels, value);
}

void MetricsPage::add(const std::string& suffix, const Labels& labels, double value) {
  std::string inside;
  for (const auto& [name, text] : labels) {
    inside += fmt::format("{}{}=\"{}\"", inside.empty() ? "" : ",", name, escaped(text));
  }
  lines += fmt::format("{}{}{} {}\n", family, suffix, inside.empty() ? "" : "{" + inside + "}",
                       numberText(value));
}

void MetricsPage::single(MetricType type, const std::string& name, const std::string& help,
                         double value) {
  begin(type, name, help);
  add({}, value);
}

std::string MetricsPage::text() const {
  return format == MetricsFormat::kOpenMetrics ? lines + "# EOF\n" : lines;
}
