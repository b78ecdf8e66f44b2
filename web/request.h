#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <json/json.h>

#include "common/http/server.h"

/// A request that is not carried out: its status, and in what() a sentence for a person.
class Refusal : public std::runtime_error {
 public:
  Refusal(unsigned httpStatus, const std::string& sentence)
      : std::runtime_error(sentence), status(httpStatus) {}

  const unsigned status;
};

/// The values of "a=b&c=d", decoded; of a name that is there twice the last one. Throws Refusal
/// (400) for what is encoded wrongly or contains a zero.
std::map<std::string, std::string> queryValues(const std::string& query);

/// The value of a cookie; "" when there is none.
std::string cookieOf(const HttpRequest& request, const std::string& name);

/// The body as a JSON object. Throws Refusal: 415 when it is not said to be JSON, 400 for another
/// value.
Json::Value objectIn(const HttpRequest& request);

/// A text of such an object; nothing when it is missing or null. Throws Refusal (400) for another
/// value.
std::optional<std::string> textIn(const Json::Value& object, const char* member);

/// The number of a task; nothing for a text that is none.
std::optional<int> taskIdOf(const std::string& text);

/// A value in one line, with what no terminal and no page should see escaped.
std::string compactJson(const Json::Value& value);

/// An answer in JSON, which no cache keeps.
HttpResponse jsonAnswer(const std::string& text, unsigned status = 200);
HttpResponse jsonAnswer(const Json::Value& value, unsigned status = 200);
/// {"error": sentence}
HttpResponse errorAnswer(unsigned status, const std::string& sentence);
