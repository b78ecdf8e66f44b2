#include "ctl/declared/document.h"

#include <fmt/format.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "common/plainText.h"
#include "ctl/declared/mistakes.h"

namespace {

/// Declarations need four levels.
constexpr std::size_t kDeepest = 8;

/// Ends the reading of a file.
struct Refusal : std::runtime_error {
  Refusal(int at, const std::string& text) : std::runtime_error(text), line(at) {}

  const int line;
};

int lineOf(const YAML::Mark& mark) {
  return mark.line + 1;
}

/// Builds the value of a document from what the parser meets.
class Builder : public YAML::EventHandler {
 public:
  Builder(std::string name, Mistakes& collected) : file(std::move(name)), mistakes(collected) {}

  void OnDocumentStart(const YAML::Mark& mark) override {
    if (result) {
      throw Refusal(lineOf(mark), "a second document begins here: write it into a file of its own");
    }
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    refuseAnchor(mark, anchor);
    take(begin(mark, Value::Kind::kNothing));
  }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t /*anchor*/) override {
    throw Refusal(lineOf(mark), "aliases (*NAME) are not supported: write the value again");
  }
  void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                const std::string& value) override {
    refuseAnchor(mark, anchor);
    refuseTag(mark, tag);
    if (value.find('\0') != std::string::npos) {
      throw Refusal(lineOf(mark), "a text contains a zero byte, which the database cannot store");
    }
    Value text = begin(mark, Value::Kind::kText);
    text.text = value;
    take(std::move(text));
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value /*style*/) override {
    open(mark, tag, anchor, Value::Kind::kList);
  }
  void OnSequenceEnd() override { close(); }
  void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value /*style*/) override {
    open(mark, tag, anchor, Value::Kind::kMap);
  }
  void OnMapEnd() override { close(); }

  std::optional<Value> result;

 private:
  /// A list or a map that is not complete.
  struct Level {
    Value value;
    std::optional<std::string> key;  // of a map: its value is still to come
    int keyLine = 0;
    std::unordered_map<std::string, int> keys;  // of a map, with their lines
  };

  static void refuseAnchor(const YAML::Mark& mark, YAML::anchor_t anchor) {
    if (anchor != 0) {
      throw Refusal(lineOf(mark), "anchors (&NAME) are not supported: write the value out");
    }
  }
  /// "?" and "!" stand for texts without a tag, plain and quoted.
  static void refuseTag(const YAML::Mark& mark, const std::string& tag) {
    if (!tag.empty() && tag != "?" && tag != "!") {
      throw Refusal(lineOf(mark), fmt::format("tags ({}) are not supported: remove it", tag));
    }
  }
  static Value begin(const YAML::Mark& mark, Value::Kind kind) {
    Value value;
    value.kind = kind;
    value.line = lineOf(mark);
    return value;
  }

  void open(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
            Value::Kind kind) {
    refuseAnchor(mark, anchor);
    refuseTag(mark, tag);
    if (levels.size() == kDeepest) {
      throw Refusal(lineOf(mark), "lists and maps are nested too deep");
    }
    levels.push_back({begin(mark, kind), std::nullopt, 0, {}});
  }
  void close() {
    Value value = std::move(levels.back().value);
    levels.pop_back();
    take(std::move(value));
  }

  /// Puts a complete value where it belongs.
  void take(Value value) {
    if (levels.empty()) {
      result = std::move(value);
      return;
    }
    Level& level = levels.back();
    if (level.value.kind == Value::Kind::kList) {
      level.value.items.push_back(std::move(value));
    } else if (level.key) {
      value.line = level.keyLine;
      level.value.entries.push_back({std::move(*level.key), std::move(value)});
      level.key.reset();
    } else {
      takeKey(level, value);
    }
  }
  void takeKey(Level& level, const Value& key) {
    if (key.kind != Value::Kind::kText) {
      throw Refusal(key.line, "a key must be a text");
    }
    const auto [first, isNew] = level.keys.emplace(key.text, key.line);
    if (!isNew) {
      mistakes.add({file, key.line}, "",
                   fmt::format("the key {} stands in line {} already", key.text, first->second));
    }
    level.key = key.text;
    level.keyLine = key.line;
  }

  const std::string file;
  Mistakes& mistakes;
  std::vector<Level> levels;
};

/// True for what YAML allows outside of escape sequences. The parser would take 0x04 for the end of
/// the file, and other bytes than UTF-8 for U+FFFD.
bool isAllowed(char32_t code) {
  constexpr std::string_view kWhite = "\t\n\r\x85";
  if (code < 0xa0 && (code < 0x20 || code >= 0x7f)) {
    return kWhite.find(static_cast<char>(code)) != std::string_view::npos;
  }
  return code != kNoCharacter;
}

void requireText(std::string_view content) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  int line = 1;
  if (content.starts_with(kByteOrderMark)) {
    content.remove_prefix(kByteOrderMark.size());
  }
  while (!content.empty()) {
    const Utf8Character next = firstUtf8Character(content);
    if (!isAllowed(next.code)) {
      throw Refusal(line, next.code == kNoCharacter
                              ? "a byte is not valid UTF-8"
                              : fmt::format("a control character: write \"\\u{:04x}\", in double "
                                            "quotes",
                                            static_cast<unsigned>(next.code)));
    }
    line += next.code == '\n' ? 1 : 0;
    content.remove_prefix(next.bytes);
  }
}

std::optional<Value> parse(const std::string& content, Builder& builder) {
  requireText(content);
  // The parser takes the end of the file for that of a quote, but only after a newline. So the file
  // ends in a comment without one.
  std::istringstream stream(content + "\n#");
  YAML::Parser parser(stream);
  while (parser.HandleNextDocument(builder)) {
  }
  return std::move(builder.result);
}

}  // namespace

std::optional<Value> readDocument(const std::string& file, const std::string& content,
                                  Mistakes& mistakes) {
  Builder builder(file, mistakes);
  try {
    return parse(content, builder);
  } catch (const Refusal& e) {
    mistakes.add({file, e.line}, "", e.what());
  } catch (const YAML::Exception& e) {
    mistakes.add({file, lineOf(e.mark)}, "", fmt::format("this is not YAML: {}", e.msg));
  }
  return std::nullopt;
}
