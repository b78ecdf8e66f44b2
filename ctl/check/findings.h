#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include <json/json.h>

/// The findings of a check, in the order in which they were added: the first thousand, and the
/// first thousand tasks of each; further ones are counted. Owned by one thread.
class Findings {
 public:
  enum class Severity { kWarning, kError };

  void addError(const std::string& text) { add(Severity::kError, text); }
  void addWarning(const std::string& text) { add(Severity::kWarning, text); }
  // The same about a task: findings with the same text become one line that names the tasks.
  void addError(const std::string& text, int task) { add(Severity::kError, text, task); }
  void addWarning(const std::string& text, int task) { add(Severity::kWarning, text, task); }

  /// 0 without findings, 1 with warnings only, 2 with errors.
  int exitCode() const;

  /// One line for each finding, errors first; one line that says so without findings.
  void print() const;
  Json::Value toJson() const;

 private:
  struct Finding {
    Severity severity;
    std::string text;
    std::vector<int> tasks;  // the first of them
    std::size_t taskCount = 0;
  };

  void add(Severity severity, const std::string& text);
  void add(Severity severity, const std::string& text, int task);
  static std::string prefixOf(const Finding& finding);
  /// Null for one too many, which is counted.
  Finding* findingFor(Severity severity, const std::string& text);
  long countOf(Severity severity) const;

  std::vector<Finding> all;
  long furtherErrors = 0, furtherWarnings = 0;  // about tasks, beyond the first thousand findings
  std::unordered_map<std::string, std::size_t> places;  // of each text in `all`
};
