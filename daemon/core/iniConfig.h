#pragma once

#include <functional>
#include <map>
#include <string>

/// Reads values out of an INI file on demand; every lookup reads the file again. Owned by one
/// thread.
///
/// A section begins at the line that is exactly "[name]" and ends at the next line that begins
/// with "[" or at the end of the file; only the first section of a name is read. Leading blanks,
/// then leading tabs, are dropped from every line; a line that then begins with "#" is a comment
/// (";" is not). The header line counts as the first line of its section.
class iniConfig {
 public:
  /// Stores the path only; a file that cannot be opened causes an error at the first lookup.
  explicit iniConfig(std::string path);

  /// The text after the first "=" of the first line of `section` that contains `key` anywhere,
  /// exactly as written: blanks and a carriage return stay. "" when there is no such line, or no
  /// "=" in it. Throws FileException when the file cannot be opened.
  std::string getKey(const std::string& section, const std::string& key) const;

  /// getKey read as a decimal int: leading blanks skipped, the rest from the first non-digit on
  /// ignored, 0 without a number. Throws as getKey does.
  int getKeyToInt(const std::string& section, const std::string& key) const;

  /// Every line of `section`, split at its first "=" into name and value. The map belongs to this
  /// object, lives as long as it and is never emptied: the values of a later call are added and
  /// replace earlier ones of the same name. Throws FileException when the file cannot be opened.
  std::map<std::string, std::string>& getSection(const std::string& section);

 private:
  /// Calls `visit` with each line of `section`, comments left out, until it returns false. Throws
  /// FileException with `openError` and the path when the file cannot be opened.
  void scanSection(const std::string& section, const char* openError,
                   const std::function<bool(const std::string& line)>& visit) const;

  std::string fileName;  // constant after construction
  std::map<std::string, std::string> sectionValues;
};

// For these three, whitespace is blank, newline, carriage return, tab, form feed and vertical tab.

/// `s` without its trailing whitespace.
std::string rtrim(const std::string& s);
/// `s` without its leading whitespace.
std::string ltrim(const std::string& s);
/// `s` without whitespace at either end.
std::string trim(const std::string& s);
