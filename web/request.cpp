#include "web/request.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <memory>
#include <string_view>

#include "core/iniConfig.h"
#include "ctl/terminal/text.h"
#include "sched/pluginOutput.h"

namespace {

constexpr const char* kBadQuery = "The address is encoded wrongly: escape its values again.";

char hexValue(std::string_view digits) {
  unsigned value = 0;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  if (digits.size() != 2 || parsed.ec != std::errc() || parsed.ptr != digits.data() + 2 ||
      value == 0) {
    throw Refusal(400, kBadQuery);
  }
  return static_cast<char>(value);
}

std::string decoded(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      result += hexValue(text.substr(std::min(i + 1, text.size()), 2));
      i += 2;
    } else {
      result += text[i] == '+' ? ' ' : text[i];
    }
  }
  repairUtf8(result);
  return result;
}

/// Calls `use` for each part of a text.
template <typename Use>
void forEachPart(std::string_view text, char separator, const Use& use) {
  while (!text.empty()) {
    const auto end = std::min(text.find(separator), text.size());
    use(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

std::map<std::string, std::string> queryValues(const std::string& query) {
  std::map<std::string, std::string> values;
  forEachPart(query, '&', [&](std::string_view part) {
    const auto equals = std::min(part.find('='), part.size());
    values[decoded(part.substr(0, equals))] =
        decoded(part.substr(std::min(equals + 1, part.size())));
  });
  return values;
}

std::string cookieOf(const HttpRequest& request, const std::string& name) {
  std::string value;
  forEachPart(request.header("Cookie"), ';', [&](std::string_view part) {
    const std::string cookie = trim(std::string(part));
    if (value.empty() && cookie.starts_with(name + "=")) {
      value = cookie.substr(name.size() + 1);
    }
  });
  return value;
}

Json::Value objectIn(const HttpRequest& request) {
  if (!request.header("Content-Type").starts_with("application/json")) {
    throw Refusal(415, "The body must be JSON, and its Content-Type must say so.");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  constexpr int kDeepest = 20;
  builder["stackLimit"] = kDeepest;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  try {
    const std::string& body = request.body;
    if (reader->parse(body.data(), body.data() + body.size(), &value, &errors) &&
        value.isObject()) {
      return value;
    }
  } catch (const Json::Exception&) {
    errors = "too deep";
  }
  throw Refusal(400, "The body is not a JSON object.");
}

std::optional<std::string> textIn(const Json::Value& object, const char* member) {
  const Json::Value& value = object[member];
  if (value.isNull()) {
    return std::nullopt;
  }
  if (!value.isString() || value.asString().find('\0') != std::string::npos) {
    throw Refusal(400, std::string("The value of ") + member + " must be a text.");
  }
  return value.asString();
}

std::optional<int> taskIdOf(const std::string& text) {
  int id = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), id);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
  return isNumber && id > 0 ? std::optional(id) : std::nullopt;
}

std::string compactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  std::string text = Json::writeString(builder, value);
  repairUtf8(text);
  return escapedJson(text);
}

HttpResponse jsonAnswer(const std::string& text, unsigned status) {
  HttpResponse answer{status, text, "application/json"};
  answer.headers.emplace_back("Cache-Control", "no-store");
  return answer;
}

HttpResponse jsonAnswer(const Json::Value& value, unsigned status) {
  return jsonAnswer(compactJson(value) + "\n", status);
}

HttpResponse errorAnswer(unsigned status, const std::string& sentence) {
  Json::Value value;
  value["error"] = sentence;
  return jsonAnswer(value, status);
}
