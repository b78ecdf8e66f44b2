#pragma once

#include <string>

#include "db/PostgresqlException.h"
#include "db/result.h"

/// The text of the PostgresqlException that `call` throws.
template <typename Call>
std::string failureOf(const Call& call) {
  try {
    call();
  } catch (const PostgresqlException& e) {
    return e.what();
  }
  return "nothing was thrown";
}

/// The first cell of a result, which is cleared.
inline std::string valueOf(PGresult* owned) {
  const ResultPtr result(owned);
  return cellText(result, 0, 0, "the test's statement");
}
