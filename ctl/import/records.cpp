#include "ctl/import/records.h"

#include <algorithm>
#include <string_view>

namespace {

/// Reads CSV from its beginning to its end.
class CsvReader {
 public:
  explicit CsvReader(std::string_view content) : rest(content) {}

  std::vector<TableRow> read() {
    std::vector<TableRow> rows;
    while (!rest.empty()) {
      rows.push_back(readRow());
    }
    return rows;
  }

 private:
  TableRow readRow() {
    TableRow row = {line, {}, ""};
    do {
      row.values.push_back(!rest.empty() && rest.front() == '"' ? quotedValue(row) : plainValue());
    } while (take(','));
    take('\r');
    if (!rest.empty() && !take('\n')) {
      row.mistake = "a comma is missing after a quoted value";
      plainLine();
    }
    ++line;
    return row;
  }

  bool take(char c) {
    const bool isThere = !rest.empty() && rest.front() == c;
    rest.remove_prefix(isThere ? 1 : 0);
    return isThere;
  }

  void plainLine() {
    const std::size_t end = rest.find('\n');
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }

  std::string plainValue() {
    std::string value(rest.substr(0, rest.find_first_of(",\r\n")));
    rest.remove_prefix(value.size());
    return value;
  }

  std::string quotedValue(TableRow& row) {
    std::string value;
    rest.remove_prefix(1);
    while (!rest.empty()) {
      const char c = rest.front();
      rest.remove_prefix(1);
      if (c == '"' && !take('"')) {
        return value;
      }
      line += c == '\n' ? 1 : 0;
      value += c;
    }
    row.mistake = "a quote is not closed";
    return value;
  }

  std::string_view rest;
  int line = 1;
};

/// A value of the text format of COPY.
std::string unescaped(std::string_view text) {
  if (text == "\\N") {
    return "";
  }
  constexpr std::string_view kLetters = "bfnrtv";
  constexpr std::string_view kCharacters = "\b\f\n\r\t\v";
  std::string value;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      value += text[i];
      continue;
    }
    const std::size_t letter = kLetters.find(text[++i]);
    value += letter == std::string_view::npos ? text[i] : kCharacters[letter];
  }
  return value;
}

}  // namespace

std::vector<TableRow> readCsv(const std::string& content) {
  return CsvReader(content).read();
}

std::vector<TableRow> readCopyText(const std::string& content) {
  std::vector<TableRow> rows;
  std::string_view rest = content;
  for (int line = 1; !rest.empty(); ++line) {
    std::string_view text = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    text.remove_suffix(text.ends_with('\r') ? 1 : 0);
    TableRow row = {line, {}, ""};
    while (true) {
      const std::size_t tab = text.find('\t');
      row.values.push_back(unescaped(text.substr(0, tab)));
      if (tab == std::string_view::npos) {
        break;
      }
      text.remove_prefix(tab + 1);
    }
    rows.push_back(row);
  }
  return rows;
}
