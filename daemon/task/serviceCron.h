#pragma once

#include <string>

#include "task/serviceSafe.h"

/// A task with the name of its output file. Held through std::shared_ptr; a record is referenced by
/// the task map and by a queue or a worker at the same time.
class serviceCron : public serviceSafe {
 public:
  serviceCron() = default;
  /// Copies the record; the file name is empty.
  explicit serviceCron(const serviceSafe& other);
  /// Copies the record and its file name.
  serviceCron(const serviceCron& other);
  ~serviceCron() override = default;
  serviceCron& operator=(const serviceCron&) = delete;

  // Neither takes the lock: the loader sets the name before the task is shared.

  /// The output file's name, below log_directory, with its placeholders.
  std::string GetFilename() const { return filename; }
  void SetFilename(std::string text);

 private:
  std::string filename;  // constant once the task is shared
};
