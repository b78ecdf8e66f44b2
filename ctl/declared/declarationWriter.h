#pragma once

#include <string>

#include "ctl/declared/definition.h"

/// Writes tasks one by one to standard output as koductl apply reads them: as YAML, or as JSON,
/// which is YAML with more brackets. Owned by one thread.
class DeclarationWriter {
 public:
  /// `set` "": the file names none.
  DeclarationWriter(const std::string& set, bool isJson);

  /// The settings in the order of kSettings; all texts are UTF-8. Parameters are written as a list
  /// of arguments where one means exactly them.
  void write(const std::string& key, const Definition& definition);

  /// Call it once, after the last task.
  void end() const;

 private:
  const bool asJson;
  long count = 0;
};
