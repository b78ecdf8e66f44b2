#include "core/iniConfig.h"

#include <algorithm>
#include <fstream>
#include <utility>

#include "core/FileException.h"
#include "core/helpers.h"

namespace {

constexpr const char* kWhitespace = " \n\r\t\f\v";

/// Blanks first, then tabs, each once: a tab followed by a blank leaves the blank.
void dropIndentation(std::string& line) {
  for (const char indentation : {' ', '\t'}) {
    line.erase(0, std::min(line.find_first_not_of(indentation), line.size()));
  }
}

/// The text after the first "=" of `line`, or "" without one.
std::string valueOf(const std::string& line) {
  const auto sign = line.find('=');
  return sign == std::string::npos ? "" : line.substr(sign + 1);
}

}  // namespace

iniConfig::iniConfig(std::string path) : fileName(std::move(path)) {}

std::string iniConfig::getKey(const std::string& section, const std::string& key) const {
  std::string value;
  scanSection(section, "error can't open file: ", [&](const std::string& line) {
    // Anywhere in the line, the header line included: files in the field rely on a short key
    // finding a longer one. Tested by IniConfigTest.TakesTheFirstLineThatContainsTheKey and
    // IniConfigTest.CountsTheHeaderLineAsTheSectionsFirstLine.
    if (line.find(key) == std::string::npos) {
      return true;
    }
    value = valueOf(line);
    return false;
  });
  return value;
}

int iniConfig::getKeyToInt(const std::string& section, const std::string& key) const {
  return stringToInt(getKey(section, key));
}

std::map<std::string, std::string>& iniConfig::getSection(const std::string& section) {
  // Without a colon, unlike getKey: readers of the message tell the two apart by it.
  // Tested by IniConfigTest.NamesAFileThatCannotBeOpened.
  scanSection(section, "error can't open file ", [&](const std::string& line) {
    sectionValues[line.substr(0, line.find('='))] = valueOf(line);
    return true;
  });
  return sectionValues;
}

void iniConfig::scanSection(const std::string& section, const char* openError,
                            const std::function<bool(const std::string& line)>& visit) const {
  std::ifstream file(fileName);
  if (!file.is_open()) {
    throw FileException(openError + fileName);
  }
  const std::string header = "[" + section + "]";
  bool isInside = false;
  std::string line;
  while (std::getline(file, line)) {
    dropIndentation(line);
    if (line.starts_with('#')) {
      continue;
    }
    if (isInside && line.starts_with('[')) {
      return;
    }
    isInside = isInside || line == header;
    if (isInside && !visit(line)) {
      return;
    }
  }
}

std::string rtrim(const std::string& s) {
  return s.substr(0, s.find_last_not_of(kWhitespace) + 1);
}

std::string ltrim(const std::string& s) {
  const auto first = s.find_first_not_of(kWhitespace);
  return first == std::string::npos ? "" : s.substr(first);
}

std::string trim(const std::string& s) {
  return rtrim(ltrim(s));
}
