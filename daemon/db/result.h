#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include <libpq-fe.h>

/// A statement's result, cleared on destruction.
struct ResultClearer {
  void operator()(PGresult* result) const { PQclear(result); }
};
using ResultPtr = std::unique_ptr<PGresult, ResultClearer>;

/// The text of a cell; "" for SQL NULL. Throws std::logic_error, which names `what`, when the
/// result has no such row: a RETURNING statement found its row deleted.
inline std::string cellText(const ResultPtr& result, int row, int column, const char* what) {
  if (row >= PQntuples(result.get())) {
    throw std::logic_error(std::string(what) +
                           " returned no row: the task's row was deleted meanwhile");
  }
  return PQgetvalue(result.get(), row, column);
}
