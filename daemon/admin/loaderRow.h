#pragma once

#include <memory>
#include <string>

#include "db/result.h"

class serviceCron;

/// A row of the task query, read by column index. Must not outlive the result.
class LoaderRow {
 public:
  LoaderRow(const ResultPtr& rows, int index) : result(rows), row(index) {}

  /// The task's id. Throws std::invalid_argument or std::out_of_range when it is not a number.
  int id() const { return number(kId); }

  /// The text of the retry interval's column, "" for SQL NULL.
  std::string retriesInterval() const { return text(kRetriesInterval); }

  /// The task that the row defines, its next time brought out of the past in the database. Throws
  /// what the conversions, the record and the catch-up throw.
  std::shared_ptr<serviceCron> makeTask() const;

 private:
  enum Column {
    kId = 0,
    kName = 1,
    kInterval = 3,
    kNextExec = 6,
    kLogFile = 7,
    kRetries = 8,
    kRetriesInterval = 9,
    kPath = 10,
    kParameter = 11
  };

  std::string text(Column column) const;
  int number(Column column) const { return std::stoi(text(column)); }

  const ResultPtr& result;
  int row;
};
