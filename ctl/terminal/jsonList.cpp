#include "ctl/terminal/jsonList.h"

#include <algorithm>
#include <utility>

#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

void JsonText::beginLine() {
  text.append("\n").append(static_cast<std::size_t>(depth) * 2, ' ');
}

void JsonText::begin() {
  if (!text.empty()) {  // the value of a member
    beginLine();
  }
  text += '{';
  ++depth;
  isFirst = true;
}

void JsonText::name(const char* member) {
  text += isFirst ? "" : ",";
  isFirst = false;
  beginLine();
  text.append("\"").append(member).append("\" : ");
}

void JsonText::value(std::string_view content) {
  const bool isPlain = std::all_of(content.begin(), content.end(), [](char c) {
    return c >= ' ' && c <= '~' && c != '"' && c != '\\';
  });
  if (isPlain) {
    text.append("\"").append(content).append("\"");
  } else {
    text += printedJson(Json::Value(std::string(content)));
  }
}

void JsonText::value(long number) {
  text += std::to_string(number);
}

void JsonText::value(bool isTrue) {
  text += isTrue ? "true" : "false";
}

void JsonText::end() {
  --depth;
  beginLine();
  text += '}';
  isFirst = false;
}

void JsonList::add(const std::string& element) {
  print("{}", Styled((isBegun ? ",\n  " : "[\n  ") + element));
  isBegun = true;
}

void JsonList::addValue(const Json::Value& element) {
  std::string text = printedJson(element);  // line feeds in its strings are escaped
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
    text.insert(at + 1, "  ");
  }
  add(text);
}

void JsonList::end() {
  print("{}", Styled(isBegun ? "\n]\n" : "[]\n"));
}
