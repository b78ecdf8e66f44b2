#include "ctl/terminal/jsonList.h"

#include <algorithm>

#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

/// Writes values many times faster than the library: a list may have a million elements.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& target) : text(target) {}

  void write(const Json::Value& value, int depth) {
    switch (value.type()) {
      case Json::objectValue:
        writeObject(value, depth);
        break;
      case Json::arrayValue:
        writeArray(value, depth);
        break;
      case Json::stringValue:
        writeString(value);
        break;
      case Json::intValue:
        text += std::to_string(value.asLargestInt());
        break;
      case Json::booleanValue:
        text += value.asBool() ? "true" : "false";
        break;
      default:
        text += jsonText(value);
    }
  }

 private:
  void beginLine(int depth) { text.append("\n").append(static_cast<std::size_t>(depth) * 2, ' '); }

  void writeObject(const Json::Value& value, int depth) {
    text += '{';
    const char* comma = "";
    for (auto member = value.begin(); member != value.end(); ++member) {
      text += comma;
      beginLine(depth + 1);
      text.append("\"").append(member.name()).append("\" : ");
      write(*member, depth + 1);
      comma = ",";
    }
    beginLine(depth);
    text += '}';
  }

  void writeArray(const Json::Value& value, int depth) {
    text += '[';
    const char* comma = "";
    for (const Json::Value& element : value) {
      text += comma;
      beginLine(depth + 1);
      write(element, depth + 1);
      comma = ",";
    }
    beginLine(depth);
    text += ']';
  }

  void writeString(const Json::Value& value) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    const bool isPlain = std::all_of(
        begin, end, [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
    if (isPlain) {
      text.append("\"").append(begin, end).append("\"");
    } else {
      text += jsonText(value);
    }
  }

  std::string& text;
};

}  // namespace

void JsonList::add(const Json::Value& element) {
  std::string text = isBegun ? ",\n  " : "[\n  ";
  isBegun = true;
  JsonWriter(text).write(element, 1);
  print("{}", Styled(text));
}

void JsonList::end() {
  print("{}", Styled(isBegun ? "\n]\n" : "[]\n"));
}
