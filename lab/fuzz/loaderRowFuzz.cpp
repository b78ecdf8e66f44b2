// A row of the task query: the used columns in their order, separated by newlines.

#include <array>
#include <exception>

#include <libpq-fe.h>

#include "admin/loaderRow.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "lab/fuzz/fuzz.h"
#include "sched/nextTime.h"
#include "task/serviceCron.h"

// In place of the daemon's own, which would ask a database.
long long getNextTimeToExec(std::string nextExecText, unsigned int interval,
                            std::string /*taskId*/) {
  check(interval != 0, "an interval of 0 has been refused before");
  return std::stoll(nextExecText);
}

namespace {

constexpr int kColumns = 12;
constexpr std::array<int, 9> kUsedColumns = {0, 1, 3, 6, 7, 8, 9, 10, 11};

ResultPtr rowOf(const std::vector<std::string>& fields) {
  std::array<PGresAttDesc, kColumns> columns{};
  for (PGresAttDesc& column : columns) {
    static std::array<char, 2> name = {'c', '\0'};
    column.name = name.data();
  }
  ResultPtr result(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
  PQsetResultAttrs(result.get(), kColumns, columns.data());
  for (int column = 0; column < kColumns; ++column) {
    PQsetvalue(result.get(), 0, column, nullptr, -1);  // SQL NULL
  }
  for (std::size_t i = 0; i < fields.size(); ++i) {
    std::string text = fields[i].substr(0, fields[i].find('\0'));
    PQsetvalue(result.get(), 0, kUsedColumns.at(i), text.data(), static_cast<int>(text.size()));
  }
  return result;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static logFile log(3, "/dev/null");
  fileLog = &log;
  const ResultPtr result = rowOf(fieldsOf(textOf(data, size), kUsedColumns.size()));
  const LoaderRow row(result, 0);
  try {
    const auto task = row.makeTask();
    check(task->Getinterval_exec_time() != 0, "a task has an interval");
    check(task->GetService_idStr() == std::to_string(task->GetService_id()), "both ids agree");
  } catch (const std::exception&) {
    // The loader logs the row and goes on.
  }
  return 0;
}
