#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "ctl/declared/definition.h"
#include "ctl/declared/mistakes.h"

/// A task that an import has made from a line or an object.
struct ImportedTask {
  std::string key;
  Definition definition;
};

/// Collects the tasks of an import, and what is to be said about it. Owned by one thread.
class Import {
 public:
  /// Adds a task with the key "PREFIX/WORD", or "PREFIX/WORD-2" when that is taken. Returns the
  /// key. Throws Failure (kRefused) when there are more than 100,000 tasks.
  std::string add(const std::string& prefix, const std::string& word, Definition definition);

  /// A line that is not translated, or not in full: `sentence` says why. Throws Failure (kRefused)
  /// when there are more than 100,000: a file of another format.
  void leaveOut(const Place& place, const std::string& sentence);

  /// What the operator should know about the translation.
  void note(const Place& place, const std::string& sentence);

  /// Prints both to standard error, in the order in which they came: "FILE:LINE: SENTENCE". A last
  /// line has the numbers of tasks and of lines that were left out.
  void printReport() const;

  const std::vector<ImportedTask>& tasks() const { return imported; }
  long leftOut() const { return leftOutLines; }

 private:
  std::vector<ImportedTask> imported;
  std::unordered_map<std::string, int> uses;  // of each key
  std::vector<std::string> sentences;
  long leftOutLines = 0;
};
